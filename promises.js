'use strict';
// Promises and async iteration over the callback API: require('kwnode/promises').
// Node 8 and later (never loaded by the callback API itself, so Node 6 never
// parses it). Written over KWNodeClient without changing it; what the
// callback API never answers is answered here at hand-over, as documented in
// docs/api.md.
const EventEmitter = require('events');
const kwnode = require('./index');

const { KWNodeClient, KWNodeMessage, EventCode, ConnectionState, QoS } = kwnode;
const { CONNECTED, FAILED } = ConnectionState;
const { GUARANTEED } = QoS;
const { CONNECTION_STATE, RUNTIME_ERROR } = EventCode;

// The library's own guaranteed-publish window is 255 messages; beyond it a
// send would wait inside the native call.
const DEFAULT_MAX_IN_FLIGHT = 255;
const DEFAULT_MAX_QUEUED = 1024;
const DEFAULT_HIGH_WATER_MARK = 1024;
// Sends handed to the native client per turn of the event loop when a
// backlog is flushed, so a long backlog never holds the loop.
const FLUSH_BATCH = 64;

function layerError(code, message, extra) {
  const err = new Error(message);
  err.code = code;
  return Object.assign(err, extra);
}

function abortError(signal) {
  const err = layerError('ABORT_ERR', 'The operation was aborted');
  err.name = 'AbortError';
  if (signal && signal.reason !== undefined) err.cause = signal.reason;
  return err;
}

function count(value, fallback, name) {
  if (value === undefined) return fallback;
  if (!Number.isInteger(value) || value < 0) {
    throw new TypeError(`kwnode: ${name} must be a non-negative integer`);
  }
  return value;
}

function qosOf(options) {
  return options && options.qos === GUARANTEED ? GUARANTEED : 1;
}

function keyOf(topic, qos) {
  return (qos === GUARANTEED ? 'queue:' : 'topic:') + topic;
}

// The native publish takes an ArrayBuffer of any realm (a vm context's too),
// where instanceof sees only this one's.
function isArrayBuffer(value) {
  return Object.prototype.toString.call(value) === '[object ArrayBuffer]';
}

// The largest delay setTimeout keeps; a longer one would fire at once.
const TIMEOUT_MAX = 2147483647;

// The options' signal, checked so that a wrong one fails with a clear text
// rather than with what it breaks.
function signalOf(options) {
  const signal = options ? options.signal : undefined;
  if (signal && typeof signal.addEventListener !== 'function') {
    throw new TypeError('kwnode: signal must be an AbortSignal');
  }
  return signal || undefined;
}

// The waits sharing a signal share one 'abort' listener on it: Node warns of
// a leak past 10 listeners, and one signal may bound any number of sends.
const onAborts = new WeakMap();
// Calls onAbort when the signal aborts; returns the function that stops that.
function whenAborted(signal, onAbort) {
  let calls = onAborts.get(signal);
  if (!calls) {
    calls = new Set();
    const listener = () => {
      onAborts.delete(signal);
      for (const call of calls) call();
    };
    onAborts.set(signal, calls);
    signal.addEventListener('abort', listener, { once: true });
    calls.listener = listener;
  }
  calls.add(onAbort);
  return () => {
    calls.delete(onAbort);
    if (calls.size === 0 && onAborts.get(signal) === calls) {
      onAborts.delete(signal);
      signal.removeEventListener('abort', calls.listener);
    }
  };
}

// A promise that the executor settles through ctl.resolve / ctl.reject, or
// that the options' signal (abort) or timeout (milliseconds) rejects first;
// ctl.onCancel then undoes what the executor started and ctl.cleanup runs on
// every outcome.
function settleOnce(options, executor) {
  return new Promise((resolve, reject) => {
    const signal = signalOf(options);
    const timeout = options ? options.timeout : undefined;
    if (timeout != null && !(typeof timeout === 'number' && timeout >= 0 && timeout <= TIMEOUT_MAX)) {
      throw new TypeError(`kwnode: timeout must be a number of milliseconds from 0 to ${TIMEOUT_MAX}`);
    }
    if (signal && signal.aborted) {
      reject(abortError(signal));
      return;
    }
    let settled = false;
    let timer = null;
    let stopAbort = null;
    const ctl = { onCancel: null, cleanup: null };
    const finish = (settle, value) => {
      if (settled) return false;
      settled = true;
      if (timer) clearTimeout(timer);
      if (stopAbort) stopAbort();
      if (ctl.cleanup) ctl.cleanup();
      settle(value);
      return true;
    };
    const cancel = (err) => {
      if (finish(reject, err) && ctl.onCancel) ctl.onCancel(err);
    };
    ctl.resolve = (value) => finish(resolve, value);
    ctl.reject = (err) => finish(reject, err);
    ctl.settled = () => settled;
    if (signal) stopAbort = whenAborted(signal, () => cancel(abortError(signal)));
    if (timeout != null) {
      timer = setTimeout(() => cancel(layerError('ERR_KWNODE_TIMEOUT',
        `kwnode: no answer within ${timeout} ms`)), timeout);
    }
    try {
      executor(ctl);
    } catch (err) {
      ctl.reject(err);
    }
  });
}

