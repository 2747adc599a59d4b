'use strict';
// The callback bridge driven from native threads through the probe add-on.
var assert = require('assert');
var harness = require('./harness');
var test = harness.test;
var probe = require(harness.probePath);

test('items pushed from several threads before the loop runs arrive in one batch, each thread in its own order; ' +
  'an item pushed during a batch waits for the next', function (done) {
  var PER_THREAD = 2500;
  var next = [0, 0, 0, 0];
  var batches = [];
  var total = 0;
  var outOfOrder = null;
  probe.pushFromThreads(next.length, PER_THREAD, function (thread, seq, batch) {
    if (seq !== next[thread] && !outOfOrder) outOfOrder = 'thread ' + thread + ': ' + seq + ' after ' + next[thread];
    next[thread] = seq + 1;
    if (batches.indexOf(batch) < 0) batches.push(batch);
    if (++total < next.length * PER_THREAD) return;
    assert.deepStrictEqual([outOfOrder, next, batches.length], [null, [PER_THREAD, PER_THREAD, PER_THREAD, PER_THREAD], 1]);
    probe.pushFromThreads(1, 1, function (t, s, later) {
      assert.ok(later > batch, 'the item pushed while batch ' + batch + ' ran came in batch ' + later);
      done();
    });
  });
  assert.strictEqual(probe.pendingCount(), next.length * PER_THREAD);
});

test('reports from a library thread: a completion reported twice runs twice; runtime errors', function () {
  var KWNodeEvent = probe.KWNodeEvent;
  var twice = [];
  var events = [];
  probe.runtimeError(function (ev) { events.push(ev); }, 'x');
  probe.runtimeError(function (ev) { events.push(ev); }, 'caf\u00e9 failed', 42);
  return Promise.all([
    harness.completion(function (done) {
      probe.reportTwice(function (err) { if (twice.push(err) === 2) done(); });
    }),
    harness.waitFor(function () { return events.length === 2; }, 'events')
  ]).then(function () {
    assert.deepStrictEqual(twice, [null, null]);
    assert.ok(events[0] instanceof KWNodeEvent);
    events.push(new KWNodeEvent());
    assert.deepStrictEqual(events.map(function (ev) {
      return [ev.eventCode(), ev.eventSubCode(), ev.what(), ev.message()];
    }), [[2, 0, 'x', null], [2, 42, 'caf\u00e9 failed', null], [0, 0, '', null]]);
  });
});

test('a handler released last on a library thread hands its function to the JavaScript thread', function () {
  var collected = false;
  var registry = typeof global.FinalizationRegistry === 'function' && global.gc
    ? new global.FinalizationRegistry(function () { collected = true; }) : null;
  (function () {
    var fn = function () { throw new Error('never called'); };
    if (registry) registry.register(fn, 'fn');
    // Queued for disposal, not disposed on the foreign thread.
    assert.strictEqual(probe.releaseHandlerOnThread(fn), 1);
  })();
  return harness.waitFor(function () { return probe.pendingCount() === 0; }, 'the release to run').then(function () {
    // Once disposed, nothing keeps the function alive.
    if (registry) return harness.waitFor(function () { global.gc(); return collected; }, 'the function to be collected');
  });
});

test('an exception thrown by a callback is reported as uncaught and later items still run', function () {
  var run = harness.spawn(['-e', 'var probe = require(' + JSON.stringify(harness.probePath) + '), caught = [], calls = 0;\n' +
    'process.on("uncaughtException", function (e) { caught.push(e.message); });\n' +
    'probe.pushFromThreads(1, 3, function (t, seq) { calls++; if (seq === 1) throw new Error("boom " + seq); });\n' +
    'setTimeout(function () { console.log(JSON.stringify({ calls: calls, caught: caught })); process.exit(0); }, 200);']);
  assert.deepStrictEqual(JSON.parse(run.out), { calls: 3, caught: ['boom 1'] });
});
