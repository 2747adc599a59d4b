'use strict';
// test(name, fn): a sequential runner that works the same on Node 6 and later.
// fn takes a done callback or returns a Promise; a test fails on an error, a
// rejection, an uncaught exception or after 60 s. The run ends with an
// explicit exit because the add-on's async handle keeps the event loop alive.
var childProcess = require('child_process');
var path = require('path');

var queue = [];
var passed = 0;
var failed = 0;
var summed = false;

// A suite file that ends with status 0 before its runner summed up (it
// registered no test, or something called process.exit early) must not pass.
var guarded = /\.test\.js$/.test(process.argv[1] || '');
process.on('exit', function (code) {
  if (guarded && code === 0 && !summed) {
    console.log('not ok - the file ended before its tests ran to the end');
    process.exitCode = 1;
  }
});
// For a file that uses these helpers without the runner (a child it spawns).
exports.unguarded = function () { guarded = false; };

function runNext() {
  var entry = queue.shift();
  if (!entry) {
    summed = true;
    console.log(passed + ' passed, ' + failed + ' failed');
    process.exit(failed ? 1 : 0);
  }
  var finished = false;
  var timer = setTimeout(function () { finish(new Error('timed out after 60 s')); }, 60000);
  function finish(err) {
    if (finished) return;
    finished = true;
    clearTimeout(timer);
    process.removeListener('uncaughtException', finish);
    if (err) failed++; else passed++;
    console.log((err ? 'not ok - ' : 'ok - ') + entry.name +
      (err ? '\n  ' + String(err.stack || err).replace(/\n/g, '\n  ') : ''));
    setImmediate(runNext);
  }
  process.on('uncaughtException', finish);
  try {
    if (entry.fn.length) entry.fn(finish);
    else Promise.resolve().then(entry.fn).then(function () { finish(); }, finish);
  } catch (err) {
    finish(err);
  }
}

exports.test = function (name, fn) {
  if (queue.push({ name: name, fn: fn }) === 1) setImmediate(runNext);
};

var root = exports.root = path.resolve(__dirname, '..', '..');
// The add-ons of the build tree under test, chosen as index.js does.
var addonDir = path.resolve(process.env.KWNODE_BUILD_DIR || path.join(root, 'build'), 'addon',
  'node-v' + process.versions.modules);
exports.probePath = path.join(addonDir, 'kwbridge_probe.node');
exports.kwnode = function () { return require(root); };
// The stand-in's control functions; kwnode loads the library they look up.
exports.control = function () {
  exports.kwnode();
  return require(path.join(addonDir, 'kwemu_control.node'));
};
// Set where the add-on runs under a sanitizer runtime: memory figures mean nothing there.
exports.sanitized = !!process.env.KWNODE_SANITIZED;

// Runs node with args in a child process (env: process.env by default);
// returns its exit status, signal, trimmed stdout and stderr.
exports.spawn = function (args, env) {
  var run = childProcess.spawnSync(process.execPath, args,
    { env: env || process.env, timeout: 600000, maxBuffer: 256 * 1024 * 1024 });
  return { status: run.status, signal: run.signal, out: String(run.stdout).trim(), err: String(run.stderr) };
};

// A seeded random stream in [0, 1) (mulberry32), the same on every Node line,
// so that a seed replays a fuzz or soak run.
exports.seeded = function (seed) {
  var state = seed >>> 0;
  return function () {
    state = (state + 0x6d2b79f5) >>> 0;
    var t = state;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
};

// A Node-style completion as a Promise resolving with what done receives.
exports.completion = function (start) {
  return new Promise(function (resolve) { start(resolve); });
};

// Resolves once predicate() holds, rejects naming what (a text, or a function
// giving one) after timeoutMs. Bounds a wait, measures nothing.
exports.waitFor = function (predicate, what, timeoutMs) {
  var deadline = Date.now() + (timeoutMs || 10000);
  return new Promise(function (resolve, reject) {
    (function check() {
      if (predicate()) return resolve();
      if (Date.now() > deadline) return reject(new Error('timed out waiting for ' + (typeof what === 'function' ? what() : what)));
      setTimeout(check, 5);
    })();
  });
};

// The messages one handler received, in arrival order.
exports.collector = function () {
  var got = [];
  got.handler = function (m) { got.push(m); };
  got.waitFor = function (n) {
    return exports.waitFor(function () { return got.length >= n; }, n + ' messages', 30000);
  };
  return got;
};

// Made apart from the client: an event function that can reach its client
// (through a shared closure) keeps it for as long as it is connected.
function recorder(events) {
  return function (ev) { events.push([ev.eventCode(), ev.eventSubCode(), ev.what()]); };
}

// Resolves with { client, events } once a client on the stand-in broker (at
// port, 55555 by default) is in state 3 and its event saying so has come
// through the loop; events holds [eventCode, eventSubCode, what] of each.
exports.connected = function (id, vpn, port) {
  var events = [];
  var client = new (exports.kwnode().KWNodeClient)(id, 'SOLACE', { host: 'localhost', port: port || 55555, vpn: vpn },
    recorder(events));
  client.connect();
  function reported() { return events.some(function (e) { return e[0] === 1 && e[1] === 3; }); }
  return exports.waitFor(function () { return client.getConnectionState() === 3 && reported(); }, id + ' connected', 30000)
    .then(function () { return { client: client, events: events }; });
};
