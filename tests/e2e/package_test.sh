#!/usr/bin/env bash
# Builds the Debian package from a configured build tree and checks what an
# administrator gets: the file list, the modes, the unit and the man page.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$build" && cpack -G DEB -B "$work" >/dev/null)
deb=$(ls "$work"/vn-hostinfo_*_amd64.deb)

fail() {
  echo "package_test: $*" >&2
  exit 1
}

listing=$(dpkg-deb -c "$deb" | awk '{print $1, $NF}')
expect=(
  "-rwxr-xr-x ./usr/sbin/vn_hostinfo"
  "-rw-r--r-- ./usr/lib/systemd/system/vn_hostinfo.service"
  "-rw-r--r-- ./usr/share/man/man8/vn_hostinfo.8"
  "drwxr-xr-x ./Vornal/install/otherTools/"
  "drwxr-xr-x ./opt/Vornal/log/"
)
for line in "${expect[@]}"; do
  grep -qxF -- "$line" <<<"$listing" || fail "missing '$line' in: $listing"
done
# Nothing of the test rig goes into the package.
if grep -Eq 'vnarray|vnadmin|hic-sandbox|_test' <<<"$listing"; then
  fail "test tools in the package: $listing"
fi

dpkg-deb -x "$deb" "$work/root"
unit=$work/root/usr/lib/systemd/system/vn_hostinfo.service
for want in "Type=forking" "PIDFile=/run/vn_hostinfo/vn_hostinfo.pid" \
  "ExecStart=/usr/sbin/vn_hostinfo"; do
  grep -qxF "$want" "$unit" || fail "unit lacks $want"
done
man=$work/root/usr/share/man/man8/vn_hostinfo.8
for want in "/opt/Vornal/log/hostinfotool.log" "/etc/vn.hostinfo" "VN_LOG_DEBUG" \
  "/Vornal/install/otherTools/hostInfoCollect.pid" "vn_hostinfo_linux"; do
  grep -qF "$want" "$man" || fail "man page lacks $want"
done
[ "$(dpkg-deb -f "$deb" Package)" = vn-hostinfo ] || fail "package name"
echo "package_test: $(basename "$deb") ok"
