#!/usr/bin/env bash
# Sets up, builds and runs every test. Usage: scripts/test.sh [build-dir] [extra cmake options...]
# The default build directory is the one scripts/run-sample.sh builds in.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh test
build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_WERROR=ON -DBLOCKPROC_BUILD_TESTS=ON \
  -DBLOCKPROC_BUILD_TOOLS=ON -DBLOCKPROC_BUILD_PYTHON=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
# The Python module's tests, run by the interpreter it is built for; a sanitizer build has no module.
if grep -qx 'BLOCKPROC_PYTHON_MODULE:INTERNAL=ON' "$build/CMakeCache.txt"; then
  built=$(cd "$build" && pwd)
  PYTHONPATH="$built/python" BLOCKPROC_BUILD_DIR="$built" PYTHONDONTWRITEBYTECODE=1 \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
else
  echo "test.sh: $build has no Python module (a sanitizer build, or BLOCKPROC_BUILD_PYTHON=OFF); its pytest not run"
fi
# `blockproc view` in headless Chromium, in every build with the tool (a sanitizer build too); screenshots
# go to $build/screenshots.
if [ -x "$build/tools/blockproc/blockproc" ]; then
  BLOCKPROC_BUILD_DIR="$(cd "$build" && pwd)" PYTHONDONTWRITEBYTECODE=1 \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/browser
fi
