#!/usr/bin/env bash
# Throughput of a 1 GiB build file, in one run:
#   (a) download: `curl -o /dev/null` from quillmoord (`GET /api/builds/b1/files?path=big.bin`)
#       next to nginx (sendfile on) serving the very same file (a hard link to the stored file,
#       so the two read the same pages from the page cache), alternating, page cache warm;
#   (b) upload: `curl -T` of the file as a new build file next to a local `cp` of it on the same
#       file system, alternating; both read the source from the page cache, and the copy and the
#       uploaded build are removed before the next round, with `sync` before every timed step so
#       neither pays for the other's write-back;
#   (c) the server's memory during the first upload: VmRSS sampled every 20 ms, and VmHWM (the
#       most it was ever resident) after it and at the end.
# The temporary directory (the data directory and the copies) must not be a tmpfs: the point is
# the disk's file system, so the script refuses one.
#
# Usage: bench/transfer.sh
# Environment (all optional):
#   SIZE_MIB=1024       size of the file
#   ROUNDS=5            measured downloads per server, and uploads and copies
#   MIN_DOWNLOAD=0.9    target: quillmoord's download rate / nginx's
#   MIN_UPLOAD=0.5      target: upload rate / cp rate
#   MAX_RSS_MIB=100     target: the server's peak resident memory
#   TMPDIR=dir          where the temporary directory goes (default /tmp)
#   QUILL_BIN=path      use this binary instead of building build-bench/quillmoord
#   QUILL_ARGS="..."    extra arguments for quillmoord
#   NGINX=path          nginx binary (default /usr/sbin/nginx)
#   NICE=-15            run the servers, curl and cp at this nice level (negative needs root)

set -euo pipefail

SIZE_MIB=${SIZE_MIB:-1024}
ROUNDS=${ROUNDS:-5}
MIN_DOWNLOAD=${MIN_DOWNLOAD:-0.9}
MIN_UPLOAD=${MIN_UPLOAD:-0.5}
MAX_RSS_MIB=${MAX_RSS_MIB:-100}
BENCH_NAME="transfer"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"

# Prints `ticks` of CPU time per GiB of `bytes`, in milliseconds.
ms_per_gib() {
  awk -v t="$1" -v b="$2" -v hz="$(getconf CLK_TCK)" \
    'BEGIN { printf "%.0f", t * 1000 / hz / (b / 1073741824) }'
}

# Runs `command...` once, timed, and sets RATE (MiB/s of BYTES), SERVER_MS and CLIENT_MS (CPU
# time per GiB of the server processes PIDS_UNDER_TEST and of the client command).
measure_transfer() {
  local before after client_before client_after
  before=$(cpu_ticks "${PIDS_UNDER_TEST[@]}")
  client_before=$(waited_children_ticks)
  timed "$@" || die "failed: $*"
  after=$(cpu_ticks "${PIDS_UNDER_TEST[@]}")
  client_after=$(waited_children_ticks)
  RATE=$(mib_per_s "$BYTES" "$ELAPSED_NS")
  SERVER_MS=$(ms_per_gib $((after - before)) "$BYTES")
  CLIENT_MS=$(ms_per_gib $((client_after - client_before)) "$BYTES")
}

# Prints a / b with two decimals.
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

# Appends the VmRSS of process `pid` to file `out` every 20 ms while it lives.
sample_rss() {
  local pid=$1 out=$2 kib
  while kib=$(proc_kib "$pid" VmRSS); do
    echo "$kib" >>"$out"
    sleep 0.02
  done
}

# Prints result `what`: `ratio` (of the medians), `paired` (the median of the rounds' own ratios)
# and whether `ratio` reaches `target`.
report_ratio() {
  awk -v what="$1" -v r="$2" -v p="$3" -v min="$4" 'BEGIN {
    printf "%s: %.2f (per round: median %.2f)  target >= %s: %s\n", what, r, p, min,
           (r >= min ? "met" : "NOT met") }'
}

