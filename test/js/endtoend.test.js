'use strict';
// Two clients on the stand-in broker: what one publishes, the other receives.
var assert = require('assert');
var harness = require('./harness');
var test = harness.test;

var pub;
var sub;

function subscribed(topic, handler) {
  return harness.completion(function (done) { sub.client.subscribe(topic, handler, done); });
}

function texts(list) { return list.map(function (m) { return m.payload().toString(); }); }

test('two clients connect and wildcard subscriptions select by level', function () {
  var star = harness.collector();
  var tail = harness.collector();
  var prefix = harness.collector();
  return Promise.all([harness.connected('e2e-pub', 'endtoend'), harness.connected('e2e-sub', 'endtoend')]).then(function (c) {
    pub = c[0];
    sub = c[1];
    assert.deepStrictEqual(sub.events, [[1, 3, '']]);
    return Promise.all([subscribed('w/*/x', star.handler), subscribed('w/>', tail.handler), subscribed('w/ab*', prefix.handler)]);
  }).then(function (outcomes) {
    assert.deepStrictEqual(outcomes, [null, null, null]);
    ['w/a/x', 'w/b/y', 'w/abc', 'v/a/x', 'w/a/x/z', 'w/end'].forEach(function (t) { pub.client.publish(t, t); });
    return Promise.all([tail.waitFor(5), star.waitFor(1), prefix.waitFor(1)]);
  }).then(function () {
    assert.deepStrictEqual([texts(tail), texts(star), texts(prefix)],
      [['w/a/x', 'w/b/y', 'w/abc', 'w/a/x/z', 'w/end'], ['w/a/x'], ['w/abc']]);
  });
});

test('binary and non-ASCII payloads and topics arrive byte for byte', function () {
  var got = harness.collector();
  var topic = 'bin/caf\u00e9/\u65e5\u672c/\ud83d\ude00';
  var bytes = Buffer.alloc(256);
  for (var i = 0; i < 256; i++) bytes[i] = i;
  var text = 'gr\u00fc\u00dfe \u4e16\u754c \ud83d\ude80';
  return subscribed('bin/>', got.handler).then(function () {
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
test('queue: guaranteed messages in order, acknowledged, forwarded; unacknowledged comes back; no queue is rejected', function () {
  var first = harness.collector();
  var again = harness.collector();
  var forwarded = harness.collector();
  var outcomes = [];
  var rejected = harness.completion(function (done) { pub.client.publish('kw.no-such-queue', 2, 'x', done); });
  return harness.completion(function (done) { pub.client.subscribe('fwd/>', forwarded.handler, done); }).then(function () {
    sub.client.subscribe('kw.q2', 2, first.handler, null);
    for (var i = 0; i < 3; i++) pub.client.publish('kw.q2', 2, 'g' + i, function (err) { outcomes.push(err); });
    // The broker may hand a message on before it answers its publisher.
    return Promise.all([first.waitFor(3), rejected,
      harness.waitFor(function () { return outcomes.length === 3; }, 'publish outcomes')]);
  }).then(function (done) {
    assert.ok(done[1] instanceof Error);
    assert.deepStrictEqual([done[1].message, done[1].errno], ['Message rejected', 1]);
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

test('unsubscribe stops delivery on that topic only', function () {
  var gone = harness.collector();
  var marker = harness.collector();
  return Promise.all([subscribed('u/gone', gone.handler), subscribed('u/marker', marker.handler)]).then(function () {
    pub.client.publish('u/gone', 'before');
    return gone.waitFor(1);
  }).then(function () {
    return harness.completion(function (done) { sub.client.unsubscribe('u/gone', done); });
  }).then(function (err) {
    assert.strictEqual(err, null);
    pub.client.publish('u/gone', 'after');
    pub.client.publish('u/marker', 'm');
    return marker.waitFor(1);
  }).then(function () {
    return new Promise(function (resolve) { setTimeout(resolve, 100); });
  }).then(function () {
    assert.deepStrictEqual(texts(gone), ['before']);
  });
});

// The receive pool may hand batches to more than one thread, so arrival order
// is not asserted; every message exactly once is.
test('a burst of 20000 guaranteed messages arrives complete, each once', function () {
  var COUNT = 20000;
  var seen = Buffer.alloc(COUNT);
  var received = 0;
  var accepted = 0;
  sub.client.subscribe('kw.burst', 2, function (m) {
    seen[m.payload().readUInt32BE(0)] = 1;
    received++;
    m.acknowledge();
  }, null);
  var payload = Buffer.alloc(64);
  for (var i = 0; i < COUNT; i++) {
    payload.writeUInt32BE(i, 0);
    pub.client.publish('kw.burst', 2, payload, function (err) { if (!err) accepted++; });
  }
  return harness.waitFor(function () { return received >= COUNT && accepted === COUNT; }, 'the burst', 120000).then(function () {
    // COUNT arrivals covering all COUNT numbers: none missing, none twice.
    assert.strictEqual(received, COUNT);
    assert.strictEqual(seen.indexOf(0), -1, 'every sequence number arrived');
  });
});

test('a broker drop and return are seen as connection-state events', function () {
  var before = sub.events.length;
  var after = harness.collector();
  // The stand-in takes the publisher's broker down for the payload's milliseconds.
  pub.client.publish('#emulator/drop', '300');
  return harness.waitFor(function () {
    var states = sub.events.slice(before).map(function (e) { return e[1]; });
    return states.indexOf(2) >= 0 && states[states.length - 1] === 3;
  }, 'reconnecting and reconnected', 30000).then(function () {
    var seen = sub.events.slice(before);
    assert.ok(seen.every(function (e) { return e[0] === 1 && e[2] === ''; }), JSON.stringify(seen));
    assert.strictEqual(sub.client.getConnectionState(), 3);
    return subscribed('back/t', after.handler);
  }).then(function () {
    pub.client.publish('back/t', 'again');
    return after.waitFor(1);
  });
});
