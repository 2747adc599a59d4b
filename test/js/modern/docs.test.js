'use strict';
// Every example script and every block of docs/api.md marked "js runnable"
// runs to a clean exit on the stand-in broker, requiring 'kwnode' as a user
// would; the declarations type-check typed usage of both APIs under --strict,
// and every line marked @ts-expect-error really is an error (tsc fails on an
// unused marker).
const assert = require('assert');
const childProcess = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const harness = require('../harness');

const root = harness.root;
// The scripts run in a scratch directory: library paths are made absolute.
const env = Object.assign({}, process.env, {
  LD_LIBRARY_PATH: (process.env.LD_LIBRARY_PATH || '').split(':').map((dir) => dir && path.resolve(dir)).join(':'),
  SOLCLIENT_EMULATOR_QUEUES: 'orders,jobs,demo.orders',
  SOLCLIENT_EMULATOR_BROKERS_DOWN: 'nowhere:1'
});
const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'kwnode-docs-'));
fs.mkdirSync(path.join(scratch, 'node_modules'));
fs.symlinkSync(root, path.join(scratch, 'node_modules', 'kwnode'), 'dir');
process.on('exit', () => fs.rmSync(scratch, { recursive: true, force: true }));

const examples = fs.readdirSync(path.join(root, 'examples')).filter((f) => f.endsWith('.js'))
  .map((f) => [`examples/${f}`, path.join(root, 'examples', f)]);
const blocks = fs.readFileSync(path.join(root, 'docs', 'api.md'), 'utf8')
  .split(/^```js runnable\n/m).slice(1).map((block, i) => {
    const file = path.join(scratch, `api-${i + 1}.js`);
    fs.writeFileSync(file, block.split(/^```$/m)[0]);
    return [`docs/api.md runnable block ${i + 1}`, file];
  });
assert.ok(examples.length >= 4 && blocks.length >= 6, 'examples and runnable blocks found');

// A test that runs the file from the scratch directory to a clean exit.
const runs = (file) => (done) => childProcess.execFile(process.execPath, [file], { cwd: scratch, env, timeout: 30000 },
  (err, stdout, stderr) => done(err && new Error(`${err.message}\n${stdout}${stderr}`)));
for (const [name, file] of examples.concat(blocks)) harness.test(name, runs(file));

// Every value the declarations export is a named export of an ES module import as well
// ('kwnode/promises' as docs/api.md writes it, and the file's own name; 'kwnode/constants' as
// before the exports map, which does no extension search).
harness.test('ES module imports find every value the declarations export', (done) => {
  const file = path.join(scratch, 'imports.mjs');
  fs.writeFileSync(file, [
    "import { KWNodeClient, KWNodeEvent, KWNodeMessage, EventCode, ConnectionState, QoS } from 'kwnode';",
    "import * as layer from 'kwnode/promises';",
    "import * as file from 'kwnode/promises.js';",
    "import constants from 'kwnode/constants';",
    'const names = [KWNodeClient, KWNodeEvent, KWNodeMessage, EventCode, ConnectionState, QoS, constants.QoS === QoS];',
    "const missing = ['Client', 'Subscription', 'connect', 'EventCode', 'ConnectionState', 'QoS'].filter((n) => !(n in layer) || file[n] !== layer[n]);",
    'process.exit(names.every(Boolean) && missing.length === 0 ? 0 : (console.error(missing.join()), 1));'
  ].join('\n'));
  runs(file)(done);
});

harness.test('tsc --noEmit --strict accepts the usage files and rejects the misuse lines', () => {
  const tsc = require.resolve('typescript/bin/tsc', { paths: [root] });
  const run = childProcess.spawnSync(process.execPath,
    [tsc, '--noEmit', '--strict', '-p', path.join(__dirname, 'types')], { encoding: 'utf8' });
  assert.strictEqual(run.status, 0, run.stdout + run.stderr);
});
