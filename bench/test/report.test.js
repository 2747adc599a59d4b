'use strict';
// What a run reports: statistics over repetitions and latency samples, and the
// Markdown table built from them.
const test = require('node:test');
const assert = require('node:assert/strict');
const { summarize, percentileSorted, latencyPercentiles, ratio } = require('../lib/stats');
const { aggregate, markdownTable, formatNumber, formatCell, formatRatio } = require('../lib/report');

const cells = (line) => line.split('|').map((c) => c.trim());
const run = (system, rep, metrics, variant = '64 B') => ({ workload: 'direct', system, rep, variant, metrics });

test('summaries, percentiles and ratios leave out what is not a figure', () => {
  for (const [values, want] of [
    [[5, 1, 3], { median: 3, min: 1, max: 5, n: 3 }],
    // Even count: the mean of the two middle values after a numeric sort (10 after 9).
    [[10, 9, 2, 4], { median: 6.5, min: 2, max: 10, n: 4 }],
    // Failed runs (NaN, missing) are not figures.
    [[NaN, 7, undefined, Infinity, null], { median: 7, min: 7, max: 7, n: 1 }],
    [[], null],
    [[NaN], null],
  ]) assert.deepEqual(summarize(values), want);
  // Nearest rank; p99.9 of ten values is the largest, never past the end.
  const xs = Array.from({ length: 1000 }, (_, i) => i + 1);
  for (const [list, p, want] of [[xs, 50, 500], [xs, 99, 990], [xs, 99.9, 999], [xs, 100, 1000], [xs, 0, 1],
    [xs.slice(0, 10), 99.9, 10], [[], 50, NaN]]) {
    assert.equal(percentileSorted(list, p), want, `p${p} of ${list.length}`);
  }
  // Slots past the count (messages that never arrived) do not count, and the input is left as it was.
  const samples = new Float64Array(8);
  samples.set([30, 4, 200, 10]);
  assert.deepEqual(latencyPercentiles(samples, 4), { p50: 10, p99: 200, p999: 200 });
  assert.deepEqual(Array.from(samples.subarray(0, 4)), [30, 4, 200, 10]);
  assert.equal(ratio(6, 3), 2);
  for (const [a, b] of [[1, 0], [null, 2], [2, undefined], [NaN, 2]]) assert.equal(ratio(a, b), null);
});

test('aggregate takes each case, metric and system over its runs; the table sets each peer beside its ratio to kwnode', () => {
  const s = aggregate([
    run('kwnode', 0, { msgsPerSec: 100, dropped: 3 }),
    run('kwnode', 1, { msgsPerSec: 300, dropped: 0 }),
    run('kwnode', 2, { msgsPerSec: 200, dropped: 5 }),
    run('baseline', 0, { msgsPerSec: 1000, dropped: 0 }),
    run('zeromq', 0, { msgsPerSec: 100, dropped: 0 }),
    // Another payload is another case, not another run of the same one.
    run('kwnode', 0, { msgsPerSec: 50 }, '1 KiB'),
  ]);
  const { median, min, max, values, n } = s.find((e) => e.system === 'kwnode' && e.metric === 'msgsPerSec');
  assert.deepEqual({ median, min, max, values, n }, { median: 200, min: 100, max: 300, values: [100, 300, 200], n: 3 });
  const lines = markdownTable(s).split('\n');
  assert.equal(lines.length, 5); // header, rule, three rows
  const [header, , row, drops, other] = lines.map(cells);
  const col = (r, name) => r[header.indexOf(name)];
  assert.deepEqual(['kwnode', 'EventEmitter', 'EventEmitter ÷ kwnode', 'zeromq ÷ kwnode'].map((name) => col(row, name)),
    ['200 (100–300)', '1,000', '5.00×', '0.50×']);
  // Drop counts are shown but never divided; a case that only kwnode has gets dashes.
  assert.deepEqual([col(drops, 'kwnode'), col(drops, 'EventEmitter ÷ kwnode'), col(other, 'kwnode'), col(other, 'EventEmitter')],
    ['3 (0–5)', '–', '50', '–']);
  const missing = markdownTable(aggregate([run('baseline', 0, { msgsPerSec: 1000 })]));
  assert.deepEqual(cells(missing.split('\n')[2]).slice(4, 7), ['–', '1,000', '–']); // kwnode, EventEmitter, ratio
  // Only the selected peers get columns.
  const selected = markdownTable(s, ['kwnode', 'zeromq']).split('\n')[0];
  assert.ok(!selected.includes('EventEmitter') && selected.includes('zeromq ÷ kwnode'));
  // Counts stay whole, fractions keep three significant digits, nothing shows NaN.
  assert.deepEqual([1234567.4, 12.345, 0.012345, 0, NaN, 7].map(formatNumber), ['1,234,567', '12.3', '0.0123', '0', '–', '7']);
  assert.deepEqual([{ n: 3, median: 2.5, min: 1.25, max: 3 }, { n: 1, median: 2.5, min: 2.5, max: 2.5 }, undefined].map(formatCell),
    ['2.50 (1.25–3)', '2.50', '–']);
  assert.deepEqual([0.5, 0.0000137, 33.21, null].map(formatRatio), ['0.50×', '0.000014×', '33.2×', '–']);
});
