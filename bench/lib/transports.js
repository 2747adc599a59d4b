'use strict';
// The three systems behind one small interface (see driver.js): kwnode on the
// stand-in broker, a pure-JavaScript EventEmitter baseline and zeromq inproc
// PUB/SUB. Each open() returns a ready transport: connected, subscribed and
// with a first message seen end to end, so that no measurement pays for set-up
// or for a subscription that is still propagating.

const { EventEmitter } = require('events');
const { yieldMacrotask } = require('./driver');

const DIRECT_TOPIC = 'bench/direct/t';
const DIRECT_SUBSCRIPTION = 'bench/direct/>';

function withTimeout(promise, ms, what) {
  let timer;
  const guard = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${what}: no answer within ${ms} ms`)), ms);
  });
  return Promise.race([promise, guard]).finally(() => clearTimeout(timer));
}

// Publishes small probes until one is delivered, then lets stragglers drain.
async function handshake(transport, timeoutMs = 5000) {
  let seen = 0;
  transport.onMessage = () => {
    seen++;
  };
  const probe = Buffer.alloc(8);
  const deadline = Date.now() + timeoutMs;
  while (seen === 0) {
    if (Date.now() > deadline) throw new Error(`${transport.name}: no message came back during set-up`);
    const p = transport.publish(probe);
    if (p) await p;
    await new Promise((resolve) => setTimeout(resolve, 5));
  }
  await new Promise((resolve) => setTimeout(resolve, 50));
  transport.onMessage = () => {};
}

// ---- kwnode ---------------------------------------------------------------------

const CONNECTION = { host: 'localhost', port: 55555, vpn: 'default', user: 'bench', password: 'bench' };

// Connects a client and resolves once the state event "connected" arrives.
function connectKwnode(KWNodeClient, id, onRuntimeError) {
  return new Promise((resolve, reject) => {
    let settled = false;
    const client = new KWNodeClient(id, 'SOLACE', CONNECTION, (ev) => {
      if (ev.eventCode() === 1) {
        const state = ev.eventSubCode();
        if (state === 3 && !settled) {
          settled = true;
          resolve(client);
        } else if (state === 4 && !settled) {
          settled = true;
          reject(new Error(`${id}: connection failed`));
        }
      } else if (ev.eventCode() === 2 && onRuntimeError) {
        onRuntimeError(ev.what(), ev.eventSubCode());
      }
    });
    client.connect();
  });
}

// Node-style completion callback as a promise.
function completion(start) {
  return new Promise((resolve, reject) => {
    start((err) => (err ? reject(err) : resolve()));
  });
}

async function openKwnode(mod) {
  const runtimeErrors = [];
  const onError = (text, code) => runtimeErrors.push(`${code}: ${text}`);
  const pub = await withTimeout(connectKwnode(mod.KWNodeClient, 'bench-pub', onError), 10000, 'kwnode connect');
  const sub = await withTimeout(connectKwnode(mod.KWNodeClient, 'bench-sub', onError), 10000, 'kwnode connect');
  const transport = {
    name: 'kwnode',
    onMessage: () => {},
    publish: (buf) => {
      pub.publish(DIRECT_TOPIC, buf);
    },
    runtimeErrors,
    close() {
      sub.unsubscribe(DIRECT_SUBSCRIPTION);
      pub.disconnect();
      sub.disconnect();
    },
  };
  // The payload accessor is part of the delivery cost: every handler that
  // wants the bytes calls it.
  await withTimeout(
    completion((done) => sub.subscribe(DIRECT_SUBSCRIPTION, (msg) => transport.onMessage(msg.payload()), done)),
    10000,
    'kwnode subscribe',
  );
  await handshake(transport);
  return transport;
}

// ---- EventEmitter baseline --------------------------------------------------------

// Delivery into JavaScript with no native code and no thread hop: a Buffer
// copy handed synchronously to the listener. Nothing that crosses from a
// native thread can beat it.
async function openBaseline() {
  const ee = new EventEmitter();
  const transport = {
    name: 'baseline',
    onMessage: () => {},
    publish: (buf) => {
      ee.emit('message', Buffer.from(buf));
    },
    close() {
      ee.removeAllListeners();
    },
  };
  ee.on('message', (buf) => transport.onMessage(buf));
  await handshake(transport);
  return transport;
}

// ---- zeromq ---------------------------------------------------------------------

let inprocCounter = 0;

// inproc PUB/SUB with a topic frame and a payload frame, like a topic message.
// zeromq allows one send in flight per socket, so publish returns the send's
// promise and the driver awaits it.
async function openZeromq(zmq) {
  const address = `inproc://kwbench-${process.pid}-${inprocCounter++}`;
  const pub = new zmq.Publisher();
  const sub = new zmq.Subscriber();
  await pub.bind(address);
  sub.connect(address);
  sub.subscribe('bench/direct/');
  const topic = Buffer.from(DIRECT_TOPIC);
  const transport = {
    name: 'zeromq',
    onMessage: () => {},
    publish: (buf) => pub.send([topic, buf]),
    close() {
      sub.close();
      pub.close();
    },
  };
  (async () => {
    try {
      for await (const [, payload] of sub) transport.onMessage(payload);
    } catch (err) {
      // Closing the socket ends the iteration with an error; nothing to report.
    }
  })();
  await yieldMacrotask();
  await handshake(transport);
  return transport;
}

module.exports = {
  openKwnode,
  openBaseline,
  openZeromq,
  connectKwnode,
  completion,
  withTimeout,
  handshake,
  CONNECTION,
};
