#!/usr/bin/env bash
# Backups side by side: quillmoord (to the loopback S3 peer), restic and borg (each to a local
# repository on the same disk) on the same 1 GiB tree: 8 x 64 MiB of random bytes, 500 MiB of
# shared libraries from /usr/lib and 16 MiB of small text files. Steps, for each tool: first
# backup; second backup after ten 1 MiB regions were overwritten in place (1% of the bytes);
# restore of the latest snapshot into an empty directory, checked against the source. Each step
# reports wall time, CPU time (user + system) and the tool's peak resident memory.
#
#   bench/backup-vs-restic-borg.sh        (QUILL_BIN picks the binary, else a Release build)
#
# Environment: TREE (default /tmp/quill-rill-bench-tree, shared with bench/rill_publish.sh).
# restic runs with its default compression (auto), borg with --compression auto,zstd,12 and
# --chunker-params 20,23,22,4095 (Debian's borg 1.2 refuses a maximum above 2^23, so not 2^24).
# restic cannot use the S3 peer: the peer's signature check refuses the streaming payload signature
# restic's S3 client sends. The peer's own CPU time and memory are not counted for quillmoord.
# VIA=front sends quillmoord's requests through the peer's signature-checking front (which hashes
# every body again and reads each object back after its PUT); the default is s3rver directly.
set -euo pipefail
BENCH_NAME=backup-vs-restic-borg
source "$(dirname "$0")/lib.sh"
tree="${TREE:-/tmp/quill-rill-bench-tree}"
quill=$(quill_binary)
for tool in restic borg /usr/bin/time; do
  command -v "$tool" >/dev/null || die "$tool is not installed (scripts/install-deps.sh)"
done
make_work_dir
PIDS=()
install_cleanup
cd "$REPO"

# Runs a step under /usr/bin/time; prints a table row of tool, step, wall, CPU, peak memory and
# the CPU time the S3 peer spent meanwhile.
step() {
  local tool=$1 what=$2 peer_before peer_after
  shift 2
  peer_before=$(cpu_ticks "$peer_pid")
  /usr/bin/time -f "%e %U %S %M" -o "$WORK/time" "$@" >"$WORK/step.out" 2>&1 ||
    die "$tool $what failed: $(tail -5 "$WORK/step.out")"
  peer_after=$(cpu_ticks "$peer_pid")
  read -r wall user sys rss <"$WORK/time"
  printf '| %-10s | %-18s | %7.2f s | %7.2f s | %6d MiB | %6.2f s |\n' "$tool" "$what" "$wall" \
    "$(echo "$user + $sys" | bc)" "$((rss / 1024))" \
    "$(echo "scale=2; ($peer_after - $peer_before) / $(getconf CLK_TCK)" | bc)"
}

# Ten 1 MiB regions overwritten in place: 10 MiB of 1 GiB.
change_one_percent() {
  local i
  for i in 1 2 3 4 5 6 7 8 9 10; do
    dd if=/dev/urandom of="$1/random/blob$(((i - 1) % 8 + 1)).bin" bs=1M count=1 \
      seek=$((i * 5)) conv=notrunc status=none
  done
}

# The source's files against a restore (which may add empty standard directories).
same_tree() {
  local file
  while IFS= read -r -d '' file; do
    [[ "$file" == */backup-state.json ]] && continue
    cmp -s "$file" "$2/${file#"$1"/}" || die "the restore into $2 differs from the source at $file"
  done < <(find "$1" -type f -print0)
}

make_bench_tree "$tree"
data="$WORK/data"
cp -r "$tree" "$data"
rm -f "$data/.complete"
echo "tree: $(du -sh --apparent-size "$data" | cut -f1) in $(find "$data" -type f | wc -l) files"
describe_machine

# The S3 peer for quillmoord; its standard input is held open by a sleeping child.
mkfifo "$WORK/peer-in" "$WORK/peer-ready"
sleep 86400 >"$WORK/peer-in" &
PIDS+=($!)
node --openssl-legacy-provider tests/rill-peers/peers.mjs --dir "$WORK/s3" --bucket bench \
  <"$WORK/peer-in" >"$WORK/peer-ready" 2>"$WORK/peer.log" &
peer_pid=$!
PIDS+=("$peer_pid")
read -r _ front_port direct_port <"$WORK/peer-ready"
peer_port=$direct_port
[ "${VIA:-direct}" = front ] && peer_port=$front_port
"$quill" backup init --endpoint "http://127.0.0.1:$peer_port" --bucket bench --access-key S3RVER \
  --secret-key S3RVER --key "$WORK/quill.key" --data-dir "$data" >/dev/null

export RESTIC_PASSWORD=bench RESTIC_REPOSITORY="$WORK/restic" RESTIC_CACHE_DIR="$WORK/restic-cache"
export BORG_PASSPHRASE=bench BORG_REPO="$WORK/borg" BORG_BASE_DIR="$WORK/borg-home"
restic init >/dev/null
borg init --encryption=repokey-blake2 >/dev/null 2>&1
borg_options=(--compression auto,zstd,12 --chunker-params 20,23,22,4095)

echo
echo "| tool       | step               |      wall |       CPU |   peak RSS |  S3 peer |"
echo "|------------|--------------------|-----------|-----------|------------|----------|"
step quillmoord "first backup" "$quill" backup --data-dir "$data"
sleep 1 # a fresh second for the next snapshot name
step restic "first backup" restic backup --quiet "$data"
step borg "first backup" borg create "${borg_options[@]}" ::first "$data"
change_one_percent "$data"
step quillmoord "1% changed" "$quill" backup --data-dir "$data"
step restic "1% changed" restic backup --quiet "$data"
step borg "1% changed" borg create "${borg_options[@]}" ::second "$data"

latest=$("$quill" backup list --data-dir "$data" | awk '/^  snap-/ { name = $1 } END { print name }')
step quillmoord "restore, empty" "$quill" restore "$latest" --data-dir "$WORK/r-quill" \
  --key "$WORK/quill.key" --from "$data/backup.json"
step restic "restore, empty" restic restore latest --target "$WORK/r-restic"
mkdir "$WORK/r-borg"
step borg "restore, empty" bash -c "cd '$WORK/r-borg' && borg extract ::second"
same_tree "$data" "$WORK/r-quill"
same_tree "$data" "$WORK/r-restic$data"
same_tree "$data" "$WORK/r-borg$data"
echo
echo "stored: quillmoord $(du -sh "$WORK/s3" | cut -f1), restic $(du -sh "$WORK/restic" | cut -f1)," \
  "borg $(du -sh "$WORK/borg" | cut -f1); every restore matched the source"
