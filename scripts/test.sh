#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs the whole test suite.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${LUMORA_BUILD_DIR:-$root/build}
jobs=$(nproc)

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DLUMORA_BUILD_TESTS=ON
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
