'use strict';
// Package entry: loads the add-on built for this Node.js line's module ABI,
// from the build tree named by KWNODE_BUILD_DIR (a sanitizer or other-runtime
// build) or else from build/.
var path = require('path');
var fs = require('fs');

var buildDir = process.env.KWNODE_BUILD_DIR ? path.resolve(process.env.KWNODE_BUILD_DIR) : path.join(__dirname, 'build');
var addon = path.join(buildDir, 'addon', 'node-v' + process.versions.modules, 'kwnode.node');
if (!fs.existsSync(addon)) {
  throw new Error('kwnode: no add-on built for Node.js ' + process.version + ' (module ABI ' +
    process.versions.modules + '): expected ' + addon + '; run "npm run build" with this Node.js');
}
var native = require(addon);
var constants = require('./constants');

module.exports = {
  KWNodeClient: native.KWNodeClient,
  KWNodeEvent: native.KWNodeEvent,
  KWNodeMessage: native.KWNodeMessage,
  EventCode: constants.EventCode,
  ConnectionState: constants.ConnectionState,
  QoS: constants.QoS
};
