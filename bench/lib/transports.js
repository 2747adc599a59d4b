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
const CONNECTION = { host: 'localhost', port: 55555, vpn: 'default', user: 'bench', password: 'bench' };
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

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
  transport.onMessage = () => seen++;
  const probe = Buffer.alloc(8);
  const deadline = Date.now() + timeoutMs;
  while (seen === 0) {
    if (Date.now() > deadline) throw new Error(`${transport.name}: no message came back during set-up`);
    const p = transport.publish(probe);
    if (p) await p;
    await sleep(5);
  }
  await sleep(50);
  transport.onMessage = () => {};
}

// A kwnode client, resolved once its state event says connected (within 10 s).
function connectKwnode(KWNodeClient, id) {
  return withTimeout(new Promise((resolve, reject) => {
    const client = new KWNodeClient(id, 'SOLACE', CONNECTION, (ev) => {
      if (ev.eventCode() !== 1) return;
      if (ev.eventSubCode() === 3) resolve(client);
      else if (ev.eventSubCode() === 4) reject(new Error(`${id}: connection failed`));
    });
    client.connect();
  }), 10000, `${id} connect`);
}

async function openKwnode(mod) {
  const pub = await connectKwnode(mod.KWNodeClient, 'bench-pub');
  const sub = await connectKwnode(mod.KWNodeClient, 'bench-sub');
  const transport = {
    name: 'kwnode',
    onMessage: () => {},
    publish: (buf) => pub.publish(DIRECT_TOPIC, buf),
    close() {
      sub.unsubscribe(DIRECT_SUBSCRIPTION);
      pub.disconnect();
      sub.disconnect();
    },
  };
  // The payload accessor is part of the delivery cost: every handler that
  // wants the bytes calls it.
  const subscribed = new Promise((resolve, reject) =>
    sub.subscribe(DIRECT_SUBSCRIPTION, (msg) => transport.onMessage(msg.payload()), (err) => (err ? reject(err) : resolve())));
  await withTimeout(subscribed, 10000, 'kwnode subscribe');
  await handshake(transport);
  return transport;
}

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
    close: () => ee.removeAllListeners(),
  };
  ee.on('message', (buf) => transport.onMessage(buf));
  await handshake(transport);
  return transport;
}

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

module.exports = { openKwnode, openBaseline, openZeromq, connectKwnode };
