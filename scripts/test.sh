#!/usr/bin/env bash
# Sets up, builds and runs every test. Usage: scripts/test.sh [build-dir] [extra cmake options...]
# The default build directory is the one scripts/run-sample.sh builds in.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh test
build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_WERROR=ON -DBLOCKPROC_BUILD_TESTS=ON \
  -DBLOCKPROC_BUILD_TOOLS=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
