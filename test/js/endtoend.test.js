'use strict';
// Two clients on the stand-in broker: what one publishes, the other receives.
var assert = require('assert');
var harness = require('./harness');
var support = require('./support');
var test = harness.test;

var VPN = 'endtoend';
var pub;
var sub;

function collector() {
  var got = [];
  got.handler = function (m) { got.push(m); };
  got.waitFor = function (n, what) {
    return harness.waitFor(function () { return got.length >= n; }, what || n + ' messages', 30000);
  };
  return got;
}

function topicsOf(list) { return list.map(function (m) { return m.topic(); }); }

test('two clients connect and wildcard subscriptions select by level', function () {
  var star = collector();
  var tail = collector();
  var prefix = collector();
  return Promise.all([support.connected('e2e-pub', VPN), support.connected('e2e-sub', VPN)]).then(function (c) {
    pub = c[0];
    sub = c[1];
    assert.deepStrictEqual(sub.events, [[1, 3, '']]);
    return Promise.all([
      support.completion(function (done) { sub.client.subscribe('w/*/x', star.handler, done); }),
      support.completion(function (done) { sub.client.subscribe('w/>', tail.handler, done); }),
      support.completion(function (done) { sub.client.subscribe('w/ab*', prefix.handler, done); })
    ]);
  }).then(function (outcomes) {
    assert.deepStrictEqual(outcomes, [null, null, null]);
    ['w/a/x', 'w/b/y', 'w/abc', 'v/a/x', 'w/a/x/z', 'w/end'].forEach(function (t) { pub.client.publish(t, t); });
    return tail.waitFor(5);
  }).then(function () {
    return star.waitFor(1);
  }).then(function () {
    assert.deepStrictEqual(topicsOf(tail), ['w/a/x', 'w/b/y', 'w/abc', 'w/a/x/z', 'w/end']);
    assert.deepStrictEqual(topicsOf(star), ['w/a/x']);
    assert.deepStrictEqual(topicsOf(prefix), ['w/abc']);
  });
});

test('binary and non-ASCII payloads and topics arrive byte for byte', function () {
  var got = collector();
  var topic = 'bin/caf\u00e9/\u65e5\u672c/\ud83d\ude00';
  var bytes = Buffer.alloc(256);
  for (var i = 0; i < 256; i++) bytes[i] = i;
  var text = 'gr\u00fc\u00dfe \u4e16\u754c \ud83d\ude80';
  return support.completion(function (done) { sub.client.subscribe('bin/>', got.handler, done); }).then(function () {
    pub.client.publish(topic, bytes);
    pub.client.publish(topic, text);
    return got.waitFor(2);
  }).then(function () {
    assert.strictEqual(got[0].topic(), topic);
    assert.ok(got[0].payload().equals(bytes));
    assert.strictEqual(got[1].payload().toString('utf8'), text);
  });
});

// A queue subscription needs four arguments: (queue, 2, handler) reads 2 as the handler.
test('queue: guaranteed messages in order, acknowledged, forwarded; an unacknowledged one comes back', function () {
  var first = collector();
  var again = collector();
  var forwarded = collector();
  var outcomes = [];
  return support.completion(function (done) { pub.client.subscribe('fwd/>', forwarded.handler, done); }).then(function () {
    sub.client.subscribe('kw.q2', 2, first.handler, null);
    for (var i = 0; i < 3; i++) pub.client.publish('kw.q2', 2, 'g' + i, function (err) { outcomes.push(err); });
    return first.waitFor(3);
  }).then(function () {
    assert.deepStrictEqual(outcomes, [null, null, null]);
    assert.deepStrictEqual(first.map(function (m) { return [m.payload().toString(), m.qos(), m.isAckRequired(), m.isRedelivered()]; }),
      [['g0', 2, true, false], ['g1', 2, true, false], ['g2', 2, true, false]]);
    first[0].acknowledge();
    first[1].acknowledge();
    sub.client.forward('fwd/one', first[0]);
    return forwarded.waitFor(1);
  }).then(function () {
    assert.deepStrictEqual([forwarded[0].topic(), forwarded[0].payload().toString(), forwarded[0].qos()], ['fwd/one', 'g0', 1]);
    // g2 stays unacknowledged: closing the flow returns it to the queue.
    sub.client.unsubscribe('kw.q2', 2);
    return new Promise(function (resolve) { setTimeout(resolve, 200); });
  }).then(function () {
    sub.client.subscribe('kw.q2', 2, again.handler, null);
    return again.waitFor(1);
  }).then(function () {
    // The library does not report the redelivered flag: it reads false.
    assert.deepStrictEqual(again.map(function (m) { return [m.payload().toString(), m.isRedelivered()]; }), [['g2', false]]);
    again[0].acknowledge();
  });
});

