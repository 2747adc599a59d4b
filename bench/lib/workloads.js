'use strict';
// The workloads, each run inside a worker process for one system. Every
// function returns a list of { variant, metrics } with plain numbers.

const { EventEmitter } = require('events');
const fs = require('fs');
const env = require('./env');
const transports = require('./transports');
const { runThroughput, runLatency, makeProgressWaiter, yieldMacrotask, now, nsToS, cpuMicros } = require('./driver');

const QUEUE = 'kwbench_q';

function sizeLabel(bytes) {
  if (bytes >= 1024 && bytes % 1024 === 0) return `${bytes / 1024} KiB`;
  return `${bytes} B`;
}

async function openSystem(system) {
  if (system === 'kwnode') return transports.openKwnode(env.loadKwnode());
  if (system === 'baseline') return transports.openBaseline();
  if (system === 'zeromq') return transports.openZeromq(env.loadZeromq());
  throw new Error(`unknown system ${system}`);
}

// Under bench/profile.js, perf starts with its events off and the worker
// turns them on for the measured passes only, so that start-up, set-up and
// warm-up stay out of the per-message figures. KWBENCH_PERF_CONTROL is
// "<control fifo>:<ack fifo>" of `perf record --control`.
function perfCommand(command) {
  const [control, ack] = process.env.KWBENCH_PERF_CONTROL.split(':');
  const answer = fs.openSync(ack, 'r');
  try {
    fs.writeFileSync(control, `${command}\n`);
    fs.readSync(answer, Buffer.alloc(16));
  } finally {
    fs.closeSync(answer);
  }
}
async function measured(pass) {
  if (!process.env.KWBENCH_PERF_CONTROL) return pass();
  perfCommand('enable');
  try {
    return await pass();
  } finally {
    perfCommand('disable');
  }
}

// A warm-up pass (a tenth of the messages, at least 100; a fifth of the time,
// at least 50 ms), then the measured pass.
const tenth = (n) => Math.max(100, Math.floor(n / 10));
async function warmThroughput(t, payload, count, window) {
  await runThroughput(t, { payload, count: tenth(count), window });
  return measured(() => runThroughput(t, { payload, count, window }));
}
async function warmLatency(t, rate, durationMs) {
  await runLatency(t, { rate, durationMs: Math.max(50, durationMs / 5), size: 64 });
  return runLatency(t, { rate, durationMs, size: 64 });
}
const throughputMetrics = (r) => ({ msgsPerSec: r.msgsPerSec, mbPerSec: r.mbPerSec, cpuUsPerMsg: r.cpuUsPerMsg, dropped: r.dropped });

// 1. Direct messages: delivered throughput per payload size.
async function direct(system, params) {
  const t = await openSystem(system);
  const out = [];
  for (const size of params.sizes) {
    const r = await warmThroughput(t, Buffer.alloc(size, 0x61), params.counts[String(size)], params.window);
    out.push({ variant: sizeLabel(size), metrics: throughputMetrics(r) });
  }
  // The same small messages with a window far above the adapter's receive
  // queue bound: what a publisher that does not pace itself gets.
  if (params.flood) {
    const f = params.flood;
    const r = await runThroughput(t, { payload: Buffer.alloc(f.size, 0x61), count: f.count, window: f.window });
    out.push({ variant: `${sizeLabel(f.size)}, ${f.window} in flight`, metrics: throughputMetrics(r) });
  }
  t.close();
  return out;
}

// 3. Publish-to-handler latency at fixed offered rates.
async function latency(system, params) {
  const t = await openSystem(system);
  const out = [];
  for (const rate of params.rates) {
    const r = await warmLatency(t, rate, params.durationMs);
    out.push({
      variant: `${rate / 1000}k/s`,
      metrics: { p50us: r.p50us, p99us: r.p99us, p999us: r.p999us, achievedSendPerSec: r.achievedSendPerSec, dropped: r.dropped },
    });
  }
  t.close();
  return out;
}

