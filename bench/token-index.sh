#!/usr/bin/env bash
# Authenticated `GET /api/me` requests per second when the data directory holds 10 tokens, next to
# the same when it holds 10,000. Two servers run side by side on data directories that differ only
# in their number of tokens; in both the token used is the one minted last (with `token create`),
# the others are written straight into tokens/ as the server's own minting would write them.
# wrk drives the two alternately, with the same settings, and the medians are compared.
#
# Beside them, in the same rounds, open `GET /api/version` against the server with 10 tokens: what
# an authenticated request costs next to one that needs no token (the caller lookup and the user
# and group records it reads).
#
# Then, against the server with 10,000 tokens and its index warm, it checks that the offline
# commands are seen at the very next request (PASS/FAIL lines; the exit status is 1 on a FAIL):
# a token minted while the server runs, a token deleted, a token name minted anew, a user disabled.
# Last, two figures for the cost of a token the server does not know: the rate of such requests,
# and the rate of valid requests while one connection keeps sending unknown tokens.
#
# Usage: bench/token-index.sh
# Environment (all optional):
#   DURATION=10s      length of each measured run
#   ROUNDS=3          measured runs per server (alternating)
#   WARMUP=2s         unmeasured run against each server first
#   WRK_THREADS=2     wrk -t
#   CONNECTIONS=64    wrk -c
#   FEW=10 MANY=10000 the number of tokens in the two data directories
#   MIN_RATIO=0.9     the target printed beside the result (MANY's rate / FEW's rate)
#   ME_MIN_RATIO=0.5  the target for /api/me's rate / /api/version's (both with FEW tokens)
#   QUILL_BIN=path    use this binary instead of building build-bench/quillmoord
#   QUILL_ARGS="..."  extra arguments for quillmoord
#   NICE=-15          run the servers and wrk at this nice level (negative needs root)

set -euo pipefail

DURATION=${DURATION:-10s}
ROUNDS=${ROUNDS:-3}
WARMUP=${WARMUP:-2s}
WRK_THREADS=${WRK_THREADS:-2}
CONNECTIONS=${CONNECTIONS:-64}
FEW=${FEW:-10}
MANY=${MANY:-10000}
MIN_RATIO=${MIN_RATIO:-0.9}
ME_MIN_RATIO=${ME_MIN_RATIO:-0.5}
BENCH_NAME="token-index"
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$HERE/lib.sh"
# A request stuck behind a scan of the token directory may take long; that is a figure too.
WRK_ARGS=(-s "$HERE/wrk-bearer.lua" --timeout 30s)

# Prints `count` fresh token texts, one a line: 48 random letters and digits each, like the
# server's.
token_texts() {
  head -c $(($1 * 64 + 64)) /dev/urandom | base64 -w0 | tr -dc 'A-Za-z0-9' | fold -w48 |
    awk -v n="$1" 'NR <= n && length($0) == 48 { print; k++ } END { exit k != n }'
}

# Prints the lower-case hex BLAKE3 of each line of file `texts` (without its newline), in order.
hash_lines() {
  local texts=$1 scratch
  scratch=$(mktemp -d "$WORK/hash.XXXXXX")
  awk -v dir="$scratch" '{ f = dir "/" NR; printf "%s", $0 > f; close(f) }' "$texts"
  (cd "$scratch" && seq "$(wc -l <"$texts")" | xargs -r b3sum --no-names)
  rm -rf "$scratch"
}

# Writes token records `bulk-<n>.json` into the data directory `data` for user `user`, one for
# each token text in file `texts`, in the form `token create` writes.
write_token_files() {
  local data=$1 user=$2 texts=$3
  mkdir -p "$data/tokens"
  hash_lines "$texts" | paste -d' ' "$texts" - | awk -v dir="$data/tokens" -v user="$user" '
    NF != 2 || length($2) != 64 { exit 1 }
    {
      name = sprintf("bulk-%05d", NR)
      f = dir "/" name ".json"
      printf "{\"created_at\":\"2026-01-01T00:00:00Z\",\"name\":\"%s\",\"schema_version\":1," \
             "\"token_hash\":\"%s\",\"user\":\"%s\"}\n", name, $2, user > f
      close(f)
    }' || die "could not write the token files"
}

# Mints a token with the offline command and prints its text.
mint() { mint_token "$QUILL" "$@"; }

# Prints the status of `GET path` on `port` with `token` (none when empty).
status_of() {
  local port=$1 path=$2 token=$3
  curl -s -o /dev/null -w '%{http_code}' ${token:+-H "Authorization: Bearer $token"} \
    "http://127.0.0.1:$port$path"
}


