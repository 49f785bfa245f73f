#!/usr/bin/env bash
# Runs the README's two commands on a brand-new minimal Debian 12: a
# `debootstrap --variant=minbase bookworm` root with nothing else in it (no
# git, no compiler, no node), into which a copy of this source tree (no
# build trees, no version control) is put. Needs root (debootstrap, chroot,
# mounts) and Debian's package mirror.
#
#   sudo scripts/fresh-machine-check.sh            # both commands
#   sudo scripts/fresh-machine-check.sh run        # only the main job
#   sudo scripts/fresh-machine-check.sh test       # only the test command
#   sudo scripts/fresh-machine-check.sh deb [FILE.deb]   # the Debian package
#   FRESH_ROOT=/var/tmp/nox-fresh FRESH_KEEP=1 ... # where, and keep it afterwards
#
# The main job is started, its gateway must answer /healthz and a demo login
# within the time allowed, and it is stopped again. The test command runs
# whole (NOX_QUICK=1 for stage 1 only). `deb` builds the package in the root
# after the README's set-up (scripts/install-deps.sh, a Release build,
# cpack -G DEB), or takes FILE.deb built elsewhere, and then runs
# tests/install/deb_check.sh in a second, untouched root: apt-get installs
# it with its Depends, and the gateway runs as the unit would start it.
# Logs go to $FRESH_ROOT.log/; the last lines say what passed.
set -euo pipefail
cd "$(dirname "$0")/.."
SRC=$(pwd)
WHAT=${1:-all}
DEB_FILE=""
if [ "$WHAT" = deb ] && [ -n "${2:-}" ]; then
  DEB_FILE=$(realpath "$2")
  [ -f "$DEB_FILE" ] || { echo "fresh-machine-check: no $2" >&2; exit 2; }
fi
ROOT=${FRESH_ROOT:-/var/tmp/nox-fresh-root}
LOGS="$ROOT.log"
MIRROR=${FRESH_MIRROR:-http://deb.debian.org/debian}

[ "$(id -u)" -eq 0 ] || { echo "fresh-machine-check: run as root" >&2; exit 1; }
case "$WHAT" in all|run|test|deb) ;; *) echo "usage: $0 [all|run|test|deb [FILE.deb]]" >&2; exit 2 ;; esac

if ! command -v debootstrap >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends debootstrap
fi

unmount_root() {
  for m in dev/pts dev/shm dev proc sys tmp; do
    mountpoint -q "$ROOT/$m" && umount -l "$ROOT/$m" || true
  done
}
cleanup() {
  unmount_root
  if [ "${FRESH_KEEP:-0}" != 1 ]; then rm -rf "$ROOT"; fi
}
trap cleanup EXIT

rm -rf "$ROOT" "$LOGS"
mkdir -p "$LOGS"

# make_root: a new minimal bookworm in $ROOT, mounted and with its package
# lists, as a freshly installed machine.
make_root() {
  mkdir -p "$ROOT"
  echo "fresh-machine-check: debootstrap --variant=minbase bookworm $ROOT"
  debootstrap --variant=minbase bookworm "$ROOT" "$MIRROR" >"$LOGS/debootstrap.log" 2>&1 ||
    { tail -20 "$LOGS/debootstrap.log"; exit 1; }
  cp /etc/resolv.conf "$ROOT/etc/resolv.conf"
  # An installed system has /etc/hosts (the installer or the container runtime
  # writes it); a bare debootstrap root does not, and without it "localhost"
  # (which the browser test's driver is reached by) does not resolve.
  [ -s "$ROOT/etc/hosts" ] || printf '127.0.0.1\tlocalhost\n::1\t\tlocalhost ip6-localhost ip6-loopback\n' \
    >"$ROOT/etc/hosts"
  # Trust what this machine trusts beyond Debian's own list (a site's
  # TLS-inspecting proxy, for one): the root gets this machine's bundle for the
  # npm registry, as every machine of the site would be set up.
  cp /etc/ssl/certs/ca-certificates.crt "$ROOT/etc/nox-fresh-ca.crt"
  mount -t proc proc "$ROOT/proc"
  mount -t sysfs sys "$ROOT/sys"
  mount --bind /dev "$ROOT/dev"
  mount --bind /dev/pts "$ROOT/dev/pts"
  mount -t tmpfs tmpfs "$ROOT/dev/shm"
  mount -t tmpfs -o size=4g tmpfs "$ROOT/tmp"
  echo "fresh-machine-check: root has $(chroot "$ROOT" dpkg-query -W | wc -l) packages;" \
    "git: $(chroot "$ROOT" sh -c 'command -v git || echo none')"
  in_root apt-get update -qq >"$LOGS/apt-update.log" 2>&1
}

in_root() { chroot "$ROOT" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  LANG=C.UTF-8 TERM=dumb NODE_EXTRA_CA_CERTS=/etc/nox-fresh-ca.crt "$@"; }

