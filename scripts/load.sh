#!/usr/bin/env bash
# Load test of the reference gateway, with ratios against nginx on the same
# machine. Not part of the test command (it takes a few minutes):
#
#   scripts/load.sh            # 64 connections for 60 s per scenario
#   scripts/load.sh --soak     # adds a 30-minute soak of the mix, memory per minute
#                              # (NOX_SOAK_MINUTES changes its length)
#   scripts/load.sh --cluster  # the mix through nginx with one and with two gateways
#                              # sharing Redis and nox-backend, and the cost of a
#                              # session lookup in Redis against one in memory
#   scripts/load.sh --cluster --hosts  # the same as hosts (run-cluster.sh --hosts, as
#                              # root): the mix with two and one gateway, logins with
#                              # and without WAIT for a replica, the failover window
#   scripts/load.sh --login-storm  # 200 concurrent good logins beside another
#                              # session's task counts: their p99 (target < 100 ms)
#   scripts/load.sh --ratios [OTHER_BIN_DIR]  # the request path's targets: task
#                              # detail and list of 10 against /healthz, /healthz
#                              # against nginx (both logging to files), the mix's
#                              # p99, in process and with nox-backend over TCP;
#                              # with OTHER_BIN_DIR (an older build's bin/) the two
#                              # take turns, medians of NOX_RATIO_ROUNDS (3) rounds
#                              # of NOX_LOAD_SECONDS (10) per route
#   scripts/load.sh --events   # 1000 GET /events streams on one gateway whose tasks
#                              # run (--simulate 1): the memory they cost (target
#                              # < 50 MiB), how late an event reaches them (p99
#                              # < 1.5 s) and the mix's p99 beside them (< 10 % more);
#                              # NOX_EVENT_ROUNDS (5) rounds of the mix alone, then
#                              # beside the streams, NOX_EVENT_SECONDS (10) each
#
# Scenarios: the mixed workload (task detail in English and Chinese, task
# list, alarm count, storage configuration, certificate upload), the task
# detail alone, the empty route /healthz, one connection on /healthz (no
# answer may wait for a delayed acknowledgement), /healthz with a thousand
# connections, /healthz while ten thousand idle connections are held open
# (and the gateway's memory with them), and nginx serving a static file of
# the /healthz answer's size. Prints requests per second, latency
# percentiles, errors, time-outs and the gateway's peak memory, then the
# ratios and targets. Everything runs on 127.0.0.1 and stops by itself.
# NOX_GATEWAY_BIN runs another nox-gateway (an older one, for comparison)
# instead of the one built here.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
DURATION=${NOX_LOAD_SECONDS:-60}
CONNECTIONS=${NOX_LOAD_CONNECTIONS:-64}
SOAK=0
CLUSTER=0
STORM=0
[ "${1:-}" = "--soak" ] && SOAK=1
[ "${1:-}" = "--cluster" ] && CLUSTER=1
HOSTS=0
[ "$CLUSTER" = 1 ] && [ "${2:-}" = "--hosts" ] && HOSTS=1
[ "${1:-}" = "--login-storm" ] && STORM=1
RATIOS=0
[ "${1:-}" = "--ratios" ] && RATIOS=1
EVENTS=0
[ "${1:-}" = "--events" ] && EVENTS=1

need() { command -v "$1" >/dev/null || { echo "load: installing $2"; sudo_cmd apt-get install -y -qq "$2" >/dev/null; }; }
sudo_cmd() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }
need wrk wrk
[ -x /usr/sbin/nginx ] || need nginx nginx-light
[ -x /usr/bin/redis-server ] || need redis-server redis-server
need curl curl
need openssl openssl

BUILD=${NOX_BUILD:-build-run}
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DNOX_BUILD_TESTS=OFF -DNOX_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j "$(nproc)" >/dev/null

if [ "$RATIOS" = 1 ]; then
  exec python3 bench/load/ratios.py "$BUILD/bin" ${2:+"$2"} --rounds "${NOX_RATIO_ROUNDS:-3}" \
    --seconds "${NOX_LOAD_SECONDS:-10}" --connections "$CONNECTIONS"
