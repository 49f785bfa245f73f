#!/usr/bin/env bash
# Makes the Debian package from the build tree into a scratch folder (cpack
# -G DEB) and reads it back without installing it:
#   - the control fields, and a Depends line with the shared libraries the
#     executables and libraries need (computed by dpkg-shlibdeps) and passwd;
#   - the files under /usr are exactly what `cmake --install` lays out, plus
#     the unit, the documentation, the copyright file, /etc/default/nox-gateway
#     and /etc/logrotate.d/nox-gateway;
#   - the copyright file is machine-readable (DEP-5) and names Apache-2.0 for
#     every file, with the licence's own paragraph;
#   - the conffile and the maintainer scripts (executable, valid sh);
#   - the unit's start line, options file, user and hardening lines;
#   - the options in /etc/default/nox-gateway are ones nox-gateway accepts,
#     with its data in the unit's state folder and the audit trail in its
#     logs folder;
#   - the logrotate rule rotates that folder's logs and sends SIGHUP, and the
#     unit reloads with SIGHUP.
# usage: deb_contents_check.sh BUILD_DIR
set -euo pipefail
BUILD=$(cd "$1" && pwd)
WORK=$(mktemp -d /tmp/nox-deb-XXXXXX)
trap 'rm -rf "$WORK"' EXIT
fail() { echo "deb: $*" >&2; exit 1; }

version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$BUILD/CPackConfig.cmake")
[ -n "$version" ] || fail "no CPACK_PACKAGE_VERSION in $BUILD/CPackConfig.cmake"
(cd "$WORK" && cpack --config "$BUILD/CPackConfig.cmake" -G DEB -B "$WORK/out") >"$WORK/cpack.log" 2>&1 ||
  { cat "$WORK/cpack.log"; fail "cpack failed"; }
deb="$WORK/out/nox-gateway_${version}_amd64.deb"
[ -f "$deb" ] || { ls -R "$WORK/out" | head -20; fail "no $deb"; }
echo "deb: $(basename "$deb"), $(stat -c %s "$deb") bytes"

# Control fields.
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = nox-gateway ] || fail "Package: $(field Package)"
[ "$(field Version)" = "$version" ] || fail "Version: $(field Version)"
[ "$(field Architecture)" = amd64 ] || fail "Architecture: $(field Architecture)"
depends=$(field Depends)
echo "deb: Depends: $depends"
# One pattern per library the ELF files link (libucore_tlv and libucore_nox
# are in the package itself and must not be asked for).
for lib in 'passwd' 'libc6 ' 'libstdc\+\+6 ' 'libace-[0-9.]+ ' 'libjsoncpp[0-9]+ ' \
           'libtinyxml2-[0-9]+ ' 'libpcre2-8-0 ' 'libssl3 ' 'libsqlite3-0 ' 'libhiredis[0-9.]+ ' \
           'libbrotli[0-9]+ ' 'zlib1g ' 'libgd3 '; do
  echo "$depends" | grep -Eq "(^|, )$lib" || fail "Depends lacks $lib"
done
if echo "$depends" | grep -q ucore; then fail "Depends names the package's own libraries"; fi
# The HTTP server is Boost.Beast, compiled in: no HTTP library is asked for.
if echo "$depends" | grep -q httplib; then fail "Depends names an HTTP library"; fi

# The files: cmake --install's layout under /usr, plus the service's files.
cmake --install "$BUILD" --prefix "$WORK/prefix" >"$WORK/install.log"
(cd "$WORK/prefix" && find . -type f | sed 's|^\./|/usr/|') | sort >"$WORK/expected"
printf '%s\n' /etc/default/nox-gateway /etc/logrotate.d/nox-gateway \
  /usr/lib/systemd/system/nox-gateway.service \
  /usr/share/doc/nox-gateway/README.md /usr/share/doc/nox-gateway/operations.md \
  /usr/share/doc/nox-gateway/copyright >>"$WORK/expected"
sort -o "$WORK/expected" "$WORK/expected"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | sort >"$WORK/packaged"
if ! diff -u "$WORK/expected" "$WORK/packaged" >"$WORK/files.diff"; then
  cat "$WORK/files.diff"; fail "the package's files differ from cmake --install's (- install, + package)"
fi
for f in /usr/bin/nox-gateway /usr/bin/nox-backend /usr/lib/libucore_nox.so \
         /usr/share/ucore_nox/conf/task_extra_info_zh.xml /usr/share/ucore_nox/conf/access.json \
         /usr/include/ucore_nox/operation_base.h \
         /usr/lib/cmake/ucore_nox/ucore_noxConfig.cmake /usr/lib/pkgconfig/ucore_nox.pc; do
  grep -qx "$f" "$WORK/packaged" || fail "$f is not packaged"
