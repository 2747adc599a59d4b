'use strict';
// Soak campaigns: the JavaScript API driven on the stand-in broker under its
// fault injection, with a figures table at the end. Exit code = verdict.
//
//   node --expose-gc test/soak/soak.js [--long] [--seed N] [--scale F] [--only sends,e2e,memory,churn]
//
// KWNODE_SOAK_SEED also sets the seed; KWNODE_SANITIZED skips the memory
// bounds (a sanitizer's quarantine grows memory by design).
const fs = require('fs');
const harness = require('../js/harness');

const argv = process.argv.slice(2);
const option = (name) => { const i = argv.indexOf(name); return i >= 0 ? argv[i + 1] : undefined; };
const LONG = argv.includes('--long');
const SEED = Number(option('--seed') || process.env.KWNODE_SOAK_SEED || (Date.now() % 0x7fffffff));
const ONLY = option('--only');
// --scale shrinks or grows every campaign (a quick look, a slow machine).
const SCALE = Number(option('--scale') || 1);
const SIZE = Object.fromEntries(Object.entries(LONG
  ? { sends: 1000000, cycles: 100, messages: 10000000, clients: 5000 }
  : { sends: 200000, cycles: 20, messages: 1000000, clients: 1000 })
  .map(([key, n]) => [key, Math.max(1, Math.round(n * SCALE))]));
const MiB = 1024 * 1024;
// Growth allowed from the post-warm-up sample to the last.
const MEMORY_BOUND = { rss: 48 * MiB, heapUsed: 16 * MiB };

const { KWNodeClient } = harness.kwnode();
const control = harness.control();

const random = harness.seeded(SEED);
const below = (n) => Math.floor(random() * n);
// Failed checks of the running campaign; it carries on so that its figures
// are still reported.
let problems = [];
const check = (ok, text) => { if (!ok) problems.push(text); };
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const elapsed = (started) => ['elapsed', ((Date.now() - started) / 1000).toFixed(1) + ' s'];

const until = (predicate, what, timeoutMs = 60000) => harness.waitFor(predicate, what, timeoutMs);
// One broker (port) per campaign, so that drops stay local.
const connect = (id, port) => harness.connected(id, 'soak', port);

const subscribed = (client, ...args) => new Promise((resolve, reject) =>
  client.subscribe(...args, (err) => (err ? reject(err) : resolve())));

function memory() {
  global.gc();
  global.gc();
  const m = process.memoryUsage();
  return { rss: m.rss, heapUsed: m.heapUsed };
}

const threads = () => fs.readdirSync('/proc/self/task').length;
const handles = () => process._getActiveHandles().length;
// The stand-in's live-object counters; those the loaded library lacks are left out.
const standIn = () => Object.fromEntries(['liveSessions', 'liveContexts', 'liveFlows', 'liveMessages']
  .map((name) => [name, control.count(name)]).filter(([, value]) => value !== undefined));

// ---- sends: every completion exactly once under injected faults ---------------

// One fault per batch of publishes: each once, last first (the short batches
// of held answers and a drop fit the smallest --scale), then drawn at random.
// arm() runs before the batch, at(i) before publish i, settle() after it.
const HOST_SENDS = 'localhost:55601';
const SEND_FAULTS = [
  { name: 'none' },
  ...['solClient_session_sendMsg', 'solClient_msg_alloc', 'solClient_msg_setBinaryAttachmentPtr',
    'solClient_msg_setDestination'].map((fn) => ({
    name: 'fail ' + fn.replace('solClient_', ''),
    arm: () => control.failNext(fn, 1 + below(40), -1, 14, 'injected failure'),
    settle: () => control.failNext(fn, 0, -1, 14, ''),
  })),
  { name: 'rejected', arm: () => control.setAckMode(1), settle: () => control.setAckMode(0) },
  { name: 'unknown queue', queue: 'soak.nowhere' },
  // While the broker holds its answers or is down, the add-on keeps sends off the JavaScript
  // thread only up to its publish queue (256, after a window of 50 guaranteed), counting what
  // still waits from before: these batches stay below that, since only this thread ends the fault.
  { name: 'held acks', batch: 250, arm: () => control.setAckMode(2), settle: async () => { await sleep(20); control.setAckMode(0); } },
  {
    name: 'broker drop',
    batch: 200,
    // The library blocks sends from the drop on; the add-on keeps them off this thread once it
    // has heard of the drop, so the batch goes on only then (the broker returns from here).
    at: async (i, n, client) => {
      if (i !== n >> 1) return;
      control.setBrokerUp(HOST_SENDS, 0);
      await until(() => client.getConnectionState() === 2, 'reconnecting');
    },
    settle: async () => { await sleep(below(100)); control.setBrokerUp(HOST_SENDS, 1); },
  },
];

