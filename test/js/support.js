'use strict';
// Clients on the stand-in broker for the end-to-end tests.
var harness = require('./harness');
var KWNodeClient = harness.kwnode().KWNodeClient;

var counter = 0;

// A name no other test of the process uses.
exports.unique = function (prefix) {
  counter++;
  return prefix + '-' + process.pid + '-' + counter;
};

// Resolves with { client, events } once the client reports state 3; events
// collects [eventCode, eventSubCode, what] of every event.
exports.connected = function (id, vpn) {
  var events = [];
  var client = new KWNodeClient(id || exports.unique('client'), 'SOLACE',
    { host: 'localhost', port: 55555, vpn: vpn || 'default' },
    function (ev) { events.push([ev.eventCode(), ev.eventSubCode(), ev.what()]); });
  client.connect();
  return harness.waitFor(function () { return client.getConnectionState() === 3; }, 'connection')
    .then(function () { return { client: client, events: events }; });
};

exports.completion = harness.completion;

// The queues the suites use; ctest and the scripts provision them through
// SOLCLIENT_EMULATOR_QUEUES.
exports.QUEUES = ['kw.q1', 'kw.q2', 'kw.burst', 'kw.memory'];
