'use strict';
// Seeded random calls on clients, messages and events with hostile arguments
// and receivers. Verdict: the process survives and everything thrown, at once
// or from a callback, is an Error. A child process runs the calls, so that a
// crash is reported with the seed that replays it:
//   KWNODE_FUZZ_SEED=<seed> [KWNODE_FUZZ_CALLS=<n>] node test/js/fuzz.test.js
var assert = require('assert');
var harness = require('./harness');

var CALLS = Number(process.env.KWNODE_FUZZ_CALLS || 100000);
var SEED = Number(process.env.KWNODE_FUZZ_SEED || Date.now() % 0x7fffffff) >>> 0;

if (process.env.KWNODE_FUZZ_CHILD) {
  harness.unguarded();
  fuzz();
} else {
  harness.test('random hostile call sequences end in JavaScript errors only (seed ' + SEED + ')', function () {
    var run = harness.spawn(['--expose-gc', __filename], Object.assign({}, process.env,
      { KWNODE_FUZZ_CHILD: '1', KWNODE_FUZZ_SEED: String(SEED), KWNODE_FUZZ_CALLS: String(CALLS) }));
    var verdict = run.out.split('\n').filter(function (line) { return line.indexOf('fuzz:') === 0; }).join('\n');
    console.log(verdict);
    assert.ok(run.status === 0 && /fuzz: survived/.test(run.out), 'the fuzzed process failed (exit ' + run.status +
      ', signal ' + run.signal + '); replay with KWNODE_FUZZ_SEED=' + SEED + '\n' + verdict + '\n' + run.err.slice(-4000));
  });
}

