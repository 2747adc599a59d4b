'use strict';
// The declarations type-check typed usage of both APIs under --strict, and
// every line marked @ts-expect-error really is an error (tsc fails on an
// unused marker).
const assert = require('assert');
const childProcess = require('child_process');
const path = require('path');
const harness = require('../harness');

harness.test('tsc --noEmit --strict accepts the usage files and rejects the misuse lines', () => {
  const tsc = require.resolve('typescript/bin/tsc', { paths: [harness.root] });
  const run = childProcess.spawnSync(process.execPath,
    [tsc, '--noEmit', '--strict', '-p', path.join(__dirname, 'types')], { encoding: 'utf8' });
  assert.strictEqual(run.status, 0, run.stdout + run.stderr);
});