# Offline changes against a running server whose index is warm, each seen at the very next request.
check_offline_changes() {
  local data=$1 port=$2 admin=$3 fresh old renewed bob
  fresh=$(mint "$data" fresh alice)
  check_equal "a token minted while the server runs works at the very next request" \
    200 "$(status_of "$port" /api/me "$fresh")"
  "$QUILL" token delete fresh --data-dir "$data" >/dev/null
  check_equal "a deleted token is refused at the very next request" \
    401 "$(status_of "$port" /api/me "$fresh")"

  old=$(mint "$data" renewed alice)
  status_of "$port" /api/me "$old" >/dev/null
  "$QUILL" token delete renewed --data-dir "$data" >/dev/null
  renewed=$(mint "$data" renewed alice)
  check_equal "a name minted anew: the old token is refused" 401 "$(status_of "$port" /api/me "$old")"
  check_equal "a name minted anew: the new token works" 200 "$(status_of "$port" /api/me "$renewed")"

  "$QUILL" user create bob --data-dir "$data" >/dev/null
  bob=$(mint "$data" bob-laptop bob)
  check_equal "a user created while the server runs can use a fresh token" \
    200 "$(status_of "$port" /api/me "$bob")"
  curl -fsS -o /dev/null -X POST -H "Authorization: Bearer $admin" \
    "http://127.0.0.1:$port/api/users/bob/disabled?value=true"
  check_equal "a disabled user's token is refused at the very next request" \
    401 "$(status_of "$port" /api/me "$bob")"
  curl -fsS -o /dev/null -X POST -H "Authorization: Bearer $admin" \
    "http://127.0.0.1:$port/api/users/bob/disabled?value=false"
  check_equal "... and works again once the user is enabled" 200 "$(status_of "$port" /api/me "$bob")"

  # Records edited by hand, in place (no rename), are what the next request sees.
  curl -fsS -o /dev/null -X POST -H "Authorization: Bearer $admin" \
    "http://127.0.0.1:$port/api/groups/qa"
  curl -fsS -o /dev/null -X POST -H "Authorization: Bearer $admin" \
    "http://127.0.0.1:$port/api/users/bob/groups?group=qa"
  curl -fsS -o /dev/null -H "Authorization: Bearer $bob" "http://127.0.0.1:$port/api/me"
  printf '{"channels":["by-hand"],"name":"qa","schema_version":1}\n' >"$data/groups/qa.json"
  check_equal "a group edited by hand: its channels at the very next request" '["by-hand"]' \
    "$(curl -fsS -H "Authorization: Bearer $bob" "http://127.0.0.1:$port/api/me" |
      sed -n 's/.*"channels":\(\[[^]]*\]\).*/\1/p')"
  printf '{"groups":["qa"],"name":"bob","role":"member","schema_version":1,"disabled":true}\n' \
    >"$data/users/bob.json"
  check_equal "a user disabled by hand is refused at the very next request" \
    401 "$(status_of "$port" /api/me "$bob")"
}

# The number of tokens in data directory `label` (few or many).
token_count() {
  if [[ $1 == many ]]; then echo "$MANY"; else echo "$FEW"; fi
}

report_round() {
  printf 'round %d  %5d tokens  %8.0f req/s  CPU/request: server %5.1f us, wrk %5.1f us\n' \
    "$1" "$2" "$RATE" "$CPU_US" "$WRK_US"
}

