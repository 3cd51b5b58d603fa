#!/usr/bin/env bash
# shellcheck source-path=SCRIPTDIR disable=SC2016,SC2031,SC2317 # bash -c programs, subshells
# Checks for bench/token-index.sh, bench/forwarded-flood.sh and bench/transfer.sh: the token
# records they write, the addresses the flood script sends (against a stand-in server that records
# them), the helpers they share, and short whole runs against the real server, including that
# their PASS/FAIL checks fail a server that does not limit, and that nothing is left running or on
# disk afterwards, also when interrupted.
#
# Usage: bench/load-scripts-test.sh   (needs wrk, curl, nginx, b3sum, python3 and a quillmoord
#                                       binary: QUILL_BIN, else build-bench/ is built; about 1 min)

set -uo pipefail
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BENCH_NAME=load-scripts-test
source "$HERE/lib.sh"
set +e


SCRATCH=$(mktemp -d /tmp/load-scripts-test.XXXXXX)
chmod 755 "$SCRATCH"
STAND_IN=""
trap '[[ -n "$STAND_IN" ]] && kill "$STAND_IN" 2>/dev/null; rm -rf "$SCRATCH"' EXIT
mkdir -p "$SCRATCH/runs"

# --- shared helpers -------------------------------------------------------------------------------
REPORT='  2 threads and 64 connections
  1000 requests in 1.00s, 1.00MB read
  Non-2xx or 3xx responses: 1000
Requests/sec:   1000.00'
check_command "wrk_rate --any-status takes a report of error answers" \
  [ "$(wrk_rate --any-status <<<"$REPORT")" = 1000.00 ]
check_command "... but not one with socket errors" \
  bash -c "source '$HERE/lib.sh'; ! wrk_rate --any-status <<<\"\$1\"" _ \
  "$REPORT"$'\n''  Socket errors: connect 0, read 0, write 0, timeout 3'
check_command "proc_kib reads this shell's VmRSS and VmHWM" \
  bash -c "source '$HERE/lib.sh'
           r=\$(proc_kib $$ VmRSS) && h=\$(proc_kib $$ VmHWM) && ((r > 0 && h >= r))"
sleep 0 &
GONE=$!
wait "$GONE"
check_command "proc_kib fails for a process that is gone" \
  bash -c "source '$HERE/lib.sh'; ! proc_kib $GONE VmRSS"

# --- token records --------------------------------------------------------------------------------
# Written in a subshell: the script's own helpers (check, die) stay out of this shell.
(
  source "$HERE/token-index.sh"
  WORK=$SCRATCH
  token_texts 2500 >"$SCRATCH/texts"
  mkdir -p "$SCRATCH/data"
  write_token_files "$SCRATCH/data" alice "$SCRATCH/texts"
)
check_command "2500 token texts of 48 letters and digits, all different" \
  bash -c '[ "$(grep -cE "^[A-Za-z0-9]{48}$" "$1")" = 2500 ] &&
           [ "$(sort -u "$1" | wc -l)" = 2500 ]' _ "$SCRATCH/texts"
# b3sum gets the texts in several batches (xargs); a shifted batch would pair hashes wrongly.
record_matches() {  # record_matches <line number>
  local text hash
  text=$(sed -n "$1p" "$SCRATCH/texts")
  hash=$(printf %s "$text" | b3sum --no-names)
  grep -q "\"name\":\"bulk-$(printf %05d "$1")\".*\"token_hash\":\"$hash\",\"user\":\"alice\"" \
    "$SCRATCH/data/tokens/bulk-$(printf %05d "$1").json"
}
check_command "records 1, 1250 and 2500 hold the BLAKE3 of their own token" \
  bash -c "$(declare -f record_matches); SCRATCH='$SCRATCH'
           record_matches 1 && record_matches 1250 && record_matches 2500"
check_command "one record per token, and nothing else in tokens/" \
  [ "$(find "$SCRATCH/data/tokens" -type f | wc -l)" = 2500 ]
check_command "every record is a JSON object" \
  python3 -c 'import json, sys, glob
for f in glob.glob(sys.argv[1] + "/*.json"): assert isinstance(json.load(open(f)), dict)' \
  "$SCRATCH/data/tokens"

# --- flood addresses, against a stand-in that records them ----------------------------------------
cat >"$SCRATCH/recorder" <<'EOF'
#!/usr/bin/env python3
import http.server, sys, threading
port, out = int(sys.argv[1]), open(sys.argv[2], "a", buffering=1)
lock = threading.Lock()
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def do_GET(self):
        with lock:
            out.write(self.headers.get("X-Forwarded-For", "-") + "\n")
        body = b'{"error":"missing or invalid token"}'
        self.send_response(401)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    def log_message(self, *args):
        pass
http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler).serve_forever()
EOF
PORT=$(free_port)
python3 "$SCRATCH/recorder" "$PORT" "$SCRATCH/seen" 2>/dev/null &
STAND_IN=$!
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$PORT/" && break; sleep 0.1; done
: >"$SCRATCH/seen"

