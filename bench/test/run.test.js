'use strict';
// The orchestrator and the worker as processes, with the pure-JavaScript
// baseline only, so that these run wherever Node does (kwnode's own short run
// is the ctest entry bench_short).
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');

const BENCH = path.resolve(__dirname, '..');
const node = (script, ...args) =>
  spawnSync(process.execPath, [path.join(BENCH, script), ...args], { encoding: 'utf8', timeout: 60000 });

test('a baseline-only run prints the table and writes matching JSON', (t) => {
  const out = fs.mkdtempSync(path.join(os.tmpdir(), 'kwbench-out-'));
  t.after(() => fs.rmSync(out, { recursive: true, force: true }));
  const opts = ['--short', '--reps', '2', '--systems', 'baseline', '--workloads', 'direct,latency'];
  const r = node('run.js', ...opts, '--no-install', '--out', out);
  assert.equal(r.status, 0, r.stderr);
  // Written twice, the same: latest.json and a copy named by its time.
  const files = fs.readdirSync(out).sort();
  assert.equal(files.length, 2);
  assert.match(files[0], /^\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d-\d{3}Z\.json$/);
  const text = fs.readFileSync(path.join(out, 'latest.json'), 'utf8');
  assert.equal(fs.readFileSync(path.join(out, files[0]), 'utf8'), text);
  const doc = JSON.parse(text);
  assert.equal(doc.mode, 'short');
  assert.deepEqual(doc.failures, []);
  // Two runs per case, and every direct payload size measured.
  const rates = doc.summaries.filter((s) => s.workload === 'direct' && s.metric === 'msgsPerSec');
  assert.deepEqual(rates.map((s) => s.variant), ['64 B', '1 KiB', '64 KiB', '64 B, 4096 in flight']);
  for (const s of rates) {
    assert.equal(s.runs.length, 2);
    assert.ok(s.median > 0 && s.min <= s.median && s.median <= s.max);
  }
  const lat = doc.summaries.filter((s) => s.workload === 'latency' && s.metric === 'p50us');
  assert.deepEqual(lat.map((s) => s.variant), ['10k/s', '100k/s']);
  assert.ok(r.stdout.includes(doc.table), 'the printed table is the one stored');
});

test('only the round-trip jobs get a broker that takes time to answer', () => {
  const { workerEnv } = require('../run');
  const { PROFILES } = require('../lib/plan');
  const rtt = (params) => workerEnv(null, params).SOLCLIENT_EMULATOR_ROUND_TRIP_US;
  assert.deepEqual([rtt(PROFILES.full.direct), rtt(PROFILES.short.roundtrip), rtt(PROFILES.full.roundtrip)], ['0', '200', '200']);
});

test('a worker that cannot run its job fails with the reason and no result', () => {
  const cases = [
    [JSON.stringify({ workload: 'nonsense', system: 'baseline', params: {} }), 1, /unknown workload nonsense/],
    ['{not json', 2, /bad job argument/],
  ];
  for (const [job, status, reason] of cases) {
    const r = node('worker.js', job);
    assert.equal(r.status, status, job);
    assert.match(r.stderr, reason);
    assert.ok(!r.stdout.includes('RESULT'));
  }
});

test('the inventory names every system it looked for', () => {
  const r = node('worker.js', JSON.stringify({ workload: 'inventory' }));
  assert.equal(r.status, 0, r.stderr);
  const found = JSON.parse(r.stdout.trim().replace(/^RESULT /, ''));
  for (const key of ['kwnode', 'probe', 'zeromq']) {
    assert.equal(typeof found[key].ok, 'boolean');
    if (!found[key].ok) assert.ok(found[key].error.length > 0);
  }
});
