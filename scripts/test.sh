#!/usr/bin/env bash
# Builds and runs the whole test suite: a release build at 1 and 2 threads, then the core
# tests under address+undefined and under thread sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
ninja -C build
ctest --test-dir build --output-on-failure -j "$jobs"

# Sanitizer builds skip benchmarks and examples; the suite runs at 2 threads there so that
# the parallel paths are exercised.
for sanitize in "address;undefined" "thread"; do
  dir="build-sanitize-${sanitize//;/-}"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORP_SANITIZE="$sanitize" \
    -DZORP_BUILD_BENCH=OFF -DZORP_BUILD_EXAMPLES=OFF >/dev/null
  ninja -C "$dir" zorp_tests
  # Death tests fork a multi-threaded process, which the thread sanitizer does not support.
  filter="*"
  [ "$sanitize" = "thread" ] && filter="-*DeathTest*"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1 \
    ZORP_NUM_THREADS=2 "$dir/tests/zorp_tests" --gtest_brief=1 --gtest_filter="$filter"
done
echo "all tests passed"
