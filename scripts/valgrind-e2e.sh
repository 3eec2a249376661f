#!/usr/bin/env bash
# Runs the end-to-end tests under valgrind: each test process, and every ferrygate binary a test
# starts (tests/support/process honours FERRYGATE_WRAPPER), with a full leak check. Fails on
# any failed test and on any memory error or definite or possible leak that valgrind reports.
#
#   bash scripts/valgrind-e2e.sh                (as root, like scripts/test.sh)
#
# FERRYGATE_BUILD_DIR      build directory, shared with scripts/test.sh (default build/)
# FERRYGATE_VALGRIND_TESTS the test executables and gtest filters to run, as EXECUTABLE:FILTER
#                          words (default: "test_e2e:* test_ferrygate:Driver.*"); a missing
#                          executable is skipped with a note
# FERRYGATE_VALGRIND_JOBS  test cases run at once (default 2)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
. "$here/scripts/lib-parallel.sh"
build=${FERRYGATE_BUILD_DIR:-$here/build}
selection=${FERRYGATE_VALGRIND_TESTS:-"test_e2e:* test_ferrygate:Driver.*"}
jobs=${FERRYGATE_VALGRIND_JOBS:-2}

bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2

# Test cases run where ctest runs them: in the build's tests directory.
cd "$build/tests"
logs=$build/valgrind
rm -rf "$logs"
mkdir -p "$logs"
# 97 is no exit code of ferrygate, so a test that expects a failure of the binary cannot pass
# over a valgrind report; the logs are checked afterwards all the same.
valgrind=(valgrind --leak-check=full --errors-for-leak-kinds=definite,possible
          --error-exitcode=97 --track-origins=yes --num-callers=30
          --suppressions="$here/scripts/valgrind.supp")
export FERRYGATE_WRAPPER="${valgrind[*]} --log-file=$logs/ferrygate.%p.log"

run_case() {
    local executable=$1 name=$2
    local out=$logs/case.${name//\//_}.out
    if "$here/scripts/sandbox.sh" "${valgrind[@]}" --log-file="$logs/test.%p.log" \
        "$executable" --gtest_filter="$name" >"$out" 2>&1; then
        echo "valgrind-e2e: $name passed"
    else
        echo "valgrind-e2e: $name FAILED" >&2
        tail -n 30 "$out" >&2
        return 1
    fi
}

cases=()
for word in $selection; do
    executable=$build/tests/${word%%:*}
    if [ ! -x "$executable" ]; then
        echo "valgrind-e2e: no $executable, skipped" >&2
        continue
    fi
    # "Suite." lines followed by indented "  Case" lines.
    while read -r name; do
        cases+=("$executable $name")
    done < <("$here/scripts/sandbox.sh" "$executable" --gtest_list_tests --gtest_filter="${word#*:}" |
             awk '/^[^ ]/ { suite = $1 } /^  / { print suite $1 }')
done
if [ ${#cases[@]} -eq 0 ]; then
    echo "valgrind-e2e: no test case found" >&2
    exit 1
fi

failed=0
run_parallel "$jobs" run_case "${cases[@]}" || failed=1

reports=$(grep -l 'ERROR SUMMARY: [1-9]' "$logs"/*.log | sort || true)
if [ -n "$reports" ]; then
    echo "valgrind-e2e: valgrind reported:" >&2
    for report in $reports; do
        echo "== $report" >&2
        head -n 60 "$report" >&2
    done
    failed=1
fi
runs=$(find "$logs" -name 'ferrygate.*.log' | wc -l)
echo "valgrind-e2e: ${#cases[@]} cases, $runs runs of ferrygate under valgrind"
if [ "$runs" -eq 0 ]; then
    # The tests start ferrygate through tests/support/process; none did under the wrapper.
    echo "valgrind-e2e: no ferrygate ran under valgrind" >&2
    failed=1
fi
exit $failed
