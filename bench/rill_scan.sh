#!/usr/bin/env bash
# Scan throughput of a 1 GiB file from the page cache, in one run on the same file:
#   whole scan (read + cut points + BLAKE3 of every chunk) vs the cut-point search alone,
#   and vs `b3sum --num-threads 1` (Debian b3sum) on the same file.
#
#   bench/rill_scan.sh [build dir configured with -DQUILL_BENCH=ON]   (default: build-bench)
#
# Environment: QUILL_BENCH_FILE (default /tmp/quill-rill-scan.bin), QUILL_BENCH_MIB (default 1024),
# NICE (e.g. -15, needs root): on a shared machine, run in a scheduling group of its own at that
# nice level. Linux shares the CPU between sessions' groups, so without it a busy neighbour session
# takes half the machine and the scan cannot have its second core.
set -euo pipefail
if [ -n "${NICE:-}" ] && [ -z "${QUILL_RILL_SCAN_NICED:-}" ]; then
  export QUILL_RILL_SCAN_NICED=1
  exec setsid bash -c 'echo "$NICE" > /proc/$$/autogroup; exec nice -n "$NICE" bash "$0" "$@"' \
    "$0" "$@"
fi
cd "$(dirname "$0")/.."
build="${1:-build-bench}"
bench="$build/bench/rill_scan_bench"
[ -x "$bench" ] || cmake --build "$build" --target rill_scan_bench >/dev/null
file="${QUILL_BENCH_FILE:-/tmp/quill-rill-scan.bin}"
export QUILL_BENCH_FILE="$file"

# Repetitions of the three benchmarks are interleaved at random, so a change of machine load
# during the run affects them alike.
csv="$("$bench" --benchmark_format=csv --benchmark_report_aggregates_only=true \
  --benchmark_enable_random_interleaving=true 2>/dev/null)"
median() { # bytes per second of the median repetition of benchmark $1
  echo "$csv" | awk -F, -v name="\"$1/" '
    index($1, name) == 1 && $1 ~ /_median"$/ { printf "%.0f", $6 }'
}
rss=$("$bench" --benchmark_format=csv --benchmark_filter=ScanFile --benchmark_repetitions=1 \
  2>/dev/null | awk -F, 'NR == 2 { printf "%.0f", $NF }')
cut=$(median BM_CutPointSearch)
scan=$(median BM_ScanFile)
hash=$(median BM_Blake3OneThread)

bytes=$(stat -c %s "$file")
best=""
for _ in 1 2 3 4 5; do
  start=$(date +%s%N)
  b3sum --num-threads 1 "$file" >/dev/null
  ns=$(( $(date +%s%N) - start ))
  if [ -z "$best" ] || [ "$ns" -lt "$best" ]; then best=$ns; fi
done
b3=$(awk -v b="$bytes" -v ns="$best" 'BEGIN { printf "%.0f", b / (ns / 1e9) }')

awk -v cut="$cut" -v scan="$scan" -v hash="$hash" -v b3="$b3" -v rss="$rss" 'BEGIN {
  gib = 1024 * 1024 * 1024
  printf "cut-point search alone   %6.2f GiB/s\n", cut / gib
  printf "whole scan               %6.2f GiB/s\n", scan / gib
  printf "BLAKE3 one thread (lib)  %6.2f GiB/s\n", hash / gib
  printf "b3sum --num-threads 1    %6.2f GiB/s\n", b3 / gib
  printf "scan / cut-point search  %6.2f\n", scan / cut
  printf "scan / b3sum             %6.2f\n", scan / b3
  printf "scan peak RSS            %6d MiB (whole process, scan alone)\n", rss
}'