// Guaranteed publishes with a completion each, at most `window` unanswered.
async function publishGuaranteed(client, count, window, payload) {
  const waiter = makeProgressWaiter();
  let sent = 0;
  let answered = 0;
  let failed = 0;
  let firstError = null;
  const done = (err) => {
    answered++;
    if (err && failed++ === 0) firstError = err.message;
    waiter.tick();
  };
  const waitWhile = async (busy) => {
    while (busy()) if (!(await waiter.wait(5000))) throw new Error(`guaranteed publish stalled at ${answered}/${sent}`);
  };
  const cpuStart = cpuMicros();
  const start = now();
  while (sent < count) {
    await waitWhile(() => sent - answered >= window);
    const n = Math.min(count - sent, window - (sent - answered));
    for (let i = 0; i < n; i++) client.publish(QUEUE, 2, payload, done);
    sent += n;
    await yieldMacrotask();
  }
  await waitWhile(() => answered < sent);
  const seconds = nsToS(now() - start);
  const cpu = cpuMicros() - cpuStart;
  if (failed) throw new Error(`${failed} guaranteed publishes failed, first: ${firstError}`);
  return { perSec: sent / seconds, cpuUsPerMsg: cpu / sent };
}

// Subscribes to the queue and acknowledges `count` messages; resolves with the
// rate measured from the subscribe call to the last message. A queue
// subscription reports only failure to its completion callback (a flow that
// starts is not announced), so the messages themselves mark progress.
async function consumeQueue(client, count) {
  const waiter = makeProgressWaiter();
  let got = 0;
  let failure = null;
  const start = now();
  let last = start;
  client.subscribe(QUEUE, 2, (msg) => {
    msg.acknowledge();
    got++;
    last = now();
    waiter.tick();
  }, (err) => {
    failure = err || failure;
    waiter.tick();
  });
  while (got < count && !failure) {
    if (!(await waiter.wait(5000))) throw new Error(`queue consumer stalled at ${got}/${count}`);
  }
  if (failure) throw new Error(`queue subscription failed: ${failure.message}`);
  client.unsubscribe(QUEUE, 2);
  // The flow stops on the adapter's subscribe thread; let it finish before
  // the next publishes reach the queue.
  await new Promise((resolve) => setTimeout(resolve, 100));
  return { perSec: got / nsToS(last - start) };
}

// 2. Guaranteed messages through a queue (kwnode only: neither peer has
// broker-acknowledged delivery). `consume: false` (the profile's publish-only
// run) leaves the messages spooled and reports the publishes alone.
async function guaranteed(system, params) {
  if (system !== 'kwnode') throw new Error('the guaranteed workload exists for kwnode only');
  const mod = env.loadKwnode();
  const consume = params.consume !== false;
  const pub = await transports.connectKwnode(mod.KWNodeClient, 'bench-gpub');
  const con = consume ? await transports.connectKwnode(mod.KWNodeClient, 'bench-gsub') : null;
  const payload = Buffer.alloc(params.size, 0x62);
  await publishGuaranteed(pub, tenth(params.count), params.window, payload);
  if (con) await consumeQueue(con, tenth(params.count));
  const p = await measured(() => publishGuaranteed(pub, params.count, params.window, payload));
  const out = [{ variant: `publish ${sizeLabel(params.size)}`, metrics: { ackedPerSec: p.perSec, cpuUsPerMsg: p.cpuUsPerMsg } }];
  if (con) {
    const c = await consumeQueue(con, params.count);
    out.push({ variant: `consume ${sizeLabel(params.size)}`, metrics: { consumedPerSec: c.perSec } });
    con.disconnect();
  }
  pub.disconnect();
  return out;
}

