#!/usr/bin/env node
// Builds the CMake tree in build/.
//   node scripts/build.js            everything: add-on, stand-in, tests and
//                                    benchmarks (npm test, the demo, benches)
//   node scripts/build.js --install  what a user needs (npm's install step):
//                                    nothing when a prebuilt add-on matches
//                                    this Node.js, else the add-on and the
//                                    stand-in only, without tests or GoogleTest
'use strict';
const { execFileSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

const root = path.resolve(__dirname, '..');
const build = path.join(root, 'build');
const install = process.argv.includes('--install');
const run = (cmd, args) => execFileSync(cmd, args, { cwd: root, stdio: 'inherit' });

const prebuilt = path.join(root, 'prebuilds', `${process.platform}-${process.arch}`,
  `node-v${process.versions.modules}`, 'kwnode.node');
// A checkout builds its own (index.js skips prebuilds/ there).
const checkout = fs.existsSync(path.join(root, '.git'));
if (install && !checkout && fs.existsSync(prebuilt)) {
  console.log(`kwnode: using the prebuilt ${path.relative(root, prebuilt)}`);
  process.exit(0);
}

// The headers of the Node.js running this script (an official tarball keeps
// them beside bin/, a distribution package under /usr/include).
function nodeHeaders() {
  const beside = path.resolve(path.dirname(process.execPath), '..', 'include', 'node');
  return fs.existsSync(path.join(beside, 'node_version.h')) ? beside : '/usr/include/node';
}

// NAN sits in the package's own node_modules in a checkout, higher up once
// the package is installed as a dependency.
function nanHeaders() {
  return path.dirname(require.resolve('nan/package.json', { paths: [root] }));
}

const cache = path.join(build, 'CMakeCache.txt');
const cached = fs.existsSync(cache) ? fs.readFileSync(cache, 'utf8') : null;
const testsOn = cached !== null && /^KW_BUILD_TESTS:BOOL=ON$/m.test(cached);
// After a switch of Node.js (nvm) the cached headers are another line's: the
// add-on would be built for an ABI this Node.js cannot load.
const headers = nodeHeaders();
const sameHeaders = cached !== null && cached.split('\n').includes(`NODE_INCLUDE_DIR:PATH=${headers}`);
if (!sameHeaders || (!install && !testsOn)) {
  const tests = !install || testsOn;
  // The tests run on the Node.js the add-on is built for.
  run('cmake', ['-S', root, '-B', build, '-DCMAKE_BUILD_TYPE=RelWithDebInfo',
    `-DNODE_INCLUDE_DIR=${headers}`, `-DNAN_INCLUDE_DIR=${nanHeaders()}`,
    `-DKW_BUILD_TESTS=${tests ? 'ON' : 'OFF'}`].concat(tests ? [`-DKW_NODE_EXECUTABLE=${process.execPath}`] : []));
}
const targets = install ? ['--target', 'kwnode', 'solclient'] : [];
run('cmake', ['--build', build, '--parallel', String(Math.max(2, os.cpus().length))].concat(targets));
