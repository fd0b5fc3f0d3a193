#!/usr/bin/env bash
# Sets up, builds and runs every test. Usage: scripts/test.sh [build-dir] [extra cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
