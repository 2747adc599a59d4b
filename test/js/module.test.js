'use strict';
// The JavaScript surface on the stand-in broker: argument shapes, error texts
// and the standard-error line, conversions, events and request outcomes.
var assert = require('assert');
var childProcess = require('child_process');
var fs = require('fs');
var path = require('path');
var harness = require('./harness');
var support = require('./support');
var test = harness.test;
var kw = harness.kwnode();
var KWNodeClient = kw.KWNodeClient;
var KWNodeMessage = kw.KWNodeMessage;

var VPN = 'module';
var HOST = { host: 'localhost', port: 55555, vpn: VPN };

function throwsText(fn, text) {
  assert.throws(fn, function (e) { return e instanceof Error && e.message === text; }, text);
}

// Messages received on one subscription, as [topic, payload, qos].
function mailbox() {
  var box = [];
  box.handler = function (m) { box.push([m.topic(), m.payload(), m.qos()]); box.last = m; };
  box.waitFor = function (n) {
    return harness.waitFor(function () { return box.length >= n; }, n + ' messages');
  };
  return box;
}

// A reporting line: tag, "[e]: ", path, ":", line, " ", log text, what().
function errorLine(tag, file, logText, what) {
  return new RegExp('^' + tag + '\\[e\\]: ' + file + ':(\\d+) ' + logText + what.replace(/[.*+?^${}()|[\]\\']/g, '\\$&') + '$', 'm');
}

// The source line of the statement that reports with logText.
function reportingLine(file, logText) {
  var lines = fs.readFileSync(path.join(harness.root, file + '.cpp'), 'utf8').split('\n');
  for (var i = 0; i < lines.length; i++) {
    if (lines[i].indexOf('__LINE__') >= 0 && lines[i].indexOf('"' + logText + '"') >= 0) return i + 1;
  }
  throw new Error('no reporting statement for ' + logText);
}

var client;
var topics = mailbox();
var queue = mailbox();
var events;

test('connect: a new client starts disconnected, reports state 3 by event and ignores arguments', function () {
  events = [];
  client = new KWNodeClient('module-client', 'SOLACE', HOST, function (ev) {
    events.push([ev.eventCode(), ev.eventSubCode(), ev.what(), ev.message()]);
  });
  assert.strictEqual(client.getConnectionState(), 1);
  assert.strictEqual(client.connect(5, {}), undefined);
  return harness.waitFor(function () { return events.length > 0 && client.getConnectionState() === 3; }, 'connected')
    .then(function () {
      assert.deepStrictEqual(events[events.length - 1], [1, 3, '', null]);
      // A queue flow that starts reports nothing; only failures reach done.
      client.subscribe('kw.q1', 2, queue.handler, function (err) { throw err || new Error('reported'); });
      return support.completion(function (done) { client.subscribe('m/>', topics.handler, done); });
    })
    .then(function (outcome) { assert.strictEqual(outcome, null); });
});

test('constructor: argument errors in order, conversions seen through the library', function () {
  // The data check replaces the count error; construction stops without data.
  throwsText(function () { return new KWNodeClient('id', 'SOLACE'); },
    'Messaging Client Initialization: connection data is missing or wrong');
  throwsText(function () { return new KWNodeClient('id', 'SOLACE', null, function () {}); },
    'Messaging Client Initialization: connection data is missing or wrong');
  // A string is read one entry per character, so the library misses its host.
  throwsText(function () { return new KWNodeClient('dev', 'SOLACE', 'ab'); },
    "invalid destination 'dev', missing parameter 'host'");
  // Numbers are text: host and port get through, and the id is stringified.
  throwsText(function () { return new KWNodeClient(42, 'SOLACE', { host: 'h', port: 80 }); },
    "invalid destination '42', missing parameter 'vpn'");
  assert.throws(function () { return new KWNodeClient('id', 'FOO', {}); }, function (e) {
    return e.message === 'Invalid destination data' && e.code === 0;
  });
  // Called without new, it still constructs (and fails the same way).
  throwsText(function () { return KWNodeClient('id', 'FOO', {}); }, 'Invalid destination data');
  var numeric = new KWNodeClient('conv', 'SOLACE', { host: 'localhost', port: 55555, vpn: VPN, use_ssl: false });
  numeric.connect();
  return harness.waitFor(function () { return numeric.getConnectionState() === 3; }, 'numeric port to connect')
    .then(function () { numeric.disconnect(); });
});

test('library errors: Error(what) with a numeric code and one standard-error line naming the reporting line', function () {
  var script = [
    'var KWNodeClient = require(' + JSON.stringify(harness.root) + ').KWNodeClient;',
    'try { new KWNodeClient("dev", "SOLACE", {}); } catch (e) {',
    '  console.log(JSON.stringify({ message: e.message, code: e.code, isError: e instanceof Error })); }'
  ].join('\n');
  var child = childProcess.spawnSync(process.execPath, ['-e', script + '\nprocess.exit(0);']);
  var result = JSON.parse(child.stdout.toString());
  var what = "invalid destination 'dev', missing parameter 'host'";
  assert.strictEqual(result.message, what);
  assert.strictEqual(result.isError, true);
  assert.strictEqual(typeof result.code, 'number');
  var match = errorLine('KWNode', 'src/KWClient/KWNodeClient', 'KWNodeClient::New error: ', what)
    .exec(child.stderr.toString());
  assert.ok(match, 'stderr: ' + child.stderr);
  assert.strictEqual(Number(match[1]), reportingLine('src/KWClient/KWNodeClient', 'KWNodeClient::New error: '));
});

test('a vendor library that cannot load makes require throw, after its own error line', function () {
  var env = {};
  Object.keys(process.env).forEach(function (k) { if (k !== 'LD_LIBRARY_PATH') env[k] = process.env[k]; });
  var script = 'try { require(' + JSON.stringify(harness.root) + '); } catch (e) { console.log(e.message); }\nprocess.exit(0);';
  var child = childProcess.spawnSync(process.execPath, ['-e', script], { env: env });
  var message = child.stdout.toString().trim();
  assert.ok(/libsolclient\.so/.test(message), message);
  assert.ok(errorLine('KWNode', 'src/KWClient/KWNodeClient', 'KWNodeClient::KWNodeClient error: ', message)
    .test(child.stderr.toString()), 'stderr: ' + child.stderr);
});

test('publish: every argument shape, QoS mapping and callback detection', function () {
  var t0 = topics.length;
  var q0 = queue.length;
  var outcomes = {};
  function record(name) { return function (err) { outcomes[name] = err; }; }
  client.publish('m/two', 'hello');
  client.publish('kw.q1', 2, Buffer.from([0, 1, 2]));
  client.publish('m/cb', 'x', record('cb'));
  client.publish('m/seven', 7, 'x', record('seven'));
  client.publish('kw.q1', 2, 'y', 'not a function');
  client.publish('m/empty', '');
  client.publish('m/three', 1, 'z');
  // Five arguments read as four: QoS 2 to a queue that does not exist.
  client.publish('m/five', 2, 'x', record('five'), 'ignored');
  return Promise.all([topics.waitFor(t0 + 5), queue.waitFor(q0 + 2),
    harness.waitFor(function () { return Object.keys(outcomes).length === 3; }, 'outcomes')])
    .then(function () {
      var got = topics.slice(t0).map(function (m) { return [m[0], m[1].toString('hex'), m[2]]; });
      assert.deepStrictEqual(got, [
        ['m/two', Buffer.from('hello').toString('hex'), 1], ['m/cb', '78', 1], ['m/seven', '78', 1],
        ['m/empty', '', 1], ['m/three', '7a', 1]]);
      assert.deepStrictEqual(queue.slice(q0).map(function (m) { return [m[1].toString('hex'), m[2]]; }),
        [['000102', 2], ['79', 2]]);
      assert.strictEqual(outcomes.cb, null);
      assert.strictEqual(outcomes.seven, null);
      assert.strictEqual(outcomes.five.message, 'Message rejected');
      assert.strictEqual(outcomes.five.errno, 1);
    });
});

test('publish: argument errors, the last one thrown wins', function () {
  throwsText(function () { client.publish(); }, 'Messaging Client Publish: payload parameter missing');
  throwsText(function () { client.publish('m/x', {}); },
    'Messaging Client Publish: payload is neither a string nor a Buffer');
  throwsText(function () { client.publish('m/x', 2); },
    'Messaging Client Publish: payload is neither a string nor a Buffer');
  throwsText(function () { client.publish('m/x', 2, null, function () {}); },
    'Messaging Client Publish: payload is neither a string nor a Buffer');
});

test('forward: shapes, QoS, and only received messages are accepted', function () {
  var t0 = topics.length;
  client.publish('m/original', 'forward me');
  var original;
  var outcomes = [];
  return topics.waitFor(t0 + 1).then(function () {
    original = topics.last;
    var q0 = queue.length;
    client.forward('m/forwarded', original);
    client.forward('kw.q1', 2, original, function (err) { outcomes.push(err); });
    client.forward('m/forwarded-cb', original, function (err) { outcomes.push(err); });
    return Promise.all([topics.waitFor(t0 + 3), queue.waitFor(q0 + 1),
      harness.waitFor(function () { return outcomes.length === 2; }, 'forward outcomes')]).then(function () {
      assert.deepStrictEqual(topics.slice(t0 + 1).map(function (m) { return [m[0], m[1].toString(), m[2]]; }),
        [['m/forwarded', 'forward me', 1], ['m/forwarded-cb', 'forward me', 1]]);
      assert.deepStrictEqual([queue[q0][1].toString(), queue[q0][2]], ['forward me', 2]);
      assert.deepStrictEqual(outcomes, [null, null]);
      throwsText(function () { client.forward('m/x'); }, 'Messaging Client Forward: payload parameter is missing');
      throwsText(function () { client.forward('m/x', {}); },
        'Messaging Client Forward: message is not a received message');
      throwsText(function () { client.forward('m/x', new KWNodeMessage()); },
        'Messaging Client Forward: message is not a received message');
      throwsText(function () { client.forward('m/x', 2, client); },
        'Messaging Client Forward: message is not a received message');
    });
  });
});

test('subscribe and unsubscribe: shapes, the three-argument reading, outcomes with errno', function () {
  var plain = mailbox();
  var second = mailbox();
  throwsText(function () { client.subscribe('s/a'); },
    'Messaging Client Subscribe: message handler callback is missing');
  // (topic, qos, handler) reads the QoS as the handler.
  throwsText(function () { client.subscribe('s/a', 2, plain.handler); },
    'Messaging Client Subscribe: message handler callback is not a function');
  throwsText(function () { client.subscribe('s/a', 'handler'); },
    'Messaging Client Subscribe: message handler callback is not a function');
  // Argument 2 is not a function, so it is the handler position.
  throwsText(function () { client.subscribe('s/plain', plain.handler, 'x'); },
    'Messaging Client Subscribe: message handler callback is not a function');
  client.subscribe('s/plain', plain.handler);
  client.subscribe('kw.q2', 2, second.handler, function (err) { throw err || new Error('reported'); });
  return Promise.all([
    support.completion(function (done) { client.subscribe('s/second', second.handler, done); }),
    support.completion(function (done) { client.subscribe('s//bad', second.handler, done); }),
    support.completion(function (done) { client.subscribe('kw.missing', 2, second.handler, done); })
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
    assert.deepStrictEqual(plain.map(function (m) { return m[0]; }), ['s/plain']);
    assert.deepStrictEqual(second.map(function (m) { return [m[0], m[2]]; }).sort(), [['kw.q2', 2], ['s/second', 1]]);
    assert.strictEqual(client.unsubscribe(), undefined);
    client.unsubscribe('s/plain');
    client.unsubscribe('kw.q2', 2);
    return support.completion(function (done) { client.unsubscribe('s/second', done); });
  }).then(function (outcome) {
    assert.strictEqual(outcome, null);
  });
});

test('message object: fresh zero-copy Buffers, typed flags, empty script-made objects refuse', function () {
  var t0 = topics.length;
  client.publish('m/caf\u00e9/\u65e5\u672c', Buffer.from([0xff, 0x00, 0x7f]));
  return topics.waitFor(t0 + 1).then(function () {
    var m = topics.last;
    assert.strictEqual(m.topic(), 'm/caf\u00e9/\u65e5\u672c');
    var a = m.payload();
    var b = m.payload();
    assert.notStrictEqual(a, b);
    assert.deepStrictEqual(Array.prototype.slice.call(a), [0xff, 0x00, 0x7f]);
    a[0] = 1;  // both views share the packet's memory
    assert.strictEqual(b[0], 1);
    assert.strictEqual(m.qos(), 1);
    assert.strictEqual(m.isRedelivered(), false);
    assert.strictEqual(m.isAckRequired(), false);
    assert.ok(KWNodeMessage() instanceof KWNodeMessage);
    var empty = new KWNodeMessage();
    ['acknowledge', 'topic', 'payload', 'isAckRequired', 'isRedelivered', 'qos'].forEach(function (name) {
      throwsText(function () { empty[name](); }, 'Messaging Message: the object holds no received message');
    });
  });
});
