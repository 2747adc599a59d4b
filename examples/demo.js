'use strict';
// A publish/subscribe round trip on the stand-in broker: two clients, a
// wildcard topic and a queue, at-most-once and guaranteed sends, receive,
// acknowledge and forward. Run with `npm run demo`.
var KWNodeClient = require('..').KWNodeClient;

var HOST = { host: 'localhost', port: 55555, vpn: 'demo' };
var QUEUE = process.env.KWNODE_DEMO_QUEUE || 'demo.orders';
var STATES = { 1: 'disconnected', 2: 'connecting', 3: 'connected', 4: 'failed' };

function log(who, text) { console.log('[' + who + '] ' + text); }

function onEvent(who) {
  return function (ev) {
    if (ev.eventCode() === 1) log(who, 'connection ' + STATES[ev.eventSubCode()]);
    else log(who, 'runtime error ' + ev.eventSubCode() + ': ' + ev.what());
  };
}

function check(what) {
  return function (err) {
    if (err) fail(what + ' failed: ' + err.message + ' (errno ' + err.errno + ')');
    else log('done', what);
  };
}

var guard = setTimeout(function () { fail('the demo did not finish within 20 s'); }, 20000);

function fail(text) {
  console.error('demo FAILED: ' + text);
  process.exit(1);
}

var publisher = new KWNodeClient('demo-publisher', 'SOLACE', HOST, onEvent('publisher'));
var receiver = new KWNodeClient('demo-receiver', 'SOLACE', HOST, onEvent('receiver'));
publisher.connect();
receiver.connect();

var expected = 3;
function received() {
  if (--expected > 0) return;
  publisher.disconnect();
  receiver.disconnect();
  clearTimeout(guard);
  log('demo', 'all messages arrived; clients disconnected');
  // The add-on's async handle keeps the loop alive by design: end explicitly.
  process.exit(0);
}

var waitForUp = setInterval(function () {
  if (publisher.getConnectionState() !== 3 || receiver.getConnectionState() !== 3) return;
  clearInterval(waitForUp);

  receiver.subscribe('demo/prices/>', function (m) {
    log('receiver', 'topic ' + m.topic() + ' (qos ' + m.qos() + '): ' + m.payload().toString());
    received();
  }, check('subscribe demo/prices/>'));

  receiver.subscribe(QUEUE, 2, function (m) {
    log('receiver', 'queue ' + m.topic() + ' (qos ' + m.qos() + ', ack required ' + m.isAckRequired() + '): ' +
      m.payload().toString());
    m.acknowledge();
    log('receiver', 'acknowledged; forwarding to demo/prices/forwarded');
    receiver.forward('demo/prices/forwarded', m, check('forward'));
    received();
  }, null);

  setTimeout(function () {
    publisher.publish('demo/prices/ACME', 'ACME 42.10', check('publish at most once'));
    publisher.publish(QUEUE, 2, Buffer.from('order #1: 10 x ACME'), check('publish guaranteed'));
  }, 100);
}, 10);
