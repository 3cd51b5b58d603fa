#!/usr/bin/env bash
# Installs everything quillmoord needs to build, test and benchmark on a fresh Debian 12 machine.
# Safe to run again: packages already present are left alone.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libboost1.81-dev libjsoncpp-dev libsodium-dev libssl-dev libcurl4-openssl-dev libzstd-dev
  librust-blake3-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
  curl wrk nginx-light b3sum chromium restic borgbackup bc time
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done

# Node.js may come from Debian or from another vendor's package that bundles npm; only ask for it
# when the commands are missing.
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)

if [ "${#missing[@]}" -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Test peers, validators and the browser driver from npm, pinned by the lock files. A lock file
# newer than the installed tree (a package was added since) installs again.
for dir in tests/node tests/rill-peers tests/sso-peers; do
  [ -f "$dir/package-lock.json" ] || continue
  installed="$dir/node_modules/.package-lock.json"
  if [ -f "$installed" ] && ! [ "$dir/package-lock.json" -nt "$installed" ]; then continue; fi
  (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error)
done
