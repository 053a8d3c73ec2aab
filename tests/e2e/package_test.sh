#!/usr/bin/env bash
# The packages an administrator installs. The Debian package is built twice
# from copies of the tree (dpkg-buildpackage writes beside the tree) and
# must come out byte-identical and lint-clean; it is then installed, the
# daemon started, removed and purged in the host sandbox. The RPM's
# contents and scriptlets are inspected, and the man page is linted.
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "package_test: $*" >&2
  exit 1
}
same() {  # what, expected, actual
  [ "$2" = "$3" ] || fail "$1: expected
$2
got
$3"
}
copy() { mkdir -p "$1" && tar -C "$src" --exclude=./build --exclude=./.git -cf - . | tar -C "$1" -xf -; }
version=1.0.0
pid=/Vornal/install/otherTools/hostInfoCollect.pid

for n in 1 2; do
  copy "$work/$n/src"
  (cd "$work/$n/src" && dpkg-buildpackage -us -uc -b >../log 2>&1) || fail "build: $(tail -20 "$work/$n/log")"
done
deb=$work/1/vn-hostinfo_${version}_$(dpkg --print-architecture).deb
cmp "$deb" "$work/2/${deb##*/}" || fail "two builds differ"
if grep -iE 'fuse|nlohmann|gtest' "$work"/1/src/obj-*/CMakeCache.txt; then fail "daemon-only build needs the rig's libraries"; fi
# Errors and warnings would show beside the overrides (which alone make its
# status 2); only the fixed directories are overridden.
lint=$({ lintian --show-overrides "$work/1"/*.changes 2>&1 || true; } | grep -v '^[NI]: \|root privileges')
same "lintian" "O: vn-hostinfo: dir-or-file-in-opt [opt/Vornal/]
O: vn-hostinfo: dir-or-file-in-opt [opt/Vornal/log/]
O: vn-hostinfo: non-standard-toplevel-dir [Vornal/]" "$lint"

same "deb contents" "drwxr-xr-x root/root ./Vornal/install/otherTools/
-rw-r--r-- root/root ./lib/systemd/system/vn_hostinfo.service
drwxr-xr-x root/root ./opt/Vornal/log/
-rw-r--r-- root/root ./usr/lib/tmpfiles.d/vn_hostinfo.conf
-rwxr-xr-x root/root ./usr/libexec/vn_hostinfo/pidfile-guard
-rwxr-xr-x root/root ./usr/sbin/vn_hostinfo
-rw-r--r-- root/root ./usr/share/doc/vn-hostinfo/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/vn-hostinfo/copyright
-rw-r--r-- root/root ./usr/share/lintian/overrides/vn-hostinfo
-rw-r--r-- root/root ./usr/share/man/man8/vn_hostinfo.8.gz" \
  "$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ || $6 ~ /(otherTools|log)\/$/ {print $1, $2, $6}')"
same "tmpfiles.d" "d /Vornal/install/otherTools 0755 root root -
d /opt/Vornal/log 0755 root root -" "$(dpkg-deb --fsys-tarfile "$deb" | tar -xOf - ./usr/lib/tmpfiles.d/vn_hostinfo.conf | grep -v '^#')"
dpkg-deb -x "$deb" "$work/root"
dpkg-deb -x "$work/1/vn-hostinfo-dbgsym_${deb#*_}" "$work/dbg"
# The compile flags of every unit, as recorded in the debug symbols.
producers=$(find "$work/dbg" -name '*.debug' -exec readelf -z -p .debug_str {} + 2>/dev/null | grep -o 'GNU C.*')
if [ -z "$producers" ] || grep -v -- '-fstack-clash-protection' <<<"$producers"; then fail "stack-clash"; fi

# Install, start by hand (no systemd in the sandbox), remove, purge.
# shellcheck disable=SC2016  # the script expands inside the sandbox
"$src/tools/sandbox/hic-sandbox" -- bash -euo pipefail -c '
  fail() { echo "package_test (sandbox): $*" >&2; exit 1; }
  dpkg -i "$1" >/tmp/dpkg.log 2>&1 || fail "$(cat /tmp/dpkg.log)"
  [ "$(vn_hostinfo --version)" = "vn_hostinfo $2" ] || fail "--version"
  vn_hostinfo --help | grep -qx "Usage: vn_hostinfo \[VN_LOG_DEBUG\]" || fail "--help"
  [ -z "$(ls -A /opt/Vornal/log)" ] && [ ! -e "$3" ] || fail "--help started something"
  mkdir -p /run/vnadmin && echo "Vornal Driver Version : 31.1.0" >/run/vnadmin/show_version
  vn_hostinfo
  for _ in $(seq 100); do [ -s "$3" ] && break; sleep 0.1; done
  daemon=$(tr -d "\0" <"$3")
  [ "$(readlink "/proc/$daemon/exe")" = /usr/sbin/vn_hostinfo ] || fail "daemon not running"
  dpkg -r vn-hostinfo >/tmp/dpkg.log 2>&1 || fail "$(cat /tmp/dpkg.log)"
  [ -z "$(readlink "/proc/$daemon/exe")" ] || fail "daemon still running after remove"
  [ ! -e /usr/sbin/vn_hostinfo ] && [ -s /opt/Vornal/log/hostinfotool.log ] && [ -e "$3" ] ||
    fail "remove: $(ls -la /usr/sbin/vn_hostinfo /opt/Vornal/log "$3" 2>&1)"
  dpkg -P vn-hostinfo >/tmp/dpkg.log 2>&1 || fail "$(cat /tmp/dpkg.log)"
  left=$(find /etc /lib /usr /var /opt -xdev \( -name "*vn[_-]hostinfo*" -o -name Vornal \) 2>/dev/null)
  [ ! -e /Vornal ] || left+=" /Vornal"
  [ -z "$left" ] || fail "left after purge: $left"
' package-test "$deb" "$version" "$pid"

# The RPM, from a source archive of the tree.
mkdir -p "$work/rpm/SOURCES"
copy "$work/rpm/vn_hostinfo-$version"
tar -C "$work/rpm" -czf "$work/rpm/SOURCES/vn_hostinfo-$version.tar.gz" "vn_hostinfo-$version"
rpmbuild -bb --nodeps --define "_topdir $work/rpm" "$src/packaging/vn_hostinfo.spec" >"$work/rpm/log" 2>&1 ||
  fail "rpmbuild: $(tail -20 "$work/rpm/log")"
rpm=$(ls "$work"/rpm/RPMS/*/vn_hostinfo-"$version"-1.*.rpm)
same "rpm contents" "drwxr-xr-x /Vornal/install/otherTools
-rw------- /Vornal/install/otherTools/hostInfoCollect.pid
drwxr-xr-x /opt/Vornal/log
-rw-r--r-- /usr/lib/systemd/system/vn_hostinfo.service
-rw-r--r-- /usr/lib/tmpfiles.d/vn_hostinfo.conf
-rwxr-xr-x /usr/libexec/vn_hostinfo/pidfile-guard
-rwxr-xr-x /usr/sbin/vn_hostinfo
-rw-r--r-- /usr/share/man/man8/vn_hostinfo.8" \
  "$(rpm -qlvp "$rpm" 2>/dev/null | awk '$1 !~ /^[dl]/ || $9 ~ /(otherTools|log)$/ {print $1, $9}')"
mkdir "$work/rpmroot" && rpm2archive - <"$rpm" | tar -xzf - -C "$work/rpmroot"
# The Debian build's flags come from dpkg-buildflags, the RPM's from the
# Release build type.
for bin in "$work"/{root,rpmroot}/usr/sbin/vn_hostinfo; do
  hardening-check --nocfprotection "$bin" >/dev/null || fail "$(hardening-check "$bin")"
done
scripts=$(rpm -qp --scripts "$rpm" 2>/dev/null)
# shellcheck disable=SC2016  # scriptlet text, not expanded here
for want in "systemd-tmpfiles --create vn_hostinfo.conf" "systemctl --no-reload disable --now vn_hostinfo.service" \
  '[ "$(readlink "$exe" 2>/dev/null)" = /usr/sbin/vn_hostinfo ] &&' "systemctl try-restart vn_hostinfo.service"; do
  grep -qF -- "$want" <<<"$scripts" || fail "rpm scriptlets lack: $want"
done

man=$src/packaging/vn_hostinfo.8
bad=$(groff -man -ww -z "$man" 2>&1; man --warnings -l "$man" 2>&1 >/dev/null
  MANWIDTH=80 man -l "$man" 2>/dev/null | awk 'length > 80')
[ -z "$bad" ] || fail "man page warnings or lines over 80 columns: $bad"
for section in SIGNALS "EXIT STATUS" DIAGNOSTICS FILES "SEE ALSO"; do
  grep -qx "\.SH $section" "$man" || fail "man page lacks $section"
done
sed -n '/^\.SH SEE ALSO/,$s/^\.BR \([^ ]*\) (\([0-9]\)).*/\2 \1/p' "$man" | while read -r section page; do
  man -w "$section" "$page" >/dev/null 2>&1 || fail "man page refers to missing $page($section)"
done
echo "package_test: ${deb##*/} (reproducible, lint-clean) and ${rpm##*/} ok"
