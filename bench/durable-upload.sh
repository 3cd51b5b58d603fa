#!/usr/bin/env bash
# A durable 1 GiB upload against a durable local copy: `curl -T` of the file as a build file (the
# server answers only once the file's bytes and its directory are flushed to the disk) next to
# `cp` of the same file followed by `sync`, on the same file system, alternating. Both read the
# source from the page cache; the copy and the uploaded build are removed, and `sync` run, before
# every timed step, so neither pays for the other's write-back.
#
# Usage: bench/durable-upload.sh
# Environment (all optional):
#   SIZE_MIB=1024       size of the file
#   ROUNDS=3            measured uploads and copies (after one warm-up of each)
#   MIN_RATIO=0.5       target: upload rate / (cp + sync) rate
#   TMPDIR=dir          where the temporary directory goes (default /tmp; not a tmpfs)
#   QUILL_BIN=path      use this binary instead of building build-bench/quillmoord
#   NICE=-15            run the server, curl and cp at this nice level (negative needs root)

set -euo pipefail

SIZE_MIB=${SIZE_MIB:-1024}
ROUNDS=${ROUNDS:-3}
MIN_RATIO=${MIN_RATIO:-0.5}
BENCH_NAME="durable-upload"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"

main() {
  command -v curl >/dev/null || die "curl is not installed"
  local quill
  quill=$(quill_binary) || exit 1
  install_cleanup
  make_work_dir
  [[ $(stat -f -c %T "$WORK") != tmpfs ]] || die "$WORK is on a tmpfs; set TMPDIR to a disk"
  local avail_kib
  avail_kib=$(df -k --output=avail "$WORK" | tail -1)
  ((avail_kib > SIZE_MIB * 1024 * 4)) || die "not enough free space in $WORK"

  describe_machine
  df -h --output=source,fstype,size,avail,target "$WORK" | sed 's/^/  /'
  local bytes=$((SIZE_MIB * 1048576)) src=$WORK/big.bin data=$WORK/data
  head -c "$bytes" /dev/urandom >"$src"
  sync
  "$quill" user create alice --role admin --data-dir "$data" >/dev/null
  local token port
  token=$(mint_token "$quill" "$data" t alice) || exit 1
  port=$(free_port)
  start_quill "$quill" "$data" "$port" "$WORK/quillmoord.log"
  local auth="Authorization: Bearer $token" base=http://127.0.0.1:$port

  echo "file: $SIZE_MIB MiB of random bytes; 1 warm-up and $ROUNDS rounds, alternating"
  local copies=() uploads=() round
  for round in $(seq 0 "$ROUNDS"); do
    rm -f "$WORK/copy.bin"
    sync
    timed sh -c 'cp --reflink=never "$1" "$2" && sync' sh "$src" "$WORK/copy.bin" ||
      die "cp failed"
    local copy_rate
    copy_rate=$(mib_per_s "$bytes" "$ELAPSED_NS")
    rm -f "$WORK/copy.bin"
    curl -fsS -o /dev/null -X DELETE -H "$auth" "$base/api/builds/b$round" 2>/dev/null || true
    sync
    timed curl -fsS -o "$WORK/receipt" -H "$auth" -T "$src" \
      "$base/api/builds/b$round/files?path=big.bin" || die "the upload failed"
    grep -q "\"size\":$bytes" "$WORK/receipt" || die "unexpected receipt: $(cat "$WORK/receipt")"
    local upload_rate
    upload_rate=$(mib_per_s "$bytes" "$ELAPSED_NS")
    curl -fsS -o /dev/null -X DELETE -H "$auth" "$base/api/builds/b$round" || die "delete failed"
    local label="round $round"
    ((round > 0)) || label=warm-up
    printf '%-8s  cp + sync %5d MiB/s   upload %5d MiB/s\n' "$label" "$copy_rate" "$upload_rate"
    if ((round > 0)); then
      copies+=("$copy_rate")
      uploads+=("$upload_rate")
    fi
  done
  local copy_median upload_median
  copy_median=$(median "${copies[@]}")
  upload_median=$(median "${uploads[@]}")
  awk -v u="$upload_median" -v c="$copy_median" -v min="$MIN_RATIO" 'BEGIN {
    r = u / c
    printf "median: cp + sync %d MiB/s, upload %d MiB/s, ratio %.2f  target >= %s: %s\n",
           c, u, r, min, (r >= min ? "met" : "NOT met")
    exit !(r >= min) }'
}

main "$@"
