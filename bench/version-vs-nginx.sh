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
NGINX=${NGINX:-/usr/sbin/nginx}
MIN_RATIO=${MIN_RATIO:-0.8}
NICE=${NICE:-}
REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

die() {
  echo "version-vs-nginx: $*" >&2
  exit 1
}

# Prints a TCP port that nothing listens on. Call it again only once the first port's server
# listens, so the two cannot collide.
free_port() {
  local port
  for _ in $(seq 200); do
    port=$((20000 + RANDOM % 40000))
    if [[ -z "$(ss -Htln "sport = :$port")" ]]; then
      echo "$port"
      return 0
    fi
  done
  die "no free port found"
}

# Reads wrk's report on stdin and prints its Requests/sec figure. Fails (printing nothing) when the
# run saw non-2xx/3xx answers or socket errors: a fast stream of errors is not a result.
wrk_rate() {
  awk '
    /Non-2xx or 3xx responses:/ { bad = 1 }
    /Socket errors:/ { bad = 1 }
    /^Requests\/sec:/ { rate = $2 }
    END { if (bad || rate == "") exit 1; print rate }'
}

# Reads wrk's report on stdin and prints how many requests completed.
wrk_requests() {
  awk '/ requests in / { print $1; found = 1 } END { exit !found }'
}

# Prints the CPU time, in clock ticks, used so far by the processes given (user plus system; the
# process name in /proc/<pid>/stat may hold anything, so fields count from its last ") ").
cpu_ticks() {
  local pid total=0 stat fields
  for pid in "$@"; do
    stat=$(cat "/proc/$pid/stat" 2>/dev/null) || continue
    read -r -a fields <<<"${stat##*) }"
    total=$((total + fields[11] + fields[12]))
  done
  echo "$total"
}

