'use strict';
// Where the pieces under test are: the kwnode package, its bridge probe, the
// stand-in vendor library and the benchmark's own zeromq install.

const fs = require('fs');
const path = require('path');
const { execFileSync } = require('child_process');

const BENCH_DIR = path.resolve(__dirname, '..');
const ROOT = path.resolve(BENCH_DIR, '..');

// The directory holding libsolclient.so that the workers get on
// LD_LIBRARY_PATH. Order: explicit choice, an entry of the inherited
// LD_LIBRARY_PATH that has the library (ctest sets it), then the default build
// trees. null when none has it.
function findEmulatorDir({ explicit, ldLibraryPath, root = ROOT } = {}) {
  const has = (dir) => !!dir && fs.existsSync(path.join(dir, 'libsolclient.so'));
  if (explicit) return has(explicit) ? path.resolve(explicit) : null;
  const found = (ldLibraryPath || '').split(':').find(has);
  if (found) return path.resolve(found);
  const trees = ['build', ...fs.readdirSync(root).filter((e) => e.startsWith('build-')).sort()];
  return trees.map((tree) => path.join(root, tree, 'emulator')).find(has) || null;
}

// LD_LIBRARY_PATH with `dir` in front, without duplicating it.
function prependLibraryPath(dir, current) {
  const rest = (current || '').split(':').filter((p) => p && path.resolve(p) !== dir);
  return [dir, ...rest].join(':');
}

// KWNODE_BUILD_DIR, when set, names the build tree to measure (another
// configuration, or an older build kept for a before/after comparison).
const addonFile = (name) => path.join(process.env.KWNODE_BUILD_DIR ? path.resolve(ROOT, process.env.KWNODE_BUILD_DIR)
  : path.join(ROOT, 'build'), 'addon', `node-v${process.versions.modules}`, name);

// The module as scripts load it (the package main), or the add-on file itself
// of the tree that KWNODE_BUILD_DIR names.
const loadKwnode = () => require(process.env.KWNODE_BUILD_DIR ? addonFile('kwnode.node') : ROOT);
const loadProbe = () => require(addonFile('kwbridge_probe.node'));
const zeromqDir = () => path.join(BENCH_DIR, 'node_modules', 'zeromq');
const loadZeromq = () => require(zeromqDir());

// Installs bench/package.json's dependencies into bench/node_modules unless
// zeromq is already there. Install scripts are off: zeromq's package carries
// its prebuilt binaries, and its install script could only try to build from
// sources fetched elsewhere. Returns { ok, note }.
function ensureZeromq({ log = () => {}, timeoutMs = 120000 } = {}) {
  const present = () => fs.existsSync(path.join(zeromqDir(), 'package.json'));
  if (!present()) {
    const wanted = JSON.parse(fs.readFileSync(path.join(BENCH_DIR, 'package.json'), 'utf8')).dependencies.zeromq;
    log(`installing zeromq ${wanted} into bench/node_modules ...`);
    try {
      execFileSync('npm', ['install', '--no-save', '--ignore-scripts', '--no-audit', '--no-fund', '--no-package-lock'],
        { cwd: BENCH_DIR, stdio: ['ignore', 'pipe', 'pipe'], timeout: timeoutMs });
    } catch (err) {
      const detail = (err.stderr && err.stderr.toString().trim().split('\n').pop()) || err.message;
      return { ok: false, note: `zeromq could not be installed (${detail}); that peer is skipped` };
    }
  }
  if (!present()) return { ok: false, note: 'zeromq is absent after npm install; that peer is skipped' };
  return { ok: true, note: null };
}

module.exports = { findEmulatorDir, prependLibraryPath, loadKwnode, loadProbe, loadZeromq, zeromqDir, ensureZeromq };
