#!/usr/bin/env node
'use strict';
// `npm run bench` / `npm run bench -- --short`: runs every workload for kwnode
// and its peers, each measurement in a worker process of its own, prints one
// Markdown table and writes the same figures as JSON (timestamped file and
// latest.json) under bench/results/ or --out.

const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const env = require('./lib/env');
const plan = require('./lib/plan');
const report = require('./lib/report');
const { QUEUE } = require('./lib/workloads');
const { resultOf } = require('./worker');

const WORKER = path.join(__dirname, 'worker.js');
const log = (line) => process.stderr.write(`[bench] ${line}\n`);

// Every job but the round-trip one gets the instant broker.
function workerEnv(emulatorDir, params = {}) {
  const e = { ...process.env, SOLCLIENT_EMULATOR_QUEUES: QUEUE, SOLCLIENT_EMULATOR_ROUND_TRIP_US: String(params.roundTripUs || 0) };
  if (emulatorDir) e.LD_LIBRARY_PATH = env.prependLibraryPath(emulatorDir, process.env.LD_LIBRARY_PATH);
  return e;
}

// Runs one job in a fresh process; returns { ok, results | error }.
function runWorker(job, emulatorDir, timeoutMs) {
  const args = job.workload === 'memory' ? ['--expose-gc', WORKER] : [WORKER];
  const payload = { workload: job.workload, system: job.system, params: job.params };
  const r = spawnSync(process.execPath, [...args, JSON.stringify(payload)], {
    env: workerEnv(emulatorDir, job.params),
    encoding: 'utf8',
    timeout: timeoutMs,
    maxBuffer: 16 * 1024 * 1024,
  });
  const results = resultOf(r.stdout);
  if (r.status === 0 && results) return { ok: true, results };
  const why = r.error ? r.error.message : r.signal ? `killed by ${r.signal}` : `exit status ${r.status}`;
  const tail = (r.stderr || '').trim().split('\n').slice(-6).join('\n');
  return { ok: false, error: `${why}${tail ? `\n${tail}` : ''}` };
}

function main() {
  let opts;
  try {
    opts = plan.parseArgs(process.argv.slice(2));
  } catch (err) {
    log(err.message);
    return 2;
  }
  if (opts.help) {
    process.stdout.write(`${plan.USAGE}\n`);
    return 0;
  }
  const started = new Date();
  const notes = [];
  const failures = [];

  if (opts.systems.includes('zeromq')) {
    const z = opts.install ? env.ensureZeromq({ log }) : { ok: true };
    if (!z.ok) notes.push(z.note);
  }
  const emulatorDir = env.findEmulatorDir({ explicit: opts.emulatorDir, ldLibraryPath: process.env.LD_LIBRARY_PATH });
  if (!emulatorDir) notes.push('libsolclient.so (the stand-in) not found: build the tree first; kwnode is skipped');

  const inv = runWorker({ workload: 'inventory', system: '-', params: {} }, emulatorDir, 30000);
  if (!inv.ok) {
    log(`cannot inspect the environment: ${inv.error}`);
    return 1;
  }
  const found = inv.results;
  const available = { kwnode: !!emulatorDir && found.kwnode.ok, probe: found.probe.ok, baseline: true, zeromq: found.zeromq.ok };
  const kwnodeAsked = opts.systems.includes('kwnode');
  if (kwnodeAsked && !found.kwnode.ok) notes.push(`kwnode not loadable: ${found.kwnode.error}`);
  if (kwnodeAsked && !found.probe.ok) notes.push(`bridge probe not loadable (${found.probe.error}); the bridge floor of kwnode is skipped`);
  if (opts.systems.includes('zeromq') && !found.zeromq.ok) notes.push(`zeromq not loadable (${found.zeromq.error}); that peer is skipped`);
  for (const n of notes) log(n);

  const jobs = plan.buildJobs(opts, available);
  const timeoutMs = opts.mode === 'short' ? 60000 : 300000;
  const runs = [];
  jobs.forEach((job, i) => {
    log(`(${i + 1}/${jobs.length}) ${job.workload} ${job.system} run ${job.rep + 1}`);
    // A memory run gets time in proportion to its messages (a million per timeout).
    const scale = job.workload === 'memory' ? Math.max(1, job.params.count / 1e6) : 1;
    const r = runWorker(job, emulatorDir, timeoutMs * scale);
    if (!r.ok) {
      failures.push({ workload: job.workload, system: job.system, rep: job.rep, error: r.error });
      log(`  failed: ${r.error.replace(/\n/g, '\n  ')}`);
      return;
    }
    for (const item of r.results) runs.push({ workload: job.workload, system: job.system, rep: job.rep, ...item });
  });

  const summaries = report.aggregate(runs);
  const systems = report.SYSTEMS.filter((s) => opts.systems.includes(s));
  const table = report.markdownTable(summaries, systems);
  const doc = {
    mode: opts.mode,
    started: started.toISOString(),
    seconds: (new Date() - started) / 1000,
    machine: { node: process.version, cpus: os.cpus().length, cpuModel: (os.cpus()[0] || {}).model || null },
    systems: { kwnode: available.kwnode, bridgeProbe: available.probe, baseline: true, zeromq: found.zeromq.ok ? found.zeromq.version : false },
    emulatorDir,
    params: plan.PROFILES[opts.mode],
    notes,
    failures,
    summaries: summaries.map(({ values, ...s }) => ({ ...s, runs: values })),
    table,
  };
  const written = report.writeResults(opts.out || path.join(__dirname, 'results'), doc, started);

  process.stdout.write(`\n## kwnode benchmarks (${opts.mode}, ${doc.machine.node}, ${doc.machine.cpus} cores)\n\n`);
  process.stdout.write('Each cell: median (min–max) over the runs. "÷ kwnode" is the peer\'s median divided by kwnode\'s.\n\n');
  process.stdout.write(`${table}\n\n`);
  for (const n of notes) process.stdout.write(`- note: ${n}\n`);
  for (const f of failures) process.stdout.write(`- FAILED: ${f.workload} ${f.system} run ${f.rep + 1}: ${f.error.split('\n')[0]}\n`);
  process.stdout.write(`\nwritten: ${written.stamped}\n         ${written.latest}\n(${doc.seconds.toFixed(1)} s)\n`);

  return failures.length || (kwnodeAsked && !available.kwnode) ? 1 : 0;
}

if (require.main === module) process.exitCode = main();

module.exports = { workerEnv };
