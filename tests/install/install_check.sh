#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and uses it as a host
# integrator and an operator would:
#   - the layout (libraries, executables, catalogues, headers, CMake package,
#     pkg-config file);
#   - a consumer project configured with find_package(ucore_nox CONFIG) and
#     built against the installed tree only, which loads the plug-in;
#   - pkg-config's flags compile a translation unit of the contract, and its
#     file names the licence;
#   - the installed nox-gateway starts from the prefix, finds its plug-in and
#     catalogues, answers /healthz and renders a task in Chinese.
# usage: install_check.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
BUILD=$1 SRC=$2
WORK=$(mktemp -d /tmp/nox-install-XXXXXX)
GW=""
trap '[ -n "$GW" ] && kill "$GW" 2>/dev/null; rm -rf "$WORK"' EXIT
P="$WORK/prefix"

cmake --install "$BUILD" --prefix "$P" >"$WORK/install.log"
for f in lib/libucore_nox.so lib/libucore_tlv.so bin/nox-gateway bin/nox-backend bin/nox-catalog \
         share/ucore_nox/conf/enum_en.xml share/ucore_nox/conf/enum_zh.xml \
         share/ucore_nox/conf/task_extra_info_en.xml share/ucore_nox/conf/task_extra_info_zh.xml \
         include/ucore_nox/operation_base.h include/ucore_nox/login_op.h \
         lib/cmake/ucore_nox/ucore_noxConfig.cmake lib/cmake/ucore_nox/ucore_noxConfigVersion.cmake \
         lib/pkgconfig/ucore_nox.pc; do
  [ -e "$P/$f" ] || { echo "install: $f is missing"; exit 1; }
done
if ls "$P/include/ucore_nox" | grep -vq '\.h$\|README'; then echo "install: stray files in include"; exit 1; fi
echo "install: layout ok"

cmake -S "$SRC/tests/install/consumer" -B "$WORK/consumer" -DCMAKE_PREFIX_PATH="$P" \
  >"$WORK/consumer.log" 2>&1 || { cat "$WORK/consumer.log"; exit 1; }
cmake --build "$WORK/consumer" >>"$WORK/consumer.log" 2>&1 || { cat "$WORK/consumer.log"; exit 1; }
# From the catalogues' folder, as the plug-in reads "../conf/".
routes=$(cd "$P/share/ucore_nox/conf" && "$WORK/consumer/consumer")
[ "$routes" = "11 routes" ] || { echo "consumer: $routes"; exit 1; }
echo "install: find_package consumer ok ($routes)"

printf '#include "request_msg.h"\nint main() { CRequestMsg r; return r.getResIDs().size(); }\n' >"$WORK/pc.cc"
# shellcheck disable=SC2046
c++ -std=c++17 "$WORK/pc.cc" -o "$WORK/pc" $(PKG_CONFIG_PATH="$P/lib/pkgconfig" pkg-config --cflags --libs ucore_nox) \
  -Wl,-rpath,"$P/lib"
"$WORK/pc"
grep -qx 'License: Apache-2.0' "$P/lib/pkgconfig/ucore_nox.pc" || { echo "install: the pkg-config file names no licence"; exit 1; }
echo "install: pkg-config ok"

# The installed gateway, run from somewhere else entirely.
cd "$WORK"
"$P/bin/nox-gateway" --listen 127.0.0.1:0 --data "$WORK/data" --init-password Install-1 \
  --log "$WORK/trace.log" --access-log "$WORK/access.log" >"$WORK/gw.out" 2>&1 &
GW=$!
for _ in $(seq 1 300); do grep -q '^listening on ' "$WORK/gw.out" && break; sleep 0.1; done
ADDR=$(sed -n 's/^listening on //p' "$WORK/gw.out")
[ -n "$ADDR" ] || { cat "$WORK/gw.out"; exit 1; }
curl -sf "http://$ADDR/healthz" >/dev/null
TOKEN=$(curl -s -D - -o /dev/null -H 'Content-Type: application/json' \
  -d '{"username":"apiuser","password":"Install-1","scope":"4"}' "http://$ADDR/sessions" |
  tr -d '\r' | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p')
[ -n "$TOKEN" ] || { echo "install: login failed"; exit 1; }
detail=$(curl -s -H "X-Auth-Token: $TOKEN" "http://$ADDR/kestrel_task/1003?LANGUAGE=zh")
# A rendered Chinese detail has dates in the Chinese format: the catalogues were found.
echo "$detail" | grep -qE '20[0-9]{2}-[0-9]{2}-[0-9]{2} ' ||
  { echo "install: the task detail was not rendered: $detail"; grep -i 'xml' "$WORK/trace.log" | head; exit 1; }
if grep -q 'failed' "$WORK/trace.log" && grep -q 'Open xml config file' "$WORK/trace.log"; then
  echo "install: the gateway did not find its catalogues"; exit 1
fi
echo "install: the installed gateway serves with its catalogues"
echo "install: all checks passed"
