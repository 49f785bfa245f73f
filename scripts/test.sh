#!/usr/bin/env bash
# Installs the dependencies, builds everything and runs every test:
#   1. the regular build (warnings are errors) and the whole ctest suite;
#   2. an address+undefined sanitizer build and the whole suite again;
#   3. a thread sanitizer build and the concurrency tests.
# Set NOX_QUICK=1 to run stage 1 only. Build trees: build/, build-asan/,
# build-tsan/ (reused between runs).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

JOBS=${JOBS:-$(nproc)}
export CTEST_OUTPUT_ON_FAILURE=1

stage() { echo; echo "=== $* ==="; }

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S . -B "$dir" -DNOX_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

stage "regular build"
build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
(cd build && ctest -j "$JOBS" --timeout 600)

if [ "${NOX_QUICK:-0}" = 1 ]; then exit 0; fi

stage "address+undefined sanitizer build"
build build-asan -DCMAKE_BUILD_TYPE=Debug "-DNOX_SANITIZE=address;undefined" -DNOX_BUILD_BENCH=OFF
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j "$JOBS" --timeout 900)

stage "thread sanitizer build"
build build-tsan -DCMAKE_BUILD_TYPE=Debug -DNOX_SANITIZE=thread -DNOX_BUILD_BENCH=OFF
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest -j "$JOBS" -L concurrency --timeout 900)

echo
echo "all stages passed"
