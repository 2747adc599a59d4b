'use strict';
// Transport-independent load drivers. Every system under test is wrapped in a
// transport: { publish(buf) -> undefined | Promise, onMessage: fn(buf) } where
// the driver installs onMessage and the transport calls it once per delivery
// on the JavaScript thread. Publisher and subscriber share this one thread, so
// the drivers yield a macrotask after each burst to let deliveries in.

const { latencyPercentiles } = require('./stats');

const now = () => process.hrtime.bigint();
// Process CPU time (every thread: JavaScript, library and broker threads),
// microseconds.
const cpuMicros = () => {
  const u = process.cpuUsage();
  return u.user + u.system;
};
const nsToS = (ns) => Number(ns) / 1e9;
const yieldMacrotask = () => new Promise((resolve) => setImmediate(resolve));

// wait(ms) resolves true at the next tick() (progress: a delivery or an
// answer), or false after ms without one.
function makeProgressWaiter() {
  let pending = null;
  return {
    tick() {
      if (!pending) return;
      const p = pending;
      pending = null;
      clearTimeout(p.timer);
      p.resolve(true);
    },
    wait(ms) {
      return new Promise((resolve) => {
        const timer = setTimeout(() => {
          pending = null;
          resolve(false);
        }, ms);
        pending = { resolve, timer };
      });
    },
  };
}

// Windowed throughput: at most `window` messages in flight (published and
// neither delivered nor written off). A full window with no delivery for
// `stallMs` means messages were dropped somewhere: they are written off so
// that publishing goes on, and counted as drops at the end.
async function runThroughput(transport, opts) {
  const { payload, count } = opts;
  const window = opts.window || 256;
  const burst = opts.burst || 64;
  const stallMs = opts.stallMs || 200;
  const waiter = makeProgressWaiter();
  let received = 0;
  let bytes = 0;
  let lastReceive = 0n;
  transport.onMessage = (buf) => {
    received++;
    bytes += buf.length;
    lastReceive = now();
    waiter.tick();
  };
  let sent = 0;
  let writtenOff = 0;
  let stalls = 0;
  const cpuStart = cpuMicros();
  const start = now();
  while (sent < count) {
    while (sent - received - writtenOff >= window) {
      if (!(await waiter.wait(stallMs))) {
        stalls++;
        writtenOff = sent - received;
      }
    }
    const room = window - (sent - received - writtenOff);
    const n = Math.min(burst, count - sent, room);
    for (let i = 0; i < n; i++) {
      const p = transport.publish(payload);
      if (p) await p;
      sent++;
    }
    await yieldMacrotask();
  }
  // Drain: until everything arrived or deliveries stop for stallMs.
  while (received < sent) {
    if (!(await waiter.wait(stallMs))) break;
  }
  const cpu = cpuMicros() - cpuStart;
  transport.onMessage = () => {};
  const end = received ? lastReceive : now();
  const seconds = nsToS(end - start);
  return { sent, received, dropped: sent - received, stalls, msgsPerSec: received / seconds,
    mbPerSec: bytes / seconds / 1e6, cpuUsPerMsg: received ? cpu / received : null };
}

// Fixed offered rate. Each message carries, in its first 8 bytes, the time at
// which it was due to be sent (not the time it actually left): a publisher that
// falls behind therefore shows up as latency instead of silently lowering the
// offered load.
async function runLatency(transport, opts) {
  const { rate, durationMs } = opts;
  const size = Math.max(8, opts.size || 64);
  const stallMs = opts.stallMs || 200;
  const total = Math.floor((rate * durationMs) / 1000);
  const samples = new Float64Array(total);
  const waiter = makeProgressWaiter();
  let received = 0;
  transport.onMessage = (buf) => {
    const t = now();
    if (received < total) samples[received] = Number(t - buf.readBigUInt64LE(0)) / 1000;
    received++;
    waiter.tick();
  };
  const start = now();
  const intervalNs = 1e9 / rate;
  // A publisher that is behind catches up in bounded bursts, so deliveries
  // keep being served while it does.
  const maxBurst = opts.burst || 256;
  let sent = 0;
  while (sent < total) {
    const due = Math.min(total, sent + maxBurst, Math.floor(Number(now() - start) / intervalNs) + 1);
    while (sent < due) {
      const buf = Buffer.allocUnsafe(size);
      buf.fill(0, 8);
      buf.writeBigUInt64LE(start + BigInt(Math.round(sent * intervalNs)), 0);
      const p = transport.publish(buf);
      if (p) await p;
      sent++;
    }
    await yieldMacrotask();
  }
  const sendSeconds = nsToS(now() - start);
  while (received < sent) {
    if (!(await waiter.wait(stallMs))) break;
  }
  transport.onMessage = () => {};
  const pct = latencyPercentiles(samples, Math.min(received, total));
  return { sent, received, dropped: sent - received, achievedSendPerSec: sent / sendSeconds, p50us: pct.p50, p99us: pct.p99, p999us: pct.p999 };
}

module.exports = { runThroughput, runLatency, yieldMacrotask, makeProgressWaiter, now, nsToS, cpuMicros };
