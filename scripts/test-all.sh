#!/usr/bin/env bash
# The whole test suite, as a newcomer or CI runs it:
#  0. the style gates (scripts/lint.sh: clang-format, clang-tidy, eslint);
#  1. build (build/) and run every ctest entry on the machine's Node: core,
#     stand-in and adapter GoogleTest suites, the add-on's JavaScript suites,
#     and the benchmark harness checks;
#  2. build the add-on for Node 6.17.1 (ABI 48) and run the JavaScript suites
#     on that runtime;
#  3. build and run the C++ suites under AddressSanitizer + UBSan, then
#     under ThreadSanitizer.
# Each step stops the run on failure.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

echo "== Style gates"
bash scripts/lint.sh

echo "== Node $(node --version): build and ctest"
node scripts/build.js
ctest --test-dir build --output-on-failure

echo "== Node 6.17.1: add-on build and JavaScript suites"
bash scripts/node6.sh

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
bash scripts/sanitize.sh asan

echo "== ThreadSanitizer"
bash scripts/sanitize.sh tsan
