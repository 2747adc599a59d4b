'use strict';
// Async iteration with back-pressure. A queue consumer slower than its
// producer is paused by the broker: a flow carries at most 255
// unacknowledged messages, so the iterator's buffer stays bounded. A topic
// cannot be paused: when its buffer overflows the iteration fails loudly.
// Run (from the repository root):
//   LD_LIBRARY_PATH=build/emulator SOLCLIENT_EMULATOR_QUEUES=jobs node examples/async-iteration.js
const { connect } = require('../promises');

const HOST = { host: 'localhost', port: 55555, vpn: 'examples' };
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

async function slowQueueConsumer(client) {
  const total = 1000;
  const sends = [];
  for (let i = 0; i < total; i++) sends.push(client.publish('jobs', `job ${i}`, { qos: 2 }));
  await Promise.all(sends);     // the layer keeps at most 255 unanswered at a time

  const jobs = await client.subscribe('jobs', { qos: 2, highWaterMark: 256 });
  let done = 0;
  let mostBuffered = 0;
  for await (const job of jobs) {
    mostBuffered = Math.max(mostBuffered, jobs.buffered);
    if (done % 100 === 0) await sleep(10);        // the slow part
    job.acknowledge();                            // lets the broker send one more
    if (++done === total) break;                  // break unsubscribes
  }
  console.log(`queue: ${done} jobs, at most ${mostBuffered} waiting in the iterator`);
  return mostBuffered <= 255;
}

async function overflowingTopic(client) {
  const ticks = await client.subscribe('ticks/>', { highWaterMark: 10 });
  for (let i = 0; i < 50; i++) client.publish('ticks/ACME', String(i));
  try {
    for await (const tick of ticks) {
      await sleep(100);                           // far too slow for a burst
      console.log('tick', tick.payload().toString());
    }
  } catch (err) {
    console.log(`topic: ${err.code}, ${err.dropped} messages dropped`);
    return err.code === 'ERR_KWNODE_OVERFLOW';
  }
  return false;
}

async function main() {
  const client = await connect('iterator', 'SOLACE', HOST, { timeout: 10000 });
  const paused = await slowQueueConsumer(client);
  const loud = await overflowingTopic(client);
  process.exit(paused && loud ? 0 : 1);
}

main().catch((err) => {
  console.error(err);
  process.exit(1);
});
