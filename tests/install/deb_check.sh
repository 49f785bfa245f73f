#!/usr/bin/env bash
# Installs the Debian package on this machine and runs the gateway the way
# its systemd unit would, without systemd: for a fresh root or a throw-away
# machine, as root. It
#   - installs FILE.deb with apt-get (which fetches the Depends), and checks
#     the nox user, the data folder and that the executables find every
#     library;
#   - sets the port in /etc/default/nox-gateway, as an operator would;
#   - reads ExecStart= and EnvironmentFile= from the installed unit, puts the
#     file's variables into the start line as systemd does, and runs it as
#     the unit's user with no new privileges and no capabilities (setpriv),
#     from /, with an empty environment;
#   - waits for "listening on", asks /healthz, logs in as apiuser on
#     /sessions with the password the first start printed, and asks for the
#     task list with the session;
#   - finds the login in the audit trail the packaged options turn on
#     (/var/log/nox-gateway/audit.log, the nox user's, mode 0600), moves it
#     away as logrotate does, sends SIGHUP and finds the next login in a new
#     file;
#   - stops the gateway with SIGTERM (exit status 0), then purges the
#     package: the unit, the options file and the data folder go, the nox
#     user stays.
# HTTP is spoken with bash's /dev/tcp, so the root needs nothing but the
# package and its Depends.
#
# usage: deb_check.sh FILE.deb [PORT]      (PORT defaults to 18090)
set -euo pipefail
DEB=$(realpath "$1")
PORT=${2:-18090}
[ "$(id -u)" -eq 0 ] || { echo "deb_check: run as root" >&2; exit 1; }
WORK=$(mktemp -d /tmp/nox-deb-check-XXXXXX)
GW=""
trap '[ -n "$GW" ] && kill "$GW" 2>/dev/null; rm -rf "$WORK"' EXIT
fail() { echo "deb_check: FAILED: $*" >&2; exit 1; }
say() { echo "deb_check: $*"; }

say "apt-get install $(basename "$DEB")"
DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$DEB" \
  >"$WORK/apt.log" 2>&1 || { tail -30 "$WORK/apt.log"; fail "apt-get install"; }
say "installed $(dpkg-query -W -f='${Package} ${Version}, ${Installed-Size} KiB' nox-gateway)" \
  "with $(grep -c '^Setting up ' "$WORK/apt.log") packages set up"

getent passwd nox >/dev/null || fail "no nox user"
[ "$(stat -c %U:%a /var/lib/nox-gateway)" = nox:700 ] ||
  fail "/var/lib/nox-gateway is $(stat -c %U:%a /var/lib/nox-gateway), not nox:700"
for f in /usr/bin/nox-gateway /usr/bin/nox-backend /usr/bin/nox-catalog \
         /usr/lib/libucore_nox.so /usr/lib/libucore_tlv.so; do
  if ldd "$f" | grep -q 'not found'; then ldd "$f"; fail "$f misses a library"; fi
done
say "user nox, /var/lib/nox-gateway and the libraries are there"

unit=""
for u in /usr/lib/systemd/system/nox-gateway.service /lib/systemd/system/nox-gateway.service; do
  [ -f "$u" ] && { unit=$u; break; }
done
[ -n "$unit" ] || fail "no nox-gateway.service"
value() { sed -n "s/^$1=//p" "$unit" | tail -1; }
exec_start=$(value ExecStart)
env_file=$(value EnvironmentFile)
user=$(value User)
[ -n "$exec_start" ] && [ -n "$env_file" ] && [ -n "$user" ] || fail "the unit lacks ExecStart, EnvironmentFile or User"
[ -f "$env_file" ] || fail "no $env_file"
sed -i "s/--listen [^ \"]*/--listen 127.0.0.1:$PORT/" "$env_file"
grep -q -- "--listen 127.0.0.1:$PORT" "$env_file" || fail "no --listen in $env_file"

# systemd splits an unbraced $VAR at white space into several arguments,
# as the shell does with an unquoted variable.
# shellcheck disable=SC1090
command_line=$(env -i sh -c "set -a; . '$env_file'; eval \"printf '%s\\n' $exec_start\"")
mapfile -t argv <<<"$command_line"
say "ExecStart: ${argv[*]} (as $user)"

cd /
env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
  setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs \
  --bounding-set=-all --inh-caps=-all -- "${argv[@]}" >"$WORK/gateway.out" 2>&1 &
GW=$!
for _ in $(seq 1 300); do
  grep -q '^listening on ' "$WORK/gateway.out" && break
  kill -0 "$GW" 2>/dev/null || break
  sleep 0.1
