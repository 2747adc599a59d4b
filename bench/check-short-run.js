#!/usr/bin/env node
'use strict';
// ctest entry: the short benchmark run must complete, print its table and
// leave its JSON in the given directory, every case with a figure from every
// repetition. Nothing about speed is checked.
const assert = require('assert');
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');
const { PROFILES } = require('./lib/plan');

const out = path.resolve(process.argv[2] || path.join(__dirname, 'results'));
fs.rmSync(path.join(out, 'latest.json'), { force: true });
const r = spawnSync(process.execPath, [path.join(__dirname, 'run.js'), '--short', '--out', out], {
  stdio: ['ignore', 'pipe', 'inherit'],
  encoding: 'utf8',
  timeout: 5 * 60 * 1000,
});
process.stdout.write(r.stdout || '');
assert.strictEqual(r.status, 0, `bench run ended with ${r.error || r.signal || `status ${r.status}`}`);
// Written twice, the same: latest.json and a copy named by the start time.
const text = fs.readFileSync(path.join(out, 'latest.json'), 'utf8');
const doc = JSON.parse(text);
assert.strictEqual(fs.readFileSync(path.join(out, `${doc.started.replace(/[:.]/g, '-')}.json`), 'utf8'), text);
assert.deepStrictEqual(doc.failures, []);
assert.strictEqual(doc.systems.kwnode, true, 'kwnode was not measured');
assert.ok(r.stdout.includes(doc.table), 'the printed table is the one stored');
for (const s of doc.summaries) {
  const reps = s.workload === 'memory' ? PROFILES.short.memoryReps : PROFILES.short.reps;
  const where = `${s.workload} ${s.variant} ${s.metric} ${s.system}`;
  assert.strictEqual(s.runs.length, reps, where);
  // A pass that delivered nothing leaves null (no latency sample, no CPU per message).
  assert.ok(s.runs.every(Number.isFinite), `${where}: ${JSON.stringify(s.runs)}`);
}
const cases = (workload, metric) => doc.summaries.filter((s) => s.system === 'kwnode' && s.workload === workload && s.metric === metric)
  .map((s) => s.variant);
assert.deepStrictEqual(cases('direct', 'msgsPerSec'), ['64 B', '1 KiB', '64 KiB', '64 B, 4096 in flight']);
assert.deepStrictEqual(cases('latency', 'p50us'), ['10k/s', '100k/s']);
for (const w of ['guaranteed', 'bridge', 'memory', 'roundtrip']) assert.ok(doc.summaries.some((s) => s.system === 'kwnode' && s.workload === w), `no kwnode figures for ${w}`);
console.log(`bench short run: ${doc.summaries.length} figures in ${doc.seconds.toFixed(1)} s`);
