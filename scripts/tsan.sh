#!/usr/bin/env bash
# The threaded code under ThreadSanitizer: builds, with -fsanitize=thread in build-tsan, the tests that run
# threads (parents sharing one definition on 8 threads; the tool's --jobs through its stream tests) and the
# tool, then decodes and replays a generated quote capture with --jobs 1 and --jobs 3 in every format and
# checks that the outputs are the same. Any race report fails the run.
#
#   scripts/tsan.sh [build-dir]     (default build-tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-tsan}
bash scripts/setup.sh test bench
# One build for this and scripts/python-tsan.sh, which asks for the configuration alone.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_WERROR=ON -DBLOCKPROC_BUILD_TESTS=ON \
  -DBLOCKPROC_BUILD_TOOLS=ON -DBLOCKPROC_BUILD_BENCH=ON -DBLOCKPROC_BUILD_PYTHON=ON \
  -DBLOCKPROC_SANITIZE_THREAD=ON >/dev/null
[ "${TSAN_CONFIGURE_ONLY:-}" = 1 ] && exit 0
tests=(TransactionProc_test BlockprocStream_test)
cmake --build "$build" -j "$(nproc)" --target blockproc_cli make_quote_capture "${tests[@]}"

export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1"
for t in "${tests[@]}"; do "$build/tests/$t" --gtest_brief=1; done

# The tool's --jobs path on a generated capture: 30,000 records in pieces of about 21 KiB, so that the three
# decoding threads go round their ring of pieces many times.
capture=$(mktemp -d)
trap 'rm -rf "$capture"' EXIT
"$build/bench/make_quote_capture" "$capture" 30000 >/dev/null
tool=$build/tools/blockproc/blockproc
for format in csv jsonl json table long; do
  for command in decode realtime; do
    args=("$command" "$capture/quotes.xml" "$capture/quotes.bin" --format "$format" --chunk-bytes 65536 --quiet)
    [ "$command" = realtime ] && args+=(--block OutBlock1)
    "$tool" "${args[@]}" --jobs 1 >"$capture/one"
    "$tool" "${args[@]}" --jobs 3 >"$capture/three"
    cmp -s "$capture/one" "$capture/three" || { echo "tsan.sh: $command --format $format: --jobs 3 differs" >&2; exit 1; }
  done
done
echo "tsan.sh: no race reported"
