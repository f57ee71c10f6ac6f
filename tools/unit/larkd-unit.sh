#!/usr/bin/env bash
# larkd-unit.sh STATEDIR UNITFILE [LARKD-OPTION...]
# One simulated display unit, for end-to-end tests and the demonstration.
# Re-runs itself in a private mount namespace with fresh tmpfs on /run/media,
# /var/lib/nfs (with remote/ in it, an NFS root for tests); puts the recording
# stand-ins for exportfs, mount, umount and mountpoint first on PATH (they
# mount tmpfs in place of NFS); starts a private bus and the UDisks2 simulator
# (mount directories under /run/media); then becomes larkd with the options,
# so the caller's process id is larkd's. Bus and simulator die with larkd,
# larkd with the caller. Writes
#   STATEDIR/bus     the private bus address (once the simulator serves)
#   STATEDIR/calls   the stand-ins' record, one call a line, tab-separated
#   STATEDIR/sim.log the simulator's output
# With LARKD_UNIT_RESTART=1 larkd is not exec'd but run, and run again
# whenever it is killed (SIGKILL), as the unit's service manager restarts it;
# bus and simulator stay. Its process id is then in STATEDIR/larkd.pid, and
# SIGTERM to the caller's process id reaches larkd.
# With LARKD_UNIT_SYSLOG=SOCKET larkd logs to syslog(3), its /dev/log being
# the Unix datagram socket SOCKET.
# With LARKD_UNIT_SYSFS (the unit-sysfs tool of the build) the unit is laid
# out as it looks on the device, on fresh tmpfs over /sys, /dev and
# /run/corvex_platform: the sysfs of its slots and of the media present at
# start (card identities included), and the platform slot file naming the
# "left" and "right" slots by their by-path links. Before a medium is put in,
# `nsenter --mount --target PID unit-sysfs /sys UNITFILE SLOT=MEDIUM` writes
# its sysfs.
# Needs root. larkd is LARKD_BINARY, else build/daemon/larkd; the simulator
# UDISKS2_SIM_BINARY, else build/tools/udisks2-sim/udisks2-sim.
set -euo pipefail
. "$(dirname "$0")/private-bus.sh"
if [ $# -lt 2 ]; then
    echo "usage: $0 STATEDIR UNITFILE [LARKD-OPTION...]" >&2
    exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
if [ -z "${LARKD_UNIT_INSIDE:-}" ]; then
    export LARKD_UNIT_INSIDE=1
    # The parent-death signal survives exec: larkd dies with whoever started us.
    exec setpriv --pdeathsig TERM -- unshare --mount --propagation private -- "$0" "$@"
fi
unset LARKD_UNIT_INSIDE

state=$1
unit=$2
shift 2
larkd=${LARKD_BINARY:-$root/build/daemon/larkd}
sim=${UDISKS2_SIM_BINARY:-$root/build/tools/udisks2-sim/udisks2-sim}
mkdir -p "$state"
rm -f "$state/bus"
for dir in /run/media /var/lib/nfs; do
    mkdir -p "$dir"
    mount -t tmpfs -o mode=0755 larkd-unit "$dir"
done
mkdir /var/lib/nfs/remote
if [ -n "${LARKD_UNIT_SYSFS:-}" ]; then
    for dir in /sys /run/corvex_platform; do
        mkdir -p "$dir"
        mount -t tmpfs -o mode=0755 larkd-unit "$dir"
    done
    # A /dev of its own, for the slots' device nodes and links; only the
    # harmless nodes of the machine's are kept.
    devices=$(mktemp -d)
    mount --rbind /dev "$devices"
    mount -t tmpfs -o mode=0755 larkd-unit /dev
    for node in null zero full random urandom tty; do
        touch "/dev/$node"
        mount --bind "$devices/$node" "/dev/$node"
    done
    umount -l "$devices" && rmdir "$devices"
    "$LARKD_UNIT_SYSFS" /sys "$unit"
    mkdir -p /dev/disk/by-path
    touch /dev/mmcblk0 /dev/mmcblk1
    ln -s ../../mmcblk0 /dev/disk/by-path/platform-slot0
    ln -s ../../mmcblk1 /dev/disk/by-path/platform-slot1
    echo "sd_slots=left,/dev/disk/by-path/platform-slot0:right,/dev/disk/by-path/platform-slot1" \
        >/run/corvex_platform/config
    # libudev reads a sysfs that is not the kernel's only when told to.
    export SYSTEMD_DEVICE_VERIFY_SYSFS=0
fi
if [ -n "${LARKD_UNIT_SYSLOG:-}" ]; then
    # Bound over the machine's /dev/log in this namespace only; made only in
    # a /dev of the unit's own.
    [ -e /dev/log ] || { [ -n "${LARKD_UNIT_SYSFS:-}" ] && touch /dev/log; }
    mount --bind "$LARKD_UNIT_SYSLOG" /dev/log
fi

start_private_bus "$state" || { echo "larkd-unit: dbus-daemon did not start" >&2; exit 1; }

setpriv --pdeathsig TERM -- "$sim" --unit "$unit" --mount-base /run/media >"$state/sim.log" 2>&1 &
sim_pid=$!
until "$sim" ctl inserted >/dev/null 2>&1; do
    kill -0 "$sim_pid" 2>/dev/null || { echo "larkd-unit: the simulator exited" >&2; exit 1; }
    sleep 0.05
done
# Written whole, then renamed: whoever sees the file sees the address.
echo "$DBUS_SYSTEM_BUS_ADDRESS" >"$state/bus.new"
mv "$state/bus.new" "$state/bus"

export PATH="$here/standins:$PATH"
export LARKD_RECORD_FILE="$state/calls" LARKD_STANDIN_TMPFS=1
: >"$LARKD_RECORD_FILE"
[ -n "${LARKD_UNIT_SYSLOG:-}" ] || set -- --disable-syslog "$@"
[ -n "${LARKD_UNIT_RESTART:-}" ] || exec "$larkd" "$@"

larkd_pid=
stopping=
trap 'stopping=1; [ -z "$larkd_pid" ] || kill -TERM "$larkd_pid" 2>/dev/null' TERM INT
while :; do
    setpriv --pdeathsig TERM -- "$larkd" "$@" &
    larkd_pid=$!
    echo "$larkd_pid" >"$state/larkd.pid"
    wait "$larkd_pid" && status=0 || status=$?
    # A trapped signal cuts the wait short: wait again for larkd's own status.
    [ -z "$stopping" ] || { wait "$larkd_pid" && status=0 || status=$?; }
    [ "$status" -eq 137 ] && [ -z "$stopping" ] || exit "$status"
done
