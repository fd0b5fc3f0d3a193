#!/usr/bin/env bash
# The Python module's threaded tests under ThreadSanitizer: the library and the module built with
# -fsanitize=thread, loaded into the uninstrumented system interpreter with the sanitizer runtime preloaded.
# Usage: scripts/python-tsan.sh [build-dir]   (default build-tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-tsan}
TSAN_CONFIGURE_ONLY=1 bash scripts/tsan.sh "$build"  # the thread-sanitized build the two scripts share
cmake --build "$build" -j "$(nproc)" --target _blockproc
built=$(cd "$build" && pwd)
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
# The runtime maps its shadow at fixed addresses, which a randomised layout may already hold: run without
# address randomisation. A report fails the run.
setarch "$(uname -m)" -R env LD_PRELOAD="$("$compiler" -print-file-name=libtsan.so)" \
  TSAN_OPTIONS="halt_on_error=1:exitcode=66:report_signal_unsafe=0:suppressions=$PWD/scripts/tsan.supp" \
  PYTHONPATH="$built/python" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests/test_threads.py
