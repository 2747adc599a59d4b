#!/usr/bin/env bash
# Runs the demo on the stand-in broker: in an installed package with its
# prebuilt add-on and stand-in when they match this Node.js, else (and always
# in a checkout) after building both (scripts/build.js --install).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
lib="$root/prebuilds/linux-x64"
if [[ -e $root/.git || ! -f $lib/libsolclient.so || ! -f $lib/node-v$(node -p process.versions.modules)/kwnode.node ]]; then
    node "$root/scripts/build.js" --install
    lib="$root/build/emulator"
fi
export LD_LIBRARY_PATH="$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export SOLCLIENT_EMULATOR_QUEUES="${SOLCLIENT_EMULATOR_QUEUES:-demo.orders}"
exec node "$root/examples/demo.js"
