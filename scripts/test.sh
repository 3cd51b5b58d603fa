#!/usr/bin/env bash
# Installs what is missing, builds everything with AddressSanitizer and UndefinedBehaviorSanitizer
# (QUILL_SANITIZE=OFF for a plain build) and runs every test. Every target, benchmarks included,
# is also built in Release (whose optimiser warns about things the others do not); its tests are
# not run a second time.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
sanitize=${QUILL_SANITIZE:-ON}
dir=build-test
[ "$sanitize" = ON ] || dir=build-test-plain
# -O1 with little debug info keeps the sanitizer build quick on small machines.
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
  -DQUILL_SANITIZE="$sanitize" >/dev/null
cmake --build "$dir"
cmake -S . -B build-test-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILL_TESTS=ON \
  -DQUILL_BENCH=ON >/dev/null
cmake --build build-test-release
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ctest --test-dir "$dir" --output-on-failure --timeout 900