fi

WORK=$(mktemp -d /tmp/nox-load-XXXXXX)
GW_PID=""; NGINX_PID=""; IDLE_PID=""
export CLUSTER_DIR="$WORK/cluster" CLUSTER_BIN="$BUILD/bin"
# shellcheck source=scripts/cluster-lib.sh
. scripts/cluster-lib.sh
cleanup() {
  [ -n "$GW_PID" ] && kill "$GW_PID" 2>/dev/null && wait "$GW_PID" 2>/dev/null || true
  [ -n "$NGINX_PID" ] && kill "$NGINX_PID" 2>/dev/null || true
  [ -n "$IDLE_PID" ] && kill "$IDLE_PID" 2>/dev/null || true
  cluster_stop
  rm -rf "$WORK"
}
trap cleanup EXIT

# A CA certificate to upload (the backend checks it for real).
openssl req -x509 -newkey rsa:2048 -sha256 -days 30 -nodes -subj "/CN=load test CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
  -keyout "$WORK/ca.key" -out "$WORK/ca.pem" 2>/dev/null

run_wrk() {  # run_wrk LABEL URL MIX CONNECTIONS SECONDS
  NOX_TOKEN=$TOKEN NOX_TASK=$TASK NOX_CERT=$WORK/ca.pem NOX_MIX=$3 \
    wrk -t"$(( $4 < 2 ? $4 : 2 ))" -c"$4" -d"$5"s -s bench/load/mix.lua "$2" | sed -n "s/^RESULT /$1 /p"
}
field() { sed -n "s/.*$2=\([0-9.]*\).*/\1/p" <<<"$1"; }

