#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each in turn for a bounded time.
#
#   scripts/fuzz.sh --ci                 every target for 30 s; fails on any crash, leak or sanitizer report
#   scripts/fuzz.sh --seconds 1800       a longer local campaign (per target)
#   scripts/fuzz.sh --runs 10000000      stop a target after that many executions (or the time, if first)
#   scripts/fuzz.sh fuzz_ops fuzz_xml    only the targets named
#
# Each target starts from its committed seeds (fuzz/corpus/<target>) plus what earlier runs found
# (build-fuzz/corpus/<target>, kept between runs); findings go to build-fuzz/artifacts/<target>/.
# Prints executions and coverage (cov: edges, ft: features) per target.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=""
runs=-1
ci=0
targets=()
while (($#)); do
  case "$1" in
    --ci) ci=1 ;;
    --seconds) seconds=$2; shift ;;
    --runs) runs=$2; shift ;;
    -h | --help) sed -n '2,12p' "$0"; exit 0 ;;
    -*) echo "fuzz.sh: unknown option $1" >&2; exit 2 ;;
    *) targets+=("$1") ;;
  esac
  shift
done
[ -n "$seconds" ] || seconds=$([ "$ci" = 1 ] && echo 30 || echo 300)
((${#targets[@]})) || targets=(fuzz_ops fuzz_xml fuzz_definition fuzz_codec fuzz_roundtrip fuzz_encode fuzz_fieldcodec
  fuzz_fielddecode fuzz_numberdecode)

bash scripts/setup.sh fuzz
build=build-fuzz
# Only the library and the fuzz targets: no tests, tools or install rules.
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_BUILD_FUZZ=ON \
  -DBLOCKPROC_BUILD_TESTS=OFF -DBLOCKPROC_BUILD_TOOLS=OFF -DBLOCKPROC_BUILD_BENCH=OFF \
  -DBLOCKPROC_INSTALL=OFF -DBLOCKPROC_WERROR=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=1
export UBSAN_OPTIONS=${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}print_stacktrace=1:halt_on_error=1

failed=()
summary=()
for t in "${targets[@]}"; do
  corpus=$build/corpus/$t
  artifacts=$build/artifacts/$t
  log=$build/logs/$t.log
  mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
  dict=()
  [ -f "fuzz/$t.dict" ] && dict=(-dict="fuzz/$t.dict")
  echo "== $t: ${seconds}s" >&2
  status=0
  "$build/fuzz/$t" "${dict[@]}" -max_total_time="$seconds" -runs="$runs" -rss_limit_mb=4096 -timeout=30 \
    -max_len=4096 -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "fuzz/corpus/$t" \
    >"$log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  line=$(printf '%-16s %12s execs  cov %6s  ft %7s  corpus %5s' "$t" "${execs:-?}" "${cov:-?}" "${ft:-?}" \
    "$(find "$corpus" -type f | wc -l)")
  if ((status != 0)) || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$log"; then
    failed+=("$t")
    line+="  FAILED (exit $status)"
    echo "---- $t: last lines of $log" >&2
    tail -n 60 "$log" >&2
    ls "$artifacts" >&2 || true
  fi
  summary+=("$line")
  echo "$line" >&2
done

echo
echo "target               executions  coverage"
printf '%s\n' "${summary[@]}"
if ((${#failed[@]})); then
  echo "fuzz.sh: findings in ${failed[*]} (reproduce with $build/fuzz/<target>_replay <artifact>)" >&2
  exit 1
fi
