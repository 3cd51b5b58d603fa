#!/usr/bin/env bash
# Crash safety of backups: kill -9 at random points of runs of `quillmoord backup`, of the server
# running POST /api/backup, and of `quillmoord backup prune`, against the loopback S3 peer. After
# the trials the next run must succeed, and every snapshot that `backup list` shows must restore,
# each restored file byte for byte equal to the source (files are only added between trials, never
# changed, so the source holds every file any snapshot recorded).
#
#   bench/backup-kill-trials.sh [trials]        (default 30; QUILL_BIN picks the binary)
set -euo pipefail
BENCH_NAME=backup-kill-trials
source "$(dirname "$0")/lib.sh"
trials=${1:-30}
quill=$(quill_binary)
make_work_dir
PIDS=()
install_cleanup
cd "$REPO"

# The S3 peer; its standard input is a fifo held open by a sleeping child, so it ends with us.
mkfifo "$WORK/peer-in" "$WORK/peer-ready"
sleep 86400 >"$WORK/peer-in" &
PIDS+=($!)
node --openssl-legacy-provider tests/rill-peers/peers.mjs --dir "$WORK/s3" --bucket trials \
  <"$WORK/peer-in" >"$WORK/peer-ready" 2>"$WORK/peer.log" &
PIDS+=($!)
read -r _ peer_port _ <"$WORK/peer-ready"
endpoint="http://127.0.0.1:$peer_port"

data="$WORK/data"
"$quill" user create ops --role admin --data-dir "$data" >/dev/null
token=$(mint_token "$quill" "$data" ops ops)
mkdir -p "$data/builds/base"
for i in 1 2 3 4; do head -c 6M /dev/urandom >"$data/builds/base/part$i.bin"; done
"$quill" backup init --endpoint "$endpoint" --bucket trials --access-key S3RVER \
  --secret-key S3RVER --data-dir "$data" >/dev/null
key="$WORK/quillmoord-backup.key"

# Kills `pid` after a random 0-0.8 s; counts it as mid-run when it was still running then.
killed_mid_run=0
kill_at_random() {
  local pid=$1
  sleep "$(awk -v r="$RANDOM" 'BEGIN { printf "%.3f", r / 32767 * 0.8 }')"
  if kill -9 "$pid" 2>/dev/null; then killed_mid_run=$((killed_mid_run + 1)); fi
  wait "$pid" 2>/dev/null || true
}

for trial in $(seq "$trials"); do
  # A new file per trial, so each run has chunks to upload.
  head -c 2M /dev/urandom >"$data/builds/base/trial$trial.bin"
  case $((trial % 3)) in
    0)
      "$quill" backup --data-dir "$data" >/dev/null 2>&1 &
      kill_at_random $!
      ;;
    1)
      port=$(free_port)
      "$quill" --data-dir "$data" --bind 127.0.0.1 --port "$port" >"$WORK/server.log" 2>&1 &
      server=$!
      wait_ready "http://127.0.0.1:$port/api/version" "$server" "$WORK/server.log"
      curl -fsS -o /dev/null -X POST -H "Authorization: Bearer $token" \
        "http://127.0.0.1:$port/api/backup" || true
      kill_at_random "$server"
      ;;
    2)
      "$quill" backup prune --keep 4 --data-dir "$data" >/dev/null 2>&1 &
      kill_at_random $!
      ;;
  esac
  sleep 1 # a fresh second, so the next snapshot name is new
done

next_run=ok
"$quill" backup --data-dir "$data" >"$WORK/next.out" 2>&1 || next_run="FAILED: $(cat "$WORK/next.out")"

snapshots=0
restored=0
failures=0
while read -r name _; do
  [[ "$name" == snap-* ]] || continue
  snapshots=$((snapshots + 1))
  target="$WORK/restored/$name"
  if ! "$quill" restore "$name" --data-dir "$target" --key "$key" --from "$data/backup.json" \
    >"$WORK/restore.out" 2>&1; then
    echo "FAIL  $name does not restore: $(cat "$WORK/restore.out")"
    failures=$((failures + 1))
    continue
  fi
  differs=0
  while IFS= read -r -d '' file; do
    rel=${file#"$target"/}
    [[ "$rel" == backup-state.json ]] && continue
    cmp -s "$file" "$data/$rel" || { echo "FAIL  $name: $rel differs from the source"; differs=1; }
  done < <(find "$target" -type f -print0)
  for part in 1 2 3 4; do
    [[ -f "$target/builds/base/part$part.bin" ]] || { echo "FAIL  $name lacks part$part"; differs=1; }
  done
  if ((differs)); then failures=$((failures + 1)); else restored=$((restored + 1)); fi
  rm -rf "$target"
done < <("$quill" backup list --data-dir "$data")

echo "trials: $trials (killed mid-run: $killed_mid_run); next run: $next_run"
echo "snapshots listed: $snapshots; restored byte for byte: $restored; failed: $failures"
[[ "$next_run" == ok && $failures -eq 0 && $snapshots -gt 0 ]]
