#!/usr/bin/env bash
# Installs what is missing, builds everything with AddressSanitizer and UndefinedBehaviorSanitizer
# (QUILL_SANITIZE=OFF for a plain build) and runs every test. Every target, benchmarks included,
# is also built in Release (whose optimiser warns about things the others do not); its tests are
# not run a second time. Last, every fuzz target (built with clang in build-fuzz) runs briefly
# over its seed corpus: a smoke test that it builds and starts, not a fuzzing campaign.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/check-layers.sh  # includes run one way between the floors
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

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DQUILL_FUZZ=ON -DQUILL_TESTS=OFF >/dev/null
cmake --build build-fuzz --target fuzz
fuzz_scratch=$(mktemp -d)
trap 'rm -rf "$fuzz_scratch"' EXIT
for target in build-fuzz/fuzz/fuzz_*; do
  name=${target##*/fuzz_}
  # New inputs go to the scratch directory (the first given), never into the seed corpus.
  mkdir -p "$fuzz_scratch/$name"
  "$target" -runs=2000 -timeout=10 "$fuzz_scratch/$name" "fuzz/corpus/$name" >"$fuzz_scratch/$name.log" 2>&1 ||
    { tail -30 "$fuzz_scratch/$name.log"; echo "fuzz smoke run of $name failed" >&2; exit 1; }
  echo "fuzz smoke run of $name: ok"
done
