'use strict';
// Clients in Worker threads: each environment delivers on its own thread only
// what its own subscriptions select, and a Worker may end at any time
// without disturbing the others or the exit of the process.
const assert = require('assert');
const path = require('path');
const { Worker } = require('worker_threads');
const harness = require('../harness');
const { test } = harness;

const VPN = 'workers';

// Starts a Worker client; resolves with { worker, inbox } once its
// subscriptions are made. inbox collects everything it posts.
function startWorker(id, topics, quiet) {
  const worker = new Worker(path.join(__dirname, 'worker-client.js'),
    { workerData: { root: harness.root, id, vpn: VPN, topics, quiet } });
  const inbox = [];
  worker.on('message', (m) => inbox.push(m));
  worker.on('error', (e) => inbox.push({ error: e }));
  return harness.waitFor(() => inbox.some((m) => m.ready || m.error), id + ' ready', 20000).then(() => {
    const failure = inbox.find((m) => m.error);
    if (failure) throw failure.error;
    assert.deepStrictEqual(inbox.find((m) => m.ready).ready, topics.map(() => null));
    return { worker, inbox };
  });
}

const received = (inbox) => inbox.filter((m) => m.topic).map((m) => m.topic + '=' + m.payload).sort();

test('Workers and the main thread each receive only their own subscriptions; a Worker terminated while ' +
  'messages are in flight leaves the others working', async () => {
  const main = await harness.connected('workers-main', VPN);
  const mainGot = harness.collector();
  await harness.completion((done) => main.client.subscribe('wk/main/>', mainGot.handler, done));
  const [a, b, flood] = await Promise.all([startWorker('workers-a', ['wk/a/>']), startWorker('workers-b', ['wk/b/>']),
    startWorker('workers-flood', ['wk/flood/>'], true)]);
  // Each environment's connection event reached its own event function.
  assert.deepStrictEqual([a, b].map((w) => w.inbox[0].event), [[1, 3], [1, 3]]);
  // Everyone publishes to everyone, the main thread included.
  const all = [['wk/a/1', 'x'], ['wk/b/1', 'y'], ['wk/main/1', 'z']];
  a.worker.postMessage({ publish: all });
  b.worker.postMessage({ publish: all });
  all.forEach(([t, p]) => main.client.publish(t, 'main-' + p));
  await Promise.all([mainGot.waitFor(3),
    harness.waitFor(() => received(a.inbox).length >= 3 && received(b.inbox).length >= 3, 'worker messages')]);
  assert.deepStrictEqual(received(a.inbox), ['wk/a/1=main-x', 'wk/a/1=x', 'wk/a/1=x']);
  assert.deepStrictEqual(received(b.inbox), ['wk/b/1=main-y', 'wk/b/1=y', 'wk/b/1=y']);
  assert.deepStrictEqual(mainGot.map((m) => m.payload().toString()).sort(), ['main-z', 'z', 'z']);

  let sent = 0;
  const publishing = setInterval(() => {
    for (let i = 0; i < 200; i++) main.client.publish('wk/flood/' + (sent++), 'payload');
  }, 1);
  await harness.waitFor(() => flood.inbox.some((m) => m.first), 'first flooded message');
  await flood.worker.terminate();
  await new Promise((resolve) => setTimeout(resolve, 100));  // the flood goes on into the ended Worker
  clearInterval(publishing);
  // The survivors still deliver, and a new Worker loads the module afresh.
  const late = await startWorker('workers-late', ['wk/late/>']);
  ['b', 'late', 'main'].forEach((name) => main.client.publish(`wk/${name}/after`, name));
  await Promise.all([mainGot.waitFor(4),
    harness.waitFor(() => received(b.inbox).length > 3 && received(late.inbox).length, 'survivor messages')]);
  assert.deepStrictEqual([received(b.inbox).slice(3), received(late.inbox), mainGot[3].topic()],
    [['wk/b/after=b'], ['wk/late/after=late'], 'wk/main/after']);
  assert.ok(sent > 200, 'messages were in flight: ' + sent);
  await Promise.all([a.worker.terminate(), b.worker.terminate(), late.worker.terminate()]);
});

test('the process exits cleanly while Workers hold clients and messages flow', () => {
  // A Worker ends itself, another is left running; the main thread exits
  // with publishing under way.
  const script = `
    const { Worker } = require('worker_threads');
    const kw = require(${JSON.stringify(harness.root)});
    const file = ${JSON.stringify(path.join(__dirname, 'worker-client.js'))};
    const start = (id, topics) => new Promise((resolve) => {
      const w = new Worker(file, { workerData: { root: ${JSON.stringify(harness.root)}, id, vpn: 'exit', topics, quiet: true } });
      w.on('message', (m) => { if (m.ready) resolve(w); });
    });
    const c = new kw.KWNodeClient('exit-main', 'SOLACE', { host: 'h', port: 1, vpn: 'exit' });
    c.connect();
    Promise.all([start('exit-a', ['x/>']), start('exit-b', ['x/>'])]).then(([a, b]) => {
      for (let i = 0; i < 2000; i++) c.publish('x/' + i, 'p');
      a.terminate();
      setTimeout(() => { console.log('exiting'); process.exit(0); }, 20);
    });`;
  const run = harness.spawn(['-e', script]);
  assert.deepStrictEqual([run.status, run.signal, run.out, run.err], [0, null, 'exiting', '']);
});

test('a small payload moved to another thread or buffer takes no other message\'s bytes and breaks no later one', () => {
  // Small payloads share one slab per thread, as Buffer.allocUnsafe's pool does.
  const script = `
    const { MessageChannel } = require('worker_threads');
    const kw = require(${JSON.stringify(harness.root)});
    const { port1 } = new MessageChannel();
    const ways = { post: (ab) => port1.postMessage(ab, [ab]), clone: (ab) => structuredClone(ab, { transfer: [ab] }) };
    if (ArrayBuffer.prototype.transfer) ways.transfer = (ab) => ab.transfer();
    const c = new kw.KWNodeClient('moved', 'SOLACE', { host: 'h', port: 1, vpn: 'moved' });
    const got = [];
    const read = (m) => m.payload().toString();
    const next = (n) => new Promise((resolve) => { const t = setInterval(() => got.length >= n && resolve(clearInterval(t)), 2); });
    c.connect();
    c.subscribe('mv/>', (m) => got.push(m), async () => {
      const out = [];
      for (const way of Object.keys(ways)) {
        c.publish('mv/t', way + '-a');
        c.publish('mv/t', way + '-b');
        await next(got.length + 2);
        const [a, b] = got.slice(-2);
        const bytes = a.payload();
        try { ways[way](bytes.buffer); } catch (e) { /* refused, as for Node's own pool */ }
        c.publish('mv/t', way + '-c');
        c.forward('mv/fwd', a);
        await next(got.length + 2);
        out.push([way, bytes.buffer.byteLength === 0, read(a), read(b), ...got.slice(-2).map(read).sort()]);
      }
      console.log(JSON.stringify(out));
      process.exit(0);
    });`;
  const run = harness.spawn(['-e', script]);
  assert.deepStrictEqual([run.status, run.signal], [0, null], run.err);
  for (const [way, moved, a, b, forwarded, c] of JSON.parse(run.out)) {
    // Where Node lets the slab go, the bytes it took read as empty here, like any view of it.
    assert.deepStrictEqual([a, forwarded, c], moved ? ['', '', way + '-c'] : [way + '-a', way + '-a', way + '-c'], way);
    assert.ok(b === way + '-b' || (moved && b === ''), `${way}: ${b}`);
  }
});
