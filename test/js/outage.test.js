'use strict';
// A publisher running through a broker outage of a few seconds: how long the
// event loop stalls, and what becomes of every publish. The figures are
// printed, not asserted; what is asserted is that every publish is answered
// exactly once.
var assert = require('assert');
var harness = require('./harness');
var test = harness.test;

var OUTAGE_MS = 3000;
var RUN_MS = 6000;
var PER_TICK = 10; // direct and guaranteed each, every 10 ms: 1,000 of each per second

test('publishing through a ' + OUTAGE_MS / 1000 + ' s broker outage: every publish answered once', function () {
  var c;
  var publishes = [];
  var stall = { longest: 0, last: Date.now() };
  var longestCall = 0;
  var unansweredAtReturn = -1;
  var ticker = setInterval(function () {
    var now = Date.now();
    stall.longest = Math.max(stall.longest, now - stall.last);
    stall.last = now;
  }, 1);

  function publish(topic, qos) {
    var entry = { qos: qos, answers: [] };
    publishes.push(entry);
    var started = Date.now();
    c.client.publish(topic, qos, 'p' + publishes.length, function (err) {
      entry.answers.push(err ? err.message : null);
    });
    longestCall = Math.max(longestCall, Date.now() - started);
  }
  function unanswered() {
    return publishes.filter(function (p) { return p.answers.length === 0; }).length;
  }

  return harness.connected('outage', 'outage').then(function (connected) {
    c = connected;
    var started = Date.now();
    var dropped = false;
    return new Promise(function (resolve) {
      var publisher = setInterval(function () {
        if (!dropped && Date.now() - started > 500) {
          dropped = true;
          c.client.publish('#emulator/drop', 1, String(OUTAGE_MS), function () {});
        }
        for (var i = 0; i < PER_TICK; i++) {
          publish('outage/direct', 1);
          publish('kw.outage', 2);
        }
        if (dropped && unansweredAtReturn < 0 && c.client.getConnectionState() === 3 &&
            c.events.some(function (e) { return e[0] === 1 && e[1] === 2; })) {
          unansweredAtReturn = unanswered();
        }
        if (Date.now() - started > RUN_MS) {
          clearInterval(publisher);
          resolve();
        }
      }, 10);
    });
  }).then(function () {
    return harness.waitFor(function () { return unanswered() === 0; }, 'every publish answered', 60000);
  }).then(function () {
    clearInterval(ticker);
    var outcomes = {};
    publishes.forEach(function (p) {
      assert.strictEqual(p.answers.length, 1);
      var key = (p.qos === 2 ? 'guaranteed ' : 'direct ') + (p.answers[0] === null ? 'completed' : 'error: ' + p.answers[0]);
      outcomes[key] = (outcomes[key] || 0) + 1;
    });
    // Connected, reconnecting, reconnected: the outage was seen as connection-state events only.
    assert.ok(c.events.some(function (e) { return e[0] === 1 && e[1] === 2; }), 'no reconnecting event');
    assert.ok(c.events.every(function (e) { return e[0] === 1 && e[2] === ''; }), JSON.stringify(c.events));
    assert.deepStrictEqual([c.events[c.events.length - 1][1], c.client.getConnectionState()], [3, 3]);
    console.log('outage report: ' + JSON.stringify({
      roundTripUs: Number(process.env.SOLCLIENT_EMULATOR_ROUND_TRIP_US || 0),
      outageMs: OUTAGE_MS,
      publishes: publishes.length,
      outcomes: outcomes,
      unansweredWhenTheBrokerReturned: unansweredAtReturn,
      longestEventLoopStallMs: stall.longest,
      longestPublishCallMs: longestCall
    }));
    c.client.disconnect();
  });
});
