#!/usr/bin/env bash
# Builds and tests under a sanitizer, in build-asan or build-tsan at the repo
# root. The AddressSanitizer tree includes the Node add-on: its JavaScript
# suites, the fuzzer and the short soak run in node with the sanitizer
# runtimes preloaded (test/js/CMakeLists.txt). The ThreadSanitizer tree leaves
# the add-on out: its runtime cannot be preloaded into an uninstrumented node.
#
#   scripts/sanitize.sh asan|tsan [ctest args...]
#   e.g. scripts/sanitize.sh tsan -L threaded
set -euo pipefail

usage() {
    echo "usage: $0 asan|tsan [ctest args...]" >&2
    exit 2
}

[[ $# -ge 1 ]] || usage
kind=$1
shift
case "$kind" in
    asan | tsan) ;;
    *) usage ;;
esac

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build-$kind"

# Components are named explicitly so that a cached choice from an earlier run
# does not linger; KW_SANITIZE_CMAKE_ARGS can add or override options (for
# example "-DKW_BUILD_SOLACE=OFF" while a component is being worked on).
# shellcheck disable=SC2086
addon=OFF
[[ $kind == asan ]] && addon=ON
cmake -S "$root" -B "$build" -DKW_SANITIZE="$kind" -DKW_BUILD_ADDON=$addon \
    -DKW_BUILD_EMULATOR=ON -DKW_BUILD_SOLACE=ON -DKW_BUILD_TESTS=ON ${KW_SANITIZE_CMAKE_ARGS:-}
cmake --build "$build" -j2

case "$kind" in
    asan)
        export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}"
        export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
        ;;
    tsan)
        export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
        ;;
esac

runner=()
if [[ $kind == tsan ]]; then
    # On kernels with many bits of mmap randomisation the TSan runtime cannot
    # map its shadow memory and dies at start-up. Probe with a tiny program and
    # fall back to running without address randomisation.
    probe_dir=$(mktemp -d)
    trap 'rm -rf "$probe_dir"' EXIT
    printf '#include <thread>\nint main() { std::thread([] {}).join(); }\n' >"$probe_dir/probe.cpp"
    "${CXX:-c++}" -fsanitize=thread -pthread "$probe_dir/probe.cpp" -o "$probe_dir/probe"
    if ! "$probe_dir/probe" >/dev/null 2>&1; then
        if setarch "$(uname -m)" -R "$probe_dir/probe" >/dev/null 2>&1; then
            echo "sanitize.sh: TSan needs address randomisation off here; using setarch -R" >&2
            runner=(setarch "$(uname -m)" -R)
        else
            echo "sanitize.sh: TSan binaries do not run on this machine" \
                "(try: sysctl vm.mmap_rnd_bits=28)" >&2
            exit 1
        fi
    fi
fi

cd "$build"
# setarch's personality is inherited by ctest's children.
exec "${runner[@]}" ctest --output-on-failure "$@"
