#!/usr/bin/env node
'use strict';
// One measurement in a process of its own: `node worker.js '<job json>'`,
// where the job is { workload, system, params }. Prints one line
// "RESULT <json>" and exits (kwnode's callback processor keeps the event loop
// alive by design, so the exit is explicit).

const workloads = require('./lib/workloads');
const env = require('./lib/env');

const RESULT_TAG = 'RESULT ';

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
      const m = load();
      found[name] = { ok: true, version: (m && m.version) || null };
    } catch (err) {
      found[name] = { ok: false, error: String(err.message).split('\n')[0] };
    }
  };
  attempt('kwnode', () => {
    const m = env.loadKwnode();
    if (typeof m.KWNodeClient !== 'function') throw new Error('no KWNodeClient export');
    return {};
  });
  attempt('probe', () => {
    const m = env.loadProbe();
    if (typeof m.pushFromThreads !== 'function') throw new Error('no pushFromThreads export');
    return {};
  });
  attempt('zeromq', () => {
    const z = env.loadZeromq();
    return { version: `${require(env.zeromqDir() + '/package.json').version} (libzmq ${z.version})` };
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
    (results) => {
      process.stdout.write(`${RESULT_TAG}${JSON.stringify(results)}\n`, () => process.exit(0));
    },
    (err) => {
      process.stderr.write(`worker ${job.workload}/${job.system}: ${(err && err.stack) || err}\n`);
      process.exit(1);
    },
  );
}

module.exports = { RESULT_TAG };
