#!/usr/bin/env bash
# Connection floods against a server whose open-file limit is 1,024 (soft and hard, so start-up
# cannot raise it): HALF_OPEN clients from 127.0.0.1 each send half a request head and sit there.
# Meanwhile a client that connected before the flood keeps asking `GET /api/me` with a token (a
# request that opens files, so the descriptors kept free of connections are shown too). The script
# reports the server's CPU use while the flood sits, its resident memory (VmRSS) before, during
# and after, and whether every request of the other client succeeded; once the flood leaves, new
# connections are served again. PASS/FAIL lines; exit status 1 on a FAIL.
#
# Usage: bench/connection-flood.sh
# Environment (all optional):
#   HALF_OPEN=2000       half-open connections in the flood
#   SIT=10               seconds the flood sits while it is measured
#   NOFILE=1024          the server's open-file limit
#   MAX_CPU_PERCENT=5    the most CPU (percent of one core) the server may use while the flood sits
#   MAX_GROWTH_KIB=16384 the most VmRSS may grow from before the flood to its end
#   QUILL_BIN=path       use this binary instead of building build-bench/quillmoord

set -euo pipefail

HALF_OPEN=${HALF_OPEN:-2000}
SIT=${SIT:-10}
NOFILE=${NOFILE:-1024}
MAX_CPU_PERCENT=${MAX_CPU_PERCENT:-5}
MAX_GROWTH_KIB=${MAX_GROWTH_KIB:-16384}
BENCH_NAME="connection-flood"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"

install_cleanup
make_work_dir
QUILL=$(quill_binary)
describe_machine

"$QUILL" user create flood-admin --role admin --data-dir "$WORK/data" >/dev/null
TOKEN=$(mint_token "$QUILL" "$WORK/data" flood flood-admin)
PORT=$(free_port)
# `ulimit -n` in the subshell sets both limits, so the server's raise to the hard limit is a no-op.
(ulimit -n "$NOFILE" && exec "$QUILL" --data-dir "$WORK/data" --bind 127.0.0.1 --port "$PORT" \
  >"$WORK/server.log" 2>&1) &
QUILL_PID=$!
PIDS+=("$QUILL_PID")
wait_ready "http://127.0.0.1:$PORT/api/version" "$QUILL_PID" "$WORK/server.log"
echo "server: open-file limit $(awk '/Max open files/ { print $4 }' "/proc/$QUILL_PID/limits")," \
  "$HALF_OPEN half-open connections for ${SIT}s"

python3 - "$PORT" "$TOKEN" "$QUILL_PID" "$HALF_OPEN" "$SIT" >"$WORK/report" <<'PY'
import os, resource, socket, sys, time

port, token, pid, count, sit = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), float(sys.argv[5])
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, count + 256)), hard))
ticks_per_second = os.sysconf("SC_CLK_TCK")

def cpu_ticks():
    fields = open(f"/proc/{pid}/stat").read().rsplit(") ", 1)[1].split()
    return int(fields[11]) + int(fields[12])

def rss_kib():
    for line in open(f"/proc/{pid}/status"):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])

request = f"GET /api/me HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer {token}\r\n\r\n".encode()

def ask(conn):
    conn.sendall(request)
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = conn.recv(65536)
        if not chunk:
            return False
        data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    length = int([l.split(b":")[1] for l in head.split(b"\r\n") if l.lower().startswith(b"content-length")][0])
    while len(body) < length:
        chunk = conn.recv(65536)
        if not chunk:
            return False
        body += chunk
    return head.startswith(b"HTTP/1.1 200")

def fresh_request_ok(timeout):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=timeout) as c:
            c.settimeout(timeout)
            return ask(c)
    except OSError:
        return False

client = socket.create_connection(("127.0.0.1", port), timeout=5)
ok = sum(ask(client) for _ in range(10))
rss_before = rss_kib()

flood = []
for _ in range(count):
    s = socket.socket()
    s.setblocking(False)
    s.connect_ex(("127.0.0.1", port))
    flood.append(s)
time.sleep(1)
sent = 0
for s in flood:
    try:
        s.send(b"GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n")
        sent += 1
    except OSError:
        pass
time.sleep(1)
rss_sitting = rss_kib()
ticks_start, start = cpu_ticks(), time.monotonic()
asked = answered = 0
while time.monotonic() - start < sit:
    asked += 1
    answered += ask(client)
    time.sleep(0.25)
cpu_percent = 100.0 * (cpu_ticks() - ticks_start) / ticks_per_second / (time.monotonic() - start)
rss_during = rss_kib()
open_fds = len(os.listdir(f"/proc/{pid}/fd"))
for s in flood:
    s.close()
time.sleep(1)
after_ok = fresh_request_ok(10)
rss_after = rss_kib()
print(f"sent={sent} open_fds={open_fds} asked={asked} answered={answered} cpu={cpu_percent:.1f} "
      f"rss_before={rss_before} rss_sitting={rss_sitting} rss_during={rss_during} rss_after={rss_after} "
      f"after={'ok' if after_ok else 'failed'} warmup={ok}")
PY

read -r line <"$WORK/report"
echo "$line"
eval "$line"
echo "half-open connections sent their half head: $sent of $HALF_OPEN; server descriptors open: $open_fds"
echo "server CPU while the flood sat: ${cpu}% of one core"
echo "VmRSS: ${rss_before} KiB before, ${rss_sitting} KiB when the flood sat down," \
  "${rss_during} KiB when it left, ${rss_after} KiB after"
check_equal "the earlier client's requests all succeed during the flood" "$asked" "$answered"
check_equal "the server CPU stays under ${MAX_CPU_PERCENT}% of a core" 1 \
  "$(awk -v c="$cpu" -v m="$MAX_CPU_PERCENT" 'BEGIN { print (c < m) ? 1 : 0 }')"
check_equal "VmRSS grows less than ${MAX_GROWTH_KIB} KiB with the flood" 1 \
  "$((rss_during - rss_before < MAX_GROWTH_KIB ? 1 : 0))"
check_equal "VmRSS stays flat (under 1 MiB) while the flood sits" 1 \
  "$((rss_during - rss_sitting < 1024 ? 1 : 0))"
check_equal "a new connection is served once the flood leaves" ok "$after"
check_equal "the server is still running" 0 "$(kill -0 "$QUILL_PID" 2>/dev/null; echo $?)"
((FAILURES == 0)) || exit 1
