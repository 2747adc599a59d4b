#!/usr/bin/env node
'use strict';
// Profile of a hot path: runs the 64 B direct workload (or, with
// `--workload guaranteed`, 1 KiB guaranteed publishes with a completion each,
// publish only) in a worker under `perf record` (all threads: main, stand-in
// context thread, adapter workers) and prints where the CPU time per message
// of the measured pass (no start-up, set-up or warm-up) goes, by area and by
// symbol. Needs perf (Debian: linux-perf).
//   node bench/profile.js [--workload direct|guaranteed] [--system kwnode] [--count N]
//                         [--size B] [--top 25] [--window W]

const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawnSync } = require('child_process');
const env = require('./lib/env');
const { resultOf } = require('./worker');
const { workerEnv } = require('./run');

// Areas, tried in order against "dso symbol"; the first match wins.
const AREAS = [
  ['stand-in broker (libsolclient.so)', /^libsolclient\.so /],
  ['bridge (callback processor, items, handlers)', /KWCallback|KWMessageInfo|KWEventInfo|KWDoneCallback|KWMessageHandler|KWEventHandler|kw_item_callback/],
  ['JavaScript-facing objects (KWNodeClient/Message)', /KWNode/],
  ['adapter receive/send path (KW::Solace)', /KW::Solace|Solace::Impl/],
  ['messaging core (KW::)', /KW::/],
  ['kwnode.node, other', /^kwnode\.node /],
  ['V8 JIT code (JavaScript)', /^(perf-\d+\.map|\[JIT\]|\[anon\])/],
  ['libuv', /^\S+ uv_/],
  ['Node/V8 runtime', /^node /],
  ['malloc/free', /malloc|free|_int_|tcache|cfree|arena/],
  ['libc/libstdc++ other', /^(libc\.so|libstdc\+\+|libm\.so|libpthread|ld-linux)/],
  ['kernel', /^\[kernel/],
];

// Defaults per workload: the benchmark's own sizes and windows.
const DEFAULTS = {
  direct: { count: 300000, size: 64, window: 256 },
  guaranteed: { count: 100000, size: 1024, window: 200 },
};

function parseArgs(argv) {
  const o = { workload: 'direct', system: 'kwnode', top: 25 };
  for (let i = 0; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!['workload', 'system', 'top', 'count', 'size', 'window'].includes(key)) throw new Error(`unknown argument ${argv[i]}`);
    o[key] = key === 'system' || key === 'workload' ? argv[i + 1] : Number(argv[i + 1]);
  }
  if (!DEFAULTS[o.workload]) throw new Error(`no profile for the workload ${o.workload}`);
  return { ...DEFAULTS[o.workload], ...o };
}

// The worker's job for the chosen workload.
function jobOf(o) {
  if (o.workload === 'guaranteed') {
    return { workload: 'guaranteed', system: o.system, params: { size: o.size, count: o.count, window: o.window, consume: false } };
  }
  return { workload: 'direct', system: o.system, params: { sizes: [o.size], counts: { [o.size]: o.count }, window: o.window } };
}

// Lines of `perf report --stdio --no-children --sort dso,sym`:
//   "    12.34%  kwnode.node  [.] KW::Foo::bar()"
function parsePerfReport(text) {
  const rows = [];
  let eventCount = null;
  for (const line of text.split('\n')) {
    const ev = /^# Event count \(approx\.\): (\d+)/.exec(line);
    if (ev) eventCount = Number(ev[1]);
    const m = /^\s+([\d.]+)%\s+(\S+)\s+\[(.)\]\s+(.*\S)\s*$/.exec(line);
    if (m) rows.push({ percent: Number(m[1]), dso: m[2], kernel: m[3] === 'k', symbol: m[4] });
  }
  return { rows, eventCount };
}

// Lines of `perf report --stdio --no-children --sort comm`: "    12.34%  kw-receive".
const parseThreads = (text) => text.split('\n').map((line) => /^\s+([\d.]+)%\s+(\S.*\S|\S)\s*$/.exec(line)).filter(Boolean)
  .map((m) => ({ percent: Number(m[1]), thread: m[2] }));

function areaOf(row) {
  const key = `${row.kernel ? '[kernel]' : row.dso} ${row.symbol}`;
  const hit = AREAS.find(([, re]) => re.test(key));
  return hit ? hit[0] : 'other';
}

