'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { summarize, percentileSorted, latencyPercentiles, ratio } = require('../lib/stats');

test('summarize gives median, min and max of the usable runs', () => {
  assert.deepEqual(summarize([5, 1, 3]), { median: 3, min: 1, max: 5, n: 3 });
  // Even count: mean of the two middle values, after a numeric sort (10 after 9).
  assert.deepEqual(summarize([10, 9, 2, 4]), { median: 6.5, min: 2, max: 10, n: 4 });
  // Failed runs (NaN, missing) are not figures.
  assert.deepEqual(summarize([NaN, 7, undefined, Infinity, null]), { median: 7, min: 7, max: 7, n: 1 });
  assert.equal(summarize([]), null);
  assert.equal(summarize([NaN]), null);
});

test('nearest-rank percentiles, also over a recorded prefix of a typed array', () => {
  const xs = Array.from({ length: 1000 }, (_, i) => i + 1);
  for (const [p, want] of [[50, 500], [99, 990], [99.9, 999], [100, 1000], [0, 1]]) {
    assert.equal(percentileSorted(xs, p), want, `p${p}`);
  }
  // Few samples: p99.9 of ten values is the largest, never past the end.
  assert.equal(percentileSorted(xs.slice(0, 10), 99.9), 10);
  assert.ok(Number.isNaN(percentileSorted([], 50)));

  // Slots 4..7 are zero (messages that never arrived) and must not count.
  const samples = new Float64Array(8);
  samples.set([30, 4, 200, 10]);
  assert.deepEqual(latencyPercentiles(samples, 4), { p50: 10, p99: 200, p999: 200, max: 200 });
  assert.deepEqual(Array.from(samples.subarray(0, 4)), [30, 4, 200, 10], 'input left as it was');
});

test('ratio refuses what it cannot divide', () => {
  assert.equal(ratio(6, 3), 2);
  for (const [a, b] of [[1, 0], [null, 2], [2, undefined], [NaN, 2]]) assert.equal(ratio(a, b), null);
});
