#!/usr/bin/env bash
# Builds (scripts/build.js) and runs the demo on the stand-in broker.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
node "$root/scripts/build.js"
export LD_LIBRARY_PATH="$root/build/emulator${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export SOLCLIENT_EMULATOR_QUEUES="${SOLCLIENT_EMULATOR_QUEUES:-demo.orders}"
exec node "$root/examples/demo.js"