main() {
  command -v wrk >/dev/null || die "wrk is not installed"
  command -v b3sum >/dev/null || die "b3sum is not installed"
  ((FEW >= 1 && MANY >= 1)) || die "FEW and MANY must be at least 1"
  QUILL=$(quill_binary) || exit 1

  install_cleanup
  make_work_dir

  local label count data token
  local -A port pid tok
  for label in few many; do
    count=$(token_count "$label")
    data=$WORK/$label
    "$QUILL" user create alice --role admin --data-dir "$data" >/dev/null
    token_texts $((count - 1)) >"$WORK/$label.texts"
    write_token_files "$data" alice "$WORK/$label.texts"
    token=$(mint "$data" bench alice)
    [[ $(find "$data/tokens" -name '*.json' | wc -l) == "$count" ]] ||
      die "$data/tokens does not hold $count tokens"
    tok[$label]=$token
    port[$label]=$(free_port)
    start_quill "$QUILL" "$data" "${port[$label]}" "$WORK/$label.log"
    pid[$label]=$QUILL_PID
  done

  # The first lookup reads every token file once (the index starts empty).
  local -A first_ms
  for label in few many; do
    first_ms[$label]=$(curl -s -o /dev/null -w '%{time_total}' \
      -H "Authorization: Bearer ${tok[$label]}" "http://127.0.0.1:${port[$label]}/api/me" |
      awk '{ printf "%.1f", $1 * 1000 }')
  done

  # The written records must be tokens the server accepts, or the comparison means nothing.
  if ((MANY > 1)); then
    local middle
    middle=$(sed -n "$((MANY / 2))p" "$WORK/many.texts")
    [[ $(status_of "${port[many]}" /api/me "$middle") == 200 ]] ||
      die "the server refuses a token written into tokens/"
  fi

  describe_machine
  echo "GET /api/me with the token minted last; wrk -t$WRK_THREADS -c$CONNECTIONS -d$DURATION," \
    "$ROUNDS rounds, warm-up $WARMUP each${NICE:+, nice $NICE}"
  echo "first authenticated request after start: ${first_ms[few]} ms with $FEW tokens," \
    "${first_ms[many]} ms with $MANY"

  local -A rates cpu wrk_cpu
  for label in few many; do
    export BENCH_TOKEN=${tok[$label]}
    measure "http://127.0.0.1:${port[$label]}/api/me" "$WARMUP" "${pid[$label]}"
  done
  measure "http://127.0.0.1:${port[few]}/api/version" "$WARMUP" "${pid[few]}"
  local round
  for round in $(seq "$ROUNDS"); do
    for label in few many; do
      export BENCH_TOKEN=${tok[$label]}
      measure "http://127.0.0.1:${port[$label]}/api/me" "$DURATION" "${pid[$label]}"
      rates[$label]+=" $RATE"
      cpu[$label]+=" $CPU_US"
      wrk_cpu[$label]+=" $WRK_US"
      report_round "$round" "$(token_count "$label")"
    done
    # The same header is sent; the open route ignores it.
    measure "http://127.0.0.1:${port[few]}/api/version" "$DURATION" "${pid[few]}"
    rates[version]+=" $RATE"
    cpu[version]+=" $CPU_US"
    printf 'round %d  GET /api/version  %8.0f req/s  CPU/request: server %5.1f us, wrk %5.1f us\n' \
      "$round" "$RATE" "$CPU_US" "$WRK_US"
  done

  local few_median many_median
  # shellcheck disable=SC2086 # the lists are words on purpose
  {
    few_median=$(median ${rates[few]})
    many_median=$(median ${rates[many]})
    echo
    printf '%5d tokens  median %8.0f req/s  CPU/request: server %5.1f us, wrk %5.1f us\n' \
      "$FEW" "$few_median" "$(median_float ${cpu[few]})" "$(median_float ${wrk_cpu[few]})" \
      "$MANY" "$many_median" "$(median_float ${cpu[many]})" "$(median_float ${wrk_cpu[many]})"
  }
  awk -v m="$many_median" -v f="$few_median" -v min="$MIN_RATIO" -v few="$FEW" -v many="$MANY" \
    'BEGIN { r = m / f; printf "ratio %d tokens / %d tokens: %.2f  target >= %s: %s\n",
             many, few, r, min, (r >= min ? "met" : "NOT met") }'
  local version_median
  # shellcheck disable=SC2086 # the lists are words on purpose
  version_median=$(median ${rates[version]})
  # shellcheck disable=SC2086
  printf 'GET /api/version  median %8.0f req/s  CPU/request: server %5.1f us\n' \
    "$version_median" "$(median_float ${cpu[version]})"
  awk -v m="$few_median" -v v="$version_median" -v min="$ME_MIN_RATIO" \
    'BEGIN { r = m / v; printf "ratio GET /api/me / GET /api/version: %.2f  target >= %s: %s\n",
             r, min, (r >= min ? "met" : "NOT met") }'

  echo
  check_offline_changes "$WORK/many" "${port[many]}" "${tok[many]}"

  echo
  echo "unknown tokens (every one a miss; 4 s each, 8 connections):"
  local unknown
  unknown=$(token_texts 1)
  [[ $(status_of "${port[many]}" /api/me "$unknown") == 401 ]] || die "the unknown token works"
  export BENCH_TOKEN=$unknown
  WRK_ANY_STATUS=1
  local connections=$CONNECTIONS
  CONNECTIONS=8
  for label in few many; do
    measure "http://127.0.0.1:${port[$label]}/api/me" 4s "${pid[$label]}"
    printf '%5d tokens  %8.0f req/s answered 401  CPU/request: server %8.1f us\n' \
      "$(token_count "$label")" "$RATE" "$CPU_US"
  done
  WRK_ANY_STATUS=""
  CONNECTIONS=$connections

  echo "valid tokens while one connection keeps sending unknown ones (4 s each):"
  for label in few many; do
    BENCH_TOKEN=$unknown run_niced wrk -t1 -c1 -d6s --timeout 30s -s "$HERE/wrk-bearer.lua" \
      "http://127.0.0.1:${port[$label]}/api/me" >"$WORK/unknown.out" 2>&1 &
    PIDS+=($!)
    sleep 1
    export BENCH_TOKEN=${tok[$label]}
    measure "http://127.0.0.1:${port[$label]}/api/me" 4s "${pid[$label]}"
    wait "${PIDS[-1]}" || true
    unset 'PIDS[-1]'
    printf '%5d tokens  %8.0f req/s valid, beside %s unknown-token req/s\n' \
      "$(token_count "$label")" "$RATE" "$(wrk_rate --any-status <"$WORK/unknown.out" || echo '?')"
  done

  ((FAILURES == 0)) || exit 1
}

if [[ "${BASH_SOURCE[0]}" == "$0" ]]; then
  main "$@"
fi
