#!/usr/bin/env bash
# Publishing and pulling a 1 GiB tree through the loopback S3 peer with quillmoor-rill:
#   the tree: 8 x 64 MiB of random bytes, 500 MiB of shared libraries from /usr/lib and 16 MiB of
#   small text files (made once, kept in $TREE);
#   the reference: one core compressing every distinct chunk at level 12 (rill_compress_baseline);
#   first publish, unchanged re-publish (--force), pull into an empty directory, a next build with
#   1% of its bytes changed, its pull into the first pull's directory, and the unchanged
#   re-publish again with 20 ms added to every storage request.
#
#   bench/rill_publish.sh [build dir]      (default build-release, configured with -DQUILL_BENCH=ON)
#
# Environment: TREE (default /tmp/quill-rill-bench-tree), DELAY_MS (default 20), NICE (e.g. -15,
# needs root: a scheduling group of its own at that nice level on a shared machine), VIA (front:
# through the peer's signature-checking front, which hashes every body again and reads every
# object back after its PUT; direct, the default: straight to s3rver, so that the peer's own CPU
# competes less with the publisher on a small machine). The run with added delay always goes
# through the front, which adds the delay.
set -euo pipefail
if [ -n "${NICE:-}" ] && [ -z "${QUILL_RILL_PUBLISH_NICED:-}" ]; then
  export QUILL_RILL_PUBLISH_NICED=1
  exec setsid bash -c 'echo "$NICE" > /proc/$$/autogroup; exec nice -n "$NICE" bash "$0" "$@"' \
    "$0" "$@"
fi
BENCH_NAME=rill_publish
source "$(dirname "$0")/lib.sh"
cd "$REPO"
build="${1:-build-release}"
tree="${TREE:-/tmp/quill-rill-bench-tree}"
delay="${DELAY_MS:-20}"
cmake --build "$build" --target quillmoor-rill rill_compress_baseline >/dev/null
tool="$build/quillmoor-rill"
baseline="$build/bench/rill_compress_baseline"

WORK=$(mktemp -d /tmp/quill-rill-publish.XXXXXX)
PEER=""
HOLDERS=()
cleanup() {
  [ -n "$PEER" ] && kill "$PEER" 2>/dev/null && wait "$PEER" 2>/dev/null
  for p in "${HOLDERS[@]}"; do kill "$p" 2>/dev/null; done
  rm -rf "$WORK"
}
trap cleanup EXIT

# Starts the peer on $WORK/s3 (objects survive a restart) with $1 ms of delay; sets ENDPOINT.
start_peer() {
  [ -n "$PEER" ] && kill "$PEER" 2>/dev/null && wait "$PEER" 2>/dev/null
  mkfifo "$WORK/ready"
  node --openssl-legacy-provider tests/rill-peers/peers.mjs --dir "$WORK/s3" --bucket bench \
    --delay-ms "$1" <"$WORK/stdin-$1" >"$WORK/ready" &
  PEER=$!
  local line
  read -r line <"$WORK/ready"
  rm "$WORK/ready"
  local field=3
  [ "${VIA:-direct}" = front ] || [ "$1" != 0 ] && field=2
  ENDPOINT="http://127.0.0.1:$(echo "$line" | awk -v f="$field" '{print $f}')"
}

# User + system CPU seconds that process $1 has used so far.
cpu_seconds() {
  awk -v hz="$(getconf CLK_TCK)" '{print ($14 + $15) / hz}' "/proc/$1/stat"
}

# Runs the tool with the peer's storage options; prints its summary, the wall time, the CPU time
# it and the peer used, and its peak resident memory.
run() {
  local started ended peer_before peer_after rss user sys
  peer_before=$(cpu_seconds "$PEER")
  started=$(date +%s.%N)
  /usr/bin/time -f "%M %U %S" -o "$WORK/usage" "$tool" "$@" --endpoint "$ENDPOINT" \
    --bucket bench --access-key S3RVER --secret-key S3RVER >"$WORK/out"
  ended=$(date +%s.%N)
  peer_after=$(cpu_seconds "$PEER")
  WALL=$(echo "$ended - $started" | bc)
  read -r rss user sys <"$WORK/usage"
  printf '  %-30s %6.2f s wall; CPU tool %5.1f s, peer %5.1f s; peak RSS %4d MiB\n    %s\n' \
    "$LABEL" "$WALL" "$(echo "$user + $sys" | bc)" "$(echo "$peer_after - $peer_before" | bc)" \
    "$((rss / 1024))" "$(cat "$WORK/out")"
}

make_bench_tree "$tree"
echo "tree: $(du -sh --apparent-size "$tree" | cut -f1) in $(find "$tree" -type f | wc -l) files; $(nproc) cores"
{ read -r _ bytes _ packed _ one_core; read -r _ _ memory_wall _ memory_cpu; } < <("$baseline" "$tree")
echo "reference: one core compresses the distinct chunks ($((bytes / 1048576)) MiB -> $((packed / 1048576)) MiB) at level 12 in $one_core s"
echo "publish into a store in memory (no network): $memory_wall s wall, $memory_cpu s CPU; ratio $(echo "scale=2; $memory_wall / $one_core" | bc)"

# Each peer's standard input stays open (a fifo held by sleep) until the script ends.
for d in 0 "$delay"; do
  mkfifo "$WORK/stdin-$d"
  sleep 3600 >"$WORK/stdin-$d" &
  HOLDERS+=($!)
done
start_peer 0

LABEL="first publish" run publish "$tree" --channel bench
first=$WALL
LABEL="unchanged re-publish" run publish "$tree" --channel bench --force
LABEL="pull, empty directory" run pull bench "$WORK/client"
cp -r "$tree" "$WORK/next"
# About 1% of the bytes: 5 MiB rewritten inside each of two random files, a line added to 64 of
# the text files.
dd if=/dev/urandom of="$WORK/next/random/blob3.bin" bs=1M seek=20 count=5 conv=notrunc status=none
dd if=/dev/urandom of="$WORK/next/random/blob6.bin" bs=1M seek=40 count=5 conv=notrunc status=none
for i in $(seq 0 63); do echo "changed $i" >>"$WORK/next/text/t$i.txt"; done
LABEL="publish of the next build" run publish "$WORK/next" --channel bench --force
LABEL="pull of the next build" run pull bench "$WORK/client"
cmp -s "$WORK/next/random/blob3.bin" "$WORK/client/random/blob3.bin" || die "pulled tree differs"

start_peer "$delay"
LABEL="re-publish, +${delay} ms/request" run publish "$WORK/next" --channel bench --force
echo "first publish / one-core compression: $(echo "scale=2; $first / $one_core" | bc) (target at most 0.5)"
