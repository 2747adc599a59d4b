'use strict';
// Package entry: loads the add-on built for this Node.js line's module ABI.
// Search order: the build tree named by KWNODE_BUILD_DIR (when set, nothing
// else is tried), then the prebuilt binaries shipped in the package, then the
// local release build in build/. A checkout (with .git) skips prebuilds/: it
// exists there only while npm pack runs, or stale after one was interrupted.
var path = require('path');
var fs = require('fs');

var abiDir = 'node-v' + process.versions.modules;

function candidates() {
  if (process.env.KWNODE_BUILD_DIR) {
    return [path.resolve(process.env.KWNODE_BUILD_DIR, 'addon', abiDir, 'kwnode.node')];
  }
  var checkout = fs.existsSync(path.join(__dirname, '.git'));
  return (checkout ? [] : [path.join(__dirname, 'prebuilds', process.platform + '-' + process.arch, abiDir, 'kwnode.node')])
    .concat(path.join(__dirname, 'build', 'addon', abiDir, 'kwnode.node'));
}

var tried = candidates();
var found = tried.filter(function (file) { return fs.existsSync(file); })[0];
if (!found) {
  throw new Error('kwnode: no add-on for Node.js ' + process.version + ' (module ABI ' +
    process.versions.modules + ', ' + process.platform + '-' + process.arch + '); looked for ' +
    tried.join(', ') + '; run "npm run build" with this Node.js');
}
var native = require(found);
var constants = require('./constants');

// One assignment a name: an ES module import finds these as named exports.
exports.KWNodeClient = native.KWNodeClient;
exports.KWNodeEvent = native.KWNodeEvent;
exports.KWNodeMessage = native.KWNodeMessage;
exports.EventCode = constants.EventCode;
exports.ConnectionState = constants.ConnectionState;
exports.QoS = constants.QoS;