# flood <total> <first> <threads> <connections>: runs the script's flood; prints what was seen.
flood_seen() {
  : >"$SCRATCH/seen"
  (
    source "$HERE/forwarded-flood.sh"
    WORK=$SCRATCH
    flood "http://127.0.0.1:$PORT/api/builds" "$@" >/dev/null
  ) || return 1
  sleep 0.2
  cat "$SCRATCH/seen"
}
# The addresses expected for numbers first .. first + total - 1.
addresses() {
  awk -v f="$1" -v n="$2" 'BEGIN { for (i = f; i < f + n; i++)
    printf "10.%d.%d.%d\n", int(i / 65536) % 256, int(i / 256) % 256, i % 256 }' | sort
}
SEEN=$(flood_seen 1001 70000 3 3)
check_command "one connection per thread: exactly the 1001 addresses, each once (uneven shares)" \
  [ "$(sort <<<"$SEEN")" = "$(addresses 70000 1001)" ]
SEEN=$(flood_seen 1000 5 2 16)
check_command "16 connections: every address of the range, nothing outside it" \
  [ "$(sort -u <<<"$SEEN")" = "$(addresses 5 1000)" ]
check_command "... and only a few repeats beyond the total" \
  bash -c '(( $(wc -l <<<"$1") >= 1000 && $(wc -l <<<"$1") <= 1016 ))' _ "$SEEN"
kill "$STAND_IN"
wait "$STAND_IN" 2>/dev/null
STAND_IN=""

# --- whole runs against the real server -----------------------------------------------------------
QUILL_BIN=$(quill_binary) || exit 1
export QUILL_BIN

# True when no process of a run is alive (servers name the run's directory in their arguments)
# and the run's directory is gone.
nothing_left() {
  ! pgrep -f "$SCRATCH/runs/" >/dev/null && [ -z "$(ls -A "$SCRATCH/runs")" ]
}
in_runs() { TMPDIR=$SCRATCH/runs "$@"; }

OUT=$(in_runs env DURATION=1s ROUNDS=1 WARMUP=1s MANY=200 "$HERE/token-index.sh" 2>&1)
check_command "token-index: a short run ends well" [ $? -eq 0 ]
check_command "... with a ratio, a target and every correctness check passed" \
  bash -c 'grep -q "^ratio 200 tokens / 10 tokens: [0-9.]*  target >= 0.9" <<<"$1" &&
           grep -q "^ratio GET /api/me / GET /api/version: [0-9.]*  target >= 0.5" <<<"$1" &&
           [ "$(grep -c "^PASS" <<<"$1")" = 9 ] && ! grep -q "^FAIL" <<<"$1"' _ "$OUT"
check_command "... and leaves nothing behind" nothing_left

OUT=$(in_runs env TOTAL=20000 "$HERE/forwarded-flood.sh" 2>&1)
check_command "forwarded-flood: a short run passes every check" \
  bash -c '[ "$2" -eq 0 ] && [ "$(grep -c "^PASS" <<<"$1")" = 7 ]' _ "$OUT" $?
check_command "... samples memory every 10000 requests" \
  [ "$(grep -c "after ~[0-9]* *VmRSS" <<<"$OUT")" = 2 ]
check_command "... and leaves nothing behind" nothing_left

OUT=$(in_runs env TOTAL=10000 QUILL_ARGS="--rate-limit off" "$HERE/forwarded-flood.sh" 2>&1)
check_command "forwarded-flood: a server that does not limit fails the run" [ $? -ne 0 ]
check_command "... on the table bound and the anonymous budget" \
  bash -c 'grep -q "^FAIL  an address spends its 5 credential" <<<"$1" &&
           grep -q "^FAIL  \.\.\. then 429 with Retry-After" <<<"$1"' _ "$OUT"

OUT=$(in_runs env SIZE_MIB=16 ROUNDS=1 "$HERE/transfer.sh" 2>&1)
check_command "transfer: a short run ends well with all three results" \
  bash -c '[ "$2" -eq 0 ] && grep -q "^(a) download ratio quillmoord/nginx: [0-9.]*" <<<"$1" &&
           grep -q "^(b) upload ratio quillmoord/cp: [0-9.]*" <<<"$1" &&
           grep -q "peak under 100 MiB: met" <<<"$1"' _ "$OUT" $?
check_command "... and leaves nothing behind" nothing_left

TMPDIR=/dev/shm "$HERE/transfer.sh" >"$SCRATCH/out" 2>&1
check_command "transfer refuses a tmpfs" bash -c '[ "$1" -ne 0 ] && grep -q tmpfs "$2"' _ $? "$SCRATCH/out"

TMPDIR=$SCRATCH/runs SIZE_MIB=256 ROUNDS=3 "$HERE/transfer.sh" >/dev/null 2>&1 &
RUN=$!
for _ in $(seq 100); do pgrep -f "$SCRATCH/runs/.*nginx" >/dev/null && break; sleep 0.2; done
kill -TERM "$RUN"
wait "$RUN"
sleep 0.5
check_command "an interrupted transfer run leaves nothing behind" nothing_left

exit "$FAILED"
