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
head -c 12000 /dev/urandom >"$dir/random.data"
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
echo "  /dev:" /dev/sd* "  /sys/block:" /sys/block/*

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

# What the arrays receive, as it arrives: heartbeats with their payload
# decoded (collect version, host address, address type), and the upload's
# write-buffer chunks with the offset and length from their CDB.
log=/opt/Vornal/log/hostinfotool.log
seen_hb=0
seen_ca=0
decode() {  # 28-byte heartbeat payload in hex
  local p=$1 ip=${1:16:32} type=$((16#${1:50:2})) address
  if [ "$type" = 0 ]; then
    address=$(printf '%d.%d.%d.%d' "0x${ip:0:2}" "0x${ip:2:2}" "0x${ip:4:2}" "0x${ip:6:2}") kind=IPv4
  else
    address=$(sed 's/..../&:/g; s/:$//' <<<"$ip") kind=IPv6
  fi
  echo "version ${p:8:8}, address $address, type $type ($kind)"
}
watch_arrays() {  # until the log shows a line N times: text N
  for _ in $(seq 1 60); do
    sleep 1
    hb=$(ctl heartbeats)
    while [ "$seen_hb" -lt "$(jq '.heartbeats | length' <<<"$hb")" ]; do
      read -r sn lun payload < <(jq -r ".heartbeats[$seen_hb] | \"\(.array) \(.lun) \(.payload)\"" <<<"$hb")
      echo "  array | heartbeat 0xC9 to $sn via /dev/$lun: $payload"
      echo "  array |   = $(decode "$payload")"
      seen_hb=$((seen_hb + 1))
    done
    ca=$(ctl commands kind=ca data=false)
    while [ "$seen_ca" -lt "$(jq '.commands | length' <<<"$ca")" ]; do
      read -r sn lun cdb < <(jq -r ".commands[$seen_ca] | \"\(.array) \(.lun) \(.cdb)\"" <<<"$ca")
      echo "  array | write buffer 0xCA to $sn via /dev/$lun: offset $((16#${cdb:4:16})), $((16#${cdb:20:8})) bytes"
      seen_ca=$((seen_ca + 1))
    done
    [ "$(grep -c "$1" $log 2>/dev/null)" -ge "$2" ] && return
  done
}
watch_arrays 'Pthread HeartBeatC9 exit' 2

say "Next pass, 30 s after the first: the collect versions have not changed"
watch_arrays 'the versions are not change, not execute collect' 2
sleep 1
kill "$tail_pid" 2>/dev/null || true

say "What the arrays received"
for sn in ARRAYA01 ARRAYB02; do
  up=$(ctl uploads array=$sn)
  jq -r '.uploads[] | "  \(.array): upload attempt \(.index): \(.size) bytes in \(.chunks | length) chunks at offsets \([.chunks[].offset] | join(", ")) via \(.luns | join(",")), complete: \(.complete)"' <<<"$up"
  ctl save-upload array=$sn path="/tmp/$sn.tar.gz" >/dev/null
  echo "  $sn archive listing:"
  tar -tzvf "/tmp/$sn.tar.gz" | sed 's/^/    /'
done
echo "  one upload per array: the second pass collected nothing"
echo "  left under /opt/Vornal: $(find /opt/Vornal -mindepth 1 -maxdepth 1 -printf '%f ')(the log only)"

say "Stopping the daemon and the virtual array"
pid=$(tr -d '\0' </Vornal/install/otherTools/hostInfoCollect.pid)
kill "$pid"
ctl quit >/dev/null || true
wait "$vnarray_pid" 2>/dev/null || true
echo "  done: the sandbox and all its mounts go away now"
