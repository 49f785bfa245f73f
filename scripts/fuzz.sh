#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under the address and undefined
# behaviour sanitizers and runs them one after the other.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS: how long each target runs (default 60). TARGET: names of fuzz/*_fuzz.cc
# programs without the suffix .cc (default: all of them). Each target starts from
# its seeds in fuzz/corpus/<target>/ and keeps what it learns in
# build-fuzz/corpus/<target>/ (the seeds in the repository are not touched).
# A crash, leak, sanitizer report, violated property or an input that runs
# longer than FUZZ_TIMEOUT seconds (default 10) stops the script with a
# non-zero status; the input that caused it is left in build-fuzz/artifacts/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_PER_TARGET=${1:-60}
shift || true

BUILD=$(pwd)/build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DNOX_FUZZ=ON "-DNOX_SANITIZE=address;undefined" \
  -DNOX_BUILD_TESTS=OFF -DNOX_BUILD_BENCH=OFF -DNOX_BUILD_GATEWAY=ON >/dev/null

if [ "$#" -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for src in fuzz/*_fuzz.cc; do targets+=("$(basename "$src" .cc)"); done
fi

cmake --build "$BUILD" -j "${JOBS:-2}" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

for t in "${targets[@]}"; do
  bin="$BUILD/bin/$t"
  if [ ! -x "$bin" ]; then
    echo "no fuzz target $t (expected $bin)" >&2
    exit 2
  fi
  mkdir -p "$BUILD/corpus/$t" "$BUILD/artifacts/$t" "fuzz/corpus/$t"
  echo "=== $t: ${SECONDS_PER_TARGET}s ==="
  # The first corpus directory receives new inputs; the seeds are only read.
  "$bin" -max_total_time="$SECONDS_PER_TARGET" -timeout="${FUZZ_TIMEOUT:-10}" -print_final_stats=1 \
    -artifact_prefix="$BUILD/artifacts/$t/" "$BUILD/corpus/$t" "$(pwd)/fuzz/corpus/$t"
done
echo "all fuzz targets ran clean"