done
echo "deb: $(wc -l <"$WORK/packaged") files, the install layout under /usr and the service files"

# Control files.
dpkg-deb -e "$deb" "$WORK/control"
[ "$(cat "$WORK/control/conffiles")" = "$(printf '%s\n' /etc/default/nox-gateway /etc/logrotate.d/nox-gateway)" ] ||
  fail "conffiles: $(cat "$WORK/control/conffiles")"
echo "$(field Recommends)" | grep -q logrotate || fail "Recommends lacks logrotate"
for script in postinst prerm postrm; do
  [ -x "$WORK/control/$script" ] || fail "$script is missing or not executable"
  sh -n "$WORK/control/$script" || fail "$script is not valid sh"
done
grep -q 'useradd --system' "$WORK/control/postinst" || fail "postinst makes no system user"
grep -q '/run/systemd/system' "$WORK/control/postinst" || fail "postinst starts without asking for systemd"
echo "deb: conffiles and maintainer scripts ok"

dpkg-deb -x "$deb" "$WORK/root"
# The copyright file, machine-readable: the format line first, a Files: *
# paragraph under Apache-2.0, and that licence's own paragraph.
copyright="$WORK/root/usr/share/doc/nox-gateway/copyright"
[ "$(head -n 1 "$copyright")" = 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ] ||
  fail "the copyright file is not machine-readable: $(head -n 1 "$copyright")"
awk -v RS= '/(^|\n)Files: \*\n/ && /\nCopyright: [^\n]+/ && /\nLicense: Apache-2.0(\n|$)/ {found = 1}
            END {exit !found}' "$copyright" || fail "the copyright file has no Files: * paragraph under Apache-2.0"
awk -v RS= '/^License: Apache-2.0\n / && /common-licenses\/Apache-2.0/ {found = 1} END {exit !found}' "$copyright" ||
  fail "the copyright file has no Apache-2.0 licence paragraph"
echo "deb: the copyright file names Apache-2.0 (DEP-5)"

# The unit and its options.
unit="$WORK/root/usr/lib/systemd/system/nox-gateway.service"
for line in 'ExecStart=/usr/bin/nox-gateway $NOX_GATEWAY_OPTIONS' \
            'EnvironmentFile=/etc/default/nox-gateway' 'User=nox' \
            'StateDirectory=nox-gateway' 'StateDirectoryMode=0700' 'NoNewPrivileges=yes' 'ProtectSystem=strict' \
            'ProtectHome=yes' 'PrivateTmp=yes' 'PrivateDevices=yes' \
            'RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX' 'CapabilityBoundingSet=' \
            'SystemCallFilter=@system-service' 'WantedBy=multi-user.target' \
            'LogsDirectory=nox-gateway' 'ExecReload=/bin/kill -HUP $MAINPID'; do
  grep -qxF "$line" "$unit" || fail "the unit lacks the line '$line'"
done
echo "deb: the unit starts the gateway as nox with its hardening"
options=$(env -i sh -c ". '$WORK/root/etc/default/nox-gateway' && printf %s \"\$NOX_GATEWAY_OPTIONS\"")
[ -n "$options" ] || fail "/etc/default/nox-gateway sets no NOX_GATEWAY_OPTIONS"
case " $options " in *" --data /var/lib/nox-gateway "*) ;; *) fail "options without --data /var/lib/nox-gateway: $options" ;; esac
case " $options " in *" --audit-log /var/log/nox-gateway/"*) ;; *) fail "options without --audit-log in /var/log/nox-gateway/: $options" ;; esac
rotate="$WORK/root/etc/logrotate.d/nox-gateway"
grep -q '^/var/log/nox-gateway/\*\.log {' "$rotate" || fail "the logrotate rule does not name /var/log/nox-gateway/*.log"
grep -qE 'systemctl kill --signal=HUP nox-gateway\.service' "$rotate" || fail "the logrotate rule sends no SIGHUP"
grep -qx $'\tnocreate' "$rotate" || fail "the logrotate rule makes the new files itself (the gateway does, mode 0600)"
if command -v logrotate >/dev/null; then
  logrotate -d "$rotate" >"$WORK/logrotate.out" 2>&1 || { cat "$WORK/logrotate.out"; fail "logrotate refuses the rule"; }
fi
echo "deb: the logrotate rule rotates /var/log/nox-gateway/*.log and sends SIGHUP"
# shellcheck disable=SC2086
"$BUILD/bin/nox-gateway" $options --help >/dev/null 2>"$WORK/options.err" ||
  { cat "$WORK/options.err"; fail "nox-gateway refuses the packaged options: $options"; }
echo "deb: the packaged options ($options) are accepted"
echo "deb: all checks passed"
