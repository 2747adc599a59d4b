#!/usr/bin/env node
// Configures (first time) and builds the CMake tree into build/. Run by
// `npm install`, `npm test` and the demo, so every entry point builds first.
'use strict';
const { execFileSync } = require('child_process');
const fs = require('fs');
const path = require('path');

const root = path.resolve(__dirname, '..');
const build = path.join(root, 'build');
const run = (cmd, args) => execFileSync(cmd, args, { cwd: root, stdio: 'inherit' });

if (!fs.existsSync(path.join(build, 'CMakeCache.txt'))) {
  run('cmake', ['-S', root, '-B', build, '-DCMAKE_BUILD_TYPE=RelWithDebInfo']);
}
run('cmake', ['--build', build, '--parallel', String(Math.max(2, require('os').cpus().length))]);