function fuzz() {
  var kw = harness.kwnode();
  var random = harness.seeded(SEED);
  function below(n) { return Math.floor(random() * n); }
  function pick(list) { return list[below(list.length)]; }

  var counts = { calls: 0, threw: 0, callbacks: 0, callbackThrew: 0, clients: 0 };
  function hostile() { throw new Error('hostile'); }
  function verify(e, what) {
    if (e instanceof Error) return;
    console.log('fuzz: FAILED after ' + counts.calls + ' calls: ' + what + ' threw a non-Error: ' + typeof e + ' ' + String(e));
    process.exit(1);
  }
  process.on('uncaughtException', function (e) {
    verify(e, 'a callback');
    counts.callbackThrew++;
  });

  var PORT = 55610;
  var TOPICS = ['fuzz/a', 'fuzz/>', 'fuzz/*/x', '', '>', 'a//b', 'kw.q1', 'fuzz.none', '#emulator/drop'];
  var received = [];   // real messages, kept as receivers and forward payloads
  var events = [];     // real events
  var clients = [];
  function record(list, limit) {
    return function (value) {
      counts.callbacks++;
      if (value && typeof value === 'object' && list.push(value) > limit) list.splice(below(list.length), 1);
    };
  }
  var onMessage = record(received, 50);
  var onEvent = record(events, 20);
  function reentrant() {
    counts.callbacks++;
    if (below(4) === 0) step();  // calls back into the module from a callback
  }

  var huge = new Array(1 << 20).join('x');
  var surrogates = new Array(1 << 16).join('\ud800');
  var throwing = { enumerable: true, get: hostile };
  var getterData = Object.defineProperties({}, { host: throwing, port: throwing, vpn: throwing });
  var trapAll = {};
  ['get', 'set', 'has', 'ownKeys', 'getOwnPropertyDescriptor', 'getPrototypeOf', 'defineProperty', 'apply', 'construct']
    .forEach(function (trap) { trapAll[trap] = hostile; });
  var proxies = [
    () => new Proxy({}, trapAll),
    () => new Proxy(function () {}, trapAll),   // a callable that throws when called
    () => new Proxy({ host: 'localhost', port: PORT, vpn: 'fuzz' }, {}),
    () => new Proxy({}, { ownKeys: () => ['host', 'host', 'x'] })
  ];

  // Argument makers, each a fresh value per draw.
  var VALUES = [
    () => undefined, () => null, () => true, () => pick([0, -1, 1, 2, 3, 4294967296, -0, NaN, Infinity, 1e300, 2.5]),
    () => pick(TOPICS), () => pick(TOPICS), () => pick(TOPICS), () => pick(['', 'x', '12', 'caf\u00e9\u0000\ud83d\ude00', 'SOLACE', '5']),
    () => (below(100) === 0 ? huge : surrogates.slice(0, below(64))), () => Symbol('fuzz'),
    () => pick([Buffer.alloc(0), Buffer.from('payload'), new Uint8Array(3), new ArrayBuffer(8), new DataView(new ArrayBuffer(4))]),
    () => (below(50) === 0 ? Buffer.alloc(1 << 20) : Buffer.alloc(below(600), 1)),
    () => pick([{}, [], [1, 2], Object.create(null), Object.freeze({ a: 1 }), new Date(0), /re/, new Map(), { topic: () => 't' }]),
    () => ({ toString: hostile, valueOf: hostile }),
    () => ({ host: 'localhost', port: PORT, vpn: pick(['fuzz', '', 'other']), user: pick(['u', 'mallory']) }),
    () => getterData, () => ({ host: { toString: hostile } }), () => pick(proxies)(),
    () => onMessage, () => onEvent, () => reentrant, () => hostile,
    () => pick(received) || null, () => pick(events) || null, () => pick(clients) || null,
    () => new kw.KWNodeMessage(), () => kw.KWNodeEvent()
  ];
  function value() { return pick(VALUES)(); }
  function args() {
    var list = [];
    for (var n = below(7); n > 0; n--) list.push(value());
    return list;
  }

  var classes = [kw.KWNodeClient, kw.KWNodeMessage, kw.KWNodeEvent];
  var methods = [];
  classes.forEach(function (cls) {
    Object.getOwnPropertyNames(cls.prototype).forEach(function (name) {
      if (name !== 'constructor') methods.push([cls, name]);
    });
  });
  // A receiver for a method of cls: mostly a real one, else any value or a bare prototype object.
  function receiver(cls) {
    var r = below(6);
    if (r === 0) return value();
    if (r === 1) return Object.create(cls.prototype);
    if (cls === kw.KWNodeClient) return pick(clients) || value();
    if (cls === kw.KWNodeMessage) return pick(received) || new kw.KWNodeMessage();
    return pick(events) || new kw.KWNodeEvent();
  }
  function newClient() {
    var client = new kw.KWNodeClient(pick(['fuzz-a', 'fuzz-b']), 'SOLACE', { host: 'localhost', port: PORT, vpn: 'fuzz' }, onEvent);
    if (clients.push(client) > 12) clients.splice(below(clients.length), 1);  // dropped to the collector
    counts.clients++;
    return client;
  }

  // One random call; a throw must be an Error.
  function step() {
    counts.calls++;
    var call;
    var r = below(100);
    if (r < 2) {
      call = function () { newClient().connect(); };
    } else if (r < 4) {
      var cls = pick(classes);
      var list = args();
      call = below(2) ? function () { return new (Function.prototype.bind.apply(cls, [null].concat(list)))(); }
        : function () { return cls.apply(value(), list); };
    } else if (r < 30 && clients.length) {
      // Mostly well-formed traffic, so that messages and events exist to abuse.
      var client = pick(clients);
      call = pick([
        () => client.publish('fuzz/a', below(2) + 1, 'm', onEvent),
        () => client.subscribe(pick(['fuzz/>', 'fuzz/a']), onMessage, onEvent),
        () => client.subscribe('kw.q1', 2, onMessage, onEvent),
        () => client.publish('kw.q1', 2, 'q', onEvent),
        () => { var reused = Buffer.from('lent'); client.publish('kw.q1', 2, reused, onEvent); reused.fill(0); },
        () => client.forward('fuzz/a', pick(received), onEvent),
        () => client.connect(), () => client.disconnect()
      ]);
    } else {
      var method = pick(methods);
      var self = receiver(method[0]);
      var params = args();
      call = function () { return method[0].prototype[method[1]].apply(self, params); };
    }
    try {
      call();
    } catch (e) {
      verify(e, 'a call');
      counts.threw++;
    }
  }

  newClient().connect();
  (function run() {
    for (var i = 0; i < 500 && counts.calls < CALLS; i++) step();
    if (counts.calls < CALLS) return setImmediate(run);
    if (global.gc) global.gc();
    // Late callbacks of the last calls get a moment to arrive.
    setTimeout(function () {
      // A Buffer reused after publish must not reach a guaranteed send the library still reads.
      var changed = harness.control().count('changedAttachments');
      if (changed) {
        console.log('fuzz: FAILED: ' + changed + ' guaranteed payloads changed before their answer');
        process.exit(1);
      }
      console.log('fuzz: survived ' + JSON.stringify(counts) + ', ' + received.length + ' messages held, seed ' + SEED);
      process.exit(0);
    }, 500);
  })();
}
