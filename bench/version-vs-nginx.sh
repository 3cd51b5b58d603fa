#!/usr/bin/env bash
# Requests per second of `GET /api/version` on quillmoord, side by side with nginx serving the very
# same bytes as a static file. Both listen on 127.0.0.1; wrk drives each with the same thread and
# connection counts (keep-alive), alternating nginx, quillmoord, nginx, quillmoord, ... and the
# medians and best runs of each side are compared. The CPU time each server and wrk spend per
# request is reported too: it predicts the ratio of an idle machine, and unlike the rates it
# barely moves when other work shares the machine.
#
# Usage: bench/version-vs-nginx.sh
# Environment (all optional):
#   DURATION=10s      length of each measured run
#   ROUNDS=2          measured runs per server (alternating)
#   WARMUP=2s         unmeasured run against each server first
#   WRK_THREADS=2     wrk -t (the same for both servers)
#   CONNECTIONS=64    wrk -c (the same for both servers)
#   QUILL_BIN=path    use this binary instead of building build-bench/quillmoord
#   QUILL_ARGS="..."  extra arguments for quillmoord
#   NGINX=path        nginx binary (default /usr/sbin/nginx)
#   MIN_RATIO=0.8     the target printed beside the result
#   NICE=-15          run both servers and wrk at this nice level (negative needs root), so that
#                     other work on a shared machine disturbs the figures less
#
# On a small machine wrk shares the cores with the server under test; that holds equally for both
# servers, so the ratio is the meaningful figure, not the absolute rates.

set -euo pipefail

DURATION=${DURATION:-10s}
ROUNDS=${ROUNDS:-2}
WARMUP=${WARMUP:-2s}
WRK_THREADS=${WRK_THREADS:-2}
CONNECTIONS=${CONNECTIONS:-64}
MIN_RATIO=${MIN_RATIO:-0.8}
BENCH_NAME=version-vs-nginx
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

main() {
  command -v wrk >/dev/null || die "wrk is not installed"
  command -v curl >/dev/null || die "curl is not installed"
  [[ -x "$NGINX" ]] || die "nginx not found at $NGINX"

  local quill
  quill=$(quill_binary) || exit 1

  install_cleanup
  make_work_dir

  local qport nport
  qport=$(free_port)
  local quill_url=http://127.0.0.1:$qport/api/version

  start_quill "$quill" "$WORK/data" "$qport" "$WORK/quillmoord.log"
  nport=$(free_port)
  local nginx_url=http://127.0.0.1:$nport/api/version

  mkdir -p "$WORK/www/api"
  curl -fsS -o "$WORK/www/api/version" "$quill_url"
  start_nginx "$WORK/www" "$nport" /api/version

  curl -fsS -o "$WORK/from-nginx" "$nginx_url"
  curl -fsS -o "$WORK/from-quill" "$quill_url"
  cmp -s "$WORK/from-nginx" "$WORK/from-quill" || die "the two servers answer different bodies"

  describe_machine
  echo "body: $(wc -c <"$WORK/from-quill") bytes: $(cat "$WORK/from-quill")"
  echo "wrk -t$WRK_THREADS -c$CONNECTIONS -d$DURATION, $ROUNDS rounds, warm-up $WARMUP each${NICE:+, nice $NICE}"
  echo "note: wrk runs on the same machine and competes with the servers for the cores;"
  echo "      both servers face the same wrk settings, so the ratio is the fair figure."

  local quill_pids=("$QUILL_PID") nginx_pids=("${NGINX_PIDS[@]}")

  measure "$nginx_url" "$WARMUP" "${nginx_pids[@]}"
  measure "$quill_url" "$WARMUP" "${quill_pids[@]}"

  local nginx_rates=() quill_rates=() nginx_cpu=() quill_cpu=() nginx_wrk=() quill_wrk=() round
  for round in $(seq "$ROUNDS"); do
    measure "$nginx_url" "$DURATION" "${nginx_pids[@]}"
    nginx_rates+=("$RATE")
    nginx_cpu+=("$CPU_US")
    nginx_wrk+=("$WRK_US")
    report_round "$round" nginx
    measure "$quill_url" "$DURATION" "${quill_pids[@]}"
    quill_rates+=("$RATE")
    quill_cpu+=("$CPU_US")
    quill_wrk+=("$WRK_US")
    report_round "$round" quillmoord
  done

  local nginx_median quill_median nginx_best quill_best
  nginx_median=$(median "${nginx_rates[@]}")
  quill_median=$(median "${quill_rates[@]}")
  nginx_best=$(printf '%s\n' "${nginx_rates[@]}" | sort -g | tail -1)
  quill_best=$(printf '%s\n' "${quill_rates[@]}" | sort -g | tail -1)
  local nginx_cpu_m quill_cpu_m nginx_wrk_m quill_wrk_m
  nginx_cpu_m=$(median_float "${nginx_cpu[@]}")
  quill_cpu_m=$(median_float "${quill_cpu[@]}")
  nginx_wrk_m=$(median_float "${nginx_wrk[@]}")
  quill_wrk_m=$(median_float "${quill_wrk[@]}")

  echo
  printf '%-10s  median %8.0f req/s  best %8.0f req/s  CPU/request: server %5.1f us, wrk %5.1f us\n' \
    nginx "$nginx_median" "$nginx_best" "$nginx_cpu_m" "$nginx_wrk_m" \
    quillmoord "$quill_median" "$quill_best" "$quill_cpu_m" "$quill_wrk_m"
  # When server and wrk between them use every core, requests/s = cores / (CPU per request), so
  # the CPU figures predict the ratio an otherwise idle machine shows; they vary far less than
  # the rates when other work shares the machine.
  awk -v q="$quill_median" -v n="$nginx_median" -v qb="$quill_best" -v nb="$nginx_best" \
    -v qc="$quill_cpu_m" -v nc="$nginx_cpu_m" -v qw="$quill_wrk_m" -v nw="$nginx_wrk_m" \
    -v min="$MIN_RATIO" 'BEGIN {
    r = q / n
    printf "ratio quillmoord/nginx: %.2f (medians), %.2f (best runs)  target >= %s: %s\n",
           r, qb / nb, min, (r >= min ? "met" : "NOT met")
    printf "ratio predicted from CPU per request (server + wrk): %.2f\n", (nc + nw) / (qc + qw)
  }'
}

# Prints one measured run (RATE, CPU_US and WRK_US) of round `round` against server `name`.
report_round() {
  printf 'round %d  %-10s  %8.0f req/s  CPU/request: server %5.1f us, wrk %5.1f us\n' \
    "$1" "$2" "$RATE" "$CPU_US" "$WRK_US"
}

if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
  main "$@"
fi