# The source tree as a tarball would carry it.
copy_source() {
  mkdir -p "$ROOT/src/nox"
  tar -C "$SRC" --exclude=./.git --exclude='./build*' --exclude=./data \
    --exclude=./tools/api/node_modules -cf - . | tar -C "$ROOT/src/nox" -xf -
}

make_root
status=0

if [ "$WHAT" = deb ]; then
  if [ -z "$DEB_FILE" ]; then
    copy_source
    echo "fresh-machine-check: install-deps.sh, Release build, cpack -G DEB"
    if in_root bash -c 'cd /src/nox && scripts/install-deps.sh &&
        cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DNOX_BUILD_TESTS=OFF -DNOX_BUILD_BENCH=OFF &&
        cmake --build build -j "$(nproc)" &&
        cd build && cpack -G DEB' >"$LOGS/deb-build.log" 2>&1; then
      DEB_FILE=$(ls "$ROOT"/src/nox/build/nox-gateway_*_amd64.deb)
      cp "$DEB_FILE" "$LOGS/"
      DEB_FILE="$LOGS/$(basename "$DEB_FILE")"
      grep 'CPack: - package' "$LOGS/deb-build.log" | sed 's/^/  /'
      # Installing into the root it was built in would hide a missing
      # Depends: the build's packages are there. Start again from nothing.
      unmount_root
      rm -rf "$ROOT"
      make_root
    else
      tail -30 "$LOGS/deb-build.log"
      echo "fresh-machine-check: building the package FAILED (see $LOGS/deb-build.log)"
      exit 1
    fi
  fi
  echo "fresh-machine-check: deb_check.sh $(basename "$DEB_FILE") in a fresh root"
  mkdir -p "$ROOT/root/deb"
  cp "$DEB_FILE" "$SRC/tests/install/deb_check.sh" "$ROOT/root/deb/"
  if in_root bash /root/deb/deb_check.sh "/root/deb/$(basename "$DEB_FILE")" \
      >"$LOGS/deb-check.log" 2>&1; then
    sed 's/^/  /' "$LOGS/deb-check.log"
    echo "fresh-machine-check: deb PASSED"
  else
    tail -40 "$LOGS/deb-check.log"
    echo "fresh-machine-check: deb FAILED (see $LOGS/deb-check.log)"
    status=1
  fi
  exit $status
fi

copy_source
if [ "$WHAT" != test ]; then
  echo "fresh-machine-check: scripts/run-gateway.sh"
  in_root bash -c 'cd /src/nox && NOX_PORT=18080 NOX_INIT_PASSWORD=Fresh-Check-1 \
    scripts/run-gateway.sh' >"$LOGS/run-gateway.log" 2>&1 &
  runner=$!
  ok=0
  for _ in $(seq 1 2400); do
    # run-gateway.sh says "nox-gateway is listening on ..." once it serves.
    if grep -q 'is listening on ' "$LOGS/run-gateway.log" 2>/dev/null; then ok=1; break; fi
    kill -0 "$runner" 2>/dev/null || break
    sleep 1
  done
  if [ "$ok" = 1 ]; then
    health=$(in_root python3 -c 'import urllib.request; print(urllib.request.urlopen("http://127.0.0.1:18080/healthz").read().decode())' || true)
    login=$(in_root python3 -c 'import json, urllib.request
req = urllib.request.Request("http://127.0.0.1:18080/sessions", method="POST",
  data=json.dumps({"username": "apiuser", "password": "Fresh-Check-1", "scope": "4"}).encode(),
  headers={"Content-Type": "application/json"})
print(json.load(urllib.request.urlopen(req))["error"]["code"])' || true)
    echo "fresh-machine-check: /healthz: $health; login error code: $login"
    [ -n "$health" ] && [ "$login" = 0 ] || ok=0
  fi
  # The root has no procps: find the gateway among this machine's processes.
  for pid in $(ls /proc | grep -E '^[0-9]+$'); do
    if [ "$(readlink "/proc/$pid/root" 2>/dev/null)" = "$ROOT" ] &&
        grep -q 'nox-gateway' "/proc/$pid/cmdline" 2>/dev/null; then
      kill -TERM "$pid" 2>/dev/null || true
    fi
  done
  wait "$runner" || true
  if [ "$ok" = 1 ]; then
    echo "fresh-machine-check: run-gateway.sh PASSED"
  else
    tail -30 "$LOGS/run-gateway.log"
    echo "fresh-machine-check: run-gateway.sh FAILED (see $LOGS/run-gateway.log)"
    status=1
  fi
fi

if [ "$WHAT" != run ]; then
  echo "fresh-machine-check: scripts/test.sh"
  if in_root bash -c "cd /src/nox && NOX_QUICK=${NOX_QUICK:-0} scripts/test.sh" \
      >"$LOGS/test.log" 2>&1; then
    grep -E 'tests passed|all stages passed|lint: clean' "$LOGS/test.log" | sed 's/^/  /'
    echo "fresh-machine-check: test.sh PASSED"
  else
    tail -40 "$LOGS/test.log"
    echo "fresh-machine-check: test.sh FAILED (see $LOGS/test.log)"
    status=1
  fi
fi
exit $status
