#!/usr/bin/env node
'use strict';
// One measurement in a process of its own: `node worker.js '<job json>'`,
// where the job is { workload, system, params }. Prints one line
// "RESULT <json>" and exits (kwnode's callback processor keeps the event loop
// alive by design, so the exit is explicit).

const workloads = require('./lib/workloads');
const env = require('./lib/env');

const RESULT_TAG = 'RESULT ';

// The results a worker printed, or null when it printed none.
function resultOf(stdout) {
  const line = (stdout || '').split('\n').find((l) => l.startsWith(RESULT_TAG));
  return line ? JSON.parse(line.slice(RESULT_TAG.length)) : null;
}

async function main(job) {
  if (job.workload === 'inventory') return inventory();
  const fn = workloads[job.workload];
  if (typeof fn !== 'function') throw new Error(`unknown workload ${job.workload}`);
  return fn(job.system, job.params);
}

// What this process can load; the orchestrator plans the run from it.
function inventory() {
  const found = {};
  const attempt = (name, load) => {
    try {
      found[name] = { ok: true, version: load() || null };
    } catch (err) {
      found[name] = { ok: false, error: String(err.message).split('\n')[0] };
    }
  };
  attempt('kwnode', () => void env.loadKwnode());
  attempt('probe', () => void env.loadProbe());
  attempt('zeromq', () => {
    const z = env.loadZeromq();
    return `${require(env.zeromqDir() + '/package.json').version} (libzmq ${z.version})`;
  });
  return found;
}

if (require.main === module) {
  let job;
  try {
    job = JSON.parse(process.argv[2]);
  } catch (err) {
    process.stderr.write(`worker: bad job argument: ${err.message}\n`);
    process.exit(2);
  }
  main(job).then(
    (results) => process.stdout.write(`${RESULT_TAG}${JSON.stringify(results)}\n`, () => process.exit(0)),
    (err) => {
      process.stderr.write(`worker ${job.workload}/${job.system}: ${(err && err.stack) || err}\n`);
      process.exit(1);
    },
  );
}

module.exports = { resultOf };