// How an iterator's end, an overflow or an abort ends a subscription.
const STOP = { unsubscribe: true, discard: true };

// One subscription made through the layer. Without a handler its messages
// are buffered (at most highWaterMark) for one async iterator.
class Subscription {
  constructor(client, topic, qos, handler, options) {
    this.client = client;
    this.topic = topic;
    this.qos = qos;
    this.confirmed = false;
    this.highWaterMark = count(options.highWaterMark, DEFAULT_HIGH_WATER_MARK, 'highWaterMark') || 1;
    this._handler = handler;
    this._buffer = [];
    this._waiters = [];
    this._ended = false;
    this._error = null;
    this._iterated = false;
    // A topic subscribe not yet answered: settles it with an error.
    this._refuse = null;
    this.closed = new Promise((resolve, reject) => {
      this._closed = { resolve, reject };
    });
    // Observed through the iterator or by the script; never an unhandled rejection.
    this.closed.catch(() => {});
  }

  get buffered() {
    return this._buffer.length;
  }

  // Once ended (break, overflow, abort, failure) there is nothing to undo.
  unsubscribe(options) {
    if (this._ended) return Promise.resolve();
    return this.client.unsubscribe(this.topic, Object.assign({}, options, { qos: this.qos }));
  }

  messages(options) {
    if (this._handler) {
      throw new TypeError('kwnode: this subscription delivers to its handler, not to an iterator');
    }
    if (this._iterated) throw new TypeError('kwnode: a subscription has one iterator');
    const signal = signalOf(options);
    this._iterated = true;
    if (signal) {
      const onAbort = () => this._end(abortError(signal), STOP);
      if (signal.aborted) {
        onAbort();
      } else {
        const stopAbort = whenAborted(signal, onAbort);
        this.closed.then(stopAbort, stopAbort);
      }
    }
    const iterator = {
      next: () => this._next(),
      return: () => {
        this._end(null, STOP);
        return Promise.resolve({ value: undefined, done: true });
      }
    };
    if (Symbol.asyncIterator) iterator[Symbol.asyncIterator] = () => iterator;
    return iterator;
  }

  _next() {
    if (this._buffer.length) return Promise.resolve({ value: this._buffer.shift(), done: false });
    if (this._error) {
      const err = this._error;
      this._error = null;
      return Promise.reject(err);
    }
    if (this._ended) return Promise.resolve({ value: undefined, done: true });
    return new Promise((resolve, reject) => this._waiters.push({ resolve, reject }));
  }

  _deliver(message) {
    // After the end, queue messages stay unacknowledged and come back later.
    if (this._ended) return;
    if (this._handler) {
      this._handler(message);
      return;
    }
    if (this._waiters.length) {
      this._waiters.shift().resolve({ value: message, done: false });
      return;
    }
    if (this._buffer.length < this.highWaterMark) {
      this._buffer.push(message);
      return;
    }
    const dropped = this._buffer.length + 1;
    this._end(layerError('ERR_KWNODE_OVERFLOW',
      `kwnode: the consumer of "${this.topic}" is slower than the broker: ${dropped} messages ` +
      `overflowed a buffer of ${this.highWaterMark} and were dropped; the subscription has ended`,
    { dropped }), STOP);
  }

  // Ends the subscription once: err (or null) settles closed and the
  // iterator. how.unsubscribe also asks the broker (how.quiet: ignoring its
  // answer); how.discard drops the buffer (a queue's unacknowledged messages
  // go back to the queue).
  _end(err, how) {
    if (this._ended) return;
    this._ended = true;
    if (how.discard) this._buffer = [];
    this.client._forget(this);
    if (how.unsubscribe) this.client._unsubscribeNative(this.topic, this.qos, null, how.quiet);
    if (err) {
      this._closed.reject(err);
      if (this._waiters.length) this._waiters.shift().reject(err);
      else this._error = err;
    } else {
      this._closed.resolve();
    }
    for (const waiter of this._waiters.splice(0)) waiter.resolve({ value: undefined, done: true });
  }
}

if (Symbol.asyncIterator) {
  Subscription.prototype[Symbol.asyncIterator] = function () {
    return this.messages();
  };
}

