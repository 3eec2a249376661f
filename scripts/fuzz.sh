#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in a build directory of their own, then runs each target from its
# seed corpus for a bounded time, two at a time. Fails on any crash, leak, timeout, memory
# blow-up or sanitizer report.
#
#   bash scripts/fuzz.sh [TARGET...]        (as root; default: every target, e.g. inputs)
#
# FERRYGATE_FUZZ_SECONDS   run time of each target (default 60)
# FERRYGATE_FUZZ_JOBS      targets run at once (default 2)
# FERRYGATE_FUZZ_BUILD_DIR build directory (default build-fuzz/ in the checkout)
#
# The inputs a run finds are kept in <build>/corpus/<target>/ (the committed seeds are only
# read), the log of each target in <build>/logs/<target>.log, and the input that broke a
# target in <build>/findings/<target>/. Add such an input to tests/fuzz/corpus/<target>/ once
# it is fixed: the normal build replays that directory in ctest.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
. "$here/scripts/lib-parallel.sh"
build=${FERRYGATE_FUZZ_BUILD_DIR:-$here/build-fuzz}
seconds=${FERRYGATE_FUZZ_SECONDS:-60}
jobs=${FERRYGATE_FUZZ_JOBS:-2}

if [ $# -gt 0 ]; then
    targets=("$@")
else
    targets=()
    for source in "$here"/tests/fuzz/*_fuzz.cc; do
        name=$(basename "$source" _fuzz.cc)
        targets+=("$name")
    done
fi

# Everything the targets link is instrumented: coverage guides the fuzzer through the parsers
# themselves, and the sanitizers catch what they do wrong. Only the fuzz targets are built.
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
bash "$here/scripts/install-deps.sh"
CC=clang CXX=clang++ cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DFERRYGATE_FUZZ=ON -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build" -j 2 --target "${targets[@]/%/_fuzz}"

# A sanitizer report must end the run, never scroll past.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

run_target() {
    local name=$1
    local binary=$build/tests/fuzz/${name}_fuzz
    local seeds=$here/tests/fuzz/corpus/$name
    local log=$build/logs/$name.log
    local args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192
                -print_final_stats=1 -artifact_prefix="$build/findings/$name/")
    if [ ! -x "$binary" ] || [ ! -d "$seeds" ]; then
        echo "fuzz: no target $name (or no tests/fuzz/corpus/$name)" >&2
        return 1
    fi
    [ -f "$here/tests/fuzz/$name.dict" ] && args+=(-dict="$here/tests/fuzz/$name.dict")
    mkdir -p "$build/corpus/$name" "$build/findings/$name" "$build/logs"
    # New inputs go to the first directory; the committed seeds are only read.
    if "$here/scripts/sandbox.sh" "$binary" "${args[@]}" "$build/corpus/$name" "$seeds" \
        >"$log" 2>&1 && ! grep -q 'runtime error:\|ERROR: \(Address\|Leak\)Sanitizer' "$log"; then
        echo "fuzz: $name passed ($(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" |
            grep -o '[0-9]*$') runs in ${seconds}s)"
    else
        echo "fuzz: $name FAILED, see $log and $build/findings/$name/" >&2
        tail -n 40 "$log" >&2
        return 1
    fi
}

run_parallel "$jobs" run_target "${targets[@]}"
