#!/usr/bin/env bash
# Style gates, run first by the test command: clang-format (no difference
# allowed), clang-tidy (the checks in .clang-tidy, findings are errors) over
# our own C++ sources, and eslint (eslint.config.js) over the JavaScript.
#   scripts/lint.sh            all three
#   scripts/lint.sh format     only clang-format (also: tidy, js)
# LINT_JOBS sets clang-tidy's parallelism (default: the number of cores).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
only="${1:-all}"

# Our own C++: everything under these folders that git knows of (new files
# not yet added count too).
cxx_files() {
    git ls-files --cached --others --exclude-standard -- \
        'src/*.cpp' 'src/*.h' 'emulator/*.cpp' 'emulator/*.h' \
        'test/*.cpp' 'test/*.h' 'bench/*.cpp' 'bench/*.h' 'include/*.h' |
        while read -r f; do [[ -f "$f" ]] && echo "$f"; done
}

# An empty list would pass every gate without checking anything.
mapfile -t files < <(cxx_files)
if ((${#files[@]} == 0)); then
    echo "lint: no C++ files listed (git ls-files needs git and a checkout)" >&2
    exit 1
fi

failed=0

if [[ "$only" == all || "$only" == format ]]; then
    echo "== clang-format"
    if ! clang-format --dry-run --Werror "${files[@]}"; then
        echo "clang-format: differences above (fix with clang-format -i <file>)" >&2
        failed=1
    fi
fi

if [[ "$only" == all || "$only" == tidy ]]; then
    echo "== clang-tidy"
    # A configure-only tree with every part on, for its compilation database.
    lint_dir="$root/build-lint"
    cmake -S "$root" -B "$lint_dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
        -DCMAKE_BUILD_TYPE=Debug >"$lint_dir.log" 2>&1 ||
        { cat "$lint_dir.log" >&2; exit 1; }
    # Translation units only; headers are checked through them.
    mapfile -t units < <(printf '%s\n' "${files[@]}" | grep '\.cpp$')
    jobs="${LINT_JOBS:-$(nproc)}"
    log="$(mktemp)"
    if ! printf '%s\n' "${units[@]}" |
        xargs -P "$jobs" -n 4 clang-tidy -p "$lint_dir" --quiet >"$log" 2>&1; then
        grep -E 'warning:|error:' -A3 "$log" >&2 || cat "$log" >&2
        echo "clang-tidy: findings above" >&2
        failed=1
    fi
    rm -f "$log"
fi

if [[ "$only" == all || "$only" == js ]]; then
    echo "== eslint"
    if ! npx --no-install eslint .; then
        failed=1
    fi
fi

exit "$failed"
