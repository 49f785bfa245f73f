#!/usr/bin/env bash
# Installs the dependencies, builds everything and runs every test:
#   1. the regular build (warnings are errors) and the whole ctest suite,
#      end-to-end tests and the catalogue check included, and the API checks
#      (the OpenAPI lint, the contract test over the end-to-end tests'
#      answers, the generated client; npm tools from scripts/install-deps.sh);
#      then clang-tidy and cppcheck over the sources (scripts/lint.sh);
#   2. an address+undefined sanitizer build and the whole suite again;
#   3. a thread sanitizer build of the concurrency tests, and those tests;
#   4. every fuzz target for a short smoke run (NOX_FUZZ_SECONDS, default 10).
# Set NOX_QUICK=1 to run stage 1 only. Build trees: build/, build-asan/,
# build-tsan/, build-fuzz/ (reused between runs).
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

stage "static analysis"
scripts/lint.sh build

if [ "${NOX_QUICK:-0}" = 1 ]; then exit 0; fi

stage "address+undefined sanitizer build"
build build-asan -DCMAKE_BUILD_TYPE=Debug "-DNOX_SANITIZE=address;undefined" -DNOX_BUILD_BENCH=OFF
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j "$JOBS" --timeout 900)

stage "thread sanitizer build (concurrency tests, and the transport end to end)"
cmake -S . -B build-tsan -DNOX_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DNOX_SANITIZE=thread \
  -DNOX_BUILD_BENCH=OFF >/dev/null
mapfile -t tsan_targets < <(find tests -name '*concurrency*_test.cc' -printf '%f\n' | sed 's/\.cc$//' | sort)
[ ${#tsan_targets[@]} -gt 0 ] || { echo "no concurrency tests found"; exit 1; }
# The HTTP server's threads (I/O threads, workers) are exercised end to end:
# the gateway runs under the thread sanitizer for the transport tests.
tsan_targets+=(nox-gateway ucore_nox transport_e2e_test)
cmake --build build-tsan -j "$JOBS" --target "${tsan_targets[@]}"
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest -j "$JOBS" -L concurrency --no-tests=error --timeout 900 &&
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest -j "$JOBS" -R '^TransportE2E[.]' --fixture-exclude-any '.*' --no-tests=error --timeout 900)

stage "fuzz smoke runs"
scripts/fuzz.sh "${NOX_FUZZ_SECONDS:-10}"

echo
echo "all stages passed"
