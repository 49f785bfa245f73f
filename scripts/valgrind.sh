#!/usr/bin/env bash
# Runs the unit, ABI and concurrency test programs of a regular build under
# valgrind's memory checker; any error or definite leak fails the run.
#   scripts/valgrind.sh [BUILD_DIR]      (default build/, built beforehand)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
command -v valgrind >/dev/null || { echo "valgrind missing (apt-get install valgrind)"; exit 1; }
cd "$BUILD/bin"
status=0
for src in ../../tests/ucore/*_test.cc ../../tests/host/*_test.cc ../../tests/gateway/*_test.cc \
           ../../tests/abi/*_test.cc; do
  name=$(basename "$src" .cc)
  [ -x "./$name" ] || continue
  if valgrind -q --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite \
      "./$name" --gtest_brief=1 >"/tmp/valgrind-$name.log" 2>&1; then
    echo "ok    $name"
  else
    echo "FAIL  $name (log: /tmp/valgrind-$name.log)"
    status=1
  fi
done
exit $status
