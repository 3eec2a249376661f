#!/usr/bin/env bash
# Installs what is missing, builds ferrygate and its tests, and runs every test.
#   bash scripts/test.sh            (as root: the tests make private namespaces and test accounts)
# FERRYGATE_BUILD_DIR overrides the build directory (default: build/ in the checkout).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}

bash "$here/scripts/install-deps.sh"
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)"