async function sends() {
  const BATCH = 2000;
  const { client } = await connect('soak-sends', 55601);
  control.addQueue('soak.sends');
  const calls = new Uint8Array(SIZE.sends);
  const figures = { direct: 0, guaranteed: 0, ok: 0, failed: 0, twice: 0, batches: {} };
  let answered = 0;
  const started = Date.now();
  for (let sent = 0, batch = 0; sent < SIZE.sends; batch++) {
    const fault = SEND_FAULTS[batch < SEND_FAULTS.length ? SEND_FAULTS.length - 1 - batch : below(SEND_FAULTS.length)];
    figures.batches[fault.name] = (figures.batches[fault.name] || 0) + 1;
    if (fault.arm) fault.arm();
    const n = Math.min(fault.batch || BATCH, SIZE.sends - sent);
    for (let i = 0; i < n; i++, sent++) {
      if (fault.at) await fault.at(i, n, client);
      const id = sent;
      const guaranteed = random() < 0.5;
      figures[guaranteed ? 'guaranteed' : 'direct']++;
      const done = (err) => {
        if (calls[id]++) figures.twice++;
        answered++;
        figures[err ? 'failed' : 'ok']++;
      };
      if (guaranteed) client.publish(fault.queue || 'soak.sends', 2, 'g' + id, done);
      else client.publish('soak/sends/' + (id & 7), 1, 'd' + id, done);
    }
    if (fault.settle) await fault.settle();
    await until(() => answered === sent, 'completions of batch ' + fault.name);
    // The queue has no consumer: empty it between batches.
    control.removeQueue('soak.sends');
    control.addQueue('soak.sends');
  }
  await sleep(200);  // a late second completion would show here
  client.disconnect();
  const missing = calls.filter((c) => c === 0).length;
  check(figures.twice === 0, 'completions called twice');
  check(missing === 0, 'publishes without a completion');
  check(!control.count('changedAttachments'), 'guaranteed payloads changed before their answer');
  return [
    ['publishes (direct / guaranteed)', `${SIZE.sends} (${figures.direct} / ${figures.guaranteed})`],
    ['completions: ok / error / twice / missing', `${figures.ok} / ${figures.failed} / ${figures.twice} / ${missing}`],
    ['batches of 2000 by fault', Object.keys(figures.batches).map((k) => `${k} ${figures.batches[k]}`).join(', ')],
    elapsed(started),
  ];
}

// ---- guaranteed end to end across broker drops -------------------------------

