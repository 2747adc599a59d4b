'use strict';
// Where the pieces under test are: the kwnode package, its bridge probe, the
// stand-in vendor library and the benchmark's own zeromq install.

const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');

const BENCH_DIR = path.resolve(__dirname, '..');
const ROOT = path.resolve(BENCH_DIR, '..');
const VENDOR_LIB = 'libsolclient.so';

// The directory holding libsolclient.so that the workers get on
// LD_LIBRARY_PATH. Order: explicit choice, an entry of the inherited
// LD_LIBRARY_PATH that has the library (ctest sets it), then the default build
// trees. null when none has it.
function findEmulatorDir({ explicit, ldLibraryPath, root = ROOT } = {}) {
  const has = (dir) => !!dir && fs.existsSync(path.join(dir, VENDOR_LIB));
  if (explicit) return has(explicit) ? path.resolve(explicit) : null;
  for (const dir of (ldLibraryPath || '').split(':')) {
    if (has(dir)) return path.resolve(dir);
  }
  const candidates = [path.join(root, 'build', 'emulator')];
  let entries = [];
  try {
    entries = fs.readdirSync(root).filter((e) => e.startsWith('build-')).sort();
  } catch (err) {
    entries = [];
  }
  for (const e of entries) candidates.push(path.join(root, e, 'emulator'));
  return candidates.find(has) || null;
}

// LD_LIBRARY_PATH with `dir` in front, without duplicating it.
function prependLibraryPath(dir, current) {
  const rest = (current || '').split(':').filter((p) => p && path.resolve(p) !== dir);
  return [dir, ...rest].join(':');
}

// KWNODE_BUILD_DIR, when set, names the build tree to measure (another
// configuration, or an older build kept for a before/after comparison).
function buildDir(root = ROOT) {
  return process.env.KWNODE_BUILD_DIR ? path.resolve(root, process.env.KWNODE_BUILD_DIR) : path.join(root, 'build');
}

function addonDir(root = ROOT, abi = process.versions.modules) {
  return path.join(buildDir(root), 'addon', `node-v${abi}`);
}

// The module as scripts load it (the package main), falling back to the
// add-on file itself while the package entry is not there yet or when
// KWNODE_BUILD_DIR names another build tree.
function loadKwnode(root = ROOT) {
  if (!process.env.KWNODE_BUILD_DIR && fs.existsSync(path.join(root, 'index.js'))) return require(root);
  return require(path.join(addonDir(root), 'kwnode.node'));
}

function loadProbe(root = ROOT) {
  return require(path.join(addonDir(root), 'kwbridge_probe.node'));
}

function zeromqDir() {
  return path.join(BENCH_DIR, 'node_modules', 'zeromq');
}

function loadZeromq() {
  return require(zeromqDir());
}

// The version that bench/package.json asks for.
function wantedZeromq() {
  const pkg = JSON.parse(fs.readFileSync(path.join(BENCH_DIR, 'package.json'), 'utf8'));
  return pkg.dependencies.zeromq;
}

// Installs bench/package.json's dependencies into bench/node_modules unless
// zeromq is already there. Install scripts are off: zeromq's package carries
// its prebuilt binaries, and its install script could only try to build from
// sources fetched elsewhere. Returns { ok, note }.
function ensureZeromq({ log = () => {}, timeoutMs = 120000 } = {}) {
  const present = () => fs.existsSync(path.join(zeromqDir(), 'package.json'));
  if (!present()) {
    log(`installing zeromq ${wantedZeromq()} into bench/node_modules ...`);
    try {
      execFileSync(
        'npm',
        ['install', '--no-save', '--ignore-scripts', '--no-audit', '--no-fund', '--no-package-lock'],
        { cwd: BENCH_DIR, stdio: ['ignore', 'pipe', 'pipe'], timeout: timeoutMs },
      );
    } catch (err) {
      const detail = (err.stderr && err.stderr.toString().trim().split('\n').pop()) || err.message;
      return { ok: false, note: `zeromq could not be installed (${detail}); that peer is skipped` };
    }
  }
  if (!present()) return { ok: false, note: 'zeromq is absent after npm install; that peer is skipped' };
  return { ok: true, note: null };
}

module.exports = {
  BENCH_DIR,
  ROOT,
  findEmulatorDir,
  prependLibraryPath,
  addonDir,
  loadKwnode,
  loadProbe,
  loadZeromq,
  zeromqDir,
  ensureZeromq,
};
