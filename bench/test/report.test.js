'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { aggregate, markdownTable, writeResults, formatNumber, formatCell, formatRatio } = require('../lib/report');

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
  assert.deepEqual(
    { median: find('kwnode', 'msgsPerSec').median, min: find('kwnode', 'msgsPerSec').min, max: find('kwnode', 'msgsPerSec').max },
    { median: 200, min: 100, max: 300 },
  );
  assert.deepEqual(find('kwnode', 'msgsPerSec').values, [100, 300, 200]);
  assert.equal(find('kwnode', 'dropped').median, 1);
  assert.equal(find('baseline', 'msgsPerSec').n, 1);
  // Another payload is another case, not another run of the same one.
  assert.equal(find('kwnode', 'msgsPerSec', '1 KiB').median, 50);
});

test('the table shows each peer beside its ratio to kwnode', () => {
  const s = aggregate([
    run('kwnode', 0, { msgsPerSec: 200, dropped: 5 }),
    run('baseline', 0, { msgsPerSec: 1000, dropped: 0 }),
    run('zeromq', 0, { msgsPerSec: 100, dropped: 0 }),
  ]);
  const lines = markdownTable(s).split('\n');
  assert.equal(lines.length, 4); // header, rule, two metric rows
  const header = lines[0].split('|').map((c) => c.trim());
  const row = lines[2].split('|').map((c) => c.trim());
  const col = (name) => row[header.indexOf(name)];
  assert.equal(col('kwnode'), '200');
  assert.equal(col('EventEmitter'), '1,000');
  assert.equal(col('EventEmitter ÷ kwnode'), '5.00×');
  assert.equal(col('zeromq ÷ kwnode'), '0.50×');
  // Drop counts are shown but never divided.
  const drops = lines[3].split('|').map((c) => c.trim());
  assert.equal(drops[header.indexOf('kwnode')], '5');
  assert.equal(drops[header.indexOf('EventEmitter ÷ kwnode')], '–');
});

test('a system without figures leaves dashes, not zeros or NaN', () => {
  const s = aggregate([run('baseline', 0, { msgsPerSec: 1000 })]);
  const table = markdownTable(s);
  assert.ok(!/NaN|Infinity|undefined/.test(table), table);
  const row = table.split('\n')[2].split('|').map((c) => c.trim());
  assert.equal(row[4], '–'); // kwnode
  assert.equal(row[6], '–'); // ratio
});

test('only the selected peers get columns', () => {
  const s = aggregate([run('kwnode', 0, { msgsPerSec: 1 }), run('zeromq', 0, { msgsPerSec: 2 })]);
  const header = markdownTable(s, ['kwnode', 'zeromq']).split('\n')[0];
  assert.ok(!header.includes('EventEmitter'));
  assert.ok(header.includes('zeromq ÷ kwnode'));
});

test('number and cell formatting', () => {
  assert.equal(formatNumber(1234567.4), '1,234,567');
  assert.equal(formatNumber(12.345), '12.3');
  assert.equal(formatNumber(0.012345), '0.0123');
  assert.equal(formatNumber(0), '0');
  assert.equal(formatNumber(NaN), '–');
  assert.equal(formatNumber(7), '7'); // counts stay whole
  assert.equal(formatCell({ n: 3, median: 2.5, min: 1.25, max: 3 }), '2.50 (1.25–3)');
  assert.equal(formatCell({ n: 1, median: 2.5, min: 2.5, max: 2.5 }), '2.50');
  assert.equal(formatCell(undefined), '–');
  assert.equal(formatRatio(0.5), '0.50×');
  assert.equal(formatRatio(0.0000137), '0.000014×');
  assert.equal(formatRatio(33.21), '33.2×');
  assert.equal(formatRatio(null), '–');
});

test('results are written twice with the same content', () => {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kwbench-'));
  try {
    const doc = { mode: 'short', summaries: [{ metric: 'msgsPerSec', median: 1 }] };
    const when = new Date('2030-01-02T03:04:05.678Z');
    const { stamped, latest } = writeResults(path.join(dir, 'nested'), doc, when);
    assert.equal(path.basename(stamped), '2030-01-02T03-04-05-678Z.json');
    assert.deepEqual(JSON.parse(fs.readFileSync(latest, 'utf8')), doc);
    assert.equal(fs.readFileSync(stamped, 'utf8'), fs.readFileSync(latest, 'utf8'));
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
