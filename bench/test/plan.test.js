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
  assert.equal(o.mode, 'short');
  assert.equal(o.reps, 2);
  assert.deepEqual(o.systems, ['kwnode', 'zeromq']);
  assert.equal(o.out, '/tmp/here/x');
  assert.equal(parseArgs([]).mode, 'full');
  assert.equal(parseArgs(['--no-install']).install, false);
  assert.throws(() => parseArgs(['--fast']), /unknown argument --fast/);
  assert.throws(() => parseArgs(['--systems', 'kwnode,rabbit']), /--systems/);
  assert.throws(() => parseArgs(['--reps', '0']), /--reps/);
  assert.throws(() => parseArgs(['--out']), /needs a value/);
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
  const by = (w) => new Set(jobs.filter((j) => j.workload === w).map((j) => j.system));
  assert.deepEqual([...by('guaranteed')], ['kwnode']);
  assert.deepEqual([...by('roundtrip')], ['kwnode']);
  // No probe add-on: the bridge floor has only the baseline left.
  assert.deepEqual([...by('bridge')], ['baseline']);
  assert.deepEqual([...by('memory')], ['kwnode', 'baseline']);
  // Memory runs have their own, smaller repetition count, and their own size when asked.
  assert.equal(jobs.filter((j) => j.workload === 'memory').length, 2 * PROFILES.full.memoryReps);
  const twentyMillion = buildJobs({ ...opts, memoryCount: 2e7 }, all).filter((j) => j.workload === 'memory');
  assert.deepEqual([...new Set(twentyMillion.map((j) => j.params.count))], [2e7]);
  assert.equal(PROFILES.full.memory.count, 1e7);
  assert.throws(() => parseArgs(['--memory-count', '0']), /--memory-count/);
  assert.equal(jobs.filter((j) => j.workload === 'guaranteed').length, PROFILES.full.reps);
  // The probe alone is enough for kwnode's bridge floor, without the module.
  const probeOnly = buildJobs({ ...opts, workloads: ['bridge', 'direct'] }, { ...all, kwnode: false });
  assert.deepEqual(
    [...new Set(probeOnly.map((j) => `${j.workload}:${j.system}`))],
    ['bridge:kwnode', 'bridge:baseline', 'direct:baseline', 'direct:zeromq'],
  );
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

  assert.equal(prependLibraryPath('/a', undefined), '/a');
  assert.equal(prependLibraryPath('/a', '/b:/a::/c'), '/a:/b:/c');
});
