'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { parseArgs, buildJobs, PROFILES } = require('../lib/plan');
const { findEmulatorDir, prependLibraryPath } = require('../lib/env');

const all = { kwnode: true, probe: true, baseline: true, zeromq: true };

test('argument parsing', () => {
  const o = parseArgs(['--short', '--reps', '2', '--systems', 'kwnode,zeromq', '--out', 'x'], '/tmp/here');
  assert.deepEqual([o.mode, o.reps, o.systems, o.out], ['short', 2, ['kwnode', 'zeromq'], '/tmp/here/x']);
  assert.deepEqual([parseArgs([]).mode, parseArgs(['--no-install']).install], ['full', false]);
  const refused = [[['--fast'], /unknown argument --fast/], [['--systems', 'kwnode,rabbit'], /--systems/],
    [['--reps', '0'], /--reps/], [['--memory-count', '0'], /--memory-count/], [['--out'], /needs a value/]];
  for (const [argv, error] of refused) assert.throws(() => parseArgs(argv), error);
});

test('systems alternate within each repetition', () => {
  const jobs = buildJobs({ mode: 'short', reps: 2, systems: ['kwnode', 'baseline', 'zeromq'], workloads: ['direct'] }, all);
  assert.deepEqual(
    jobs.map((j) => `${j.system}${j.rep}`),
    ['kwnode0', 'baseline0', 'zeromq0', 'kwnode1', 'baseline1', 'zeromq1'],
  );
  assert.equal(jobs[0].params, PROFILES.short.direct);
});

test('workloads only run for systems that have them and are available', () => {
  const opts = { mode: 'full', reps: null, systems: ['kwnode', 'baseline', 'zeromq'], workloads: ['guaranteed', 'bridge', 'memory', 'roundtrip'] };
  const jobs = buildJobs(opts, { ...all, zeromq: false, probe: false });
  const runs = (list) => [...new Set(list.map((j) => `${j.workload}:${j.system}`))];
  // No probe add-on: the bridge floor has only the baseline left.
  assert.deepEqual(runs(jobs), ['guaranteed:kwnode', 'bridge:baseline', 'memory:kwnode', 'memory:baseline', 'roundtrip:kwnode']);
  // Memory runs have their own, smaller repetition count, and their own size when asked.
  const count = (w) => jobs.filter((j) => j.workload === w).length;
  assert.deepEqual([count('memory'), count('guaranteed')], [2 * PROFILES.full.memoryReps, PROFILES.full.reps]);
  const twentyMillion = buildJobs({ ...opts, memoryCount: 2e7 }, all).filter((j) => j.workload === 'memory');
  assert.deepEqual([...new Set(twentyMillion.map((j) => j.params.count))], [2e7]);
  // The probe alone is enough for kwnode's bridge floor, without the module.
  const probeOnly = buildJobs({ ...opts, workloads: ['bridge', 'direct'] }, { ...all, kwnode: false });
  assert.deepEqual(runs(probeOnly), ['bridge:kwnode', 'bridge:baseline', 'direct:baseline', 'direct:zeromq']);
});

test('the stand-in library is looked for in the expected order and put in front once', (t) => {
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'kwbench-root-'));
  t.after(() => fs.rmSync(root, { recursive: true, force: true }));
  const mk = (rel) => {
    const d = path.join(root, rel);
    fs.mkdirSync(d, { recursive: true });
    fs.writeFileSync(path.join(d, 'libsolclient.so'), '');
    return d;
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
});