async function endToEnd() {
  const HOST = 'localhost:55602';
  const QUEUE = 'soak.e2e';
  control.addQueue(QUEUE);
  const pub = await connect('soak-e2e-pub', 55602);
  const sub = await connect('soak-e2e-sub', 55602);
  const delivered = new Map();  // number -> deliveries
  const consumerAcked = new Set();
  const publishAcked = new Set();
  const deferred = [];
  let brokerUp = true;
  const f = { redeliveries: 0, ackedCameBack: 0, ackFailures: 0, publishFailed: 0, boundSum: 0 };
  const ack = (n, m) => {
    try {
      m.acknowledge();
      consumerAcked.add(n);
    } catch (e) {
      f.ackFailures++;
    }
  };
  // A queue subscription's success is not reported to a completion callback.
  sub.client.subscribe(QUEUE, 2, (m) => {
    const n = m.payload().readUInt32BE(0);
    const seen = delivered.get(n) || 0;
    if (seen) f.redeliveries++;
    if (consumerAcked.has(n)) f.ackedCameBack++;
    delivered.set(n, seen + 1);
    // Some acknowledgements wait, so that drops find unacknowledged messages.
    if (brokerUp && random() < 0.7) ack(n, m);
    else deferred.push([n, m]);
  }, null);
  const flushAcks = () => {
    if (!brokerUp || sub.client.getConnectionState() !== 3) return;
    deferred.splice(0).forEach(([n, m]) => ack(n, m));
  };
  let next = 0;
  let answered = 0;
  const publish = (count) => {
    for (let i = 0; i < count; i++) {
      const n = next++;
      pub.client.publish(QUEUE, 2, Buffer.from([n >>> 24, n >>> 16, n >>> 8, n]), (err) => {
        answered++;
        if (err) f.publishFailed++;
        else publishAcked.add(n);
      });
    }
  };
  const started = Date.now();
  for (let cycle = 0; cycle < SIZE.cycles; cycle++) {
    const busyUntil = Date.now() + 50 + below(150);
    while (Date.now() < busyUntil) {
      if (next - answered < 500) publish(20);
      if (random() < 0.3) flushAcks();
      await sleep(1);
    }
    // Quiesce first: once every message the queue handed out has reached the
    // consumer, the depth is exactly what a drop can put back, and no
    // acknowledgement can meet a copy that the drop already returned.
    await until(() => {
      // Held acknowledgements that fill the flow's window (255) stop the broker: release them.
      if (deferred.length >= 200) flushAcks();
      return answered === next && control.queueDepth(QUEUE) === deferred.length;
    },
      () => `a quiet queue in cycle ${cycle}: ${next - answered} publishes unanswered, depth ` +
        `${control.queueDepth(QUEUE)}, ${deferred.length} held by the consumer, states ` +
        `${pub.client.getConnectionState()}/${sub.client.getConnectionState()}`, 30000);
    f.boundSum += control.queueDepth(QUEUE);
    brokerUp = false;
    control.setBrokerUp(HOST, 0);
    deferred.length = 0;  // these come back; acknowledging the old copies would race them
    // Once the add-on has heard of the drop these wait on its publish worker until the
    // reconnect; sent before, the library would hold this thread, which brings the broker back.
    await until(() => pub.client.getConnectionState() === 2, 'reconnecting');
    publish(below(50));
    await sleep(below(200));
    control.setBrokerUp(HOST, 1);
    await until(() => [pub, sub].every((c) => c.client.getConnectionState() === 3), 'reconnect', 30000);
    brokerUp = true;
  }
  await until(() => answered === next, 'every publish answered');
  await until(() => {
    flushAcks();
    return Array.from(publishAcked).every((n) => delivered.has(n)) && control.queueDepth(QUEUE) === 0;
  }, 'every acknowledged publish delivered and the queue empty', 60000);
  const lost = Array.from(publishAcked).filter((n) => !delivered.has(n)).length;
  pub.client.disconnect();
  sub.client.disconnect();
  check(lost === 0, 'acknowledged publishes never delivered');
  check(f.ackedCameBack === 0, 'consumer-acknowledged messages delivered again');
  check(f.redeliveries <= f.boundSum, 'more redeliveries than unacknowledged messages at the drops');
  check(!control.count('changedAttachments'), 'guaranteed payloads changed before their answer');
  return [
    ['drop/return cycles', String(SIZE.cycles)],
    ['publishes: acknowledged / failed', `${publishAcked.size} / ${f.publishFailed}`],
    ['delivered distinct / lost', `${delivered.size} / ${lost}`],
    ['redeliveries (bound: unacknowledged at the drops)', `${f.redeliveries} (${f.boundSum})`],
    ['consumer-acknowledged delivered again', String(f.ackedCameBack)],
    ['acknowledge() errors', String(f.ackFailures)],
    elapsed(started),
  ];
}

// ---- memory over a long publish/receive run -----------------------------------

async function memoryRun() {
  const QUEUE = 'soak.memory';
  control.addQueue(QUEUE);
  const pub = await connect('soak-mem-pub', 55603);
  const sub = await connect('soak-mem-sub', 55603);
  let received = 0;
  let target = 0;
  let wake = null;
  const arrived = () => { if (++received >= target && wake) { wake(); wake = null; } };
  await subscribed(sub.client, 'soak/mem/>', (m) => { m.payload(); arrived(); });
  sub.client.subscribe(QUEUE, 2, (m) => { m.payload(); m.acknowledge(); arrived(); }, null);
  // Below the receive pool's queue bound, so no direct message is dropped.
  const BATCH = 256;
  const payloads = [16, 256, 4096].map((n) => Buffer.alloc(n, 7));
  const samples = [];
  const every = SIZE.messages / 20;
  const started = Date.now();
  for (let sent = 0; sent < SIZE.messages;) {
    target = sent + BATCH;
    for (let i = 0; i < BATCH; i++, sent++) {
      const payload = payloads[i % 3];
      if (i % 4 === 0) pub.client.publish(QUEUE, 2, payload);
      else pub.client.publish('soak/mem/' + (i & 15), payload);
    }
    if (received < target) {
      await new Promise((resolve, reject) => {
        const timer = setTimeout(() => reject(new Error(`stalled at ${received} of ${target} messages`)), 30000);
        wake = () => { clearTimeout(timer); resolve(); };
      });
    }
    if (sent >= (samples.length + 1) * every) samples.push(Object.assign({ at: sent }, memory()));
  }
  pub.client.disconnect();
  sub.client.disconnect();
  // The first two samples are the warm-up (allocator pools, JIT, buffers).
  const base = samples[1];
  const last = samples[samples.length - 1];
  const growth = (key) => last[key] - base[key];
  const mib = (n) => (n / MiB).toFixed(1) + ' MiB';
  const span = (key) => `${mib(base[key])} / ${mib(Math.max(...samples.slice(1).map((x) => x[key])))} / ${mib(last[key])}`;
  for (const key of Object.keys(MEMORY_BOUND)) {
    if (!harness.sanitized) check(growth(key) < MEMORY_BOUND[key], `${key} grew ${mib(growth(key))} over the run`);
  }
  return [
    ['messages (3/4 direct, 1/4 guaranteed, 16 B to 4 KiB)', String(SIZE.messages)],
    ['rss after warm-up / peak / end', span('rss')],
    ['heap used after warm-up / peak / end', span('heapUsed')],
    ['growth rss / heap (bound)', `${mib(growth('rss'))} / ${mib(growth('heapUsed'))}` +
      (harness.sanitized ? ' (not asserted under a sanitizer)' : ` (${mib(MEMORY_BOUND.rss)} / ${mib(MEMORY_BOUND.heapUsed)})`)],
    ['rss samples every 5 % (MiB)', samples.map((x) => Math.round(x.rss / MiB)).join(' ')],
    ['rate', Math.round(SIZE.messages / ((Date.now() - started) / 1000)) + ' messages/s'],
  ];
}

