#!/usr/bin/env bash
# What a hostile bucket (tests/rill-peers/hostile-bucket.mjs) costs the server and the tool: peak
# memory (VmHWM, the most the process was ever resident), exit status and message of each case.
# The target is under 512 MiB in every case. Builds nothing: it runs the binaries it is given.
#
# Server (a fresh quillmoord per case, its bucket the hostile one):
#   sync-endless      GET /api/rill/sync/<ch> while the manifest's body never ends
#   sync-big-x4       four at once of a channel whose manifest is 16.6 MB of distinct chunks
#   sync-dense-x4     the same with 32 MiB (the server's bound) of compact, distinct chunks
#   sync-stalled-x16  sixteen at once (twice the bucket's pool) while the bucket accepts and never
#                     answers; meanwhile the backup status, storage, sign-in and version routes
#                     must answer and a backup scheduled for that time must start
# Tool (quillmoor-rill pull <ch> <dir> straight from the hostile bucket):
#   pull-endless-manifest, pull-endless-chunk, pull-deep-manifest (nested 200,000 levels),
#   pull-n-2^40, pull-n-2^64-1, pull-n-2GiB (a chunk claiming that length), pull-chunker-1
#   (min=avg=max=1 with an 8 MB file already in the target)
#
# Usage: bench/hostile-bucket.sh [binary dir, default build-test-release]
# Environment: LIMIT_KIB=4194304 (address space each process may take; a runaway allocation then
#              fails instead of taking the machine), TOOL_TIMEOUT=180 (seconds per tool case),
#              CASES=all (or server, or tool)

set -euo pipefail

BENCH_NAME="hostile-bucket"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"

