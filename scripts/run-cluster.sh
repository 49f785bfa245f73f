#!/usr/bin/env bash
# Several gateways sharing one backend and their sessions, on this machine:
# redis-server (the shared sessions, codes and login counts), nox-backend
# (one store for all), two nox-gateway instances and nginx as the balancer
# (round robin, no sticky sessions), all on 127.0.0.1. Ctrl-C stops them all.
#
#   scripts/run-cluster.sh                     # the balancer on 127.0.0.1:8080
#   NOX_PORT=9090 scripts/run-cluster.sh       # another port (the others follow it)
#   NOX_INIT_PASSWORD=secret scripts/run-cluster.sh   # the demo password, on first start
#   sudo scripts/run-cluster.sh --hosts        # each piece a host of its own (below)
#
# --hosts: each piece in a network namespace of its own, with its own
# address on a bridge (10.213.N.0/24, N = CLUSTER_NET_ID, default the pid
# modulo 250; this machine is .1): nginx .2, gateways a .3 and b .4,
# nox-backend .5, the Redis primary .6 and its replica .7, three sentinels
# .8 to .10, which fail over within a few seconds. The gateways find the
# primary through the sentinels (--state redis-sentinel://...). Needs root,
# iproute2 and redis-sentinel on Debian 12; says what it lacks. The
# namespaces, links and processes are removed on exit, however it ends.
# Data in ./cluster-data-hosts (NOX_CLUSTER_DIR), the addresses in its
# hosts.env. NOX_CLUSTER_BIN=DIR runs the programs in DIR instead of
# building build-run/ (the fault tests use build/bin).
#
# Ports: the balancer NOX_PORT, gateways NOX_PORT+1 and NOX_PORT+2, the
# backend NOX_PORT+10, Redis NOX_PORT+20. Data in ./cluster-data (remove it
# to start afresh). docs/operations.md ("Several gateways") says how the same
# layout runs on separate machines.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
PORT=${NOX_PORT:-8080}
BUILD="$ROOT/build-run"
HOSTS=0
[ "${1:-}" = --hosts ] && HOSTS=1
export CLUSTER_DIR="$ROOT/cluster-data" CLUSTER_BIN="${NOX_CLUSTER_BIN:-$BUILD/bin}"
# shellcheck source=scripts/cluster-lib.sh
. scripts/cluster-lib.sh

if [ $HOSTS = 1 ]; then
  lacks=$(cluster_hosts_lacks)
  if [ -n "$lacks" ]; then
    echo "run-cluster: --hosts needs what this machine lacks:" >&2
    echo "$lacks" | sed 's/^/  - /' >&2
    exit 2
  fi
fi
if [ -z "${NOX_CLUSTER_BIN:-}" ]; then
  scripts/install-deps.sh
  echo "run-cluster: building in $BUILD (Release) ..."
  mkdir -p "$BUILD"
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DNOX_BUILD_TESTS=OFF -DNOX_BUILD_BENCH=OFF \
    >"$BUILD/cmake.log" 2>&1 || { cat "$BUILD/cmake.log"; exit 1; }
  cmake --build "$BUILD" -j "${JOBS:-2}" >"$BUILD/build.log" 2>&1 ||
    { tail -50 "$BUILD/build.log"; echo "run-cluster: build failed, see $BUILD/build.log"; exit 1; }
fi

if [ $HOSTS = 1 ]; then
  # shellcheck source=scripts/cluster-hosts.sh
  . scripts/cluster-hosts.sh
  exit 0
fi

trap cluster_stop EXIT
trap 'exit 130' INT TERM
mkdir -p "$CLUSTER_DIR"
REDIS=$((PORT + 20)) BACKEND=$((PORT + 10)) A=$((PORT + 1)) B=$((PORT + 2))
cluster_log "redis-server on 127.0.0.1:$REDIS"
cluster_redis "$REDIS" || { echo "run-cluster: redis-server did not start (port $REDIS taken?)"; exit 1; }
cluster_log "nox-backend on 127.0.0.1:$BACKEND"
# The backend's tasks run: a simulation step every NOX_SIMULATE seconds.
cluster_backend "$BACKEND" "${NOX_INIT_PASSWORD:-}" --simulate "${NOX_SIMULATE:-2}" ||
  { echo "run-cluster: nox-backend did not start (port $BACKEND taken?)"; exit 1; }
# nginx (127.0.0.1) names each client in X-Forwarded-For; the gateways
# believe it, so that the login throttle counts per client, not per balancer.
SHARED=(--state "redis://127.0.0.1:$REDIS" --backend "tcp://127.0.0.1:$BACKEND"
        --trusted-proxies 127.0.0.1/32)
for g in "a $A" "b $B"; do
  set -- $g
  cluster_log "nox-gateway $1 on 127.0.0.1:$2"
  cluster_gateway "$1" "$2" "${SHARED[@]}" ||
    { echo "run-cluster: gateway $1 did not start (port $2 taken?)"; exit 1; }
done
cluster_log "nginx on 127.0.0.1:$PORT, round robin over $A and $B"
cluster_nginx "$PORT" "$A" "$B" || { echo "run-cluster: nginx did not start (port $PORT taken?)"; exit 1; }

BASE="http://127.0.0.1:$PORT"
PASSWORD=$(sed -n 's/^demo users .*; password: //p' "$CLUSTER_DIR/backend/out.log")
echo
echo "The cluster answers on $BASE (nginx, round robin over two gateways); Ctrl-C stops it."
echo "  gateways: http://127.0.0.1:$A and http://127.0.0.1:$B (both: --state redis://127.0.0.1:$REDIS"
echo "            --backend tcp://127.0.0.1:$BACKEND); data and logs in $CLUSTER_DIR"
echo
echo "Demo users: admin (scope \"0\") and auditor (scope \"1\") log in on /login with a"
echo "verification code; apiuser (scope \"4\") logs in on /sessions."
if [ -n "$PASSWORD" ]; then
  echo "Their password, made at this first start and printed only now: $PASSWORD"
else
  PASSWORD='<the password printed at first start>'
  echo "Their password was printed when $CLUSTER_DIR was made (first start); remove it to start afresh."
fi
echo
echo "Try (log in, list tasks, count alarms; each request may go to either gateway):"
echo
cat <<EOC
TOKEN=\$(curl -s -o /dev/null -D - -X POST $BASE/sessions -H 'Content-Type: application/json' -d '{"username": "apiuser", "password": "$PASSWORD", "scope": "4"}' | tr -d '\r' | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p'); echo "token: \$TOKEN"
curl -s "$BASE/kestrel_task?start=0&limit=5" -H "X-Auth-Token: \$TOKEN"; echo
curl -s "$BASE/alarm/historyalarm/count" -H "X-Auth-Token: \$TOKEN"; echo
EOC
echo

# Until Ctrl-C, or until a piece of the cluster ends by itself.
while :; do
  for pid in "${CLUSTER_PIDS[@]}"; do
    if ! kill -0 "$pid" 2>/dev/null; then
      echo "run-cluster: a process of the cluster ended (pid $pid); stopping the rest"
      exit 1
    fi
  done
  sleep 1
done