# Prints the median of the numbers given as arguments, rounded to `MEDIAN_FORMAT` (a printf format).
median() {
  (($# > 0)) || return 1
  printf '%s\n' "$@" | sort -g | awk -v fmt="${MEDIAN_FORMAT:-%.0f}" '
    { v[NR] = $1 }
    END {
      if (NR == 0) exit 1
      if (NR % 2) m = v[(NR + 1) / 2]
      else m = (v[NR / 2] + v[NR / 2 + 1]) / 2
      printf fmt "\n", m
    }'
}

median_float() { MEDIAN_FORMAT=%.1f median "$@"; }

# Writes a self-contained nginx configuration: everything (pid, logs, temp paths) under `prefix`,
# static files from `root`, listening on 127.0.0.1:`port`.
write_nginx_conf() {
  local prefix=$1 root=$2 port=$3
  local user_line=""
  # A master started as root switches its workers to `nobody` unless told otherwise.
  if [[ $(id -u) -eq 0 ]]; then user_line="user $(id -un) $(id -gn);"; fi
  cat <<EOF
$user_line
daemon off;
worker_processes auto;
pid $prefix/nginx.pid;
error_log $prefix/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  default_type application/json;
  charset utf-8;
  charset_types application/json;
  sendfile on;
  tcp_nopush on;
  tcp_nodelay on;
  keepalive_timeout 65;
  keepalive_requests 1000000;
  client_body_temp_path $prefix/client_body;
  proxy_temp_path $prefix/proxy;
  fastcgi_temp_path $prefix/fastcgi;
  uwsgi_temp_path $prefix/uwsgi;
  scgi_temp_path $prefix/scgi;
  server {
    listen 127.0.0.1:$port;
    root $root;
  }
}
EOF
}

# Runs a command, at nice level NICE when one is set.
run_niced() {
  if [[ -n "$NICE" ]]; then
    exec nice -n "$NICE" "$@"
  fi
  exec "$@"
}

# Waits until `url` answers, or fails when process `pid` ends first (showing `log`) or after
# about thirty seconds.
wait_ready() {
  local url=$1 pid=$2 log=$3
  for _ in $(seq 300); do
    curl -fsS -o /dev/null "$url" 2>/dev/null && return 0
    kill -0 "$pid" 2>/dev/null || die "the server for $url exited:"$'\n'"$(tail -5 "$log")"
    sleep 0.1
  done
  die "$url did not answer"
}

# Prints the CPU time, in clock ticks, of this shell's children that have ended and been waited
# for (user plus system).
waited_children_ticks() {
  local stat fields
  stat=$(cat /proc/$$/stat)
  read -r -a fields <<<"${stat##*) }"
  echo $((fields[13] + fields[14]))
}

# Runs wrk against `url` for `duration`. Sets RATE to its requests per second, CPU_US to the CPU
# time the server's processes (the remaining arguments) spent per request, and WRK_US to wrk's
# own, both in microseconds. wrk runs in the background and is waited for, so that a signal
# interrupts the run at once.
measure() {
  local url=$1 duration=$2
  shift 2
  local before after wrk_before wrk_after requests
  before=$(cpu_ticks "$@")
  wrk_before=$(waited_children_ticks)
  run_niced wrk -t"$WRK_THREADS" -c"$CONNECTIONS" -d"$duration" "$url" >"$WORK/wrk.out" 2>&1 &
  WRK_PID=$!
  wait "$WRK_PID" || true
  WRK_PID=""
  after=$(cpu_ticks "$@")
  wrk_after=$(waited_children_ticks)
  RATE=$(wrk_rate <"$WORK/wrk.out") ||
    die "wrk run against $url failed or saw errors:"$'\n'"$(cat "$WORK/wrk.out")"
  requests=$(wrk_requests <"$WORK/wrk.out")
  CPU_US=$(per_request_us $((after - before)) "$requests")
  WRK_US=$(per_request_us $((wrk_after - wrk_before)) "$requests")
}

# Prints `ticks` of CPU time spread over `requests`, in microseconds per request.
per_request_us() {
  awk -v t="$1" -v n="$2" -v hz="$(getconf CLK_TCK)" 'BEGIN { printf "%.1f", t * 1e6 / hz / n }'
}

# Prints the fraction of CPU time (0-100) that was idle over the next second.
idle_percent() {
  # shellcheck disable=SC2016 # an awk program, not shell
  local sum='/^cpu / { print $5 + $6, $2 + $3 + $4 + $5 + $6 + $7 + $8 + $9 }'
  local idle1 total1 idle2 total2
  read -r idle1 total1 < <(awk "$sum" /proc/stat)
  sleep 1
  read -r idle2 total2 < <(awk "$sum" /proc/stat)
  awk -v i=$((idle2 - idle1)) -v t=$((total2 - total1)) \
    'BEGIN { printf "%.0f", t ? 100 * i / t : 100 }'
}

PIDS=()
WRK_PID=""
WORK=""
cleanup() {
  local pid
  for pid in $WRK_PID "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in $WRK_PID "${PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [[ -n "$WORK" ]]; then rm -rf "$WORK"; fi
}

main() {
  command -v wrk >/dev/null || die "wrk is not installed"
  command -v curl >/dev/null || die "curl is not installed"
  [[ -x "$NGINX" ]] || die "nginx not found at $NGINX"

  local quill=${QUILL_BIN:-}
  if [[ -z "$quill" ]]; then
    local log
    if ! log=$(cd "$REPO" &&
      cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_TESTS=OFF 2>&1 &&
      cmake --build build-bench --target quillmoord 2>&1); then
      grep -E -m 20 'error|FAILED' <<<"$log" >&2 || tail -20 <<<"$log" >&2
      die "the Release build failed"
    fi
    quill=$REPO/build-bench/quillmoord
  fi
  [[ -x "$quill" ]] || die "no quillmoord binary at $quill"

  trap cleanup EXIT
  trap 'exit 130' INT TERM
  WORK=$(mktemp -d "${TMPDIR:-/tmp}/version-vs-nginx.XXXXXX")
  chmod 755 "$WORK"

  local qport nport
  qport=$(free_port)
  local quill_url=http://127.0.0.1:$qport/api/version

  # shellcheck disable=SC2086 # QUILL_ARGS is a word list on purpose
  run_niced "$quill" --data-dir "$WORK/data" --bind 127.0.0.1 --port "$qport" ${QUILL_ARGS:-} \
    >"$WORK/quillmoord.log" 2>&1 &
  PIDS+=($!)
  wait_ready "$quill_url" "${PIDS[0]}" "$WORK/quillmoord.log"
  nport=$(free_port)
  local nginx_url=http://127.0.0.1:$nport/api/version

  mkdir -p "$WORK/www/api"
  curl -fsS -o "$WORK/www/api/version" "$quill_url"
  write_nginx_conf "$WORK" "$WORK/www" "$nport" >"$WORK/nginx.conf"
  run_niced "$NGINX" -p "$WORK" -c "$WORK/nginx.conf" -e "$WORK/error.log" >"$WORK/nginx.out" 2>&1 &
  PIDS+=($!)
  wait_ready "$nginx_url" "${PIDS[1]}" "$WORK/nginx.out"

  curl -fsS -o "$WORK/from-nginx" "$nginx_url"
  curl -fsS -o "$WORK/from-quill" "$quill_url"
  cmp -s "$WORK/from-nginx" "$WORK/from-quill" || die "the two servers answer different bodies"

  local idle
  idle=$(idle_percent)
  echo "machine: $(nproc) cores, $(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)," \
    "${idle}% idle before the runs"
  if ((idle < 90)); then
    echo "warning: other processes are using the CPU; the rates below will be noisy" >&2
  fi
  echo "body: $(wc -c <"$WORK/from-quill") bytes: $(cat "$WORK/from-quill")"
  echo "wrk -t$WRK_THREADS -c$CONNECTIONS -d$DURATION, $ROUNDS rounds, warm-up $WARMUP each${NICE:+, nice $NICE}"
  echo "note: wrk runs on the same machine and competes with the servers for the cores;"
  echo "      both servers face the same wrk settings, so the ratio is the fair figure."

  local quill_pids=("${PIDS[0]}") nginx_pids
  read -r -a nginx_pids <<<"${PIDS[1]} $(pgrep -P "${PIDS[1]}" | tr '\n' ' ')"

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
