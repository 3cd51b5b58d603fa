#!/usr/bin/env bash
# A flood of anonymous requests from 127.0.0.1, each naming a different client in
# `X-Forwarded-For` (10.x.y.z, 100,000 distinct addresses by default), to a path that charges the
# anonymous budget (`GET /api/builds` without a token, answered 401). The server's resident memory
# (VmRSS) is read before the flood, every ~10,000 requests during it (by the client, between
# answers) and after it; the per-client rate-limit table holds at most 4,096 clients, so it must
# stay flat once that many have been seen.
#
# Afterwards the same server shows the bound exactly, through the credential budget (5 attempts,
# one back every 12 s, so timing is not an issue): an address that has spent it is still refused
# after 4,095 newer addresses, and forgotten (a fresh budget) after 4,096 more. And one address
# gets its 30 anonymous requests, then 429 with Retry-After. PASS/FAIL lines; exit status 1 on a
# FAIL.
#
# Usage: bench/forwarded-flood.sh
# Environment (all optional):
#   TOTAL=100000        distinct addresses in the flood
#   SAMPLE_EVERY=10000  requests between two memory samples
#   WRK_THREADS=2       wrk -t for the flood
#   CONNECTIONS=64      wrk -c for the flood
#   MAX_GROWTH_KIB=1024 the most VmRSS may grow from the first sample to the end and still be flat
#   QUILL_BIN=path      use this binary instead of building build-bench/quillmoord
#   QUILL_ARGS="..."    extra arguments for quillmoord
#   NICE=-15            run the server and wrk at this nice level (negative needs root)

set -euo pipefail

TOTAL=${TOTAL:-100000}
SAMPLE_EVERY=${SAMPLE_EVERY:-10000}
WRK_THREADS=${WRK_THREADS:-2}
CONNECTIONS=${CONNECTIONS:-64}
MAX_GROWTH_KIB=${MAX_GROWTH_KIB:-1024}
TABLE_SIZE=4096
BENCH_NAME="forwarded-flood"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"

# Where each run's addresses start (address numbers; see wrk-forwarded.lua), kept apart.
FLOOD_FIRST=1000000
PROBE_FIRST=0


# Sends `total` requests to `url`, each from its own forwarded address, numbered from `first`,
# with wrk's `threads` and `connections`; further arguments go to the wrk script (the pid to
# sample and how often). Leaves wrk's report in WORK/flood.out and the samples in WORK/flood/rss;
# fails unless exactly `total` distinct addresses were sent and answered.
flood() {
  local url=$1 total=$2 first=$3 threads=$4 connections=$5
  shift 5
  local state=$WORK/flood
  rm -rf "$state"
  mkdir -p "$state"
  run_niced wrk -t"$threads" -c"$connections" -d300s --timeout 30s -s "$HERE/wrk-forwarded.lua" \
    "$url" -- "$total" "$first" "$threads" "$state" "$@" >"$WORK/flood.out" 2>&1 &
  WRK_PID=$!
  # wrk runs until its duration ends; the script marks each thread that has had all its answers.
  while kill -0 "$WRK_PID" 2>/dev/null; do
    if (($(find "$state" -name 'stopped-*' | wc -l) >= threads)); then
      kill -INT "$WRK_PID"
      break
    fi
    sleep 0.02
  done
  wait "$WRK_PID" || true
  WRK_PID=""
  local answered sent
  answered=$(wrk_requests <"$WORK/flood.out") || die "wrk failed:"$'\n'"$(cat "$WORK/flood.out")"
  sent=$(awk '$1 == "sent:" { print $2 }' "$WORK/flood.out")
  ((answered >= total)) || die "only $answered of $total requests were answered"
  if ((connections == threads)); then
    [[ $sent == "$total" ]] || die "wrk sent $sent requests, not $total"
  fi
  wrk_rate --any-status <"$WORK/flood.out" >/dev/null ||
    die "the flood saw socket errors:"$'\n'"$(cat "$WORK/flood.out")"
}

# Prints the status of an attempt to redeem an invite (a credential-budget path) as `address`.
redeem_status() {
  curl -s -o /dev/null -w '%{http_code}' -X POST -H "X-Forwarded-For: $2" \
    "$1/api/invites/redeem?code=none&machine=bench"
}

# The table's bound, exactly: an address that spent its credential budget is still known after
# `TABLE_SIZE` - 1 newer addresses and forgotten after `TABLE_SIZE` more.
check_bound() {
  local base=$1 url=$1/api/builds probe=192.0.2.2 statuses start
  start=$(date +%s%N)
  statuses=$(for _ in 1 2 3 4 5 6; do redeem_status "$base" "$probe"; echo; done | tr '\n' ' ')
  check_equal "an address spends its 5 credential attempts, the 6th is refused" 429 \
    "$(awk '{ print ($5 != 429 && $6 == 429) ? 429 : $0 }' <<<"$statuses")"
  flood "$url" $((TABLE_SIZE - 1)) "$PROBE_FIRST" 2 2
  check_equal "... and is still refused after $((TABLE_SIZE - 1)) newer addresses" 429 \
    "$(redeem_status "$base" "$probe")"
  flood "$url" "$TABLE_SIZE" $((PROBE_FIRST + TABLE_SIZE)) 2 2
  local forgotten elapsed
  forgotten=$(redeem_status "$base" "$probe")
  elapsed=$((($(date +%s%N) - start) / 1000000))
  # An attempt comes back after 12 s; a refusal-free answer after that proves nothing.
  if ((elapsed >= 11000)); then
    echo "SKIP  ... forgotten after $TABLE_SIZE more: the checks took ${elapsed} ms"
    return 0
  fi
  check_equal "... and forgotten after $TABLE_SIZE more (the table holds $TABLE_SIZE clients)" \
    "not 429" "$([[ $forgotten == 429 ]] && echo 429 || echo "not 429")"
}