// 7. The same client paths against a broker that takes `roundTripUs` to
// answer (the stand-in reads SOLCLIENT_EMULATOR_ROUND_TRIP_US, which the
// orchestrator sets from the parameters): paced direct delivery, latency at
// 10k/s and guaranteed publishes, as a user of a real broker would see them.
async function roundtrip(system, params) {
  if (system !== 'kwnode') throw new Error('the round-trip workload exists for kwnode only');
  const label = `${params.roundTripUs} µs broker`;
  const t = await openSystem(system);
  const d = await warmThroughput(t, Buffer.alloc(64, 0x61), params.count, params.window);
  const l = await warmLatency(t, 10000, params.durationMs);
  t.close();
  const pub = await transports.connectKwnode(env.loadKwnode().KWNodeClient, 'bench-rpub');
  const g = Buffer.alloc(1024, 0x62);
  await publishGuaranteed(pub, tenth(params.guaranteedCount), params.guaranteedWindow, g);
  const p = await publishGuaranteed(pub, params.guaranteedCount, params.guaranteedWindow, g);
  pub.disconnect();
  return [
    { variant: `direct 64 B, ${label}`, metrics: { msgsPerSec: d.msgsPerSec, cpuUsPerMsg: d.cpuUsPerMsg, dropped: d.dropped } },
    { variant: `latency 10k/s, ${label}`, metrics: { p50us: l.p50us, p99us: l.p99us, dropped: l.dropped } },
    { variant: `guaranteed publish 1 KiB, ${label}`, metrics: { ackedPerSec: p.perSec, cpuUsPerMsg: p.cpuUsPerMsg } },
  ];
}

// 4. The bridge's floor: the smallest items from native threads into
// JavaScript. The baseline (the only peer planned) is the same number of
// synchronous listener calls.
async function bridge(system, params) {
  const out = [];
  for (const threads of params.threads) {
    const perThread = Math.floor(params.items / threads);
    const total = perThread * threads;
    let push;
    if (system === 'kwnode') {
      const probe = env.loadProbe();
      push = (fn) => probe.pushFromThreads(threads, perThread, fn);
    } else {
      const ee = new EventEmitter();
      push = (fn) => {
        ee.removeAllListeners('item');
        ee.on('item', fn);
        for (let t = 0; t < threads; t++) for (let s = 0; s < perThread; s++) ee.emit('item', t, s);
      };
    }
    const runOnce = (n) => new Promise((resolve) => {
      let calls = 0;
      const start = now();
      push(() => {
        if (++calls === n) resolve(n / nsToS(now() - start));
      });
    });
    await runOnce(total);
    out.push({ variant: `${threads} thread${threads > 1 ? 's' : ''}`, metrics: { itemsPerSec: await runOnce(total) } });
  }
  return out;
}

// 6. Memory across many direct messages whose handler keeps nothing. Run in a
// process of its own with --expose-gc.
async function memory(system, params) {
  const gc = global.gc || (() => {});
  const t = await openSystem(system);
  const payload = Buffer.alloc(64, 0x63);
  await runThroughput(t, { payload, count: 10000, window: params.window });
  gc();
  const before = process.memoryUsage();
  let peak = before.rss;
  const sampler = setInterval(() => (peak = Math.max(peak, process.memoryUsage.rss())), 20);
  const r = await runThroughput(t, { payload, count: params.count, window: params.window });
  clearInterval(sampler);
  gc();
  await new Promise((resolve) => setTimeout(resolve, 100));
  gc();
  const after = process.memoryUsage();
  peak = Math.max(peak, after.rss, process.resourceUsage().maxRSS * 1024);
  t.close();
  // MiB (the metric names keep the MB of older result files).
  const mb = (b) => b / (1024 * 1024);
  return [{
    variant: `${params.count / 1e6 >= 1 ? params.count / 1e6 + 'M' : params.count / 1e3 + 'k'} x 64 B`,
    // The engine's own reservation (its young generation grows over a long run
    // in any script): the part of the RSS growth that is not the system's.
    metrics: { peakRssMB: mb(peak), rssGrowthMB: mb(after.rss - before.rss), heapGrowthMB: mb(after.heapUsed - before.heapUsed),
      heapTotalGrowthMB: mb(after.heapTotal - before.heapTotal), delivered: r.received, dropped: r.dropped },
  }];
}

module.exports = { direct, latency, guaranteed, bridge, memory, roundtrip, QUEUE };
