#!/usr/bin/env bash
# Proves that a consumer builds against the library in both ways: find_package after cmake --install, and
# add_subdirectory of the checkout; and that the installed headers are the public ones, each complete. Usage: scripts/check-consumers.sh <configured build dir>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
# Only the public headers are installed, and each compiles on its own, without the library's private ones.
include=$work/prefix/include
[ ! -e "$include/blockproc/detail" ] || { echo "consumers: blockproc/detail/ was installed" >&2; exit 1; }
for header in $(cd "$include" && find blockproc -name '*.h' | sort); do
  echo "#include \"$header\"" | ${CXX:-c++} -std=c++20 -fsyntax-only -I "$include" -x c++ - ||
    { echo "consumers: $header does not compile on its own once installed" >&2; exit 1; }
done
cmake -S examples/consumer -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" -j "$(nproc)" >/dev/null
"$work/consumer/consumer"
cmake -S tests/subproject -B "$work/subproject" >/dev/null
cmake --build "$work/subproject" -j "$(nproc)" >/dev/null
"$work/subproject/consumer" >/dev/null
echo "consumers: find_package and add_subdirectory both build and run"
