'use strict';
// Run inside an application folder where the packed package was installed:
// the installed kwnode loads its add-on for this Node.js line from the folder
// named (the prebuilt ones by default, build/addon for one its install script
// built) and makes a round trip on the stand-in broker. Parses on Node 6.
var assert = require('assert');
var path = require('path');

var app = process.argv[2];
// By name from the application, through "exports" where Node reads it (a
// require from here would find this checkout's own package by its name).
var Module = require('module');
var appRequire = Module.createRequire ? Module.createRequire(path.join(app, 'package.json'))
  : function (name) { return require(path.join(app, 'node_modules', name)); };
var kwnode = appRequire('kwnode');
if (Module.createRequire) assert.strictEqual(appRequire('kwnode/promises').QoS, kwnode.QoS);
var resolved = require.resolve(path.join(app, 'node_modules', 'kwnode', process.argv[3] || 'prebuilds/linux-x64',
  'node-v' + process.versions.modules, 'kwnode.node'));
assert.ok(require.cache[resolved], 'the add-on ' + resolved + ' was loaded');

var client = new kwnode.KWNodeClient('package', 'SOLACE', { host: 'localhost', port: 55555, vpn: 'package' });
client.connect();
var timer = setTimeout(function () { throw new Error('no round trip within 20 s'); }, 20000);
var wait = setInterval(function () {
  if (client.getConnectionState() !== 3) return;
  clearInterval(wait);
  client.subscribe('pkg/>', function (m) {
    assert.deepStrictEqual([m.topic(), m.payload().toString()], ['pkg/hello', 'from ' + process.version]);
    clearTimeout(timer);
    console.log('round trip on Node ' + process.version + ' with ' + path.relative(app, resolved));
    process.exit(0);
  }, function (err) {
    assert.strictEqual(err, null);
    client.publish('pkg/hello', 'from ' + process.version);
  });
}, 5);
