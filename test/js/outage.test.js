'use strict';
// A publisher running through a broker outage of a few seconds: how long the
// event loop stalls, and what becomes of every publish. The figures are
// printed, not asserted; what is asserted is that every publish is answered
// exactly once.
var assert = require('assert');
var harness = require('./harness');

var OUTAGE_MS = 3000;
var RUN_MS = 6000;
var PER_TICK = 10; // direct and guaranteed each, every 10 ms: 1,000 of each per second

harness.test('publishing through a ' + OUTAGE_MS / 1000 + ' s broker outage: every publish answered once', function () {
  var c;
  var publishes = [];
  var figures = { longestEventLoopStallMs: 0, unansweredWhenTheBrokerReturned: -1 };
  var last = Date.now();
  var ticker = setInterval(function () {
    figures.longestEventLoopStallMs = Math.max(figures.longestEventLoopStallMs, Date.now() - last);
    last = Date.now();
  }, 1);
  function publish(topic, qos) {
    var entry = { qos: qos, answers: [] };
    publishes.push(entry);
    c.client.publish(topic, qos, 'p' + publishes.length, function (err) { entry.answers.push(err ? err.message : null); });
  }
  function unanswered() { return publishes.filter(function (p) { return p.answers.length === 0; }).length; }
  function reconnecting(e) { return e[0] === 1 && e[1] === 2; }

  return harness.connected('outage', 'outage').then(function (connected) {
    c = connected;
    setTimeout(function () { c.client.publish('#emulator/drop', 1, String(OUTAGE_MS), function () {}); }, 500);
    return new Promise(function (resolve) {
      var publisher = setInterval(function () {
        for (var i = 0; i < PER_TICK; i++) {
          publish('outage/direct', 1);
          publish('kw.outage', 2);
        }
        if (figures.unansweredWhenTheBrokerReturned < 0 && c.client.getConnectionState() === 3 && c.events.some(reconnecting)) {
          figures.unansweredWhenTheBrokerReturned = unanswered();
        }
      }, 10);
      setTimeout(function () {
        clearInterval(publisher);
        resolve();
      }, RUN_MS);
    });
  }).then(function () {
    return harness.waitFor(function () { return unanswered() === 0; }, 'every publish answered', 60000);
  }).then(function () {
    clearInterval(ticker);
    figures.outcomes = {};
    publishes.forEach(function (p) {
      assert.strictEqual(p.answers.length, 1);
      var key = (p.qos === 2 ? 'guaranteed ' : 'direct ') + (p.answers[0] === null ? 'completed' : 'error: ' + p.answers[0]);
      figures.outcomes[key] = (figures.outcomes[key] || 0) + 1;
    });
    // Connected, reconnecting, reconnected: the outage was seen as connection-state events only.
    assert.ok(c.events.some(reconnecting), 'no reconnecting event');
    assert.ok(c.events.every(function (e) { return e[0] === 1 && e[2] === ''; }), JSON.stringify(c.events));
    assert.deepStrictEqual([c.events[c.events.length - 1][1], c.client.getConnectionState()], [3, 3]);
    console.log('outage report: ' + JSON.stringify(Object.assign({
      roundTripUs: Number(process.env.SOLCLIENT_EMULATOR_ROUND_TRIP_US || 0), outageMs: OUTAGE_MS, publishes: publishes.length
    }, figures)));
    c.client.disconnect();
  });
});
