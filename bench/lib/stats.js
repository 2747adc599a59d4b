'use strict';
// Small statistics helpers shared by the workloads and the report.

// Median, minimum and maximum of the finite numbers in `values` (runs that
// produced no figure are left out); null when nothing is left.
function summarize(values) {
  const xs = values.filter((v) => typeof v === 'number' && Number.isFinite(v)).sort((a, b) => a - b);
  if (xs.length === 0) return null;
  const mid = xs.length >> 1;
  const median = xs.length % 2 ? xs[mid] : (xs[mid - 1] + xs[mid]) / 2;
  return { median, min: xs[0], max: xs[xs.length - 1], n: xs.length };
}

// Nearest-rank percentile of an ascending-sorted array (p in 0..100).
function percentileSorted(sorted, p) {
  if (sorted.length === 0) return NaN;
  if (p <= 0) return sorted[0];
  // The tolerance keeps binary rounding (99.9 / 100 * 1000 = 999.0000000000001)
  // from moving the rank one place up.
  const rank = Math.ceil((p / 100) * sorted.length - 1e-9);
  return sorted[Math.min(sorted.length, rank) - 1];
}

// p50/p99/p99.9 of the first `count` samples of a typed array (the latency
// workload records into a preallocated Float64Array).
function latencyPercentiles(samples, count) {
  const sorted = Float64Array.from(samples.subarray(0, count)).sort();
  return { p50: percentileSorted(sorted, 50), p99: percentileSorted(sorted, 99), p999: percentileSorted(sorted, 99.9) };
}

// a/b as a plain number, or null when either side is missing or b is zero.
function ratio(a, b) {
  if (typeof a !== 'number' || typeof b !== 'number' || !Number.isFinite(a) || !Number.isFinite(b) || b === 0) {
    return null;
  }
  return a / b;
}

module.exports = { summarize, percentileSorted, latencyPercentiles, ratio };
