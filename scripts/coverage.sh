#!/usr/bin/env bash
# Line and branch coverage of blockproc/ by the test suite: builds the tests with gcc --coverage in
# build-cov, runs ctest, and prints a per-file table and the totals.
#
#   scripts/coverage.sh                  build, test, report
#   scripts/coverage.sh --html DIR       also write an HTML report into DIR
#   scripts/coverage.sh --fail-under N   fail when line coverage is below N percent
set -euo pipefail
cd "$(dirname "$0")/.."

html=""
fail_under=0
while (($#)); do
  case "$1" in
    --html) html=$2; shift ;;
    --fail-under) fail_under=$2; shift ;;
    -h | --help) sed -n '2,8p' "$0"; exit 0 ;;
    *) echo "coverage.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

bash scripts/setup.sh gcovr
build=build-cov
CXX=g++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DBLOCKPROC_COVERAGE=ON -DBLOCKPROC_BUILD_TESTS=ON \
  -DBLOCKPROC_BUILD_TOOLS=ON -DBLOCKPROC_BUILD_FUZZ=OFF -DBLOCKPROC_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)"
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

# Exception edges and branches the compiler proves unreachable are left out: they are not decisions of
# the code under test.
args=(--root . --filter 'blockproc/' --exclude-throw-branches --exclude-unreachable-branches "$build")
[ -z "$html" ] || { mkdir -p "$html"; gcovr "${args[@]}" --html-details "$html/index.html" >/dev/null; }
gcovr "${args[@]}" --txt --print-summary --fail-under-line "$fail_under"
