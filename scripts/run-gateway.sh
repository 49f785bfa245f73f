#!/usr/bin/env bash
# The main job: installs the dependencies, builds the plug-in, the reference
# host, the simulated backend and nox-gateway (Release, without tests and
# benchmarks, in build-run/), and runs the gateway on 127.0.0.1:${NOX_PORT:-8080}
# with the demo data in ./data. Ctrl-C stops it.
#
#   NOX_PORT=9090 scripts/run-gateway.sh          # another port
#   NOX_INIT_PASSWORD=secret scripts/run-gateway.sh   # the demo password, on first start
#
# The demo users' password is generated at the first start (when ./data is
# made) and printed once; remove ./data to start afresh with a new one.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
PORT=${NOX_PORT:-8080}
DATA="$ROOT/data"
BUILD="$ROOT/build-run"

scripts/install-deps.sh
echo "run-gateway: building in $BUILD (Release) ..."
mkdir -p "$BUILD"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DNOX_BUILD_TESTS=OFF -DNOX_BUILD_BENCH=OFF \
  >"$BUILD/cmake.log" 2>&1 || { cat "$BUILD/cmake.log"; exit 1; }
cmake --build "$BUILD" -j "${JOBS:-2}" >"$BUILD/build.log" 2>&1 ||
  { tail -50 "$BUILD/build.log"; echo "run-gateway: build failed, see $BUILD/build.log"; exit 1; }

# The backend's tasks run: a simulation step every NOX_SIMULATE seconds.
args=(--listen "127.0.0.1:$PORT" --data "$DATA" --log "$BUILD/gateway-trace.log"
      --simulate "${NOX_SIMULATE:-2}")
if [ -n "${NOX_INIT_PASSWORD:-}" ]; then args+=(--init-password "$NOX_INIT_PASSWORD"); fi
OUT="$BUILD/gateway.out"
: >"$OUT"
"$BUILD/bin/nox-gateway" "${args[@]}" >"$OUT" &
PID=$!
trap 'kill -TERM "$PID" 2>/dev/null || true' INT TERM

for _ in $(seq 1 300); do
  grep -q '^listening on ' "$OUT" && break
  if ! kill -0 "$PID" 2>/dev/null; then
    cat "$OUT"
    echo "run-gateway: nox-gateway did not start (is port $PORT taken? try NOX_PORT=...)" >&2
    wait "$PID" || exit $?
    exit 1
  fi
  sleep 0.1
done
grep -q '^listening on ' "$OUT" || { echo "run-gateway: no 'listening on' line" >&2; kill "$PID"; exit 1; }

BASE="http://127.0.0.1:$PORT"
PASSWORD=$(sed -n 's/^demo users .*; password: //p' "$OUT")
echo
echo "nox-gateway is listening on $BASE (pid $PID); Ctrl-C stops it."
echo "  data folder: $DATA    logs: $BUILD/gateway-trace.log (trace), this terminal (access)"
echo
echo "Demo users: admin (scope \"0\") and auditor (scope \"1\") log in on /login with a"
echo "verification code; apiuser (scope \"4\") logs in on /sessions."
if [ -n "$PASSWORD" ]; then
  echo "Their password, made at this first start and printed only now: $PASSWORD"
else
  PASSWORD='<the password printed at first start>'
  echo "Their password was printed when ./data was made (first start). To start afresh with a"
  echo "new one: stop the gateway, remove ./data ($DATA), and run this command again."
fi
echo
echo "Try (log in, list tasks, count alarms):"
echo
cat <<EOC
TOKEN=\$(curl -s -o /dev/null -D - -X POST $BASE/sessions -H 'Content-Type: application/json' -d '{"username": "apiuser", "password": "$PASSWORD", "scope": "4"}' | tr -d '\r' | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p'); echo "token: \$TOKEN"
curl -s "$BASE/kestrel_task?start=0&limit=5" -H "X-Auth-Token: \$TOKEN"; echo
curl -s "$BASE/alarm/historyalarm/count" -H "X-Auth-Token: \$TOKEN"; echo
EOC
echo
echo "API: $BASE/openapi.json and docs/openapi.json; operations: docs/operations.md"
echo

status=0
while kill -0 "$PID" 2>/dev/null; do
  if wait "$PID"; then status=0; else status=$?; fi
done
trap - INT TERM
exit "$status"
