'use strict';
// The JavaScript surface on the stand-in broker: argument shapes, error texts
// and the standard-error line, conversions, events and request outcomes.
var assert = require('assert');
var fs = require('fs');
var path = require('path');
var harness = require('./harness');
var test = harness.test;
var kw = harness.kwnode();
var KWNodeClient = kw.KWNodeClient;
var KWNodeMessage = kw.KWNodeMessage;

// The port is a number and use_ssl a boolean: both reach the library as text.
var HOST = { host: 'localhost', port: 55555, vpn: 'module', use_ssl: false };

// Each [call, text, code]: call throws an Error whose message is exactly
// text (and whose code is code, when given).
function throwsTexts(cases) {
  cases.forEach(function (c) {
    assert.throws(c[0], function (e) { return e instanceof Error && e.message === c[1] && (c.length < 3 || e.code === c[2]); }, c[1]);
  });
}

// Checks stderr holds the error line "KWNode[e]: <file>:<line> <logText><what>"
// naming the source line whose __LINE__ statement reports with logText.
function assertErrorLine(stderr, logText, what) {
  var file = 'src/KWClient/KWNodeClient';
  var escaped = (logText + what).replace(/[.*+?^${}()|[\]\\']/g, '\\$&');
  var match = new RegExp('^KWNode\\[e\\]: ' + file + ':(\\d+) ' + escaped + '$', 'm').exec(stderr);
  assert.ok(match, 'stderr: ' + stderr);
  var line = fs.readFileSync(path.join(harness.root, file + '.cpp'), 'utf8').split('\n')[Number(match[1]) - 1];
  assert.ok(line.indexOf('__LINE__') >= 0 && line.indexOf('"' + logText + '"') >= 0, 'line ' + match[1] + ' reports');
}

function shape(m) { return [m.topic(), m.payload().toString('hex'), m.qos()]; }

var client;
var topics = harness.collector();
var queue = harness.collector();

// First, while no other test's clients wait for the collector: it counts every live session.
test('dropped clients their own functions reach: collected (session ended) when never connected, disconnected or ' +
  'failed; a connected one keeps receiving; a reconnected one keeps its functions', function () {
  var control = harness.control();
  function sessions(n) {
    return harness.waitFor(function () { global.gc(); return control.count('liveSessions') === n; },
      function () { return n + ' live sessions, not ' + control.count('liveSessions'); });
  }
  var before = control.count('liveSessions');
  var seen = [];
  var pubStates = [];
  // A function of its own per client, so that only the client's own functions reach it.
  function drop(id, data) {
    var c = new KWNodeClient(id, 'SOLACE', data, function (ev) {
      seen.push(id + ' ' + ev.eventSubCode());
      if (id === 'down' && ev.eventSubCode() === 3) c.disconnect();
    });
    function handler(m) { seen.push(id + ' ' + m.payload() + ' ' + c.getConnectionState()); c.disconnect(); }
    // A completion waits for a connect too, and reaches the client as well.
    if (id === 'down') c.subscribe('gc/down', handler);
    else c.subscribe('gc/' + id, handler, function (err) { seen.push(id + ' subscribed ' + err); });
    if (id !== 'idle') c.connect();
  }
  drop('idle', HOST);
  drop('down', HOST);
  drop('failed', { host: 'localhost', port: 55555, vpn: 'module', use_ssl: 'on', trust_store: '/nonexistent' });
  drop('live', HOST);
  var pub = new KWNodeClient('gc-pub', 'SOLACE', HOST, function (ev) { pubStates.push(ev.eventSubCode()); });
  pub.connect();
  function pubIn(state) {
    return harness.waitFor(function () { return pubStates[pubStates.length - 1] === state; }, 'publisher in state ' + state);
  }
  return Promise.all([pubIn(3), harness.waitFor(function () { return seen.length === 5; }, 'events')]).then(function () {
    return sessions(before + 2);  // live and pub
  }).then(function () {
    pub.publish('gc/live', 'hello');
    return sessions(before + 1);  // live got it and disconnected itself
  }).then(function () {
    assert.deepStrictEqual(seen.sort(), ['down 1', 'down 3', 'failed 4', 'live 1', 'live 3', 'live hello 3', 'live subscribed null']);
    // Subscribed before the disconnect: subscribed again by the next connect.
    return harness.completion(function (done) { pub.subscribe('gc/kept', function (m) { seen.push('kept ' + m.payload()); }, done); });
  }).then(function (err) {
    assert.strictEqual(err, null);
    pub.disconnect();
    return pubIn(1);
  }).then(function () {
    global.gc();
    // Waits inside the client for the connection, its handler held by nothing else.
    pub.subscribe('gc/again', function (m) { seen.push('again ' + m.payload()); });
    global.gc();
    pub.connect();
    return pubIn(3);
  }).then(function () {
    global.gc();
    pub.publish('gc/again', 'x');
    // Again until it arrives: the connect is told before the topic is subscribed again.
    return harness.waitFor(function () { pub.publish('gc/kept', 'y'); return seen.indexOf('again x') >= 0 && seen.indexOf('kept y') >= 0; },
      'the messages after the reconnect');
  }).then(function () {
    // A disconnect the library refuses throws and leaves the client connected, its workers running.
    control.failNext('solClient_session_disconnect', 1, -1, 6, 'will not disconnect');
    assert.throws(function () { pub.disconnect(); }, /will not disconnect/);
    return harness.completion(function (done) { pub.subscribe('gc/after', function () {}, done); });
  }).then(function (err) {
    assert.strictEqual(err, null);
    assert.deepStrictEqual([pubStates, pub.getConnectionState()], [[3, 1, 3], 3]);
    pub.disconnect();
  });
});

test('connect: a new client starts disconnected, reports state 3 by event and ignores arguments', function () {
  var events = [];
  client = new KWNodeClient('module-client', 'SOLACE', HOST, function (ev) {
    events.push([ev.eventCode(), ev.eventSubCode(), ev.what(), ev.message(), ev instanceof kw.KWNodeEvent]);
  });
  assert.strictEqual(client.getConnectionState(), 1);
  assert.strictEqual(client.connect(5, {}), undefined);
  return harness.waitFor(function () { return events.length > 0 && client.getConnectionState() === 3; }, 'connected')
    .then(function () {
      assert.deepStrictEqual(events[events.length - 1], [1, 3, '', null, true]);
      // A queue flow that starts reports nothing; only failures reach done.
      client.subscribe('kw.q1', 2, queue.handler, function (err) { throw err || new Error('reported'); });
      return harness.completion(function (done) { client.subscribe('m/>', topics.handler, done); });
    })
    .then(function (outcome) { assert.strictEqual(outcome, null); });
});

test('constructor: argument errors in order, conversions seen through the library', function () {
  var noData = 'Messaging Client Initialization: connection data is missing or wrong';
  throwsTexts([
    // The data check replaces the count error; construction stops without data.
    [function () { return new KWNodeClient(); }, noData],
    [function () { return new KWNodeClient('id', 'SOLACE', null, function () {}); }, noData],
    // A string is read one entry per character, so the library misses its host.
    [function () { return new KWNodeClient('dev', 'SOLACE', 'ab'); }, "invalid destination 'dev', missing parameter 'host'"],
    // Numbers are text: host and port get through, and the id is stringified.
    [function () { return new KWNodeClient(42, 'SOLACE', { host: 'h', port: 80 }); },
      "invalid destination '42', missing parameter 'vpn'"],
    [function () { return new KWNodeClient('id', 'FOO', {}); }, 'Invalid destination data', 0],
    // Called without new, it still constructs (and fails the same way).
    [function () { return KWNodeClient('id', 'FOO', {}); }, 'Invalid destination data', 0]
  ]);
});

test('library errors: Error(what) with a numeric code and a standard-error line naming the reporting line', function () {
  var load = 'require(' + JSON.stringify(harness.root) + ')';
  var run = harness.spawn(['-e', 'try { new ' + load + '.KWNodeClient("dev", "SOLACE", {}); } catch (e) {' +
    ' console.log(JSON.stringify([e instanceof Error, typeof e.code, e.message])); } process.exit(0);']);
  var what = "invalid destination 'dev', missing parameter 'host'";
  assert.deepStrictEqual(JSON.parse(run.out), [true, 'number', what]);
  assertErrorLine(run.err, 'KWNodeClient::New error: ', what);
  // A vendor library that cannot load makes require throw, after its own line.
  var env = Object.assign({}, process.env);
  delete env.LD_LIBRARY_PATH;
  run = harness.spawn(['-e', 'try { ' + load + '; } catch (e) { console.log(e.message); }'], env);
  assert.ok(/libsolclient\.so/.test(run.out), run.out);
  assertErrorLine(run.err, 'KWNodeClient::KWNodeClient error: ', run.out);
});

test('publish: every argument shape, QoS mapping, payload type and callback detection', function () {
  var t0 = topics.length;
  var q0 = queue.length;
  var outcomes = {};
  function record(name) { return function (err) { outcomes[name] = err; }; }
  var text = 'gr\u00fc\u00dfe \ud83d\ude80';
  // Each [topic, further arguments, the bytes delivered (hex) or null]; kw.q1 is a queue.
  var sends = [
    ['m/two', ['hello'], '68656c6c6f'],
    ['kw.q1', [2, Buffer.from([0, 1, 2])], '000102'],
    ['m/cb', ['x', record('cb')], '78'],
    ['m/seven', [7, 'x', record('seven')], '78'],
    ['kw.q1', [2, 'y', 'not a function'], '79'],
    ['m/empty', [''], ''],
    ['m/three', [1, Buffer.from([0xff, 0x00, 0x7f])], 'ff007f'],
    // Every line takes the same payload types: the bytes of any view (at its
    // offset) and of a whole ArrayBuffer.
    ['m/u16', [new Uint16Array([0x0102, 0x0304])], '02010403'],
    ['m/view', [new DataView(new Uint8Array([9, 8, 7, 6]).buffer, 1, 2)], '0807'],
    ['m/ab', [new Uint8Array([5, 6]).buffer], '0506'],
    // Non-ASCII topics and texts travel as their UTF-8 bytes.
    ['m/caf\u00e9/\u65e5\u672c/\ud83d\ude00', [text], Buffer.from(text).toString('hex')],
    // Five arguments read as four: QoS 2 to a queue that does not exist.
    ['m/five', [2, 'x', record('five'), 'ignored'], null]
  ];
  sends.forEach(function (s) { client.publish.apply(client, [s[0]].concat(s[1])); });
  var expected = sends.filter(function (s) { return s[2] !== null; })
    .map(function (s) { return [s[0], s[2], s[0] === 'kw.q1' ? 2 : 1]; });
  return Promise.all([topics.waitFor(t0 + expected.length - 2), queue.waitFor(q0 + 2),
    harness.waitFor(function () { return Object.keys(outcomes).length === 3; }, 'outcomes')])
    .then(function () {
      assert.deepStrictEqual(topics.slice(t0).concat(queue.slice(q0)).map(shape).sort(), expected.sort());
      assert.deepStrictEqual([outcomes.cb, outcomes.seven], [null, null]);
      assert.deepStrictEqual([outcomes.five.message, outcomes.five.errno], ['Message rejected', 1]);
      // Each payload() is a fresh Buffer over the same bytes, of a topic and a queue message.
      var m = topics[topics.length - 1];
      [queue[queue.length - 1], m].forEach(function (received) {
        var a = received.payload();
        var b = received.payload();
        assert.notStrictEqual(a, b);
        a[0] = 1;
        assert.strictEqual(b[0], 1);
      });
      assert.deepStrictEqual([m.isRedelivered(), m.isAckRequired()], [false, false]);
      var payloadText = 'Messaging Client Publish: payload is not a string, an ArrayBuffer or a view of one';
      throwsTexts([
        [function () { client.publish(); }, 'Messaging Client Publish: payload parameter missing'],
        [function () { client.publish('m/x', {}); }, payloadText],
        [function () { client.publish('m/x', 2); }, payloadText],
        [function () { client.publish('m/x', 2, null, function () {}); }, payloadText]
      ]);
    });
});

// A small topic message is forwarded from its copied bytes; above 4 KiB the
// payload stays in the library's message, whole on a topic and a queue.
test('forward: shapes and QoS of small and large messages; only received messages are accepted', function () {
  var t0 = topics.length;
  var q0 = queue.length;
  var outcomes = [];
  var big = Buffer.alloc(65536);
  for (var i = 0; i < big.length; i++) big[i] = i % 251;
  client.publish('m/original', 'forward me');
  client.publish('m/big', big);
  client.publish('kw.q1', 2, big);
  return Promise.all([topics.waitFor(t0 + 2), queue.waitFor(q0 + 1)]).then(function () {
    assert.deepStrictEqual([topics[t0 + 1].payload().equals(big), queue[q0].payload().equals(big)], [true, true]);
    var original = topics[t0];
    client.forward('m/forwarded', original);
    client.forward('kw.q1', 2, original, function (err) { outcomes.push(err); });
    client.forward('m/forwarded-cb', original, function (err) { outcomes.push(err); });
    client.forward('m/big-again', queue[q0]);
    return Promise.all([topics.waitFor(t0 + 5), queue.waitFor(q0 + 2),
      harness.waitFor(function () { return outcomes.length === 2; }, 'forward outcomes')]);
  }).then(function () {
    var got = topics.slice(t0 + 2).concat(queue.slice(q0 + 1)).map(function (m) {
      return [m.topic(), m.payload().equals(big) ? 'big' : m.payload().toString(), m.qos()];
    });
    assert.deepStrictEqual(got, [['m/forwarded', 'forward me', 1], ['m/forwarded-cb', 'forward me', 1],
      ['m/big-again', 'big', 1], ['kw.q1', 'forward me', 2]]);
    assert.deepStrictEqual(outcomes, [null, null]);
    var notReceived = 'Messaging Client Forward: message is not a received message';
    var empty = 'Messaging Message: the object holds no received message';
    assert.ok(KWNodeMessage() instanceof KWNodeMessage);
    throwsTexts([
      [function () { client.forward('m/x'); }, 'Messaging Client Forward: payload parameter is missing'],
      [function () { client.forward('m/x', {}); }, notReceived],
      [function () { client.forward('m/x', new KWNodeMessage()); }, notReceived],
      [function () { client.forward('m/x', 2, client); }, notReceived]
    ].concat(['acknowledge', 'topic', 'payload', 'isAckRequired', 'isRedelivered', 'qos'].map(function (name) {
      return [function () { new KWNodeMessage()[name](); }, empty];
    })));
  });
});

test('subscribe and unsubscribe: shapes, the three-argument reading, outcomes with errno', function () {
  var plain = harness.collector();
  var second = harness.collector();
  var again = harness.collector();
  var notAFunction = 'Messaging Client Subscribe: message handler callback is not a function';
  throwsTexts([
    [function () { client.subscribe('s/a'); }, 'Messaging Client Subscribe: message handler callback is missing'],
    // (topic, qos, handler) reads the QoS as the handler.
    [function () { client.subscribe('s/a', 2, plain.handler); }, notAFunction],
    [function () { client.subscribe('s/a', 'handler'); }, notAFunction],
    // Argument 2 is not a function, so it is the handler position.
    [function () { client.subscribe('s/plain', plain.handler, 'x'); }, notAFunction]
  ]);
  client.subscribe('s/plain', plain.handler);
  client.subscribe('kw.q2', 2, second.handler, function (err) { throw err || new Error('reported'); });
  return Promise.all([
    harness.completion(function (done) { client.subscribe('s/second', second.handler, done); }),
    harness.completion(function (done) { client.subscribe('s//bad', second.handler, done); }),
    harness.completion(function (done) { client.subscribe('kw.missing', 2, second.handler, done); })
  ]).then(function (outcomes) {
    assert.strictEqual(outcomes[0], null);
    outcomes.slice(1).forEach(function (err) {
      assert.ok(err instanceof Error && err.message.length > 0, String(err));
      assert.strictEqual(typeof err.errno, 'number');
    });
    client.publish('s/plain', 'p');
    client.publish('s/second', 's');
    client.publish('kw.q2', 2, 'q');
    return Promise.all([plain.waitFor(1), second.waitFor(2)]);
  }).then(function () {
    assert.deepStrictEqual(plain.map(function (m) { return m.topic(); }), ['s/plain']);
    assert.deepStrictEqual(second.map(function (m) { return [m.topic(), m.qos()]; }).sort(), [['kw.q2', 2], ['s/second', 1]]);
    assert.strictEqual(client.unsubscribe(), undefined);
    client.unsubscribe('s/plain');
    // 'q' stays unacknowledged: closing the flow returns it to the queue.
    client.unsubscribe('kw.q2', 2);
    return harness.completion(function (done) { client.unsubscribe('s/second', done); });
  }).then(function (outcome) {
    assert.strictEqual(outcome, null);
    client.subscribe('kw.q2', 2, again.handler, null);
    return again.waitFor(1);
  }).then(function () {
    // The library does not report the redelivered flag: it reads false.
    assert.deepStrictEqual(again.map(function (m) { return [m.payload().toString(), m.isAckRequired(), m.isRedelivered()]; }),
      [['q', true, false]]);
    again[0].acknowledge();
  });
});
