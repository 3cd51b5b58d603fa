#!/usr/bin/env bash
# shellcheck source-path=SCRIPTDIR disable=SC2016 # the bash -c programs are quoted on purpose
# Checks for bench/version-vs-nginx.sh: its parsing of wrk reports, its arithmetic, the nginx
# configuration it writes, and a short whole run against a stand-in server (a tiny HTTP/1.1 server
# in Python), including that nothing is left running or on disk afterwards, also when interrupted.
#
# Usage: bench/version-vs-nginx-test.sh     (needs wrk, curl, nginx and python3; about 15 s)

set -uo pipefail
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$HERE/version-vs-nginx.sh"
set +e


SCRATCH=$(mktemp -d /tmp/version-vs-nginx-test.XXXXXX)
chmod 755 "$SCRATCH"
trap 'rm -rf "$SCRATCH"' EXIT

# --- wrk reports ----------------------------------------------------------------------------------
CLEAN='Running 10s test @ http://127.0.0.1:1/api/version
  2 threads and 64 connections
  421337 requests in 10.00s, 69.93MB read
Requests/sec:  42133.70
Transfer/sec:      6.99MB'
export -f wrk_rate
check_command "rate of a clean report" [ "$(wrk_rate <<<"$CLEAN")" = 42133.70 ]
check_command "request count of a clean report" [ "$(wrk_requests <<<"$CLEAN")" = 421337 ]
check_command "a report with error answers is refused" \
  bash -c '! wrk_rate <<<"$1"' _ "$CLEAN"$'\n''  Non-2xx or 3xx responses: 12'
check_command "a report with socket errors is refused" \
  bash -c '! wrk_rate <<<"$1"' _ "$CLEAN"$'\n''  Socket errors: connect 0, read 3, write 0, timeout 0'
check_command "a report without a rate is refused" bash -c '! wrk_rate <<<"unable to connect"'

# --- arithmetic -----------------------------------------------------------------------------------
check_command "median of an odd count, unsorted" [ "$(median 30 10 20)" = 20 ]
check_command "median of an even count is the middle mean" [ "$(median 40000 10 50000 90000)" = 45000 ]
check_command "median_float keeps a decimal" [ "$(median_float 12.25 12.75)" = 12.5 ]
check_command "median of nothing fails" bash -c "source '$HERE/version-vs-nginx.sh'; ! median >/dev/null"

# A process whose name holds ") " must not shift the fields cpu_ticks reads.
bash -c 'echo "x) 1 2 3" >/proc/self/comm; while :; do :; done' &
BUSY=$!
sleep 0.5
TICKS=$(cpu_ticks "$BUSY")
kill "$BUSY"
wait "$BUSY"
check_command "cpu_ticks reads a busy process with an awkward name ($TICKS ticks)" \
  test "$TICKS" -ge 1 -a "$TICKS" -le "$(getconf CLK_TCK)"
check_command "cpu_ticks ignores processes that are gone" [ "$(cpu_ticks "$BUSY")" = 0 ]

# --- nginx configuration --------------------------------------------------------------------------
mkdir -p "$SCRATCH/www/api"
printf '{"a":1}' >"$SCRATCH/www/api/version"
PORT=$(free_port)
write_nginx_conf "$SCRATCH" "$SCRATCH/www" "$PORT" >"$SCRATCH/nginx.conf"
check_command "nginx accepts the configuration" \
  "$NGINX" -t -q -p "$SCRATCH" -c "$SCRATCH/nginx.conf" -e "$SCRATCH/error.log"
"$NGINX" -p "$SCRATCH" -c "$SCRATCH/nginx.conf" -e "$SCRATCH/error.log" &
NGINX_PID=$!
wait_ready "http://127.0.0.1:$PORT/api/version" "$NGINX_PID" "$SCRATCH/error.log"
HEAD=$(curl -fsS -D - -o "$SCRATCH/got" "http://127.0.0.1:$PORT/api/version")
check_command "nginx serves the same bytes" cmp -s "$SCRATCH/got" "$SCRATCH/www/api/version"
check_command "nginx labels them as the server does" \
  grep -qi '^content-type: application/json; charset=utf-8' <<<"$HEAD"
check_command "nginx keeps the connection alive" bash -c '! grep -qi "^connection: close" <<<"$1"' _ "$HEAD"
kill "$NGINX_PID"
wait "$NGINX_PID"

# --- whole runs against a stand-in server ---------------------------------------------------------
# The stand-in takes quillmoord's arguments; VARY=1 makes every answer different.
cat >"$SCRATCH/stand-in" <<'EOF'
#!/usr/bin/env python3
import http.server, itertools, os, sys
port = int(sys.argv[sys.argv.index("--port") + 1])
counter = itertools.count()
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def do_GET(self):
        body = b'{"n":%d}' % next(counter) if os.environ.get("VARY") else b'{"n":0}'
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    def log_message(self, *args):
        pass
http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler).serve_forever()
EOF
chmod +x "$SCRATCH/stand-in"
mkdir -p "$SCRATCH/runs"

# True when no process started by a run is alive (the servers' arguments name the run's directory;
# wrk's name its duration) and the run's directory is gone.
# shellcheck disable=SC2317 # called through check
nothing_left() {
  ! pgrep -f "$SCRATCH/runs/" >/dev/null && ! pgrep -f "wrk .*-d(1|20)s" >/dev/null &&
    [ -z "$(ls -A "$SCRATCH/runs")" ]
}

run() {
  TMPDIR=$SCRATCH/runs QUILL_BIN=$SCRATCH/stand-in DURATION=1s ROUNDS=2 WARMUP=1s \
    "$HERE/version-vs-nginx.sh"
}

OUT=$(run 2>&1)
check_command "a whole run ends well" [ $? -eq 0 ]
check_command "a whole run prints both medians and the ratio" \
  bash -c 'grep -q "^nginx *median" <<<"$1" && grep -q "^quillmoord *median" <<<"$1" &&
           grep -q "^ratio quillmoord/nginx: [0-9.]* (medians)" <<<"$1"' _ "$OUT"
check_command "a whole run predicts the ratio from CPU time" \
  grep -q "^ratio predicted from CPU per request (server + wrk): [0-9.]*$" <<<"$OUT"
check_command "every round charges CPU time to both the server and wrk" \
  bash -c '[ "$(grep -c "^round" <<<"$1")" = 4 ] &&
           ! grep "^round" <<<"$1" | grep -q " 0\.0 us"' _ "$OUT"
check_command "a whole run leaves nothing behind" nothing_left

OUT=$(VARY=1 run 2>&1)
check_command "differing bodies stop the run" [ $? -ne 0 ]
check_command "... saying why" grep -q "different bodies" <<<"$OUT"
check_command "a stopped run leaves nothing behind" nothing_left

TMPDIR=$SCRATCH/runs QUILL_BIN=$SCRATCH/stand-in DURATION=20s "$HERE/version-vs-nginx.sh" \
  >/dev/null 2>&1 &
RUN=$!
for _ in $(seq 50); do pgrep -f "wrk .*-d20s" >/dev/null && break; sleep 0.2; done
kill -TERM "$RUN"
wait "$RUN"
sleep 0.3
check_command "an interrupted run leaves nothing behind" nothing_left

exit "$FAILED"