report() {
  local label="round $1"
  (($1 > 0)) || label=warm-up
  printf '%-8s  %-18s %6d MiB/s  CPU per GiB: %s %5d ms, %s %5d ms\n' \
    "$label" "$2" "$RATE" "$3" "$SERVER_MS" "$4" "$CLIENT_MS"
}

main() {
  command -v curl >/dev/null || die "curl is not installed"
  local quill
  quill=$(quill_binary) || exit 1

  install_cleanup
  make_work_dir
  [[ $(stat -f -c %T "$WORK") != tmpfs ]] || die "$WORK is on a tmpfs; set TMPDIR to a disk"

  describe_machine
  echo "temporary directory (data directory, source file, copies): $WORK"
  df -h --output=source,fstype,size,avail,target "$WORK" | sed 's/^/  /'
  local avail_kib
  avail_kib=$(df -k --output=avail "$WORK" | tail -1)
  ((avail_kib > SIZE_MIB * 1024 * 4)) || die "not enough free space in $WORK"

  BYTES=$((SIZE_MIB * 1048576))
  local src=$WORK/big.bin data=$WORK/data
  timed head -c "$BYTES" /dev/urandom >"$src"
  timed sync
  "$quill" user create alice --role admin --data-dir "$data" >/dev/null
  local token
  token=$(mint_token "$quill" "$data" t alice) || exit 1
  local auth="Authorization: Bearer $token"

  local port base pid
  port=$(free_port)
  base=http://127.0.0.1:$port
  start_quill "$quill" "$data" "$port" "$WORK/quillmoord.log"
  pid=$QUILL_PID

  # (c) The first upload, with the server's memory watched.
  local hwm_start rss_start
  hwm_start=$(proc_kib "$pid" VmHWM)
  rss_start=$(proc_kib "$pid" VmRSS)
  sample_rss "$pid" "$WORK/rss" &
  local sampler=$!
  PIDS+=("$sampler")
  timed curl -fsS -o "$WORK/receipt" -H "$auth" -T "$src" \
    "$base/api/builds/b1/files?path=big.bin" ||
    die "the upload failed"
  kill "$sampler"
  wait "$sampler" || true
  local hwm_upload rss_peak samples
  hwm_upload=$(proc_kib "$pid" VmHWM)
  rss_peak=$(sort -n "$WORK/rss" | tail -1)
  samples=$(wc -l <"$WORK/rss")
  grep -q "\"size\":$BYTES" "$WORK/receipt" ||
    die "unexpected upload receipt: $(cat "$WORK/receipt")"
  timed curl -fsS -o /dev/null -X POST -H "$auth" "$base/api/builds/b1/finalize" ||
    die "finalize failed"
  local stored=$data/builds/b1/files/big.bin
  timed cmp -s "$src" "$stored" || die "the stored file differs from the uploaded one"

  # nginx serves a hard link to the stored file: the same inode, the same cached pages.
  mkdir -p "$WORK/www"
  ln "$stored" "$WORK/www/big.bin"
  echo ready >"$WORK/www/ready"
  local nport
  nport=$(free_port)
  start_nginx "$WORK/www" "$nport" /ready
  local nginx_url=http://127.0.0.1:$nport/big.bin
  local quill_url="$base/api/builds/b1/files?path=big.bin"
  [[ $(curl -fsS -o /dev/null -w '%{size_download}' "$nginx_url") == "$BYTES" ]] ||
    die "nginx serves a different size"
  timed curl -fsS -o "$WORK/downloaded" -H "$auth" "$quill_url" || die "the download failed"
  timed cmp -s "$WORK/downloaded" "$src" || die "quillmoord serves different bytes"
  rm "$WORK/downloaded"
  timed sync

  echo "file: $SIZE_MIB MiB of random bytes; $ROUNDS rounds each, alternating${NICE:+, nice $NICE}"
  echo
  echo "(a) download, curl -o /dev/null over 127.0.0.1"
  local nginx_rates=() quill_rates=() nginx_cpu=() quill_cpu=() download_pairs=() round
  for round in $(seq "$ROUNDS"); do
    PIDS_UNDER_TEST=("${NGINX_PIDS[@]}")
    measure_transfer curl -fsS -o /dev/null "$nginx_url"
    nginx_rates+=("$RATE")
    nginx_cpu+=("$SERVER_MS")
    report "$round" nginx nginx curl
    PIDS_UNDER_TEST=("$pid")
    measure_transfer curl -fsS -o /dev/null -H "$auth" "$quill_url"
    quill_rates+=("$RATE")
    quill_cpu+=("$SERVER_MS")
    download_pairs+=("$(ratio "$RATE" "${nginx_rates[-1]}")")
    report "$round" quillmoord quillmoord curl
  done

  echo
  echo "(b) upload with curl -T vs cp --reflink=never on the same file system (sync before each)"
  # Round 0 is a warm-up of each, not counted: on a fresh virtual machine, the first writes into
  # memory that was never used before cost several times more than later ones.
  local cp_rates=() up_rates=() up_cpu=() upload_pairs=()
  for round in $(seq 0 "$ROUNDS"); do
    timed sync
    PIDS_UNDER_TEST=()
    measure_transfer cp --reflink=never "$src" "$WORK/copy.bin"
    ((round > 0)) && cp_rates+=("$RATE")
    report "$round" cp - cp
    rm -f "$WORK/copy.bin"
    timed sync
    PIDS_UNDER_TEST=("$pid")
    measure_transfer curl -fsS -o /dev/null -H "$auth" -T "$src" \
      "$base/api/builds/up$round/files?path=big.bin"
    if ((round > 0)); then
      up_rates+=("$RATE")
      up_cpu+=("$SERVER_MS")
      upload_pairs+=("$(ratio "$RATE" "${cp_rates[-1]}")")
    fi
    report "$round" "quillmoord upload" quillmoord curl
    curl -fsS -o /dev/null -X DELETE -H "$auth" "$base/api/builds/up$round" ||
      die "could not delete build up$round"
  done
  local hwm_end
  hwm_end=$(proc_kib "$pid" VmHWM)

  local nginx_m quill_m cp_m up_m
  nginx_m=$(median "${nginx_rates[@]}")
  quill_m=$(median "${quill_rates[@]}")
  cp_m=$(median "${cp_rates[@]}")
  up_m=$(median "${up_rates[@]}")
  echo
  echo "medians:"
  printf '  download  nginx %6d MiB/s (CPU %d ms/GiB)  quillmoord %6d MiB/s (CPU %d ms/GiB)\n' \
    "$nginx_m" "$(median "${nginx_cpu[@]}")" "$quill_m" "$(median "${quill_cpu[@]}")"
  printf '  upload    cp    %6d MiB/s                  quillmoord %6d MiB/s (CPU %d ms/GiB)\n' \
    "$cp_m" "$up_m" "$(median "${up_cpu[@]}")"
  # The ratio of the medians decides; the median of each round's own ratio (two runs next to each
  # other in time) is shown beside it, as it moves less when the machine's load changes.
  report_ratio "(a) download ratio quillmoord/nginx" "$(ratio "$quill_m" "$nginx_m")" \
    "$(MEDIAN_FORMAT=%.2f median "${download_pairs[@]}")" "$MIN_DOWNLOAD"
  report_ratio "(b) upload ratio quillmoord/cp" "$(ratio "$up_m" "$cp_m")" \
    "$(MEDIAN_FORMAT=%.2f median "${upload_pairs[@]}")" "$MIN_UPLOAD"
  awk -v start="$rss_start" -v hstart="$hwm_start" -v peak="$rss_peak" -v n="$samples" \
    -v hwm="$hwm_upload" -v hend="$hwm_end" -v max="$MAX_RSS_MIB" 'BEGIN {
    printf "(c) server memory: VmRSS %.1f MiB before the first upload, at most %.1f MiB during it" \
           " (%d samples); VmHWM %.1f MiB before, %.1f MiB after it, %.1f MiB at the end\n",
           start / 1024, peak / 1024, n, hstart / 1024, hwm / 1024, hend / 1024
    printf "    peak under %d MiB: %s\n", max, (hend < max * 1024 ? "met" : "NOT met") }'
}

if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
  main "$@"
fi
