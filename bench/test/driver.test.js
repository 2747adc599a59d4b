'use strict';
// The load drivers against scripted transports whose behaviour is known:
// what they deliver, lose and delay is fixed by the test, so the figures the
// drivers derive can be checked against it.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runThroughput, runLatency } = require('../lib/driver');

// Delivers each message on a later macrotask (like a native thread handing
// messages to the loop), optionally losing some, and records how many were in
// flight at most.
function asyncTransport({ lose = () => false, delayMs = 0 } = {}) {
  const t = { onMessage: () => {}, inFlight: 0, maxInFlight: 0, published: 0 };
  t.publish = (buf) => {
    const n = t.published++;
    if (lose(n)) return;
    const copy = Buffer.from(buf);
    t.inFlight++;
    t.maxInFlight = Math.max(t.maxInFlight, t.inFlight);
    const deliver = () => {
      t.inFlight--;
      t.onMessage(copy);
    };
    if (delayMs) setTimeout(deliver, delayMs);
    else setImmediate(deliver);
  };
  return t;
}

test('throughput counts every delivery, keeps the window, derives MB/s, and waits for promise publishes', async () => {
  const t = asyncTransport();
  const r = await runThroughput(t, { payload: Buffer.alloc(100), count: 5000, window: 256 });
  assert.deepEqual([r.sent, r.received, r.dropped], [5000, 5000, 0]);
  assert.ok(r.msgsPerSec > 0);
  assert.ok(Math.abs(r.mbPerSec - (r.msgsPerSec * 100) / 1e6) < 1e-9 * r.msgsPerSec);
  assert.ok(t.maxInFlight <= 256, `max in flight ${t.maxInFlight}`);

  // The EventEmitter shape delivers inside publish: nothing is ever in flight.
  const sync = { publish: (buf) => sync.onMessage(Buffer.from(buf)) };
  const s = await runThroughput(sync, { payload: Buffer.alloc(64), count: 3000, window: 8 });
  assert.deepEqual([s.received, s.stalls], [3000, 0]);

  // zeromq refuses a send while the previous one is pending: each is awaited.
  let busy = false;
  const promised = {
    publish: (buf) => {
      if (busy) throw new Error('socket busy');
      busy = true;
      return new Promise((resolve) => setImmediate(resolve)).then(() => {
        busy = false;
        promised.onMessage(buf);
      });
    },
  };
  assert.equal((await runThroughput(promised, { payload: Buffer.alloc(16), count: 500, window: 64 })).received, 500);
});

test('latency reflects a transport delay and counts every sample', async () => {
  const t = asyncTransport({ delayMs: 5 });
  const r = await runLatency(t, { rate: 2000, durationMs: 150, size: 64 });
  assert.deepEqual([r.sent, r.received, r.dropped], [300, 300, 0]);
  // libuv measures timers from its cached loop time, so a 5 ms timer can
  // fire up to about a millisecond early by the high-resolution clock.
  assert.ok(r.p50us >= 3500, `p50 ${r.p50us} µs`);
  assert.ok(r.p99us >= r.p50us && r.p999us >= r.p99us);
});

test('a publisher that falls behind shows up as latency, not as a lower rate', async () => {
  // Each publish burns 1 ms of the one thread, so at an offered 2000/s the
  // publisher can manage about half. Stamps carry the due time, so the wait
  // accumulates in the measured latency.
  const t = { onMessage: () => {} };
  t.publish = (buf) => {
    const until = Date.now() + 1;
    while (Date.now() < until);
    setImmediate(() => t.onMessage(buf));
  };
  const r = await runLatency(t, { rate: 2000, durationMs: 100, size: 16 });
  assert.equal(r.received, r.sent);
  assert.ok(r.achievedSendPerSec < 2000 * 0.8, `send rate ${r.achievedSendPerSec}`);
  assert.ok(r.p99us > 20000, `p99 ${r.p99us} µs should include the publisher backlog`);
});

test('both drivers write lost messages off after a stall and report them as drops', async () => {
  // Every 7th message vanishes; with a small window the losses fill it up,
  // so the driver must stall, write them off and carry on.
  const t = asyncTransport({ lose: (n) => n % 7 === 0 });
  const r = await runThroughput(t, { payload: Buffer.alloc(8), count: 700, window: 16, stallMs: 20 });
  assert.deepEqual([r.sent, r.received, r.dropped], [700, 600, 100]);
  assert.ok(r.stalls >= 1);

  // Latency percentiles stay over what arrived.
  const lossy = asyncTransport({ lose: (n) => n % 4 === 1 });
  const l = await runLatency(lossy, { rate: 1000, durationMs: 100, size: 32, stallMs: 30 });
  assert.deepEqual([l.sent, l.dropped], [100, 25]);
  assert.ok(Number.isFinite(l.p50us) && l.p50us > 0);
});
