#!/usr/bin/env bash
# Builds ferrygate and all its tests with AddressSanitizer and UndefinedBehaviorSanitizer in a
# build directory of their own and runs the whole ctest suite there. Any memory error, leak or
# undefined behaviour ends the process that made it, so the test that ran it fails.
#
#   bash scripts/sanitize.sh [CTEST-ARG...]     (as root, like scripts/test.sh)
#
# FERRYGATE_SANITIZE_BUILD_DIR overrides the build directory (default build-sanitize/).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_SANITIZE_BUILD_DIR:-$here/build-sanitize}
# The sanitizers' instrumentation leads gcc's flow analysis into false "may be used
# uninitialized" warnings inside the standard library (std::regex), which -Werror would make fatal.
flags="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
flags+=" -Wno-maybe-uninitialized"

bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
cmake --build "$build" -j 2

# scripts/sandbox.sh keeps the environment, so these reach every test and every ferrygate a
# test starts. A report aborts the process: the test cannot pass over it.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
cd "$build"
ctest --output-on-failure -j 2 "$@"
