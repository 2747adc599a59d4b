'use strict';
// Turns the raw per-run results into summaries, a Markdown table and the JSON
// document written under bench/results/.

const fs = require('fs');
const path = require('path');
const { summarize, ratio } = require('./stats');

const SYSTEMS = ['kwnode', 'baseline', 'zeromq'];
const SYSTEM_TITLES = { kwnode: 'kwnode', baseline: 'EventEmitter', zeromq: 'zeromq' };

const WORKLOAD_TITLES = { direct: 'Direct messages', guaranteed: 'Guaranteed (queue)', latency: 'Latency (64 B)',
  bridge: 'Bridge floor', memory: 'Memory (child process)', roundtrip: 'Broker round trip' };

// Row label of each metric; counts and growths get no ratio column.
const METRICS = {
  msgsPerSec: 'msg/s', mbPerSec: 'MB/s', dropped: 'dropped', cpuUsPerMsg: 'CPU µs/msg', ackedPerSec: 'acked sends/s',
  consumedPerSec: 'acknowledged msg/s', p50us: 'p50 µs', p99us: 'p99 µs', p999us: 'p99.9 µs', achievedSendPerSec: 'sent msg/s',
  itemsPerSec: 'items/s', peakRssMB: 'peak RSS MiB', rssGrowthMB: 'RSS growth MiB', heapGrowthMB: 'heap growth MiB',
  heapTotalGrowthMB: 'V8 heap size growth MiB', delivered: 'delivered',
};
const NO_RATIO = new Set(['dropped', 'rssGrowthMB', 'heapGrowthMB', 'heapTotalGrowthMB', 'delivered']);

// runs: [{ workload, system, variant, metrics: {name: number} }] -> one entry
// per (workload, variant, metric, system) with median/min/max over the runs,
// in first-seen order.
function aggregate(runs) {
  const groups = new Map();
  for (const run of runs) {
    for (const [metric, value] of Object.entries(run.metrics)) {
      const key = [run.workload, run.variant, metric, run.system].join('\u0000');
      if (!groups.has(key)) {
        groups.set(key, { workload: run.workload, variant: run.variant, metric, system: run.system, values: [] });
      }
      groups.get(key).values.push(value);
    }
  }
  return Array.from(groups.values()).map((g) => ({ ...g, ...(summarize(g.values) || { median: null, min: null, max: null, n: 0 }) }));
}

function formatNumber(x) {
  if (x === null || x === undefined || !Number.isFinite(x)) return '–';
  const abs = Math.abs(x);
  if (Number.isInteger(x) || abs >= 100) return Math.round(x).toLocaleString('en-US');
  if (abs >= 10) return x.toFixed(1);
  if (abs === 0) return '0';
  return x.toPrecision(3);
}

function formatCell(entry) {
  if (!entry || entry.n === 0) return '–';
  if (entry.n === 1 || entry.min === entry.max) return formatNumber(entry.median);
  return `${formatNumber(entry.median)} (${formatNumber(entry.min)}–${formatNumber(entry.max)})`;
}

function formatRatio(r) {
  if (r === null) return '–';
  if (r >= 10) return `${r.toFixed(1)}×`;
  // Small ratios keep two significant digits instead of rounding to 0.00.
  return `${r >= 0.01 ? r.toFixed(2) : r.toPrecision(2)}×`;
}

// One Markdown table: a row per (workload, variant, metric), a column per
// system, and after each peer its median divided by kwnode's median.
function markdownTable(summaries, systems = SYSTEMS) {
  const rows = new Map();
  for (const s of summaries) {
    const key = [s.workload, s.variant, s.metric].join('\u0000');
    if (!rows.has(key)) rows.set(key, { workload: s.workload, variant: s.variant, metric: s.metric, cells: {} });
    rows.get(key).cells[s.system] = s;
  }
  const peers = systems.filter((s) => s !== 'kwnode');
  const header = ['Workload', 'Case', 'Metric', 'kwnode'];
  for (const p of peers) header.push(SYSTEM_TITLES[p], `${SYSTEM_TITLES[p]} ÷ kwnode`);
  const lines = [`| ${header.join(' | ')} |`, `|${header.map(() => '---').join('|')}|`];
  for (const row of rows.values()) {
    const k = row.cells.kwnode;
    const cols = [WORKLOAD_TITLES[row.workload], row.variant, METRICS[row.metric], formatCell(k)];
    for (const c of peers.map((p) => row.cells[p])) {
      cols.push(formatCell(c), !NO_RATIO.has(row.metric) && c && k ? formatRatio(ratio(c.median, k.median)) : '–');
    }
    lines.push(`| ${cols.join(' | ')} |`);
  }
  return lines.join('\n');
}

// Writes <dir>/<timestamp>.json and <dir>/latest.json with the same content;
// returns both paths.
function writeResults(dir, doc, date) {
  fs.mkdirSync(dir, { recursive: true });
  const text = `${JSON.stringify(doc, null, 2)}\n`;
  const stamped = path.join(dir, `${date.toISOString().replace(/[:.]/g, '-')}.json`);
  const latest = path.join(dir, 'latest.json');
  fs.writeFileSync(stamped, text);
  fs.writeFileSync(latest, text);
  return { stamped, latest };
}

module.exports = { aggregate, markdownTable, writeResults, formatNumber, formatCell, formatRatio, SYSTEMS };