class Client extends EventEmitter {
  constructor(destinationId, destinationType, connectionData, options) {
    super();
    options = options || {};
    this.maxInFlight = count(options.maxInFlight, DEFAULT_MAX_IN_FLIGHT, 'maxInFlight') || 1;
    this.maxQueued = count(options.maxQueued, DEFAULT_MAX_QUEUED, 'maxQueued');
    this._inFlight = 0;
    this._queue = [];
    this._flushing = false;
    this._flushScheduled = false;
    this._connectWaiters = new Set();
    this._subscriptions = new Map();
    this.native = new KWNodeClient(destinationId, destinationType, connectionData,
      (event) => this._onEvent(event));
  }

  get state() {
    return this.native.getConnectionState();
  }

  // Guaranteed sends handed to the native client and not yet answered.
  get inFlight() {
    return this._inFlight;
  }

  // Sends waiting in this layer for the connection or for a free slot.
  get queued() {
    return this._queue.length;
  }

  connect(options) {
    return settleOnce(options, (ctl) => {
      if (this.state === CONNECTED) {
        ctl.resolve();
        return;
      }
      this._connectWaiters.add(ctl);
      ctl.cleanup = () => this._connectWaiters.delete(ctl);
      this.native.connect();
    });
  }

  async disconnect() {
    this.native.disconnect();
    this._connectionLost();
    const err = layerError('ERR_KWNODE_DISCONNECTED', 'kwnode: the client was disconnected');
    this._failWaiting(err);
  }

  publish(topic, payload, options) {
    if (typeof payload !== 'string' && !ArrayBuffer.isView(payload) && !isArrayBuffer(payload)) {
      return Promise.reject(new TypeError('kwnode: a payload is a string, an ArrayBuffer or a view of one'));
    }
    const qos = qosOf(options);
    return this._send(options, qos, (done) => this.native.publish(topic, qos, payload, done));
  }

  forward(topic, message, options) {
    if (!(message instanceof KWNodeMessage)) {
      return Promise.reject(new TypeError('kwnode: only a received KWNodeMessage can be forwarded'));
    }
    const qos = qosOf(options);
    return this._send(options, qos, (done) => this.native.forward(topic, qos, message, done));
  }

  subscribe(topic, handler, options) {
    if (typeof handler !== 'function') {
      if (options === undefined) options = handler;
      handler = null;
    }
    options = options || {};
    const qos = qosOf(options);
    topic = String(topic);
    const key = keyOf(topic, qos);
    if (this._subscriptions.has(key)) {
      // The native client would never answer a second subscribe of a name.
      return Promise.reject(layerError('ERR_KWNODE_ALREADY_SUBSCRIBED',
        `kwnode: "${topic}" is already subscribed with qos ${qos}`));
    }
    let subscription;
    try {
      subscription = new Subscription(this, topic, qos, handler, options);
    } catch (err) {
      return Promise.reject(err);
    }
    return settleOnce(options, (ctl) => {
      this._subscriptions.set(key, subscription);
      ctl.onCancel = () => subscription._end(null, STOP);
      const done = (err) => {
        if (qos === GUARANTEED) {
          // Only failures are answered; a null answer means the flow was
          // created but could not be started.
          err = err || layerError('ERR_KWNODE_FLOW_START',
            `kwnode: the flow of queue "${topic}" was bound but could not be started`);
        }
        if (ctl.settled() && !err) return;
        subscription._refuse = null;
        if (err) {
          // The native client keeps a failed name: remove it so it can be retried.
          subscription._end(err, { unsubscribe: true, quiet: true });
          ctl.reject(err);
        } else {
          subscription.confirmed = true;
          ctl.resolve(subscription);
        }
      };
      if (qos !== GUARANTEED) subscription._refuse = done;
      try {
        this.native.subscribe(topic, qos, (message) => subscription._deliver(message), done);
      } catch (err) {
        this._forget(subscription);
        throw err;
      }
      if (qos === GUARANTEED) ctl.resolve(subscription);
    });
  }

  unsubscribe(topic, options) {
    const qos = qosOf(options);
    topic = String(topic);
    const subscription = this._subscriptions.get(keyOf(topic, qos));
    if (!subscription) {
      // The native client would never answer for a name it does not hold.
      return Promise.reject(layerError('ERR_KWNODE_NOT_SUBSCRIBED',
        `kwnode: "${topic}" is not subscribed with qos ${qos}`));
    }
    return settleOnce(options, (ctl) => {
      subscription._end(null, {});
      this._unsubscribeNative(topic, qos, ctl);
      // A queue's unsubscribe is answered only when it fails.
      if (qos === GUARANTEED) ctl.resolve();
    });
  }