# The session token and a task of the gateway (or balancer) at $1.
login_at() {
  TOKEN=$(curl -s -D - -o /dev/null -H 'Content-Type: application/json' \
    -d "{\"username\":\"apiuser\",\"password\":\"$PASSWORD\",\"scope\":\"4\",\"language\":\"en\"}" \
    "$1/sessions" | tr -d '\r' | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p')
  [ -n "$TOKEN" ] || { echo "load: login failed"; exit 1; }
  TASK=$(curl -s -H "X-Auth-Token: $TOKEN" "$1/kestrel_task?limit=1" |
    python3 -c 'import json,sys; d=json.load(sys.stdin)["data"]; print((d[0] if isinstance(d,list) else d)["taskId"])')
}

PASSWORD=load-$(date +%s)

if [ "$HOSTS" = 1 ]; then
  python3 bench/load/cluster_hosts_load.py "$ROOT" "$(cd "$BUILD" && pwd)/bin" "$WORK/ca.pem" \
    "$DURATION" "$CONNECTIONS"
  exit $?
fi

if [ "$CLUSTER" = 1 ]; then
  # One Redis, one nox-backend, two gateways; nginx first in front of one
  # gateway, then in front of both, the same mix through it each time.
  cmake -S . -B "$BUILD" -DNOX_BUILD_BENCH=ON >/dev/null
  cmake --build "$BUILD" -j "$(nproc)" --target session_lookup_bench >/dev/null
  cluster_redis 18391 && cluster_backend 18390 "$PASSWORD" || { echo "load: cluster start failed"; exit 1; }
  SHARED=(--state redis://127.0.0.1:18391 --backend tcp://127.0.0.1:18390 --log-level warn)
  cluster_gateway a 18381 "${SHARED[@]}" && cluster_gateway b 18382 "${SHARED[@]}" ||
    { echo "load: gateways did not start"; exit 1; }
  declare -A RESULT
  for n in 1 2; do
    ports=(18381); [ "$n" = 2 ] && ports+=(18382)
    cluster_nginx 18380 "${ports[@]}" || { echo "load: nginx did not start"; exit 1; }
    login_at http://127.0.0.1:18380
    RESULT[$n]=$(run_wrk "mix-$n-gateway" http://127.0.0.1:18380 mix "$CONNECTIONS" "$DURATION")
    echo "${RESULT[$n]}"
    # Only nginx goes: it is the last piece started.
    last=$((${#CLUSTER_PIDS[@]} - 1))
    kill "${CLUSTER_PIDS[$last]}"; wait "${CLUSTER_PIDS[$last]}" 2>/dev/null || true
    unset "CLUSTER_PIDS[$last]"
  done
  python3 - "${RESULT[1]}" "${RESULT[2]}" <<'PY'
import re, sys
def parse(line):
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", line)}
one, two = map(parse, sys.argv[1:])
print(f"two gateways / one gateway (mix rate)  {two['rps'] / one['rps']:.3f}")
print(f"errors: one gateway {one['errors']:.0f}, two gateways {two['errors']:.0f}")
PY
  echo "session lookup, in memory and in Redis (SessionStore::lookup, one at a time):"
  "$BUILD/bin/session_lookup_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    >"$WORK/lookup.out" 2>/dev/null
  grep '_median' "$WORK/lookup.out"
  grep '^memory:' "$WORK/lookup.out" | tail -1
  grep '^redis:' "$WORK/lookup.out" | tail -1
  exit 0
fi
GATEWAY=${NOX_GATEWAY_BIN:-$BUILD/bin/nox-gateway}
IDLE=${NOX_LOAD_IDLE:-10000}
# The idle connections send nothing: the header time-out must let them stay
# for the scenario, and the connection cap must leave room beside them.
LIMITS=()
if "$GATEWAY" --help | grep -q -- --header-timeout; then
  LIMITS=(--header-timeout 600 --max-connections $((IDLE + 4096)))
fi
STREAMS=${NOX_EVENT_CLIENTS:-1000}
# The tasks run, and one session may hold every stream.
[ "$EVENTS" = 1 ] && LIMITS+=(--simulate "${NOX_EVENT_SIMULATE:-1}" --events-per-session "$STREAMS")
"$GATEWAY" --listen 127.0.0.1:0 --data "$WORK/data" --init-password "$PASSWORD" \
  --log "$WORK/trace.log" --log-level warn --access-log /dev/null "${LIMITS[@]}" >"$WORK/gw.out" 2>&1 &
GW_PID=$!
for _ in $(seq 100); do grep -q '^listening on ' "$WORK/gw.out" && break; sleep 0.1; done
ADDR=$(sed -n 's/^listening on //p' "$WORK/gw.out" | head -1)
[ -n "$ADDR" ] || { echo "load: the gateway did not start"; cat "$WORK/gw.out"; exit 1; }
URL="http://$ADDR"

login_at "$URL"

if [ "$EVENTS" = 1 ]; then
  SECONDS_EACH=${NOX_EVENT_SECONDS:-10}
  ROUNDS=${NOX_EVENT_ROUNDS:-5}
  # The detail read is of a task that has ended: a running one grows by a
  # progress entry now and then, and its detail would cost more with each
  # phase, whether streams are open or not.
  TASK=$(curl -s -H "X-Auth-Token: $TOKEN" "$URL/kestrel_task?limit=50" | python3 -c '
import json, sys
rows = json.load(sys.stdin)["data"]
print(next(r["taskId"] for r in rows if r["status"] not in (1, 2)))')
  echo "detail of ended task $TASK; $ROUNDS rounds of ${SECONDS_EACH}s alone, then beside the streams; alone once more"
  rss_kb() { sed -n 's/^VmRSS:\s*\([0-9]*\).*/\1/p' "/proc/$GW_PID/status"; }
  : >"$WORK/rounds.txt"
  # The mix alone and beside the streams take turns, so that whatever drifts
  # on the machine (or in the simulation's data) weighs on both alike.
  for round in $(seq "$ROUNDS"); do
    ALONE=$(run_wrk mix-alone "$URL" mix "$CONNECTIONS" "$SECONDS_EACH"); echo "$ALONE"
    RSS_BEFORE_KB=$(rss_kb)
    # The thousand clients share the gateway's two cores here; at the lowest
    # priority they take what the gateway and wrk leave, as clients on other
    # machines would (their delivery times still count every delay).
    nice -n 19 python3 bench/load/event_clients.py "${ADDR%:*}" "${ADDR##*:}" "$TOKEN" "$STREAMS" \
      $((SECONDS_EACH + 5)) >"$WORK/events.out" &
    EV_PID=$!
    for _ in $(seq 600); do grep -q '^open ' "$WORK/events.out" && break; sleep 0.1; done
    sleep 2
    RSS_AFTER_KB=$(rss_kb)
    OPEN=$(curl -s --max-time 5 "$URL/metrics" | sed -n 's/^nox_event_streams_open //p')
    BESIDE=$(run_wrk mix-beside-streams "$URL" mix "$CONNECTIONS" "$SECONDS_EACH"); echo "$BESIDE"
    wait "$EV_PID"
    EV_LINE=$(grep '^RESULT' "$WORK/events.out" | sed 's/^RESULT /events /'); echo "$EV_LINE"
    echo "round $round $ALONE | $BESIDE | $EV_LINE | rss_before=$RSS_BEFORE_KB rss_after=$RSS_AFTER_KB open=$OPEN" \
      >>"$WORK/rounds.txt"
    # The streams are gone before the next phase alone.
    for _ in $(seq 100); do
      [ "$(curl -s --max-time 5 "$URL/metrics" | sed -n 's/^nox_event_streams_open //p')" = 0 ] && break
      sleep 0.1
    done
  done
  # Each phase beside the streams is set against the phases alone on either
  # side of it, so that a steady drift favours neither.
  LAST=$(run_wrk mix-alone "$URL" mix "$CONNECTIONS" "$SECONDS_EACH"); echo "$LAST"
  python3 - "$WORK/rounds.txt" "$LAST" <<'PY'
import re, statistics, sys
parse = lambda text: {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", text)}
rounds = []
for line in open(sys.argv[1]):
    alone, beside, events, rest = line.split(" | ")
    rounds.append([parse(alone), parse(beside), parse(events), parse(rest)])
after = [r[0] for r in rounds[1:]] + [parse(sys.argv[2])]
for r, later in zip(rounds, after):
    r[0] = {k: (r[0][k] + later[k]) / 2 for k in ("p99_ms", "rps")}
median = lambda values: statistics.median(values)
# Freed memory is seldom given back: the growth is from before the first
# streams to the most the gateway held with streams open.
mib = (max(r[3]["rss_after"] for r in rounds) - rounds[0][3]["rss_before"]) / 1024
opened = min(r[3]["open"] for r in rounds)
delivery = median([r[2]["p99_ms"] for r in rounds])
gaps = sum(r[2]["gaps"] for r in rounds)
closed = sum(r[2]["closed"] for r in rounds)
moved = [r[1]["p99_ms"] / r[0]["p99_ms"] - 1 for r in rounds]
rps = [r[1]["rps"] / r[0]["rps"] - 1 for r in rounds]
print(f"streams open {opened:.0f} (fewest in a round): resident +{mib:.1f} MiB  "
      f"target < 50 MiB  {'ok' if mib < 50 else 'MISSED'}")
print(f"event delivery p99 {delivery:.1f} ms (median of rounds), gaps {gaps:.0f}, closed {closed:.0f}"
      f"  target < 1500 ms  {'ok' if delivery < 1500 and gaps == 0 else 'MISSED'}")
print("mix p99 alone (mean of the phases around) / beside, per round: " +
      ", ".join(f"{r[0]['p99_ms']:.1f}/{r[1]['p99_ms']:.1f}" for r in rounds))
print(f"mix p99 beside the streams {median(moved) * 100:+.1f} % (median of rounds; each "
      + ", ".join(f"{m * 100:+.0f}" for m in moved) + f"), throughput {median(rps) * 100:+.1f} %"
      f"  target < +10 %  {'ok' if median(moved) < 0.10 else 'MISSED'}")
PY
  exit 0
fi

if [ "$STORM" = 1 ]; then
  # Logins keep their thread for a second after they succeed; on threads of
  # their own they must not hold up the other requests.
  STORM_LINE=$(python3 bench/load/login_storm.py "$URL" "$PASSWORD" "$TOKEN" "${NOX_STORM_LOGINS:-200}")
  echo "$STORM_LINE"
  python3 - "$STORM_LINE" <<'PY'
import re, sys
r = {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", sys.argv[1])}
ok = r["p99_ms"] < 100 and r["errors"] == 0
print(f"task count p99 during the storm {r['p99_ms']:8.1f} ms  target < 100 ms  {'ok' if ok else 'MISSED'}")
PY
  exit 0
fi

echo "gateway at $URL, task $TASK, $CONNECTIONS connections, ${DURATION}s per scenario"
MIX=$(run_wrk mix "$URL" mix "$CONNECTIONS" "$DURATION"); echo "$MIX"
DETAIL=$(run_wrk task-detail "$URL" "/kestrel_task/$TASK?LANGUAGE=zh" "$CONNECTIONS" "$DURATION"); echo "$DETAIL"
EMPTY=$(run_wrk healthz "$URL" /healthz "$CONNECTIONS" "$DURATION"); echo "$EMPTY"
ONE=$(run_wrk one-connection "$URL" /healthz 1 10); echo "$ONE"
SHORT=$(( DURATION < 20 ? DURATION : 20 ))
WIDE=$(run_wrk healthz-1000-connections "$URL" /healthz 1000 "$SHORT"); echo "$WIDE"
PEAK_KB=$(sed -n 's/^VmHWM:\s*\([0-9]*\).*/\1/p' "/proc/$GW_PID/status")

# Ten thousand idle connections held open, then /healthz beside them.
mkfifo "$WORK/idle.hold"
python3 bench/load/idle_connections.py "${ADDR%:*}" "${ADDR##*:}" "$IDLE" <"$WORK/idle.hold" >"$WORK/idle.out" &
IDLE_PID=$!
exec 9>"$WORK/idle.hold"
for _ in $(seq 600); do grep -q '^open ' "$WORK/idle.out" && break; sleep 0.1; done
echo "idle connections: $(cat "$WORK/idle.out")"
sleep 1
IDLE_RSS_KB=$(sed -n 's/^VmRSS:\s*\([0-9]*\).*/\1/p' "/proc/$GW_PID/status")
BESIDE=$(run_wrk healthz-beside-idle "$URL" /healthz "$CONNECTIONS" "$SHORT"); echo "$BESIDE"
HELD=$(curl -s --max-time 5 "$URL/metrics" | sed -n 's/^nox_open_connections //p')
echo "gateway with $IDLE idle connections: $((IDLE_RSS_KB / 1024)) MiB resident," \
  "${HELD:-?} connections open after the run"
exec 9>&-
wait "$IDLE_PID" 2>/dev/null || true

# nginx serving a file as large as the /healthz answer.
mkdir -p "$WORK/www" "$WORK/nginx"
curl -s "$URL/healthz" >"$WORK/www/healthz"
# nginx's workers run as another user: let them read the file.
chmod 755 "$WORK" "$WORK/www" && chmod 644 "$WORK/www/healthz"
cat >"$WORK/nginx/nginx.conf" <<CONF
worker_processes 2;
pid $WORK/nginx/nginx.pid;
error_log $WORK/nginx/error.log;
events { worker_connections 1024; }
http {
  access_log off;
  client_body_temp_path $WORK/nginx; proxy_temp_path $WORK/nginx;
  fastcgi_temp_path $WORK/nginx; uwsgi_temp_path $WORK/nginx; scgi_temp_path $WORK/nginx;
  server { listen 127.0.0.1:18089; root $WORK/www; }
}
CONF
/usr/sbin/nginx -c "$WORK/nginx/nginx.conf" -g 'daemon off;' &
NGINX_PID=$!
sleep 0.5
curl -sf -o /dev/null "http://127.0.0.1:18089/healthz" || { echo "load: nginx does not serve the file"; exit 1; }
NGINX=$(run_wrk nginx "http://127.0.0.1:18089" /healthz "$CONNECTIONS" "$DURATION"); echo "$NGINX"
kill "$NGINX_PID"; wait "$NGINX_PID" 2>/dev/null || true; NGINX_PID=""

echo "gateway peak memory (before the idle connections): $((PEAK_KB / 1024)) MiB"
python3 - "$MIX" "$DETAIL" "$EMPTY" "$ONE" "$NGINX" "$WIDE" "$BESIDE" "$IDLE_RSS_KB" <<'PY'
import re, sys
def parse(line):
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", line)}
mix, detail, empty, one, nginx, wide, beside = map(parse, sys.argv[1:8])
idle_mib = int(sys.argv[8]) / 1024
checks = [
    ("empty route / nginx", empty["rps"] / nginx["rps"], ">= 0.8", empty["rps"] / nginx["rps"] >= 0.8),
    ("task detail / empty route", detail["rps"] / empty["rps"], ">= 0.8", detail["rps"] / empty["rps"] >= 0.8),
    ("mix errors", mix["errors"], "== 0", mix["errors"] == 0),
    ("mix p99 ms", mix["p99_ms"], "< 20", mix["p99_ms"] < 20),
    ("one connection max ms", one["max_ms"], "< 40", one["max_ms"] < 40),
    ("1000 connections time-outs", wide["timeouts"], "== 0", wide["timeouts"] == 0),
    ("1000 connections errors", wide["errors"], "== 0", wide["errors"] == 0),
    ("beside idle p99 ms", beside["p99_ms"], "< 10", beside["p99_ms"] < 10),
    ("memory with idle MiB", idle_mib, "< 100", idle_mib < 100),
]
for name, value, target, ok in checks:
    print(f"{name:28s} {value:10.3f}  target {target:6s} {'ok' if ok else 'MISSED'}")
PY

if [ "$SOAK" = 1 ]; then
  SOAK_MINUTES=${NOX_SOAK_MINUTES:-30}
  echo "soak: $SOAK_MINUTES minutes of the mix at $CONNECTIONS connections; resident memory, open files and threads per minute"
  NOX_TOKEN=$TOKEN NOX_TASK=$TASK NOX_CERT=$WORK/ca.pem NOX_MIX=mix \
    wrk -t2 -c"$CONNECTIONS" -d$((SOAK_MINUTES * 60))s -s bench/load/mix.lua "$URL" >"$WORK/soak.out" &
  WRK=$!
  : >"$WORK/soak.rss"
  for m in $(seq 1 "$SOAK_MINUTES"); do
    sleep 60
    rss=$(sed -n 's/^VmRSS:\s*\([0-9]*\).*/\1/p' "/proc/$GW_PID/status")
    fds=$(ls "/proc/$GW_PID/fd" | wc -l)
    threads=$(sed -n 's/^Threads:\s*//p' "/proc/$GW_PID/status")
    echo "$rss" >>"$WORK/soak.rss"
    echo "minute $m: $rss kB resident, $fds open files, $threads threads"
  done
  wait "$WRK" || true
  sed -n 's/^RESULT /soak /p' "$WORK/soak.out"
  python3 - "$WORK/soak.rss" <<'PY'
import sys
rss = [int(line) for line in open(sys.argv[1]) if line.strip()]
growth = (rss[-1] - rss[0]) / rss[0] * 100
ok = growth < 5
print(f"soak memory: minute 1 {rss[0]} kB, minute {len(rss)} {rss[-1]} kB, growth {growth:.2f} %  target < 5 %  {'ok' if ok else 'MISSED'}")
PY
fi
