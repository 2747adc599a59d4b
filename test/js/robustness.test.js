'use strict';
// Hostile use ends in JavaScript errors only; memory stays flat over a long run.
var assert = require('assert');
var childProcess = require('child_process');
var harness = require('./harness');
var test = harness.test;

test('a script of hostile calls gets JavaScript errors and the process lives on', function () {
  var script = function (root) {
    var kw = require(root);
    var client = new kw.KWNodeClient('hostile', 'SOLACE', { host: 'localhost', port: 55555, vpn: 'hostile' });
    var message = new kw.KWNodeMessage();
    var event = new kw.KWNodeEvent();
    var throwing = { toString: function () { throw new Error('no text'); } };
    var getter = {};
    Object.defineProperty(getter, 'host', { enumerable: true, get: function () { throw new Error('no host'); } });
    var calls = [
      function () { kw.KWNodeClient.prototype.publish.call({}, 't', 'p'); },
      function () { kw.KWNodeClient.prototype.connect.call(message); },
      function () { kw.KWNodeMessage.prototype.topic.call(event); },
      function () { kw.KWNodeEvent.prototype.what.call(client); },
      function () { client.forward('t', { topic: function () { return 't'; } }); },
      function () { client.forward('t', event); },
      function () { client.forward(); },
      function () { client.publish('t', null); },
      function () { client.publish('t', 2, undefined, 'cb'); },
      function () { client.publish(Symbol('t'), 'p'); },
      function () { client.publish(throwing, 'p'); },
      function () { client.subscribe(); },
      function () { client.subscribe('t', {}); },
      function () { new kw.KWNodeClient(); },
      function () { new kw.KWNodeClient('id', 'SOLACE', undefined); },
      function () { new kw.KWNodeClient('id', 'SOLACE', getter); },
      function () { new kw.KWNodeClient('id', 'SOLACE', { host: throwing }); },
      function () { new kw.KWNodeClient(throwing, throwing, {}); }
    ];
    var errors = calls.map(function (call) {
      try { call(); return 'returned'; } catch (e) { return e instanceof Error ? 'Error' : typeof e; }
    });
    console.log(JSON.stringify(errors));
    process.exit(0);
  };
  var child = childProcess.spawnSync(process.execPath,
    ['-e', '(' + script.toString() + ')(' + JSON.stringify(harness.root) + ')'], { timeout: 60000 });
  assert.strictEqual(child.status, 0, 'exit ' + child.status + ' / ' + child.signal + ': ' + child.stderr);
  assert.deepStrictEqual(JSON.parse(child.stdout.toString()), new Array(18).fill('Error'));
});

test('memory stays flat over a long run of publish and receive, payloads kept and dropped', function () {
  if (!global.gc) return undefined;  // needs --expose-gc, as ctest runs it
  var ROUNDS = 24;
  var PER_ROUND = 1000;
  var payload = Buffer.alloc(4096, 7);
  var kept = [];
  var received = 0;
  var samples = [];
  return harness.connected('memory', 'memory').then(function (c) {
    c.client.subscribe('kw.memory', 2, function (m) {
      received++;
      // Keep the last round's payloads alive, drop the rest.
      kept.push(m.payload());
      if (kept.length > PER_ROUND) kept.shift();
      m.acknowledge();
    }, null);
    function round(n) {
      if (n === ROUNDS) return Promise.resolve();
      for (var i = 0; i < PER_ROUND; i++) c.client.publish('kw.memory', 2, payload);
      return harness.waitFor(function () { return received === (n + 1) * PER_ROUND; }, 'round ' + n, 60000)
        .then(function () {
          // Collected every round, so a sample holds what is retained, not garbage.
          global.gc();
          if (n === 9 || n === ROUNDS - 1) samples.push(process.memoryUsage());  // after the warm-up
          return round(n + 1);
        });
    }
    return round(0).then(function () { c.client.disconnect(); });
  }).then(function () {
    // 14000 further messages of 4 KiB passed between the samples; a leak of
    // the packets alone would add about 55 MiB. The bounds leave room for
    // allocator and heap growth.
    [['rss', 16], ['heapUsed', 8]].forEach(function (bound) {
      var grownMiB = (samples[1][bound[0]] - samples[0][bound[0]]) / (1024 * 1024);
      assert.ok(grownMiB < bound[1], bound[0] + ' grew ' + grownMiB + ' MiB');
    });
  });
});
