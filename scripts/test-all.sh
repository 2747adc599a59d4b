#!/usr/bin/env bash
# The whole test suite, as a newcomer or CI runs it:
#  0. the style gates (scripts/lint.sh: clang-format, clang-tidy, eslint);
#  1. build (build/) and run the ctest entries other than the JavaScript
#     suites: core, stand-in and adapter GoogleTest suites and the benchmark
#     harness checks;
#  2. scripts/runtimes.sh: the add-on for every supported Node.js line (6, 20,
#     22, 24, 25, 26), the JavaScript suites on each, and the packed package
#     installed into a fresh folder making a round trip on each (and, without
#     its prebuilt add-ons, built from source by its install script);
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
ctest --test-dir build --output-on-failure -LE '^js$'

echo "== Every Node.js line: add-on builds, JavaScript suites, installed package"
bash scripts/runtimes.sh

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
bash scripts/sanitize.sh asan

echo "== ThreadSanitizer"
bash scripts/sanitize.sh tsan
