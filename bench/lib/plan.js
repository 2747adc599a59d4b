'use strict';
// Command-line options and the list of worker jobs they lead to.

const path = require('path');

const USAGE = `usage: node bench/run.js [--short] [--reps N] [--systems kwnode,baseline,zeromq]
                         [--workloads direct,guaranteed,latency,bridge,memory,roundtrip]
                         [--out DIR] [--emulator-dir DIR] [--no-install]
                         [--memory-count N]`;

const ALL_SYSTEMS = ['kwnode', 'baseline', 'zeromq'];
// Which systems each workload has a variant for, in the order workloads run.
const WORKLOAD_SYSTEMS = {
  direct: ALL_SYSTEMS,
  guaranteed: ['kwnode'],
  latency: ALL_SYSTEMS,
  bridge: ['kwnode', 'baseline'],
  memory: ALL_SYSTEMS,
  roundtrip: ['kwnode'],
};
const ALL_WORKLOADS = Object.keys(WORKLOAD_SYSTEMS);

const PROFILES = {
  full: {
    reps: 5,
    // Growth is judged over ten million messages, so fewer repetitions.
    memoryReps: 2,
    direct: { sizes: [64, 1024, 65536], counts: { 64: 200000, 1024: 100000, 65536: 10000 }, window: 256,
      flood: { size: 64, count: 50000, window: 4096 } },
    latency: { rates: [10000, 100000], durationMs: 1000 },
    guaranteed: { size: 1024, count: 20000, window: 200 },
    bridge: { items: 1000000, threads: [1, 2] },
    memory: { count: 10000000, window: 256 },
    roundtrip: { roundTripUs: 200, count: 100000, window: 256, durationMs: 1000, guaranteedCount: 20000, guaranteedWindow: 200 },
  },
  short: {
    reps: 3,
    memoryReps: 1,
    direct: { sizes: [64, 1024, 65536], counts: { 64: 20000, 1024: 10000, 65536: 1000 }, window: 256,
      flood: { size: 64, count: 10000, window: 4096 } },
    latency: { rates: [10000, 100000], durationMs: 200 },
    guaranteed: { size: 1024, count: 2000, window: 200 },
    bridge: { items: 100000, threads: [1, 2] },
    memory: { count: 100000, window: 256 },
    roundtrip: { roundTripUs: 200, count: 10000, window: 256, durationMs: 200, guaranteedCount: 2000, guaranteedWindow: 200 },
  },
};

function parseList(value, allowed, flag) {
  const items = String(value || '').split(',').map((s) => s.trim()).filter(Boolean);
  if (items.length === 0 || items.some((i) => !allowed.includes(i))) throw new Error(`${flag}: expected some of ${allowed.join(',')}`);
  return items;
}

function positive(value, flag) {
  const n = Number(value);
  if (!Number.isInteger(n) || n < 1) throw new Error(`${flag}: expected a positive integer`);
  return n;
}

function parseArgs(argv, cwd = process.cwd()) {
  const opts = { mode: 'full', reps: null, systems: ALL_SYSTEMS.slice(), workloads: ALL_WORKLOADS.slice(), out: null,
    emulatorDir: null, install: true, memoryCount: null, help: false };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) throw new Error(`${a} needs a value`);
      return argv[++i];
    };
    if (a === '--short') opts.mode = 'short';
    else if (a === '--reps') opts.reps = positive(value(), a);
    else if (a === '--systems') opts.systems = parseList(value(), ALL_SYSTEMS, a);
    else if (a === '--workloads') opts.workloads = parseList(value(), ALL_WORKLOADS, a);
    else if (a === '--out') opts.out = path.resolve(cwd, value());
    else if (a === '--emulator-dir') opts.emulatorDir = path.resolve(cwd, value());
    else if (a === '--no-install') opts.install = false;
    else if (a === '--memory-count') opts.memoryCount = positive(value(), a);
    else if (a === '--help' || a === '-h') opts.help = true;
    else throw new Error(`unknown argument ${a}\n${USAGE}`);
  }
  return opts;
}

// The jobs in execution order. Systems alternate inside each repetition so
// that a slow patch of the machine hits every system alike instead of one.
function buildJobs(opts, available) {
  const profile = PROFILES[opts.mode];
  const reps = opts.reps || profile.reps;
  const memoryReps = opts.reps ? Math.min(opts.reps, profile.memoryReps) : profile.memoryReps;
  const jobs = [];
  for (const workload of opts.workloads) {
    const n = workload === 'memory' ? memoryReps : reps;
    // kwnode's bridge floor needs only the test-only probe add-on (no broker).
    const usable = (s) => (workload === 'bridge' && s === 'kwnode' ? available.probe : available[s]);
    const systems = WORKLOAD_SYSTEMS[workload].filter((s) => opts.systems.includes(s) && usable(s));
    // The memory workload's size can be raised (e.g. 10M messages) without the full run's other counts.
    const params = workload === 'memory' && opts.memoryCount ? { ...profile.memory, count: opts.memoryCount } : profile[workload];
    for (let rep = 0; rep < n; rep++) {
      for (const system of systems) jobs.push({ workload, system, rep, params });
    }
  }
  return jobs;
}

module.exports = { parseArgs, buildJobs, PROFILES, USAGE };
