#!/usr/bin/env bash
# Runs the demo on the stand-in broker. scripts/build.js --install builds the
# add-on and the stand-in unless a prebuilt add-on serves (an installed
# package on a line it ships); the stand-in is then the package's.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
node "$root/scripts/build.js" --install
lib="$root/build/emulator"
[[ -f $lib/libsolclient.so ]] || lib="$root/prebuilds/linux-x64"
export LD_LIBRARY_PATH="$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export SOLCLIENT_EMULATOR_QUEUES="${SOLCLIENT_EMULATOR_QUEUES:-demo.orders}"
exec node "$root/examples/demo.js"
