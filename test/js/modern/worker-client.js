'use strict';
// A Worker holding its own client on the stand-in broker: subscribes to the
// topics it is given, reports to its parent the events and messages it
// receives (or, with quiet, only the first message), and publishes what the
// parent asks it to.
const { parentPort, workerData } = require('worker_threads');
const { KWNodeClient } = require(workerData.root);

let received = 0;
const client = new KWNodeClient(workerData.id, 'SOLACE', { host: 'localhost', port: 55555, vpn: workerData.vpn },
  (ev) => parentPort.postMessage({ event: [ev.eventCode(), ev.eventSubCode()] }));
client.connect();

function onMessage(m) {
  if (!workerData.quiet) parentPort.postMessage({ topic: m.topic(), payload: m.payload().toString() });
  else if (++received === 1) parentPort.postMessage({ first: m.topic() });
}

const timer = setInterval(() => {
  if (client.getConnectionState() !== 3) return;
  clearInterval(timer);
  Promise.all(workerData.topics.map((t) => new Promise((resolve) => client.subscribe(t, onMessage, resolve))))
    .then((outcomes) => parentPort.postMessage({ ready: outcomes }));
}, 5);

parentPort.on('message', (msg) => msg.publish.forEach(([topic, payload]) => client.publish(topic, payload)));