done
grep -q '^listening on ' "$WORK/gateway.out" || { cat "$WORK/gateway.out"; fail "the gateway did not start"; }
say "gateway: $(grep '^listening on ' "$WORK/gateway.out")"
uid=$(awk '/^Uid:/ {print $2}' "/proc/$GW/status")
[ "$uid" = "$(id -u "$user")" ] || fail "the gateway runs as uid $uid, not $user"
[ "$(awk '/^NoNewPrivs:/ {print $2}' "/proc/$GW/status")" = 1 ] || fail "NoNewPrivs is not set"

# http METHOD PATH [BODY [HEADER]]: the whole answer (status line, headers, body).
http() {
  local body=${3:-} extra=${4:-}
  exec 3<>"/dev/tcp/127.0.0.1/$PORT"
  {
    printf '%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n' "$1" "$2"
    [ -n "$extra" ] && printf '%s\r\n' "$extra"
    if [ -n "$body" ]; then
      printf 'Content-Type: application/json\r\nContent-Length: %s\r\n\r\n%s' "${#body}" "$body"
    else
      printf '\r\n'
    fi
  } >&3
  tr -d '\r' <&3
  exec 3<&-
}

health=$(http GET /healthz)
echo "$health" | head -1 | grep -q ' 200 ' || { echo "$health"; fail "/healthz"; }
say "/healthz: $(echo "$health" | tail -1)"

password=$(sed -n 's/.*; password: //p' "$WORK/gateway.out")
[ -n "$password" ] || { cat "$WORK/gateway.out"; fail "the first start printed no password"; }
login=$(http POST /sessions \
  "{\"username\":\"apiuser\",\"password\":\"$password\",\"scope\":\"4\",\"language\":\"en\"}")
token=$(echo "$login" | sed -n 's/^[Xx]-[Aa]uth-[Tt]oken: //p')
echo "$login" | head -1 | grep -q ' 200 ' && echo "$login" | grep -q '"code":0' && [ -n "$token" ] ||
  { echo "$login"; fail "the demo login"; }
say "login as apiuser: $(echo "$login" | head -1), token of ${#token} characters"
tasks=$(http GET /kestrel_task '' "X-Auth-Token: $token")
echo "$tasks" | head -1 | grep -q ' 200 ' || { echo "$tasks" | head -20; fail "the task list"; }
say "task list with the session: $(echo "$tasks" | head -1)"
[ "$(stat -c %U /var/lib/nox-gateway/"$(ls /var/lib/nox-gateway | head -1)")" = "$user" ] ||
  fail "the data folder's files are not $user's"

audit=/var/log/nox-gateway/audit.log
grep -q '"event":"login","outcome":"success","user":"apiuser"' "$audit" ||
  { cat "$audit" 2>&1; fail "the login is not in $audit"; }
[ "$(stat -c %U:%a "$audit")" = "$user:600" ] || fail "$audit is $(stat -c %U:%a "$audit"), not $user:600"
mv "$audit" "$audit.1"
kill -HUP "$GW"
for _ in $(seq 1 50); do [ -e "$audit" ] && break; sleep 0.1; done
http POST /sessions '{"username":"apiuser","password":"wrong","scope":"4"}' >/dev/null
grep -q '"outcome":"failure"' "$audit" 2>/dev/null || fail "after SIGHUP the next login is not in a new $audit"
! grep -q '"outcome":"failure"' "$audit.1" || fail "after SIGHUP the old $audit.1 still took a login"
say "audit trail in $audit (mode 600), reopened after a rotation on SIGHUP"

kill -TERM "$GW"
status=0
wait "$GW" || status=$?
GW=""
[ "$status" = 0 ] || { cat "$WORK/gateway.out"; fail "the gateway exited with status $status after SIGTERM"; }
say "stopped with SIGTERM, exit status 0"

DEBIAN_FRONTEND=noninteractive apt-get purge -y -q nox-gateway >"$WORK/purge.log" 2>&1 ||
  { tail -20 "$WORK/purge.log"; fail "apt-get purge"; }
for gone in "$unit" /etc/default/nox-gateway /etc/logrotate.d/nox-gateway /usr/bin/nox-gateway \
            /var/lib/nox-gateway /var/log/nox-gateway; do
  [ ! -e "$gone" ] || fail "$gone is left after the purge"
done
getent passwd nox >/dev/null || fail "the purge removed the nox user"
say "purged: files and data gone, user nox kept"
say "PASSED"
