#!/usr/bin/env bash
# Runs every test program under valgrind memcheck and reports errors and leaks per program.
#
#   scripts/valgrind.sh                  all test programs (built in build-valgrind, without sanitizers)
#   scripts/valgrind.sh NAME...          only the test programs named (e.g. KXBlockDataProc_test)
#
# A program fails when memcheck reports any error or a definite, indirect or possible leak
# (--error-exitcode=1 --leak-check=full); programs the tests start (the command-line tool) are followed too.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh valgrind
build=build-valgrind
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_BUILD_TESTS=ON -DBLOCKPROC_BUILD_TOOLS=ON \
  -DBLOCKPROC_SANITIZE=OFF -DBLOCKPROC_COVERAGE=OFF -DBLOCKPROC_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)"

programs=()
if (($#)); then
  for name in "$@"; do programs+=("$build/tests/$name"); done
else
  while IFS= read -r p; do programs+=("$p"); done < <(find "$build/tests" -maxdepth 1 -type f -name '*_test' -perm -u+x | sort)
fi

logs=$build/valgrind
rm -rf "$logs"
mkdir -p "$logs"
failed=()
for p in "${programs[@]}"; do
  name=$(basename "$p")
  status=0
  valgrind --tool=memcheck --error-exitcode=1 --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible --track-origins=yes --num-callers=30 --suppressions=scripts/valgrind.supp \
    --trace-children=yes --trace-children-skip='/bin/*,/usr/bin/*' \
    --log-file="$logs/$name.%p.log" "$p" --gtest_brief=1 >"$logs/$name.out" 2>&1 || status=$?
  errors=$(cat "$logs/$name".*.log | awk '/ERROR SUMMARY:/ {n += $4} END {print n + 0}')
  lost=$(cat "$logs/$name".*.log | awk '/definitely lost:/ {gsub(",", "", $4); n += $4} END {print n + 0}')
  printf '%-36s exit %d  errors %s  definitely lost %s bytes\n' "$name" "$status" "${errors:-0}" "${lost:-0}"
  if ((status != 0)); then
    failed+=("$name")
    grep -h -A25 -E 'Invalid|uninitialised|definitely lost in|indirectly lost in|possibly lost in' \
      "$logs/$name".*.log | head -80 || tail -20 "$logs/$name.out"
  fi
done
if ((${#failed[@]})); then
  echo "valgrind.sh: memcheck findings in ${failed[*]} (logs in $logs)" >&2
  exit 1
fi
echo "valgrind.sh: ${#programs[@]} test programs clean (no error, no leak)"