test('a guaranteed publish to a queue that does not exist is rejected with errno 1', function () {
  return support.completion(function (done) { pub.client.publish('kw.no-such-queue', 2, 'x', done); }).then(function (err) {
    assert.ok(err instanceof Error);
    assert.strictEqual(err.message, 'Message rejected');
    assert.strictEqual(err.errno, 1);
  });
});

test('unsubscribe stops delivery on that topic only', function () {
  var gone = collector();
  var marker = collector();
  return Promise.all([
    support.completion(function (done) { sub.client.subscribe('u/gone', gone.handler, done); }),
    support.completion(function (done) { sub.client.subscribe('u/marker', marker.handler, done); })
  ]).then(function () {
    pub.client.publish('u/gone', 'before');
    return gone.waitFor(1);
  }).then(function () {
    return support.completion(function (done) { sub.client.unsubscribe('u/gone', done); });
  }).then(function (err) {
    assert.strictEqual(err, null);
    pub.client.publish('u/gone', 'after');
    pub.client.publish('u/marker', 'm');
    return marker.waitFor(1);
  }).then(function () {
    return new Promise(function (resolve) { setTimeout(resolve, 100); });
  }).then(function () {
    assert.deepStrictEqual(gone.map(function (m) { return m.payload().toString(); }), ['before']);
  });
});

// The receive pool may hand batches to more than one thread, so arrival order
// is not asserted; every message exactly once is.
test('a burst of 20000 guaranteed messages arrives complete, each once', function () {
  var COUNT = 20000;
  var received = 0;
  var seen = Buffer.alloc(COUNT);
  var duplicates = 0;
  sub.client.subscribe('kw.burst', 2, function (m) {
    var seq = m.payload().readUInt32BE(0);
    if (seen[seq]) duplicates++;
    seen[seq] = 1;
    received++;
    m.acknowledge();
  }, null);
  var accepted = 0;
  var payload = Buffer.alloc(64);
  for (var i = 0; i < COUNT; i++) {
    payload.writeUInt32BE(i, 0);
    pub.client.publish('kw.burst', 2, payload, function (err) { if (!err) accepted++; });
  }
  return harness.waitFor(function () { return received >= COUNT && accepted === COUNT; }, 'the burst', 120000).then(function () {
    assert.strictEqual(duplicates, 0);
    assert.strictEqual(received, COUNT);
    assert.strictEqual(seen.indexOf(0), -1, 'every sequence number arrived');
  });
});

test('a broker drop and return are seen as connection-state events', function () {
  var before = sub.events.length;
  // The stand-in takes the publisher's broker down for the payload's milliseconds.
  pub.client.publish('#emulator/drop', '300');
  return harness.waitFor(function () {
    var states = sub.events.slice(before).map(function (e) { return e[1]; });
    return states.indexOf(2) >= 0 && states[states.length - 1] === 3;
  }, 'reconnecting and reconnected', 30000).then(function () {
    var seen = sub.events.slice(before);
    assert.ok(seen.every(function (e) { return e[0] === 1 && e[2] === ''; }), JSON.stringify(seen));
    assert.strictEqual(sub.client.getConnectionState(), 3);
    var after = collector();
    return support.completion(function (done) { sub.client.subscribe('back/t', after.handler, done); }).then(function () {
      pub.client.publish('back/t', 'again');
      return after.waitFor(1);
    });
  });
});
