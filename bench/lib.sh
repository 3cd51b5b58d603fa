# shellcheck shell=bash disable=SC2034 # sets variables for the scripts that source it
# Shell helpers shared by the load scripts in bench/. Source it after setting BENCH_NAME (the prefix
# of error messages). It defines functions and the few variables they share:
#   REPO             the repository root
#   WORK             the run's temporary directory, removed by cleanup (set it with make_work_dir)
#   PIDS             background processes that cleanup stops
#   WRK_PID          the client run in progress (wrk, curl), if any
#   WRK_THREADS, CONNECTIONS, NICE, WRK_ARGS (extra wrk arguments, an array) and WRK_ANY_STATUS
#   (when set, error statuses count as answers) are read by measure.

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BENCH_NAME=${BENCH_NAME:-bench}
NICE=${NICE:-}
NGINX=${NGINX:-/usr/sbin/nginx}

die() {
  echo "$BENCH_NAME: $*" >&2
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
# run saw non-2xx/3xx answers or socket errors: a fast stream of errors is not a result. With
# `--any-status` answers of every status count, socket errors still do not.
wrk_rate() {
  local any=0
  [[ "${1:-}" == --any-status ]] && any=1
  awk -v any="$any" '
    /Non-2xx or 3xx responses:/ { if (!any) bad = 1 }
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

# Prints a memory figure of process `pid` from /proc/<pid>/status, in KiB: `field` is VmRSS
# (resident now) or VmHWM (the most it has been resident). Fails when the process is gone.
proc_kib() {
  awk -v f="$2:" '$1 == f { print $2; found = 1 } END { exit !found }' "/proc/$1/status" 2>/dev/null
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

# Prints the path of the quillmoord binary to measure: QUILL_BIN when set, else a Release build in
# build-bench/, brought up to date first.
quill_binary() {
  if [[ -n "${QUILL_BIN:-}" ]]; then
    [[ -x "$QUILL_BIN" ]] || die "no quillmoord binary at $QUILL_BIN"
    echo "$QUILL_BIN"
    return 0
  fi
  local log
  if ! log=$(cd "$REPO" &&
    cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_TESTS=OFF 2>&1 &&
    cmake --build build-bench --target quillmoord 2>&1); then
    grep -E -m 20 'error|FAILED' <<<"$log" >&2 || tail -20 <<<"$log" >&2
    die "the Release build failed"
  fi
  [[ -x "$REPO/build-bench/quillmoord" ]] || die "no quillmoord binary in build-bench/"
  echo "$REPO/build-bench/quillmoord"
}

# Mints a token with quillmoord's offline command and prints its text.
mint_token() {
  local quill=$1 data=$2 name=$3 user=$4 text
  text=$("$quill" token create "$name" --user "$user" --data-dir "$data" |
    awk 'NF { t = $1 } END { print t }')
  [[ "$text" =~ ^[A-Za-z0-9]{48}$ ]] || die "token create $name printed no token"
  echo "$text"
}

# Starts quillmoord (niced) on its data directory `data` at 127.0.0.1:`port` with the extra
# arguments QUILL_ARGS, logging to `log`, and waits until it answers. Sets QUILL_PID.
start_quill() {
  local quill=$1 data=$2 port=$3 log=$4
  # shellcheck disable=SC2086 # QUILL_ARGS is a word list on purpose
  run_niced "$quill" --data-dir "$data" --bind 127.0.0.1 --port "$port" ${QUILL_ARGS:-} \
    >"$log" 2>&1 &
  QUILL_PID=$!
  PIDS+=("$QUILL_PID")
  wait_ready "http://127.0.0.1:$port/api/version" "$QUILL_PID" "$log"
}

# Starts nginx (niced) serving `root` at 127.0.0.1:`port`, configured and logging under WORK/nginx,
# and waits until `probe` (a path) answers. Sets NGINX_PIDS to its master and workers.
start_nginx() {
  local root=$1 port=$2 probe=$3
  [[ -x "$NGINX" ]] || die "nginx not found at $NGINX"
  mkdir -p "$WORK/nginx"
  write_nginx_conf "$WORK/nginx" "$root" "$port" >"$WORK/nginx/nginx.conf"
  run_niced "$NGINX" -p "$WORK/nginx" -c "$WORK/nginx/nginx.conf" -e "$WORK/nginx/error.log" \
    >"$WORK/nginx/out" 2>&1 &
  local master=$!
  PIDS+=("$master")
  wait_ready "http://127.0.0.1:$port$probe" "$master" "$WORK/nginx/out"
  read -r -a NGINX_PIDS <<<"$master $(pgrep -P "$master" | tr '\n' ' ')"
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
  run_niced wrk -t"$WRK_THREADS" -c"$CONNECTIONS" -d"$duration" ${WRK_ARGS[@]+"${WRK_ARGS[@]}"} \
    "$url" >"$WORK/wrk.out" 2>&1 &
  WRK_PID=$!
  wait "$WRK_PID" || true
  WRK_PID=""
  after=$(cpu_ticks "$@")
  wrk_after=$(waited_children_ticks)
  RATE=$(wrk_rate ${WRK_ANY_STATUS:+--any-status} <"$WORK/wrk.out") ||
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

# Prints one line about the machine (cores, CPU model, kernel, how idle it is) and warns on stderr
# when other work is using the CPU.
describe_machine() {
  local idle
  idle=$(idle_percent)
  echo "machine: $(nproc) cores, $(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)," \
    "Linux $(uname -r), ${idle}% idle before the runs"
  if ((idle < 90)); then
    echo "warning: other processes are using the CPU; the figures below will be noisy" >&2
  fi
}

# Creates WORK, a fresh temporary directory (under TMPDIR, default /tmp) named after the script.
make_work_dir() {
  WORK=$(mktemp -d "${TMPDIR:-/tmp}/$BENCH_NAME.XXXXXX")
  chmod 755 "$WORK"
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

# Stops the processes and removes WORK when the script ends, also on Ctrl-C or `kill`.
install_cleanup() {
  trap cleanup EXIT
  trap 'exit 130' INT TERM
}

# Checks shared by the scripts that verify behaviour as well as measure it.
FAILURES=0
# check_equal <description> <expected> <actual>: prints PASS or FAIL, counting failures.
check_equal() {
  if [[ "$2" == "$3" ]]; then
    echo "PASS  $1"
  else
    echo "FAIL  $1 (expected $2, got $3)"
    FAILURES=$((FAILURES + 1))
  fi
}

FAILED=0
# check_command <description> <command...>: prints ok or FAIL by the command's status.
check_command() {
  local what=$1
  shift
  if "$@"; then echo "ok    $what"; else echo "FAIL  $what"; FAILED=1; fi
}

# make_bench_tree <dir>: the 1 GiB tree of the storage and backup benchmarks, made once and kept:
# 8 x 64 MiB of random bytes, 500 MiB of shared libraries from /usr/lib (files over 64 KiB, in name
# order) and 16 MiB of small text files (4096 of about 4 KiB).
make_bench_tree() {
  local tree=$1
  [ -f "$tree/.complete" ] && return 0
  rm -rf "$tree"
  mkdir -p "$tree/random" "$tree/lib" "$tree/text"
  for i in 1 2 3 4 5 6 7 8; do head -c 64M /dev/urandom >"$tree/random/blob$i.bin"; done
  local total=0 limit=$((500 * 1024 * 1024)) size
  while IFS= read -r f; do
    size=$(stat -c %s "$f")
    [ $((total + size)) -gt "$limit" ] && continue
    cp "$f" "$tree/lib/$(basename "$f")"
    total=$((total + size))
  done < <(find /usr/lib -name '*.so*' -type f -size +64k 2>/dev/null | sort)
  for i in $(seq 0 4095); do
    seq "$((i * 1000))" "$((i * 1000 + 790))" | sed 's/^/line of text /' >"$tree/text/t$i.txt"
  done
  touch "$tree/.complete"
}

# Prints the current time in nanoseconds.
now_ns() { date +%s%N; }

# Prints `bytes` moved in `ns` nanoseconds as MiB/s.
mib_per_s() { awk -v b="$1" -v ns="$2" 'BEGIN { printf "%.0f", b / 1048576 / (ns / 1e9) }'; }

# Runs a command (niced) in the background and waits, so that Ctrl-C stops it at once. Sets
# ELAPSED_NS; fails as the command does.
timed() {
  local start status=0
  start=$(now_ns)
  run_niced "$@" &
  WRK_PID=$!
  wait "$WRK_PID" || status=$?
  WRK_PID=""
  ELAPSED_NS=$(($(now_ns) - start))
  return "$status"
}