# One address's anonymous budget: 30 requests, then 429 with a Retry-After.
check_anonymous_budget() {
  local url=$1/api/builds args=() answers
  for _ in $(seq 31); do args+=(-o /dev/null "$url"); done
  answers=$(curl -s -w '%{http_code} %header{retry-after}\n' -H 'X-Forwarded-For: 192.0.2.1' \
    "${args[@]}")
  check_equal "one forwarded address gets 30 anonymous answers (401)" 30 \
    "$(head -30 <<<"$answers" | grep -c '^401 $')"
  check_equal "... then 429 with Retry-After" yes \
    "$(tail -1 <<<"$answers" | awk '$1 == 429 && $2 >= 1 { print "yes"; exit } { print }')"
}

main() {
  command -v wrk >/dev/null || die "wrk is not installed"
  ((TOTAL >= SAMPLE_EVERY && SAMPLE_EVERY > 0)) || die "TOTAL must be at least SAMPLE_EVERY"
  local quill
  quill=$(quill_binary) || exit 1

  install_cleanup
  make_work_dir

  local port base pid
  port=$(free_port)
  base=http://127.0.0.1:$port
  start_quill "$quill" "$WORK/data" "$port" "$WORK/quillmoord.log"
  pid=$QUILL_PID

  describe_machine
  echo "GET /api/builds without a token from $TOTAL distinct X-Forwarded-For addresses;" \
    "wrk -t$WRK_THREADS -c$CONNECTIONS${NICE:+, nice $NICE}"

  local rss_before hwm_before cpu_before cpu_after
  rss_before=$(proc_kib "$pid" VmRSS)
  hwm_before=$(proc_kib "$pid" VmHWM)
  cpu_before=$(cpu_ticks "$pid")
  flood "$base/api/builds" "$TOTAL" "$FLOOD_FIRST" "$WRK_THREADS" "$CONNECTIONS" \
    "$pid" "$SAMPLE_EVERY"
  cpu_after=$(cpu_ticks "$pid")
  sleep 1
  local rss_after hwm_after
  rss_after=$(proc_kib "$pid" VmRSS)
  hwm_after=$(proc_kib "$pid" VmHWM)

  local requests rate seconds
  requests=$(wrk_requests <"$WORK/flood.out")
  rate=$(wrk_rate --any-status <"$WORK/flood.out")
  seconds=$(awk '/ requests in / { sub(/,$/, "", $4); print $4 }' "$WORK/flood.out")
  printf '%d requests answered in %s: %.0f req/s, server CPU %s us/request\n' \
    "$requests" "$seconds" "$rate" "$(per_request_us $((cpu_after - cpu_before)) "$requests")"
  echo "answers by status: $(awk '$1 == "statuses:" { $1 = ""; print }' "$WORK/flood.out")"
  echo
  echo "server memory (KiB):"
  printf '  %-22s VmRSS %7d  VmHWM %7d\n' "before" "$rss_before" "$hwm_before"
  local requests_so_far kib first_sample="" most=0
  while read -r requests_so_far kib; do
    printf '  after ~%-15s VmRSS %7s\n' "$requests_so_far" "$kib"
    [[ -z "$first_sample" ]] && first_sample=$kib
    ((kib > most)) && most=$kib
  done <"$WORK/flood/rss"
  printf '  %-22s VmRSS %7d  VmHWM %7d\n' "1 s after" "$rss_after" "$hwm_after"
  ((rss_after > most)) && most=$rss_after
  [[ -n "$first_sample" ]] || die "no memory samples were taken"
  echo "growth from the first sample to the highest later figure: $((most - first_sample)) KiB"
  echo
  check_equal "every flood request answered 401 (each address had a fresh budget)" "only 401" \
    "$(awk -v n="$TOTAL" '$1 == "statuses:" {
         print (NF == 2 && $2 ~ /^401=/ && substr($2, 5) >= n) ? "only 401" : $0 }' \
      "$WORK/flood.out")"
  local growth=$((most - first_sample))
  check_equal "resident memory flat through the flood (growth <= $MAX_GROWTH_KIB KiB)" yes \
    "$( ((growth <= MAX_GROWTH_KIB)) && echo yes || echo "no, $growth KiB")"
  check_bound "$base"
  check_anonymous_budget "$base"

  ((FAILURES == 0)) || exit 1
}

if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
  main "$@"
fi
