'use strict';
// Named values of the numbers the callback API uses (plain data; the native
// classes are unchanged).
module.exports = {
  // KWNodeEvent#eventCode()
  EventCode: Object.freeze({ CONNECTION_STATE: 1, RUNTIME_ERROR: 2 }),
  // KWNodeClient#getConnectionState() and eventSubCode() of a connection-state event
  ConnectionState: Object.freeze({ DISCONNECTED: 1, CONNECTING: 2, CONNECTED: 3, FAILED: 4 }),
  // The qos argument and KWNodeMessage#qos()
  QoS: Object.freeze({ AT_MOST_ONCE: 1, GUARANTEED: 2 })
};