  // Unsubscribes at the native client; an answer that ctl can no longer
  // take is emitted as 'requestError'.
  _unsubscribeNative(topic, qos, ctl, quiet) {
    const done = (err) => {
      if (quiet) return;
      if (qos === GUARANTEED && !err) {
        err = layerError('ERR_KWNODE_FLOW_STOP', `kwnode: the flow of queue "${topic}" could not be destroyed`);
      }
      if (ctl && !ctl.settled()) {
        if (err) ctl.reject(err);
        else ctl.resolve();
      } else if (err) {
        this.emit('requestError', err, { topic, qos });
      }
    };
    try {
      this.native.unsubscribe(topic, qos, done);
    } catch (err) {
      done(err);
    }
  }

  _forget(subscription) {
    const key = keyOf(subscription.topic, subscription.qos);
    if (this._subscriptions.get(key) === subscription) this._subscriptions.delete(key);
  }

  _onEvent(event) {
    const code = event.eventCode();
    const subCode = event.eventSubCode();
    if (code === CONNECTION_STATE) {
      if (subCode === CONNECTED) {
        for (const waiter of Array.from(this._connectWaiters)) waiter.resolve();
        this._flush();
      } else {
        this._connectionLost();
        if (subCode === FAILED) {
          const err = layerError('ERR_KWNODE_CONNECT_FAILED', 'kwnode: the connection failed');
          this._failWaiting(err);
          // Nor are the topic subscribes waiting for it ever answered.
          for (const subscription of Array.from(this._subscriptions.values())) {
            if (subscription._refuse) subscription._refuse(err);
          }
        }
      }
      this.emit('state', subCode);
    } else if (code === RUNTIME_ERROR) {
      this.emit('runtimeError', event.what(), subCode);
    }
    this.emit('event', event);
  }

  // The connection is gone: a queue's buffered copies are unacknowledged and
  // the broker hands them out again on the next connect, so kept they would
  // count twice against highWaterMark. Messages already taken stay valid;
  // acknowledging one then does nothing.
  _connectionLost() {
    for (const subscription of this._subscriptions.values()) {
      if (subscription.qos === GUARANTEED) subscription._buffer = [];
    }
  }

  _failWaiting(err) {
    for (const waiter of Array.from(this._connectWaiters)) waiter.reject(err);
    for (const entry of this._queue.splice(0)) entry.ctl.reject(err);
  }

  _canSend(qos) {
    return this.state === CONNECTED && (qos !== GUARANTEED || this._inFlight < this.maxInFlight);
  }

  // Sends now when nothing waits and the state allows, else queues the send
  // in order, or refuses it at once when the queue is full.
  _send(options, qos, call) {
    return settleOnce(options, (ctl) => {
      const entry = { qos, call, ctl };
      if (this._queue.length === 0 && this._canSend(qos)) {
        this._dispatch(entry);
        return;
      }
      if (this._queue.length >= this.maxQueued) {
        ctl.reject(layerError('ERR_KWNODE_QUEUE_FULL',
          `kwnode: ${this._queue.length} sends are already waiting for the connection or for answers`));
        return;
      }
      this._queue.push(entry);
      // Aborted while waiting: never sent. Aborted later: sent all the same.
      ctl.onCancel = () => {
        const index = this._queue.indexOf(entry);
        if (index >= 0) this._queue.splice(index, 1);
      };
    });
  }

  _dispatch(entry) {
    const guaranteed = entry.qos === GUARANTEED;
    if (guaranteed) this._inFlight++;
    let answered = false;
    const done = (err) => {
      // The native client may report a request twice; count it once.
      if (answered) return;
      answered = true;
      if (err) entry.ctl.reject(err);
      else entry.ctl.resolve();
      if (guaranteed) {
        this._inFlight--;
        this._flush();
      }
    };
    try {
      entry.call(done);
    } catch (err) {
      done(err);
    }
  }

  _flush() {
    if (this._flushing) return;
    this._flushing = true;
    let sent = 0;
    while (this._queue.length && this._canSend(this._queue[0].qos)) {
      if (sent++ === FLUSH_BATCH) {
        if (!this._flushScheduled) {
          this._flushScheduled = true;
          setImmediate(() => {
            this._flushScheduled = false;
            this._flush();
          });
        }
        break;
      }
      this._dispatch(this._queue.shift());
    }
    this._flushing = false;
  }
}

// A client of the layer, resolved once connected.
// One that gives up (time-out, abort, failure) is disconnected, or the
// library would go on retrying and bring up a client no one can reach.
async function connect(destinationId, destinationType, connectionData, options) {
  const client = new Client(destinationId, destinationType, connectionData, options);
  try {
    await client.connect(options);
  } catch (err) {
    await client.disconnect();
    throw err;
  }
  return client;
}

// Local names, so that an ES module import finds each as a named export.
module.exports = { Client, Subscription, connect, EventCode, ConnectionState, QoS };
