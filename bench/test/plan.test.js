'use strict';
// The run's plan: options, the job list they lead to, each worker's
// environment, and a worker that cannot run its job.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const { parseArgs, buildJobs, PROFILES } = require('../lib/plan');
const { findEmulatorDir, prependLibraryPath } = require('../lib/env');
const { workerEnv } = require('../run');

const all = { kwnode: true, probe: true, baseline: true, zeromq: true };

test('argument parsing', () => {
  const o = parseArgs(['--short', '--reps', '2', '--systems', 'kwnode,zeromq', '--out', 'x'], '/tmp/here');
  assert.deepEqual([o.mode, o.reps, o.systems, o.out], ['short', 2, ['kwnode', 'zeromq'], '/tmp/here/x']);
  assert.deepEqual([parseArgs([]).mode, parseArgs(['--no-install']).install], ['full', false]);
  for (const [argv, error] of [[['--fast'], /unknown argument --fast/], [['--systems', 'kwnode,rabbit'], /--systems/],
    [['--reps', '0'], /--reps/], [['--memory-count', '0'], /--memory-count/], [['--out'], /needs a value/]]) {
    assert.throws(() => parseArgs(argv), error);
  }
});

test('jobs: systems alternate within each repetition, only where a workload has them and they are available', () => {
  const alternating = buildJobs({ mode: 'short', reps: 2, systems: ['kwnode', 'baseline', 'zeromq'], workloads: ['direct'] }, all);
  assert.deepEqual(alternating.map((j) => `${j.system}${j.rep}`), ['kwnode0', 'baseline0', 'zeromq0', 'kwnode1', 'baseline1', 'zeromq1']);
  assert.equal(alternating[0].params, PROFILES.short.direct);
  const opts = { mode: 'full', reps: null, systems: ['kwnode', 'baseline', 'zeromq'], workloads: ['guaranteed', 'bridge', 'memory', 'roundtrip'] };
  const jobs = buildJobs(opts, { ...all, zeromq: false, probe: false });
  const runs = (list) => [...new Set(list.map((j) => `${j.workload}:${j.system}`))];
  // No probe add-on: the bridge floor has only the baseline left.
  assert.deepEqual(runs(jobs), ['guaranteed:kwnode', 'bridge:baseline', 'memory:kwnode', 'memory:baseline', 'roundtrip:kwnode']);
  // Memory runs have their own, smaller repetition count, and their own size when asked.
  const count = (w) => jobs.filter((j) => j.workload === w).length;
  assert.deepEqual([count('memory'), count('guaranteed')], [2 * PROFILES.full.memoryReps, PROFILES.full.reps]);
  const sized = buildJobs({ ...opts, memoryCount: 2e7 }, all).filter((j) => j.workload === 'memory');
  assert.deepEqual([...new Set(sized.map((j) => j.params.count))], [2e7]);
  // The probe alone is enough for kwnode's bridge floor, without the module.
  const probeOnly = buildJobs({ ...opts, workloads: ['bridge', 'direct'] }, { ...all, kwnode: false });
  assert.deepEqual(runs(probeOnly), ['bridge:kwnode', 'bridge:baseline', 'direct:baseline', 'direct:zeromq']);
});

test('workers find the stand-in in the expected order, and only round-trip jobs get a slow broker', (t) => {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'kwbench-root-'));
  t.after(() => fs.rmSync(root, { recursive: true, force: true }));
  const mk = (rel) => {
    fs.mkdirSync(path.join(root, rel), { recursive: true });
    fs.writeFileSync(path.join(root, rel, 'libsolclient.so'), '');
    return path.join(root, rel);
  };
  assert.equal(findEmulatorDir({ root }), null);
  const other = mk('build-other/emulator');
  assert.equal(findEmulatorDir({ root }), other);
  const main = mk('build/emulator');
  assert.equal(findEmulatorDir({ root }), main);
  const fromEnv = mk('elsewhere');
  assert.equal(findEmulatorDir({ root, ldLibraryPath: `/nonexistent:${fromEnv}` }), fromEnv);
  // An explicit choice wins, and a wrong one is not silently replaced.
  assert.equal(findEmulatorDir({ root, explicit: other, ldLibraryPath: fromEnv }), other);
  assert.equal(findEmulatorDir({ root, explicit: path.join(root, 'nothing') }), null);
  assert.deepEqual([prependLibraryPath('/a', undefined), prependLibraryPath('/a', '/b:/a::/c')], ['/a', '/a:/b:/c']);
  const rtt = (params) => workerEnv(null, params).SOLCLIENT_EMULATOR_ROUND_TRIP_US;
  assert.deepEqual([rtt(PROFILES.full.direct), rtt(PROFILES.short.roundtrip), rtt(PROFILES.full.roundtrip)], ['0', '200', '200']);
});

test('a worker that cannot run its job fails with the reason and no result', () => {
  for (const [job, status, reason] of [[JSON.stringify({ workload: 'nonsense', system: 'baseline', params: {} }), 1, /unknown workload nonsense/],
    ['{not json', 2, /bad job argument/]]) {
    const r = spawnSync(process.execPath, [path.join(__dirname, '..', 'worker.js'), job], { encoding: 'utf8', timeout: 60000 });
    assert.deepEqual([r.status, reason.test(r.stderr), r.stdout.includes('RESULT')], [status, true, false], job);
  }
});
