'use strict';
// test(name, fn) for Node 20 (node:test) and Node 6 (a small sequential
// runner printing "N passed, M failed"). fn takes a done callback or returns
// a Promise. Tests run one after another; every file ends with an explicit
// exit because the add-on's async handle keeps the event loop alive.
var TIMEOUT_MS = 60000;

var nodeTest = null;
try {
  nodeTest = require('node:test');
} catch (e) {
  nodeTest = null;
}

var registered = 0;
var settled = 0;

function finishWhenAllSettled() {
  settled++;
  if (settled !== registered) return;
  // node:test prints its summary on 'beforeExit', which never comes while the
  // loop is kept alive; raise it ourselves and exit once the report is out.
  setImmediate(function () {
    process.emit('beforeExit', process.exitCode || 0);
    setTimeout(function () { process.exit(); }, 300);
  });
}

// Runs fn and calls done(err) exactly once: on completion, failure or
// after TIMEOUT_MS.
function runBody(fn, done) {
  var finished = false;
  var timer = setTimeout(function () { finish(new Error('timed out after ' + TIMEOUT_MS + ' ms')); }, TIMEOUT_MS);
  function finish(err) {
    if (finished) return;
    finished = true;
    clearTimeout(timer);
    done(err);
  }
  if (fn.length >= 1) {
    fn(finish);
    return;
  }
  Promise.resolve().then(fn).then(function () { finish(); }, finish);
}

function viaNodeTest(name, fn) {
  registered++;
  nodeTest(name, function (t, done) {
    runBody(fn, function (err) {
      done(err);
      finishWhenAllSettled();
    });
  });
}

var queue = [];
var passed = 0;
var failed = 0;

function runNext() {
  var entry = queue.shift();
  if (!entry) {
    console.log(passed + ' passed, ' + failed + ' failed');
    process.exit(failed ? 1 : 0);
  }
  var finished = false;
  function onUncaught(err) { finish(err); }
  function finish(err) {
    if (finished) return;
    finished = true;
    process.removeListener('uncaughtException', onUncaught);
    if (err) {
      failed++;
      console.log('not ok - ' + entry.name + '\n  ' + String((err && err.stack) || err).replace(/\n/g, '\n  '));
    } else {
      passed++;
      console.log('ok - ' + entry.name);
    }
    setImmediate(runNext);
  }
  process.on('uncaughtException', onUncaught);
  try {
    runBody(entry.fn, finish);
  } catch (err) {
    finish(err);
  }
}

function viaOwnRunner(name, fn) {
  if (registered++ === 0) setImmediate(runNext);
  queue.push({ name: name, fn: fn });
}

exports.test = nodeTest && process.env.KW_OWN_RUNNER !== '1' ? viaNodeTest : viaOwnRunner;

var root = require('path').resolve(__dirname, '..', '..');
var addonDir = require('path').join(root, 'build', 'addon', 'node-v' + process.versions.modules);
exports.root = root;
exports.kwnode = function () { return require(root); };
exports.probe = function () { return require(require('path').join(addonDir, 'kwbridge_probe.node')); };

// A Node-style completion as a Promise: completion(function (done) {...})
// resolves with the argument done receives (null or an Error).
exports.completion = function (start) {
  return new Promise(function (resolve) { start(resolve); });
};

// Resolves when predicate() holds, checking after each turn of the loop;
// rejects with what() after timeoutMs. Bounds a wait, measures nothing.
exports.waitFor = function (predicate, what, timeoutMs) {
  var deadline = Date.now() + (timeoutMs || 10000);
  return new Promise(function (resolve, reject) {
    (function check() {
      if (predicate()) return resolve();
      if (Date.now() > deadline) return reject(new Error('timed out waiting for ' + what));
      setTimeout(check, 5);
    })();
  });
};