function byArea(rows) {
  const totals = new Map();
  for (const r of rows) totals.set(areaOf(r), (totals.get(areaOf(r)) || 0) + r.percent);
  return Array.from(totals.entries()).sort((a, b) => b[1] - a[1]);
}

function main() {
  const o = parseArgs(process.argv.slice(2));
  const emulatorDir = env.findEmulatorDir({ ldLibraryPath: process.env.LD_LIBRARY_PATH });
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kwprof-'));
  const [data, control, ack] = ['perf.data', 'control', 'ack'].map((f) => path.join(dir, f));
  spawnSync('mkfifo', [control, ack]);
  const job = jobOf(o);
  // Events start off; the worker turns them on for the measured pass alone.
  const rec = spawnSync(
    'perf',
    ['record', '-F', '1999', '-g', '-D', '-1', '--control', `fifo:${control},${ack}`, '-o', data, '--',
      process.execPath, '--perf-basic-prof', path.join(__dirname, 'worker.js'), JSON.stringify(job)],
    // V8's code-event log (isolate-*.log) lands in the working directory:
    // keep it in the temporary one.
    { env: { ...workerEnv(emulatorDir), KWBENCH_PERF_CONTROL: `${control}:${ack}` }, cwd: dir, encoding: 'utf8', maxBuffer: 64 * 1024 * 1024 },
  );
  const [result] = resultOf(rec.stdout) || [];
  if (rec.status !== 0 || !result) {
    process.stderr.write(`perf record failed: ${rec.error || rec.stderr}\n`);
    return 1;
  }
  const messages = o.count;
  const perfReport = (sort, limit) => spawnSync('perf', ['report', '-i', data, '--stdio', '--no-children', '--sort', sort,
    '--percent-limit', limit], { encoding: 'utf8', maxBuffer: 256 * 1024 * 1024 }).stdout || '';
  const { rows, eventCount } = parsePerfReport(perfReport('dso,sym', '0.05'));
  // cpu-clock counts nanoseconds.
  const nsPerMsg = (pct) => (eventCount ? ((eventCount * pct) / 100 / messages).toFixed(0) : '?');
  const out = [];
  const pass =
    o.workload === 'guaranteed'
      ? `${Math.round(result.metrics.ackedPerSec)} acked sends/s, ${result.metrics.cpuUsPerMsg.toFixed(2)} CPU µs/send`
      : `${Math.round(result.metrics.msgsPerSec)} msg/s, ${result.metrics.dropped} dropped`;
  out.push(`${o.workload} workload, system ${o.system}, ${o.size} B payloads, ${messages} messages profiled; measured pass ${pass}`);
  out.push(`CPU time in the profile: ${eventCount ? (eventCount / 1e6).toFixed(0) : '?'} ms = ${nsPerMsg(100)} ns per message (all threads)\n`);
  out.push('| Area | share | ns/msg |', '|---|---|---|');
  for (const [area, pct] of byArea(rows)) out.push(`| ${area} | ${pct.toFixed(1)}% | ${nsPerMsg(pct)} |`);
  out.push('', '| Symbol | object | share | ns/msg |', '|---|---|---|---|');
  for (const r of rows.slice(0, o.top)) {
    const sym = r.symbol.length > 90 ? `${r.symbol.slice(0, 87)}...` : r.symbol;
    out.push(`| \`${sym.replace(/\|/g, '\\|')}\` | ${r.kernel ? 'kernel' : r.dso} | ${r.percent.toFixed(2)}% | ${nsPerMsg(r.percent)} |`);
  }
  // Threads by name: the spin, sleep and wake-up costs show up per thread.
  out.push('', '| Thread | share | ns/msg |', '|---|---|---|');
  for (const t of parseThreads(perfReport('comm', '0.5'))) out.push(`| ${t.thread} | ${t.percent.toFixed(1)}% | ${nsPerMsg(t.percent)} |`);
  process.stdout.write(`${out.join('\n')}\n`);
  fs.rmSync(dir, { recursive: true, force: true });
  return 0;
}

if (require.main === module) process.exitCode = main();

module.exports = { parsePerfReport, parseThreads, areaOf, byArea, parseArgs, jobOf };
