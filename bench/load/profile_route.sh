#!/usr/bin/env bash
# A flame graph of one route under load: starts BIN_DIR/nox-gateway (the
# in-process backend and its demo data), drives the route with wrk at 64
# connections and samples the gateway with perf for ten seconds.
#
#   bench/load/profile_route.sh BIN_DIR detail|list|healthz OUT_PREFIX
#
# Writes OUT_PREFIX.folded (folded stacks) and OUT_PREFIX.svg, and prints
# wrk's RESULT line. Needs perf (linux-perf), wrk and curl; run as root or
# with kernel.perf_event_paranoid <= 1. Stacks are unwound from DWARF
# information, so a Release build (no frame pointers) profiles as it is.
set -euo pipefail
BIN=$1 KIND=$2 OUT=$3
HERE=$(cd "$(dirname "$0")" && pwd)
TOOLS="$HERE/../../tools/perf"
WORK=$(mktemp -d /tmp/nox-profile-XXXXXX)
PASSWORD=profile-$(date +%s)
GW=""
trap '[ -n "$GW" ] && kill "$GW" 2>/dev/null; rm -rf "$WORK"' EXIT
"$BIN/nox-gateway" --listen 127.0.0.1:0 --data "$WORK/data" --init-password "$PASSWORD" \
  --log "$WORK/trace.log" --log-level warn --access-log "$WORK/access.log" >"$WORK/out" 2>&1 &
GW=$!
for _ in $(seq 100); do grep -q '^listening on ' "$WORK/out" && break; sleep 0.1; done
ADDR=$(sed -n 's/^listening on //p' "$WORK/out" | head -1)
TOKEN=$(curl -s -D - -o /dev/null -H 'Content-Type: application/json' \
  -d "{\"username\":\"apiuser\",\"password\":\"$PASSWORD\",\"scope\":\"4\",\"language\":\"en\"}" \
  "http://$ADDR/sessions" | tr -d '\r' | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p')
TASK=$(curl -s -H "X-Auth-Token: $TOKEN" "http://$ADDR/kestrel_task?limit=1" |
  python3 -c 'import json,sys; d=json.load(sys.stdin)["data"]; print((d[0] if isinstance(d,list) else d)["taskId"])')
case $KIND in
  detail) TARGET="/kestrel_task/$TASK?LANGUAGE=zh" ;;
  list) TARGET="/kestrel_task?limit=10" ;;
  *) TARGET=/healthz ;;
esac
NOX_TOKEN=$TOKEN NOX_MIX=$TARGET wrk -t2 -c64 -d14s -s "$HERE/mix.lua" "http://$ADDR" >"$WORK/wrk.out" &
WRK=$!
sleep 2
perf record -F 499 --call-graph dwarf,16384 -p "$GW" -o "$WORK/perf.data" -- sleep 10 >/dev/null 2>&1
wait "$WRK"
grep RESULT "$WORK/wrk.out"
perf script -i "$WORK/perf.data" 2>/dev/null | python3 "$TOOLS/perf_folded.py" >"$OUT.folded"
python3 "$TOOLS/flamegraph.py" "$OUT.folded" "$OUT.svg" --title "nox-gateway, $KIND route, $TARGET"
