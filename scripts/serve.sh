#!/usr/bin/env bash
# Installs what is missing, builds quillmoord and starts it on ./quillmoord-data (port 8080).
# Extra arguments go to the server, e.g. scripts/serve.sh --port 9000 --bind 127.0.0.1
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_TESTS=OFF >/dev/null
cmake --build build --target quillmoord
exec build/quillmoord --data-dir "${QUILL_DATA_DIR:-$PWD/quillmoord-data}" "$@"
