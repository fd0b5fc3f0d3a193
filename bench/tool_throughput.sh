#!/usr/bin/env bash
# The tool's speed and peak memory per output format on generated quote captures (14 fields, 120 bytes a
# record): `decode` of a 200,000-record reply (24 MB, one count="rest" block), and `decode` and `realtime`
# of a 8,333,334-record capture (1 GB) read as a reply and as a stream; `encode` of the 200,000 records back
# from decode's CSV, JSON Lines, JSON and long form, and of the 1 GB stream from CSV (MB/s of the bytes it
# writes). The captures are written once into /tmp and kept there. Each command runs pinned to one core; the figures are
# the medians of the runs: MB/s of input bytes by wall time and by CPU time (user + system), and the peak
# resident memory from /usr/bin/time -v.
#
# `decode --format csv --jobs 2` runs on every core (taskset gives it all of them), so its wall-clock rate
# against the one-job row's is the speed-up of the second job; measure it when the machine is otherwise idle,
# with more runs than the default (`bench/tool_throughput.sh 1 15 'csv( --jobs 2)? \('`).
#
#   bench/tool_throughput.sh [cpu] [runs] [rows]     (defaults: cpu 1, 3 runs, every row)
#
# `rows` is an extended regular expression; only the rows whose label matches it run ("decode --format
# (csv|jsonl) \(24" for the two decode rows of the small capture). ROWS=encode or ROWS=decode in the
# environment picks the encode rows or the decode and realtime rows.
set -euo pipefail
cd "$(dirname "$0")/.."
cpu=${1:-1}
runs=${2:-3}
rows=${3:-}
case ${ROWS:-} in
  encode) rows='^encode' ;;
  decode) rows='^(decode|realtime)' ;;
  '') ;;
  *) echo "tool_throughput.sh: ROWS is encode or decode" >&2; exit 2 ;;
esac
bash scripts/setup.sh bench
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBLOCKPROC_BUILD_BENCH=ON -DBLOCKPROC_BUILD_TOOLS=ON >/dev/null
cmake --build build-bench -j 2 --target blockproc_cli make_quote_capture >/dev/null
tool=build-bench/tools/blockproc/blockproc

capture() {  # DIR RECORDS
  mkdir -p "$1"
  [[ -s $1/quotes.bin && $(stat -c %s "$1/quotes.bin") -eq $(($2 * 120)) ]] ||
    build-bench/bench/make_quote_capture "$1" "$2"
}

wanted() { [[ -z $rows || $1 =~ $rows ]]; }

median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

# Runs the tool `runs` times and prints one table row: format, MB/s (wall), MB/s (CPU), peak MB, the rates
# of the bytes of `sized` (the input read, or for encode the bytes it writes).
measure() {  # LABEL SIZED ARGS...
  local label=$1 input=$2 pin=(taskset -c "$cpu")
  shift 2
  wanted "$label" || return 0
  [[ " $* " == *" --jobs "* ]] && pin=(taskset -c "0-$(($(nproc) - 1))")  # every core, the same start-up
  local bytes walls=() cpus=() peak=0 log
  bytes=$(stat -c %s "$input")
  log=$(mktemp)
  for ((i = 0; i < runs; i++)); do
    local wall user sys rss began=$EPOCHREALTIME
    /usr/bin/time -v -o "$log" "${pin[@]}" "$tool" "$@" --quiet >/dev/null ||
      echo "tool_throughput.sh: $label: exit code $?" >&2
    # The shell's clock to the microsecond: time's own wall clock counts hundredths, a third of the run of
    # the small capture on two cores.
    wall=$(awk -v a="$began" -v b="$EPOCHREALTIME" 'BEGIN {print b - a}')
    user=$(awk -F': ' '/User time/ {print $2}' "$log")
    sys=$(awk -F': ' '/System time/ {print $2}' "$log")
    rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$log")
    walls+=("$(awk -v b="$bytes" -v t="$wall" 'BEGIN {printf "%.0f", b / 1e6 / t}')")
    cpus+=("$(awk -v b="$bytes" -v u="$user" -v s="$sys" 'BEGIN {printf "%.0f", b / 1e6 / (u + s)}')")
    ((rss > peak)) && peak=$rss
  done
  rm -f "$log"
  printf '| %s | %s | %s | %s |\n' "$label" "$(printf '%s\n' "${walls[@]}" | median)" \
    "$(printf '%s\n' "${cpus[@]}" | median)" "$(awk -v k="$peak" 'BEGIN {printf "%.1f", k / 1024}')"
}

small=/tmp/blockproc-quotes-24MB
large=/tmp/blockproc-quotes-1GB
capture "$small" 200000
capture "$large" 8333334

echo "| command | MB/s (wall) | MB/s (CPU) | peak MB |"
echo "|---|---:|---:|---:|"
for format in csv jsonl json table long; do
  measure "decode --format $format (24 MB)" "$small/quotes.bin" decode "$small/quotes.xml" "$small/quotes.bin" \
    --format "$format"
done
measure "decode --format csv --jobs 2 (24 MB)" "$small/quotes.bin" decode "$small/quotes.xml" \
  "$small/quotes.bin" --format csv --jobs 2
measure "decode --format csv (1 GB)" "$large/quotes.bin" decode "$large/quotes.xml" "$large/quotes.bin" \
  --format csv
measure "decode --format csv --jobs 2 (1 GB)" "$large/quotes.bin" decode "$large/quotes.xml" \
  "$large/quotes.bin" --format csv --jobs 2
for format in csv jsonl json table long; do
  measure "realtime --format $format (1 GB)" "$large/quotes.bin" realtime "$large/quotes.xml" \
    "$large/quotes.bin" --block OutBlock1 --format "$format"
done

# encode reads what decode wrote; the text is written once next to the capture.
for format in csv jsonl json long; do
  wanted "encode --format $format (24 MB out)" || continue
  [[ -s $small/quotes.$format ]] ||
    "$tool" decode "$small/quotes.xml" "$small/quotes.bin" --format "$format" --quiet >"$small/quotes.$format" || true
  measure "encode --format $format (24 MB out)" "$small/quotes.bin" encode "$small/quotes.xml" "$small/quotes.$format" \
    --format "$format" --reply -o /dev/null
done
! wanted "encode --stream --format csv (1 GB out)" || [[ -s $large/quotes.csv ]] ||
  "$tool" realtime "$large/quotes.xml" "$large/quotes.bin" --block OutBlock1 --order arrival --format csv --quiet \
    >"$large/quotes.csv" || true
runs=1 measure "encode --stream --format csv (1 GB out)" "$large/quotes.bin" encode "$large/quotes.xml" \
  "$large/quotes.csv" --format csv --stream --block OutBlock1 -o /dev/null
