'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { aggregate, markdownTable, formatNumber, formatCell, formatRatio } = require('../lib/report');

const cells = (line) => line.split('|').map((c) => c.trim());
const run = (system, rep, metrics, variant = '64 B', workload = 'direct') => ({ workload, system, rep, variant, metrics });

test('aggregate groups runs per case, metric and system', () => {
  const s = aggregate([
    run('kwnode', 0, { msgsPerSec: 100, dropped: 3 }),
    run('kwnode', 1, { msgsPerSec: 300, dropped: 0 }),
    run('kwnode', 2, { msgsPerSec: 200, dropped: 1 }),
    run('baseline', 0, { msgsPerSec: 1000, dropped: 0 }),
    run('kwnode', 0, { msgsPerSec: 50, dropped: 0 }, '1 KiB'),
  ]);
  const find = (system, metric, variant = '64 B') =>
    s.find((e) => e.system === system && e.metric === metric && e.variant === variant);
  const { median, min, max, values } = find('kwnode', 'msgsPerSec');
  assert.deepEqual({ median, min, max, values }, { median: 200, min: 100, max: 300, values: [100, 300, 200] });
  assert.equal(find('kwnode', 'dropped').median, 1);
  assert.equal(find('baseline', 'msgsPerSec').n, 1);
  // Another payload is another case, not another run of the same one.
  assert.equal(find('kwnode', 'msgsPerSec', '1 KiB').median, 50);
});

test('the table shows each peer beside its ratio to kwnode, dashes for what is missing', () => {
  const s = aggregate([
    run('kwnode', 0, { msgsPerSec: 200, dropped: 5 }),
    run('baseline', 0, { msgsPerSec: 1000, dropped: 0 }),
    run('zeromq', 0, { msgsPerSec: 100, dropped: 0 }),
  ]);
  const lines = markdownTable(s).split('\n');
  assert.equal(lines.length, 4); // header, rule, two metric rows
  const [header, , row, drops] = lines.map(cells);
  const col = (name) => row[header.indexOf(name)];
  assert.deepEqual(['kwnode', 'EventEmitter', 'EventEmitter ÷ kwnode', 'zeromq ÷ kwnode'].map(col), ['200', '1,000', '5.00×', '0.50×']);
  // Drop counts are shown but never divided.
  assert.deepEqual([drops[header.indexOf('kwnode')], drops[header.indexOf('EventEmitter ÷ kwnode')]], ['5', '–']);

  const missing = markdownTable(aggregate([run('baseline', 0, { msgsPerSec: 1000 })]));
  assert.ok(!/NaN|Infinity|undefined/.test(missing), missing);
  assert.deepEqual(cells(missing.split('\n')[2]).slice(4, 7), ['–', '1,000', '–']); // kwnode, EventEmitter, ratio
  // Only the selected peers get columns.
  const selected = markdownTable(s, ['kwnode', 'zeromq']).split('\n')[0];
  assert.ok(!selected.includes('EventEmitter') && selected.includes('zeromq ÷ kwnode'));
});

test('number and cell formatting', () => {
  // Counts stay whole, fractions keep three significant digits, nothing shows NaN.
  const numbers = [1234567.4, 12.345, 0.012345, 0, NaN, 7].map(formatNumber);
  assert.deepEqual(numbers, ['1,234,567', '12.3', '0.0123', '0', '–', '7']);
  assert.equal(formatCell({ n: 3, median: 2.5, min: 1.25, max: 3 }), '2.50 (1.25–3)');
  assert.equal(formatCell({ n: 1, median: 2.5, min: 2.5, max: 2.5 }), '2.50');
  assert.equal(formatCell(undefined), '–');
  assert.deepEqual([0.5, 0.0000137, 33.21, null].map(formatRatio), ['0.50×', '0.000014×', '33.2×', '–']);
});