BIN=${1:-build-test-release}
[[ "$BIN" = /* ]] || BIN="$REPO/$BIN"
QUILL=$BIN/quillmoord
RILL=$BIN/quillmoor-rill
LIMIT_KIB=${LIMIT_KIB:-4194304}
TOOL_TIMEOUT=${TOOL_TIMEOUT:-180}
CASES=${CASES:-all}
TARGET_KIB=$((512 * 1024))

# Writes the objects of every case into the bucket directory `dir`.
plant_objects() {
  local dir=$1
  cat >"$WORK/plant.mjs" <<'EOF'
import crypto from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';

const dir = process.argv[2];
const put = (key, data) => {
  fs.mkdirSync(path.dirname(path.join(dir, key)), { recursive: true });
  fs.writeFileSync(path.join(dir, key), data);
};
const id = (seed) => crypto.createHash('sha256').update(String(seed)).digest('hex');
const chunkKey = (h) => `chunks/${h.slice(0, 2)}/${h}`;
const defaults = { algo: 'fastcdc-gear', min: 1048576, avg: 4194304, max: 16777216 };

// A manifest in the stored form (two-space indentation, `"name" : value`); `files` is a list of
// [path, size, [[h, n], ...]]; `filesText` replaces the files array when given.
function manifest(channel, files, { chunker = defaults, filesText } = {}) {
  const out = [];
  out.push('{\n  "build" : "b1",\n  "channel" : "' + channel + '",\n');
  out.push(`  "chunker" : \n  {\n    "algo" : "${chunker.algo}",\n    "avg" : ${chunker.avg},\n` +
           `    "max" : ${chunker.max},\n    "min" : ${chunker.min}\n  },\n`);
  out.push('  "created" : "2026-01-01T00:00:00Z",\n  "files" : ');
  if (filesText) {
    out.push(filesText);
  } else {
    out.push('\n  [\n');
    files.forEach(([p, size, chunks], i) => {
      out.push('    {\n      "chunks" : \n      [\n');
      chunks.forEach(([h, n], j) => {
        out.push(`        {\n          "h" : "${h}",\n          "n" : ${n}\n        }` +
                 (j + 1 < chunks.length ? ',\n' : '\n'));
      });
      out.push(`      ],\n      "path" : "${p}",\n      "size" : ${size}\n    }` +
               (i + 1 < files.length ? ',\n' : '\n'));
    });
    out.push('  ]');
  }
  out.push(',\n  "schema" : 1\n}\n');
  return out.join('');
}
const put_manifest = (channel, text) => put(`channels/${channel}/manifest.json`, text);

// Endless manifests and an endless chunk.
for (const channel of ['endless', 'pull-endless']) put(`channels/${channel}/manifest.json.endless`, '');
const endlessChunk = id('endless chunk');
put_manifest('endless-chunk', manifest('endless-chunk', [['f.bin', 1048576, [[endlessChunk, 1048576]]]]));
put(chunkKey(endlessChunk) + '.endless', '');
// A stalled manifest.
put('channels/stall/manifest.json.stall', '');
// 16.6 MB of manifest, every chunk distinct: 100 chunks a file.
{
  const files = [];
  let text = '';
  for (let f = 0; text.length < 16.6e6; ++f) {
    const chunks = [];
    for (let c = 0; c < 100; ++c) chunks.push([id(`${f}/${c}`), 4194304]);
    files.push([`dir${f % 50}/file${f}.pak`, 100 * 4194304, chunks]);
    if (f % 100 === 99) text = manifest('big', files);
  }
  put_manifest('big', manifest('big', files));
}
// Just within the server's bound (32 MiB), compact, every chunk distinct: the most a bucket can
// make one sync descriptor cost.
{
  const parts = [];
  let length = 0;
  for (let f = 0; length < 33.4e6; ++f) {
    const refs = [];
    for (let c = 0; c < 100; ++c) refs.push(`{"h":"${id(`c${f}/${c}`)}","n":1}`);
    const entry = `{"chunks":[${refs.join(',')}],"path":"f${f}","size":100}`;
    parts.push(entry);
    length += entry.length + 1;
  }
  put_manifest('dense', '{"build":"b1","channel":"dense","chunker":{"algo":"fastcdc-gear",' +
    '"avg":4194304,"max":16777216,"min":1048576},"created":"2026-01-01T00:00:00Z","files":[' +
    parts.join(',') + '],"schema":1}');
}
// Nested 200,000 levels deep.
put_manifest('deep', manifest('deep', [], { filesText: '['.repeat(200000) + ']'.repeat(200000) }));
// Chunks claiming absurd lengths; each object is a zstd frame of one byte ("x").
const frame = Buffer.from('28b52ffd005809000078', 'hex');
for (const [channel, n] of [['n-2p40', '1099511627776'], ['n-2p64', '18446744073709551615'],
                            ['n-2gib', '2147483648']]) {
  const h = id(channel);
  put_manifest(channel, manifest(channel, [['f.bin', n, [[h, n]]]]));
  put(chunkKey(h), frame);
}
// A chunker cutting every byte.
{
  const h = id('chunker-1');
  put_manifest('chunker-1', manifest('chunker-1', [['big.bin', 1, [[h, 1]]]],
                                     { chunker: { algo: 'fastcdc-gear', min: 1, avg: 1, max: 1 } }));
  put(chunkKey(h), 'not a chunk');
}
EOF
  node "$WORK/plant.mjs" "$dir"
}

start_peer() {
  mkfifo "$WORK/peer.in"
  exec 7<>"$WORK/peer.in"  # held open, so the peer's standard input never ends
  node "$REPO/tests/rill-peers/hostile-bucket.mjs" --dir "$WORK/bucket" <&7 >"$WORK/peer.out" 2>&1 &
  PIDS+=($!)
  for _ in $(seq 300); do
    PEER_PORT=$(awk '$1 == "ready" { print $2 }' "$WORK/peer.out")
    [[ -n "$PEER_PORT" ]] && return 0
    sleep 0.1
  done
  die "the hostile bucket did not start: $(cat "$WORK/peer.out")"
}

# A fresh data directory with an admin, the hostile bucket as its storage and a Rill channel for
# every case; sets TOKEN.
prepare_data() {
  local data=$WORK/data
  rm -rf "$data"
  "$QUILL" user create admin --role admin --data-dir "$data" >/dev/null
  TOKEN=$(mint_token "$QUILL" "$data" t admin) || exit 1
  printf '{"schema_version":1,"endpoint":"http://127.0.0.1:%s","region":"auto","bucket":"b",%s}\n' \
    "$PEER_PORT" '"access_key":"x","secret_key":"y"' >"$data/rill.json"
  chmod 600 "$data/rill.json"
}

# Starts a fresh server (address space limited) on the prepared data; sets BASE and QUILL_PID.
start_server() {
  local port
  port=$(free_port)
  (ulimit -v "$LIMIT_KIB" && exec "$QUILL" --data-dir "$WORK/data" --bind 127.0.0.1 --port "$port") \
    >"$WORK/server.log" 2>&1 &
  QUILL_PID=$!
  PIDS+=("$QUILL_PID")
  wait_ready "http://127.0.0.1:$port/api/version" "$QUILL_PID" "$WORK/server.log"
  BASE=http://127.0.0.1:$port
  local channel status
  for channel in endless big dense stall; do
    status=$(curl -sS -o /dev/null -w '%{http_code}' -X POST -H "Authorization: Bearer $TOKEN" \
      "$BASE/api/channels/$channel?engine=rill")
    [[ "$status" == 200 || "$status" == 409 ]] || die "cannot create channel $channel ($status)"
  done
}

stop_server() {
  kill "$QUILL_PID" 2>/dev/null || true
  wait "$QUILL_PID" 2>/dev/null || true
}

# `curl` of a route with the admin token: prints "<status> <seconds> <body start>".
ask() {
  local method=$1 path=$2
  shift 2
  local out
  out=$(curl -sS -m 150 -X "$method" -H "Authorization: Bearer $TOKEN" -o "$WORK/ask.body" \
    -w '%{http_code} %{time_total}' "$@" "$BASE$path" 2>&1) || true
  echo "$out $(head -c 120 "$WORK/ask.body" 2>/dev/null | tr '\n' ' ')"
}

verdict() {
  local kib=$1
  if [[ -z "$kib" ]]; then echo "n/a"; elif ((kib < TARGET_KIB)); then echo "ok"; else echo "OVER"; fi
}

# One line: case, what happened, peak memory in MiB and whether it is under the target (CRASH
# when the process died of a signal, status 128 and up).
report() {
  local name=$1 what=$2 kib=$3 status=${4:-0} judged
  judged=$(verdict "$kib")
  ((status < 128)) || judged=CRASH
  printf '%-20s %-70s peak %5s MiB  %s\n' "$name" "$what" "$(( ${kib:-0} / 1024 ))" "$judged"
}

server_cases() {
  local hwm line i
  prepare_data

  start_server
  line=$(ask GET /api/rill/sync/endless)
  hwm=$(proc_kib "$QUILL_PID" VmHWM)
  report sync-endless "$line" "$hwm"
  stop_server

  local channel clients
  for channel in big dense; do
    start_server
    clients=()
    for i in 1 2 3 4; do
      curl -sS -m 600 -H "Authorization: Bearer $TOKEN" -o "$WORK/sync$i.json" \
        -w '%{http_code} %{size_download} B %{time_total} s\n' "$BASE/api/rill/sync/$channel" \
        >"$WORK/sync$i.out" 2>&1 &
      clients+=($!)
    done
    wait "${clients[@]}" || true
    hwm=$(proc_kib "$QUILL_PID" VmHWM)
    report "sync-$channel-x4" "$(awk '{ printf "%s %.1f MB %.1f s; ", $1, $2 / 1e6, $4 }' \
      "$WORK"/sync?.out)" "$hwm"
    grep -h -o '"error":"[^"]*"' "$WORK"/sync?.json | sort | uniq -c | sed 's/^/  /' || true
    stop_server
  done

  # The stalled bucket: sixteen syncs, twice what the bucket's pool holds, keep it full for two
  # minutes. A backup is scheduled for the minute of the first schedule check (a minute after
  # start-up; the start is placed early in a minute so that the check cannot slip into the next).
  while (($(date +%-S) < 5 || $(date +%-S) > 35)); do sleep 1; done
  start_server
  local started due
  started=$(now_ns)
  due=$(date -d "@$(($(date +%s) + 60))" +%H:%M)
  echo "  backup init (shared):     $(ask POST /api/backup/init -d '{"mode":"shared"}' | cut -c1-60)"
  echo "  schedule at $due:         $(ask PUT /api/backup/config -d "{\"daily_at\":\"$due\"}")"
  clients=()
  for i in $(seq 16); do
    curl -sS -m 300 -H "Authorization: Bearer $TOKEN" -o "$WORK/stall$i.body" \
      -w '%{http_code} %{time_total}\n' "$BASE/api/rill/sync/stall" >"$WORK/stall$i.out" 2>&1 &
    clients+=($!)
  done
  sleep 2
  echo "  while sixteen syncs wait on the stalled bucket:"
  echo "    GET /api/backups          $(ask GET /api/backups)"
  echo "    GET /api/storage          $(ask GET /api/storage)"
  echo "    POST /api/storage/test    $(ask POST /api/storage/test -d \
    "{\"endpoint\":\"http://127.0.0.1:$(free_port)\",\"bucket\":\"b\",\"access_key\":\"x\",\"secret_key\":\"y\"}")"
  echo "    GET /api/sso/start        $(ask GET "/api/sso/start?port=5000")"
  echo "    GET /api/version          $(ask GET /api/version)"
  wait "${clients[@]}" || true
  hwm=$(proc_kib "$QUILL_PID" VmHWM)
  report sync-stalled-x16 "$(awk '{ printf "%s after %.0f s; ", $1, $2 }' "$WORK"/stall{1,16}.out)" "$hwm"
  echo "  all sixteen: $(awk '{ printf "%s %.0f s, ", $1, $2 }' "$WORK"/stall*.out)"
  echo "  answer: $(head -c 100 "$WORK/stall1.body")"
  echo "  schedule check, $(( ($(now_ns) - started) / 1000000000 )) s after start-up:" \
    "$(grep -h 'scheduled backup' "$WORK/server.log" || echo 'no scheduled backup ran')"
  stop_server
}

# Runs one pull (address space limited, timed out after TOOL_TIMEOUT) and reports it.
pull_case() {
  local name=$1 channel=$2 target=$WORK/target-$1 status=0 message kib
  mkdir -p "$target"
  if [[ "$name" == pull-chunker-1 ]]; then head -c 8000000 /dev/urandom >"$target/big.bin"; fi
  (ulimit -v "$LIMIT_KIB" && exec /usr/bin/time -f '%M' -o "$WORK/time.out" \
    timeout "$TOOL_TIMEOUT" "$RILL" pull "$channel" "$target" \
    --endpoint "http://127.0.0.1:$PEER_PORT" --bucket b --access-key x --secret-key y) \
    >"$WORK/pull.out" 2>"$WORK/pull.err" || status=$?
  message=$(grep -v '^Command ' "$WORK/pull.err" | tr '\r' '\n' | grep -v '^\s*$' | tail -1 |
    sed -E 's/[0-9a-f]{64}/<id>/g' | cut -c1-62)
  kib=$(grep -E '^[0-9]+$' "$WORK/time.out" | tail -1)
  report "$name" "exit $status: ${message:-$(tail -1 "$WORK/pull.out" | cut -c1-60)}" "$kib" \
    "$status"
  rm -rf "$target"
}

main() {
  [[ -x "$QUILL" && -x "$RILL" ]] || die "no quillmoord and quillmoor-rill in $BIN (build them first)"
  command -v node >/dev/null || die "node is not installed (scripts/install-deps.sh)"
  [[ -x /usr/bin/time ]] || die "/usr/bin/time is not installed (scripts/install-deps.sh)"
  install_cleanup
  make_work_dir
  describe_machine
  mkdir -p "$WORK/bucket"
  plant_objects "$WORK/bucket"
  echo "manifests: big $(stat -c %s "$WORK/bucket/channels/big/manifest.json") bytes," \
    "dense $(stat -c %s "$WORK/bucket/channels/dense/manifest.json") bytes"
  start_peer
  echo "binaries: $BIN; address space limit $((LIMIT_KIB / 1024)) MiB; target under 512 MiB"
  [[ "$CASES" == tool ]] || server_cases
  [[ "$CASES" == server ]] && return 0
  pull_case pull-endless-manifest pull-endless
  pull_case pull-endless-chunk endless-chunk
  pull_case pull-deep-manifest deep
  pull_case pull-n-2^40 n-2p40
  pull_case pull-n-2^64-1 n-2p64
  pull_case pull-n-2GiB n-2gib
  pull_case pull-chunker-1 chunker-1
}

main "$@"
