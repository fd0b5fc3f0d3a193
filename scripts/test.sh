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
# The Python module's tests, run by the interpreter it is built for. A module built with AddressSanitizer and
# UndefinedBehaviorSanitizer runs in the uninstrumented interpreter with the sanitizer runtime preloaded (it
# must come first), and Python objects come from malloc so that a use after free of one is caught too; the
# interpreter's own allocations are never freed at exit, so leaks are not reported.
if grep -qx 'BLOCKPROC_PYTHON_MODULE:INTERNAL=ON' "$build/CMakeCache.txt"; then
  built=$(cd "$build" && pwd)
  preload=() sanitized=""
  if grep -qx 'BLOCKPROC_SANITIZE:BOOL=ON' "$build/CMakeCache.txt"; then
    compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
    preload=(LD_PRELOAD="$("$compiler" -print-file-name=libasan.so) $("$compiler" -print-file-name=libubsan.so)"
      ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" PYTHONMALLOC=malloc)
    sanitized=1
  fi
  env "${preload[@]}" PYTHONPATH="$built/python" BLOCKPROC_BUILD_DIR="$built" BLOCKPROC_SANITIZED="$sanitized" \
    PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
else
  echo "test.sh: $build has no Python module (BLOCKPROC_BUILD_PYTHON=OFF); pytest not run"
fi
# `blockproc view` in headless Chromium, in every build with the tool (a sanitizer build too); screenshots
# go to $build/screenshots.
if [ -x "$build/tools/blockproc/blockproc" ]; then
  BLOCKPROC_BUILD_DIR="$(cd "$build" && pwd)" PYTHONDONTWRITEBYTECODE=1 \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/browser
fi
