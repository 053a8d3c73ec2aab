#!/usr/bin/env bash
# The demo's second half, run inside the host sandbox by scripts/demo.sh:
# everything here lands in the sandbox's throw-away layer.
set -euo pipefail
build=$1
ctl() { "$build/tools/vnarray/vnarrayctl" --socket /run/vnarray.sock "$@"; }
say() { printf '\n\033[1m%s\033[0m\n' "$*"; }

say "Installing the daemon as an administrator would (cmake --install, prefix /usr)"
cmake --install "$build" --prefix /usr | sed 's/^/  /'

say "The host: settings, the product's collection scripts, vnadmin's answers"
printf 'IpType=IPv4;\nIpAddress=192.168.10.20;\n' >/etc/vn.hostinfo
sed 's/^/  \/etc\/vn.hostinfo: /' /etc/vn.hostinfo
cat >/Vornal/install/otherTools/hic_collect.sh <<'SCRIPT'
#!/bin/sh
# Demo collection script: leaves its findings beside itself.
dir=$(dirname "$0")
uname -a >"$dir/host.data"
cat /proc/partitions >"$dir/partitions.data" 2>/dev/null
ls -l /dev >"$dir/devices.data"
echo "collected with arguments: $*" >"$dir/CollectLog_$(date +%Y%m%d).txt"
sleep 12
SCRIPT
printf '#!/bin/sh\nexit 0\n' >/Vornal/install/otherTools/hic_data.sh
mkdir -p /run/vnadmin
echo "Vornal Driver Version : 31.1.0" >/run/vnadmin/show_version
cat >/run/vnadmin/show_vlun <<'LIST'
  0  sdb  0x0  6e000000000000000000000000000a01  Normal
  1  sdc  0x1  6e000000000000000000000000000a02  Normal
  2  sdd  0x2  6e000000000000000000000000000b01  Normal
LIST
sed 's/^/  vnadmin show vlun: /' /run/vnadmin/show_vlun

say "Starting the virtual array: ARRAYA01 (sdb, sdc) and ARRAYB02 (sdd)"
cat >/run/vnarray.json <<'JSON'
{
  "arrays": [
    {"sn": "ARRAYA01", "name": "array-a", "major": 3, "minor": 0},
    {"sn": "ARRAYB02", "name": "array-b", "major": 2, "minor": 7}
  ],
  "luns": [
    {"dev": "sdb", "array": "ARRAYA01", "name": "lun-a1", "wwn": "6e000000000000000000000000000a01"},
    {"dev": "sdc", "array": "ARRAYA01", "name": "lun-a2", "wwn": "6e000000000000000000000000000a02"},
    {"dev": "sdd", "array": "ARRAYB02", "vendor": "PELKO", "name": "lun-b1",
     "wwn": "6e000000000000000000000000000b01"}
  ]
}
JSON
"$build/tools/vnarray/vnarray" --config /run/vnarray.json --mount /run/vnarray-fs \
  --socket /run/vnarray.sock --install-root / &
vnarray_pid=$!
ctl wait-ready timeout=10 >/dev/null
echo "  /dev: $(cd /dev && ls -d sd* | tr '\n' ' ')   /sys/block: $(ls /sys/block | tr '\n' ' ')"

say "Both arrays raise their collect switch with a new collect version"
ctl raise-switch array=ARRAYA01 version=00000001 >/dev/null
ctl raise-switch array=ARRAYB02 version=0000002a >/dev/null
echo "  ARRAYA01 version 00000001, ARRAYB02 version 0000002a"

say "Starting the daemon: /usr/sbin/vn_hostinfo VN_LOG_DEBUG"
/usr/sbin/vn_hostinfo VN_LOG_DEBUG
echo "  the shell got status $? at once; the daemon runs in the background"

# The log, as it is written.
tail -n +1 -F /opt/Vornal/log/hostinfotool.log 2>/dev/null | sed -u 's/^/  log   | /' &
tail_pid=$!

# What the arrays receive, as it arrives.
seen_hb=0
seen_ca=0
done_arrays=""
for _ in $(seq 1 90); do
  sleep 1
  hb=$(ctl heartbeats)
  n=$(jq '.heartbeats | length' <<<"$hb")
  while [ "$seen_hb" -lt "$n" ]; do
    jq -r ".heartbeats[$seen_hb] | \"  array | heartbeat 0xC9 to \\(.array) via /dev/\\(.lun): \\(.payload)\"" <<<"$hb"
    seen_hb=$((seen_hb + 1))
  done
  ca=$(ctl commands kind=ca data=false)
  n=$(jq '.commands | length' <<<"$ca")
  while [ "$seen_ca" -lt "$n" ]; do
    jq -r ".commands[$seen_ca] | \"  array | write buffer 0xCA to \\(.array) via /dev/\\(.lun): cdb \\(.cdb), \\(.dxfer_len) bytes\"" <<<"$ca"
    seen_ca=$((seen_ca + 1))
  done
  if grep -q 'Pthread HeartBeatC9 exit' /opt/Vornal/log/hostinfotool.log 2>/dev/null &&
    [ "$(grep -c 'collect task execute' /opt/Vornal/log/hostinfotool.log)" -ge 2 ] &&
    [ "$(grep -c 'Pthread HeartBeatC9 exit' /opt/Vornal/log/hostinfotool.log)" -ge 2 ]; then
    break
  fi
done
sleep 1
kill "$tail_pid" 2>/dev/null || true

say "What the arrays received"
for sn in ARRAYA01 ARRAYB02; do
  up=$(ctl uploads array=$sn)
  jq -r ".uploads[] | \"  \\(.array): upload attempt \\(.index): \\(.size) bytes in \\(.chunks | length) chunks via \\(.luns | join(\",\")), complete: \\(.complete)\"" <<<"$up"
  ctl save-upload array=$sn path=/tmp/$sn.tar.gz >/dev/null
  echo "  $sn archive listing:"
  tar -tzvf /tmp/$sn.tar.gz | sed 's/^/    /'
done
echo "  workspaces left under /opt/Vornal: $(cd /opt/Vornal && ls -d */ 2>/dev/null | grep -v '^log/$' | tr '\n' ' ')"

say "Stopping the daemon and the virtual array"
pid=$(tr -d '\0' </Vornal/install/otherTools/hostInfoCollect.pid)
kill "$pid"
ctl quit >/dev/null || true
wait "$vnarray_pid" 2>/dev/null || true
echo "  done: the sandbox and all its mounts go away now"
