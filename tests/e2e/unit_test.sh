#!/usr/bin/env bash
# The installed systemd unit under a real systemd: the sandbox installs this
# build tree (prefix /usr) and boots systemd as its process 1; the cases run
# beside it with systemctl. Before it, the plain sandbox launcher's promises.
# Afterwards the host must be as it was: mounts, cgroups, writable sysctls.
#
#   unit_test.sh BUILD_DIR     (as root)
set -euo pipefail

if [[ ${1-} != --inside ]]; then
  build=$(realpath -- "$1")
  self=$(realpath -- "$0")
  sandbox=$(dirname -- "$self")/../../tools/sandbox/hic-sandbox
  # What systemd as process 1 could change on the host. Other launchers'
  # cgroups (a run beside this one) are left out; this one's must be gone.
  host_state() {
    findmnt -rn -o TARGET,FSTYPE,OPTIONS
    find /sys/fs/cgroup -mindepth 1 -type d \( -name '*.slice' -o -name '*.scope' -o \
      -name '*.service' \) ! -path '*/hic-sandbox.*'
    find /proc/sys -type f -perm -u+w ! -name ns_last_pid -print0 | xargs -0 grep -s '' || true
  }
  die() {
    echo "unit_test: $*" >&2
    exit 1
  }
  before=$(host_state)
  await() {  # N PATTERN: waits up to 5 s until N processes match PATTERN exactly
    for _ in {1..100}; do
      [[ $(pgrep -c -x -f -- "$2") == "$1" ]] && return 0
      sleep 0.05
    done
    return 1
  }
  # First the plain launcher: what the setup and the command make stays
  # inside, the status comes back (a signal's too), and nothing started
  # inside outlives the launcher, also when it is killed.
  tag=hic-unit-$$ marker="sleep 9$$.25" status=0
  HIC_TAG=$tag "$sandbox" --setup "mkdir -p /opt/Vornal/$tag" -- sh -c "[ -d /opt/Vornal/$tag ] &&
    [ \"\$PWD \$HIC_TAG\" = '$PWD $tag' ] && [ -z \"\$(ls /sys/block)\" ] && mkdir /sys/block/sd$tag &&
    : >/dev/sd$tag && : >/etc/$tag && { setsid $marker </dev/null >/dev/null 2>&1 & } && exit 200" || status=$?
  [[ $status == 200 && $("$sandbox" -- sh -c 'kill -9 $$' || echo $?) == 137 ]] || die "status"
  [[ ! -e /opt/Vornal/$tag && ! -e /sys/block/sd$tag && ! -e /dev/sd$tag && ! -e /etc/$tag ]] || die "wrote to the host"
  await 0 "$marker" || die "a process outlived the sandbox"
  "$sandbox" -- sh -c "setsid $marker </dev/null >/dev/null 2>&1 & exec sleep 6$$.5" &
  victim=$!
  await 1 "$marker" || die "no process in the sandbox"
  kill -9 "$victim"
  wait "$victim" || true
  { await 0 "$marker" && await 0 "sleep 6$$.5"; } || die "a process outlived a killed launcher"
  "$sandbox" --boot vn_hostinfo.service --setup "cmake --install $build --prefix /usr >/dev/null" \
    -- bash "$self" --inside &
  launcher=$!
  wait "$launcher"
  diff <(echo "$before") <(host_state) || die "the host changed"
  [[ -z $(find /sys/fs/cgroup -name "hic-sandbox.$launcher") ]] || die "cgroup left"
  echo "unit_test: host unchanged"
  exit 0
fi

unit=vn_hostinfo.service
pid_file=/Vornal/install/otherTools/hostInfoCollect.pid
script=/Vornal/install/otherTools/hic_collect.sh

fail() {
  echo "unit_test: $*" >&2
  systemctl status --no-pager "$unit" >&2 || true
  exit 1
}
prop() { systemctl show -P "$1" "$unit"; }
file_pid() { tr -d '\0' <"$pid_file"; }
# Whether PID holds a POSIX write lock (the daemon holds only the pid file's).
holds_lock() { grep -Eq "POSIX +ADVISORY +WRITE +$1 " /proc/locks; }
alive() { kill -0 "$1" 2>/dev/null; }
# The main PID must be the daemon itself: named by the pid file, holding
# its lock, in the unit's cgroup.
expect_tracked() {
  local main
  main=$(prop MainPID)
  [[ $(prop ActiveState) == active && $main == "$(file_pid)" ]] ||
    fail "$1: main PID $main, pid file $(file_pid)"
  [[ $(cat "/proc/$main/comm") == vn_hostinfo ]] || fail "$1: main PID $main is not the daemon"
  holds_lock "$main" || fail "$1: main PID $main holds no lock"
  grep -qx "0::/system.slice/$unit" "/proc/$main/cgroup" || fail "$1: main PID $main not in the unit"
}
expect_refused() {  # case, what the journal must say
  local err
  err=$(systemctl start "$unit" 2>&1) && fail "$1: start succeeded"
  # A failed helper, not the start timeout, and no restart scheduled.
  [[ $(prop Result) == exit-code && $(prop ActiveState) == failed && $(prop MainPID) == 0 &&
    $(prop NRestarts) == 0 ]] || fail "$1: $(prop Result) $(prop ActiveState) $(prop MainPID): $err"
  journalctl --no-pager -o cat -u "$unit" | grep -qF -- "$2" || fail "$1: journal lacks '$2'"
  systemctl reset-failed "$unit"
}

systemd-analyze verify "/usr/lib/systemd/system/$unit" || fail "systemd-analyze verify"
touch "$script"

# Start and stop.
systemctl start "$unit" || fail "start"
expect_tracked "start"
daemon=$(prop MainPID)
systemctl stop "$unit"
! alive "$daemon" || fail "stop left the daemon running"
echo "ok - start and stop"

# A stale pid file naming a live unrelated process.
sleep 600 &
other=$!
printf '%s\0' "$other" >"$pid_file"
systemctl start "$unit" || fail "stale: start"
expect_tracked "stale"
systemctl stop "$unit"
alive "$other" || fail "stale: stop killed the unrelated process"
kill "$other"
echo "ok - stale pid file"

# A daemon started by hand is left alone.
/usr/sbin/vn_hostinfo
for ((i = 0; i < 500; i++)); do
  hand=$(file_pid 2>/dev/null) && [[ -n $hand ]] && holds_lock "$hand" && break
  sleep 0.02
done
expect_refused "by hand" "locked by process $hand"
systemctl stop "$unit"
{ alive "$hand" && [[ $(file_pid) == "$hand" ]]; } || fail "by hand: the daemon was touched"
kill "$hand"
echo "ok - daemon started by hand"

# The product is missing: the daemon ends at once, and the start fails
# with the reason from its log.
mv /usr/local/sbin/vnadmin /usr/local/sbin/vnadmin.away
expect_refused "product missing" "Vornal is not installed in the OS."
mv /usr/local/sbin/vnadmin.away /usr/local/sbin/vnadmin
echo "ok - failed start"

# Without the product's collection script the unit does not start at all.
rm "$script"
systemctl start "$unit" || fail "condition: start"
[[ $(prop ActiveState) == inactive && $(prop ConditionResult) == no ]] || fail "condition"
echo "ok - condition"
