'use strict';
// The load drivers against scripted transports: what they deliver, lose and
// delay is fixed here, so the figures the drivers derive can be checked.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runThroughput, runLatency } = require('../lib/driver');

// Delivers each message on a later macrotask (as from a native thread), after
// delayMs if set, losing those lose(n) picks; records the most in flight.
function asyncTransport({ lose = () => false, delayMs = 0 } = {}) {
  const t = { onMessage: () => {}, inFlight: 0, maxInFlight: 0, published: 0 };
  t.publish = (buf) => {
    if (lose(t.published++)) return;
    const copy = Buffer.from(buf);
    t.maxInFlight = Math.max(t.maxInFlight, ++t.inFlight);
    const deliver = () => { t.inFlight--; t.onMessage(copy); };
    if (delayMs) setTimeout(deliver, delayMs);
    else setImmediate(deliver);
  };
  return t;
}

test('throughput keeps the window, counts deliveries and derives MB/s', async () => {
  const t = asyncTransport();
  const r = await runThroughput(t, { payload: Buffer.alloc(100), count: 5000, window: 256 });
  assert.deepEqual([r.sent, r.received, r.dropped], [5000, 5000, 0]);
  assert.ok(r.msgsPerSec > 0 && Math.abs(r.mbPerSec - (r.msgsPerSec * 100) / 1e6) < 1e-9 * r.msgsPerSec);
  assert.ok(t.maxInFlight <= 256, `max in flight ${t.maxInFlight}`);
  // The EventEmitter shape delivers inside publish: nothing is ever in flight.
  const sync = { publish: (buf) => sync.onMessage(Buffer.from(buf)) };
  const s = await runThroughput(sync, { payload: Buffer.alloc(64), count: 3000, window: 8 });
  assert.deepEqual([s.received, s.stalls], [3000, 0]);
});

test('lost messages are written off after a stall and reported as drops; latency is over what arrived', { timeout: 30000 }, async () => {
  // Every 7th message vanishes: the losses fill the small window, so the
  // driver must stall, write them off and carry on.
  const r = await runThroughput(asyncTransport({ lose: (n) => n % 7 === 0 }), { payload: Buffer.alloc(8), count: 700, window: 16, stallMs: 20 });
  assert.deepEqual([r.sent, r.received, r.dropped], [700, 600, 100]);
  assert.ok(r.stalls >= 1);
  const l = await runLatency(asyncTransport({ lose: (n) => n % 4 === 1, delayMs: 5 }), { rate: 1000, durationMs: 100, size: 32, stallMs: 30 });
  assert.deepEqual([l.sent, l.dropped], [100, 25]);
  // libuv measures timers from its cached loop time, so a 5 ms timer can fire
  // up to about a millisecond early by the high-resolution clock.
  assert.ok(l.p50us >= 3500 && l.p99us >= l.p50us && l.p999us >= l.p99us, `p50 ${l.p50us} µs`);
});

test('a publisher that falls behind shows up as latency, not as a lower rate', async () => {
  // Each publish burns 1 ms of the one thread and delivers at once, so at an
  // offered 2000/s the publisher manages about half. Stamps carry the due
  // time, so the wait accumulates in the measured latency.
  const t = { onMessage: () => {} };
  t.publish = (buf) => {
    const until = Date.now() + 1;
    while (Date.now() < until);
    t.onMessage(buf);
  };
  const r = await runLatency(t, { rate: 2000, durationMs: 100, size: 16 });
  assert.equal(r.received, r.sent);
  assert.ok(r.achievedSendPerSec < 2000 * 0.8, `send rate ${r.achievedSendPerSec}`);
  assert.ok(r.p99us > 20000, `p99 ${r.p99us} µs should include the publisher backlog`);
});
