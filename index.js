'use strict';
// Package entry: loads the add-on built for this Node.js line's module ABI.
var path = require('path');
var fs = require('fs');

var addon = path.join(__dirname, 'build', 'addon', 'node-v' + process.versions.modules, 'kwnode.node');
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
