#!/usr/bin/env bash
# Checks the host sandbox launcher and the stand-in vnadmin from the host's
# side: what happens inside stays inside, and nothing outlives the launcher.
#   sandbox_test.sh PATH-TO-hic-sandbox
set -uo pipefail

sandbox=$1
tag=hic-sbtest-$$
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0

fail() {
  printf 'FAIL: %s\n' "$*"
  failures=$((failures + 1))
}

# Mounts the launcher makes are all named hic-sandbox; none may show here.
sandbox_mounts() { grep -c ' hic-sandbox ' /proc/self/mountinfo; }

# Waits up to 5 s for pgrep to find (want=1) or miss (want=0) a pattern.
wait_for_process() {
  local pattern=$1 want=$2 i
  for ((i = 0; i < 100; i++)); do
    if pgrep -x -f -- "$pattern" >/dev/null; then
      ((want == 1)) && return 0
    else
      ((want == 0)) && return 0
    fi
    sleep 0.05
  done
  return 1
}

[[ $(sandbox_mounts) == 0 ]] || fail "sandbox mounts present before the test"

# Exit status passes through, also 0 and a status above 125.
for status in 0 200; do
  "$sandbox" -- sh -c "exit $status"
  got=$?
  [[ $got == "$status" ]] || fail "exit status $status came back as $got"
done
"$sandbox" -- sh -c 'kill -9 $$'
got=$?
[[ $got == 137 ]] || fail "a command killed by SIGKILL gave $got, want 137"

# Files made inside stay inside; --keep hands out exactly those files.
vornal_before=0
[[ -e /Vornal ]] && vornal_before=1
keep=$scratch/keep
out=$("$sandbox" --keep "$keep" -- sh -c "
  mkdir -p /opt/Vornal/$tag /Vornal/install/otherTools &&
  printf 'inside\n' >/opt/Vornal/$tag/x &&
  printf 'IpType=IPv4;\n' >/etc/vn.hostinfo.$tag &&
  cat /opt/Vornal/$tag/x")
[[ $out == inside ]] || fail "file written inside did not read back: '$out'"
[[ ! -e /opt/Vornal/$tag ]] || fail "/opt/Vornal/$tag appeared outside"
[[ ! -e /etc/vn.hostinfo.$tag ]] || fail "/etc/vn.hostinfo.$tag appeared outside"
[[ $vornal_before == 1 || ! -e /Vornal ]] || fail "/Vornal appeared outside"
kept=$(cd "$keep" && find . -type f | sort | tr '\n' ' ')
[[ $kept == "./etc/vn.hostinfo.$tag ./opt/Vornal/$tag/x " ]] || fail "--keep copied '$kept'"

# /sys/block is empty and writable; /dev has the usual nodes and no disks.
# shellcheck disable=SC2016 # expanded inside
out=$(HIC_SBTEST_ENV=passed "$sandbox" -- sh -c '
  [ -z "$(ls -A /sys/block)" ] || echo "sys/block not empty"
  mkdir "/sys/block/sd$2" /sys/block/sr0 || echo "sys/block not writable"
  [ "$(stat -c %t:%T /dev/fuse)" = a:e5 ] || echo "/dev/fuse is not 10,229"
  ls /dev | grep "^sd" && echo "disk nodes in /dev"
  : >"/dev/sd$2" && mount --bind /dev/zero "/dev/sd$2" || echo "cannot bind onto /dev/sd$2"
  [ "$(head -c 3 "/dev/sd$2" | od -An -tx1)" = " 00 00 00" ] || echo "bind mount not in effect"
  [ "$(pwd)" = "$1" ] || echo "working directory $(pwd)"
  [ "$HIC_SBTEST_ENV" = passed ] || echo "environment lost"
  echo done' sh "$PWD" "$tag")
[[ $out == "done" ]] || fail "inside checks: $out"
[[ ! -e /sys/block/sd$tag ]] || fail "/sys/block/sd$tag appeared outside"
[[ ! -e /dev/sd$tag ]] || fail "/dev/sd$tag appeared outside"

# --setup runs inside, in the working directory, before the command, and
# its changes are not the host's; a failing setup stops it with 125.
out=$(cd "$scratch" && "$sandbox" --setup "pwd >/tmp/setup-$tag; rm -rf '$scratch'" -- cat "/tmp/setup-$tag")
[[ $out == "$scratch" ]] || fail "setup ran in '$out', want '$scratch'"
[[ -d $scratch && ! -e /tmp/setup-$tag ]] || fail "--setup changed the host"

# The stand-in vnadmin: answers from files, records calls; --no-vnadmin
# removes it.
# shellcheck disable=SC2016 # expanded inside
out=$("$sandbox" -- sh -c '
  which vnadmin >/dev/null || echo "no vnadmin"
  [ -z "$(vnadmin show version)" ] || echo "answer without a file"
  mkdir -p /run/vnadmin
  printf "Driver    : 32.1.0\nno newline" >/run/vnadmin/show_version
  printf "lun1 Normal\n" >/run/vnadmin/show_vlun
  [ "$(vnadmin show version | od -c)" = "$(od -c </run/vnadmin/show_version)" ] ||
    echo "version answer differs"
  [ "$(vnadmin show vlun type=all)" = "lun1 Normal" ] || echo "vlun answer differs"
  vnadmin show vlun >/dev/null && echo "partial subcommand accepted"
  printf "show version\nshow version\nshow vlun type=all\nshow vlun\n" |
    cmp -s - /run/vnadmin/calls || echo "calls: $(cat /run/vnadmin/calls)"
  echo done')
[[ $out == "done" ]] || fail "vnadmin checks: $out"
"$sandbox" --no-vnadmin -- sh -c 'which vnadmin' >/dev/null
got=$?
[[ $got != 0 ]] || fail "--no-vnadmin still has vnadmin"

# A double-forked child dies with the sandbox.
marker="sleep 9$$.25"
"$sandbox" -- sh -c "sh -c 'setsid $marker </dev/null >/dev/null 2>&1 &'; sleep 0.2"
wait_for_process "$marker" 0 || fail "double-forked child outlived the launcher"

# Killing the launcher with SIGKILL mid-run leaves no process and no mount.
"$sandbox" -- sh -c "sh -c 'setsid $marker </dev/null >/dev/null 2>&1 &'; sleep 6$$.5" &
launcher=$!
if wait_for_process "$marker" 1; then
  kill -9 "$launcher"
  wait "$launcher" 2>/dev/null
  wait_for_process "$marker" 0 || fail "processes outlived a killed launcher"
  wait_for_process "sleep 6$$.5" 0 || fail "the command outlived a killed launcher"
else
  fail "sandboxed child never started"
  kill -9 "$launcher"
fi
[[ $(sandbox_mounts) == 0 ]] || fail "sandbox mounts left in the host"

if ((failures)); then
  printf '%d check(s) failed\n' "$failures"
  exit 1
fi
echo "all sandbox checks passed"
