#!/usr/bin/env bash
# Installs every package the project builds, tests and runs with, from
# Debian's archive, and the npm tools of the API checks (tools/api, with
# `npm ci` from its package-lock.json). Idempotent: packages already present
# are left alone. Works as root or, for another user, through sudo.
# chromium, chromium-driver and python3-selenium run the console's browser
# test; the font lets Chromium draw the console's Chinese texts. dpkg-dev
# and file give cpack's Debian package its Depends (dpkg-shlibdeps, and
# cpack's test of which files are programs); logrotate reads the package's
# rotation rule in its test. libgd-dev draws the login verification picture
# (its built-in fonts: no font package is needed). redis-sentinel (Debian's
# name for redis-server run as a sentinel) and iproute2 (ip netns) run the
# cluster as hosts (scripts/run-cluster.sh --hosts) and its fault tests.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  build-essential cmake pkg-config clang libclang-rt-14-dev
  libjsoncpp-dev libtinyxml2-dev libpcre2-dev libace-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libboost-dev libcpp-httplib-dev libssl-dev libsqlite3-dev zlib1g-dev libbrotli-dev
  openssl curl python3 binutils clang-tidy cppcheck valgrind dpkg-dev file logrotate
  libhiredis-dev libgd-dev redis-server redis-sentinel iproute2 nginx-light prometheus
  chromium chromium-driver python3-selenium fonts-wqy-microhei
)
# Node and npm for tools/api: Debian's, unless a node is installed already
# (another one may be newer; the tools need node 18.17 or later, and the
# lint with Redocly CLI 2 node 20.19 or later: it is skipped on an older one).
command -v node >/dev/null 2>&1 || PACKAGES+=(nodejs)
command -v npm >/dev/null 2>&1 || PACKAGES+=(npm)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
else
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install-deps: run as root or install sudo" >&2; exit 1; }
    SUDO="sudo"
  fi
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The npm tools, exactly as locked; again only when the lock file changed
# since the last install.
tools=tools/api
stamp=$tools/node_modules/.installed-lock.json
if [ -f "$stamp" ] && cmp -s "$tools/package-lock.json" "$stamp"; then
  echo "install-deps: npm tools of $tools present"
else
  echo "install-deps: npm ci in $tools"
  (cd "$tools" && npm ci --no-audit --no-fund --loglevel=error)
  cp "$tools/package-lock.json" "$stamp"
fi