// ---- churn: clients made and dropped, everything counted back -----------------

async function churn() {
  const QUEUE = 'soak.churn';
  control.addQueue(QUEUE);
  const WAVE = 50;
  const ids = (i) => 'soak-churn-' + (i & 3);
  // One context (and its library thread) per destination id lives as long as
  // the process, by design: make the four before counting.
  for (let i = 0; i < 4; i++) new KWNodeClient(ids(i), 'SOLACE', { host: 'localhost', port: 55604, vpn: 'soak' });
  const before = { threads: threads(), handles: handles(), ...standIn() };
  const started = Date.now();
  let peakThreads = 0;
  // A function of its own, so that no suspended frame keeps the last wave's clients.
  const wave = async () => {
    const clients = await Promise.all(Array.from({ length: WAVE }, (_, i) => connect(ids(i), 55604)));
    await Promise.all(clients.map(({ client }, i) => {
      client.subscribe(QUEUE, 2, () => {}, null);  // no completion on success
      return subscribed(client, 'soak/churn/' + i, () => {});
    }));
    peakThreads = Math.max(peakThreads, threads());
    clients.forEach(({ client }) => client.disconnect());
  };
  for (let made = 0; made < SIZE.clients; made += WAVE) await wave();
  // Dropped clients go with the garbage collector; give their native parts
  // time to wind down.
  let after;
  const settled = () => {
    memory();
    after = { threads: threads(), handles: handles(), ...standIn() };
    return Object.keys(before).every((key) => after[key] <= before[key]);
  };
  await until(settled, 'the churned clients to go', 30000).catch(() => {});
  const rows = Object.keys(before).map((key) => [`${key} before / after`, `${before[key]} / ${after[key]}`]);
  Object.keys(before).forEach((key) => check(after[key] <= before[key], key + ' not back to where it was'));
  return [
    ['clients made, connected, subscribed (topic + queue), dropped', String(SIZE.clients)],
    ['peak threads', String(peakThreads)],
    ...rows,
    elapsed(started),
  ];
}

// ---- run ---------------------------------------------------------------------

const CAMPAIGNS = [['sends', sends], ['e2e', endToEnd], ['memory', memoryRun], ['churn', churn]];

async function main() {
  console.log(`soak ${LONG ? 'long' : 'short'} form ${JSON.stringify(SIZE)}, seed ${SEED} (replay: --seed ${SEED}), ` +
    `node ${process.version}${harness.sanitized ? ', under a sanitizer' : ''}`);
  let failed = 0;
  const table = [];
  for (const [name, run] of CAMPAIGNS) {
    if (ONLY && !ONLY.split(',').includes(name)) continue;
    try {
      problems = [];
      const rows = await run();
      if (problems.length) failed++;
      table.push([name, rows.concat([['verdict', problems.length ? 'FAIL: ' + problems.join('; ') : 'pass']])]);
    } catch (e) {
      failed++;
      table.push([name, [['verdict', 'FAIL: ' + (e && e.message)]]]);
      console.error(e && e.stack);
    }
    console.log(`${name} done`);
  }
  console.log('\n| campaign | figure | value |\n|---|---|---|');
  table.forEach(([name, rows]) => rows.forEach(([figure, value]) => console.log(`| ${name} | ${figure} | ${value} |`)));
  if (failed) console.log(`\n${failed} campaign(s) failed; replay with --seed ${SEED}`);
  process.exit(failed ? 1 : 0);
}

main().catch((e) => { console.error(e); process.exit(1); });
