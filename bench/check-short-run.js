#!/usr/bin/env node
'use strict';
// ctest entry: the short benchmark run must complete and leave its JSON in
// the given directory. Nothing about speed is checked.
const assert = require('assert');
const fs = require('fs');
const path = require('path');
const { spawnSync } = require('child_process');

const out = path.resolve(process.argv[2] || path.join(__dirname, 'results'));
fs.rmSync(path.join(out, 'latest.json'), { force: true });
const r = spawnSync(process.execPath, [path.join(__dirname, 'run.js'), '--short', '--out', out], {
  stdio: ['ignore', 'inherit', 'inherit'],
  timeout: 5 * 60 * 1000,
});
assert.strictEqual(r.status, 0, `bench run ended with ${r.error || r.signal || `status ${r.status}`}`);
const doc = JSON.parse(fs.readFileSync(path.join(out, 'latest.json'), 'utf8'));
assert.deepStrictEqual(doc.failures, []);
assert.strictEqual(doc.systems.kwnode, true, 'kwnode was not measured');
const workloads = new Set(doc.summaries.filter((s) => s.system === 'kwnode').map((s) => s.workload));
for (const w of ['direct', 'guaranteed', 'latency', 'memory']) assert.ok(workloads.has(w), `no kwnode figures for ${w}`);
console.log(`bench short run: ${doc.summaries.length} figures in ${doc.seconds.toFixed(1)} s`);
