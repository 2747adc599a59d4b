'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { summarize, percentileSorted, latencyPercentiles, ratio } = require('../lib/stats');

test('summarize gives median, min and max of the usable runs', () => {
  assert.deepEqual(summarize([5, 1, 3]), { median: 3, min: 1, max: 5, n: 3 });
  // Even count: mean of the two middle values, after sorting numerically
  // (a lexicographic sort would put 10 before 9).
  assert.deepEqual(summarize([10, 9, 2, 4]), { median: 6.5, min: 2, max: 10, n: 4 });
  // Failed runs (NaN, missing) are not figures.
  assert.deepEqual(summarize([NaN, 7, undefined, Infinity, null]), { median: 7, min: 7, max: 7, n: 1 });
  assert.equal(summarize([]), null);
  assert.equal(summarize([NaN]), null);
});

test('nearest-rank percentiles', () => {
  const xs = Array.from({ length: 1000 }, (_, i) => i + 1);
  assert.equal(percentileSorted(xs, 50), 500);
  assert.equal(percentileSorted(xs, 99), 990);
  assert.equal(percentileSorted(xs, 99.9), 999);
  assert.equal(percentileSorted(xs, 100), 1000);
  assert.equal(percentileSorted(xs, 0), 1);
  // Few samples: p99.9 of ten values is the largest, never past the end.
  assert.equal(percentileSorted([1, 2, 3, 4, 5, 6, 7, 8, 9, 10], 99.9), 10);
  assert.ok(Number.isNaN(percentileSorted([], 50)));
});

test('latency percentiles read only the recorded prefix and sort numerically', () => {
  const samples = new Float64Array(8);
  samples.set([30, 4, 200, 10]);
  // Slots 4..7 are zero (messages that never arrived) and must not count.
  const p = latencyPercentiles(samples, 4);
  assert.equal(p.p50, 10);
  assert.equal(p.max, 200);
  assert.equal(p.p999, 200);
  // The caller's array is left as it was.
  assert.deepEqual(Array.from(samples.subarray(0, 4)), [30, 4, 200, 10]);
});

test('ratio refuses what it cannot divide', () => {
  assert.equal(ratio(6, 3), 2);
  assert.equal(ratio(1, 0), null);
  assert.equal(ratio(null, 2), null);
  assert.equal(ratio(2, undefined), null);
  assert.equal(ratio(NaN, 2), null);
});
