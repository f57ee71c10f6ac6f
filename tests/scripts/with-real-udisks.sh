#!/usr/bin/env bash
# with-real-udisks.sh COMMAND [ARG...]
# Runs COMMAND against the machine's real udisksd on a private bus: starts
# systemd-udevd, a private dbus-daemon, a loop device carrying a small image
# (DOS partition table, one ext4 partition labelled LARKTEST) and udisksd, and exports
#   DBUS_SYSTEM_BUS_ADDRESS   the private bus with org.freedesktop.UDisks2 on it
#   REAL_UDISKS_LOOP          the loop device of the whole disk (/dev/loopN)
#   REAL_UDISKS_PARTITION     the device of its partition (see below)
# Afterwards, also on failure or interruption, it stops udisksd and udevd,
# detaches the loop device, restores what udevd changed under /dev and /run,
# and removes its files. Exits with COMMAND's status, or 77 (and a line saying
# why) when this machine cannot run the real service: not root, udisks2 or udev
# not installed, or udisksd not coming up.
set -euo pipefail
. "$(dirname "$0")/../../tools/unit/private-bus.sh"

skip() {
    echo "SKIP: with-real-udisks: $*" >&2
    exit 77
}
[ $# -ge 1 ] || { echo "usage: $0 COMMAND [ARG...]" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || skip "needs root (udevd, loop devices, udisksd)"
udisksd=/usr/libexec/udisks2/udisksd
udevd=/lib/systemd/systemd-udevd
# setpriv makes the services die with this script even when it is killed outright.
for tool in "$udisksd" "$udevd" udevadm losetup sfdisk mkfs.ext4 dbus-daemon flock setpriv; do
    command -v "$tool" >/dev/null || skip "$tool is missing (install udisks2 and udev)"
done
# wait_until TRIES COMMAND...: tries COMMAND every 50 ms.
wait_until() {
    local tries=$1
    shift
    for _ in $(seq "$tries"); do
        "$@" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# One real service at a time on this machine: udevd and udisksd are global.
exec 9>/run/lock/larkd-real-udisks.lock
flock -w 300 9 || skip "another real-udisks run holds /run/lock/larkd-real-udisks.lock"
! pgrep -x systemd-udevd >/dev/null && ! pgrep -x udisksd >/dev/null ||
    skip "a systemd-udevd or udisksd already runs on this machine; not touching it"

# A run killed outright (a CTest timeout) cannot clean up; the next one
# detaches the loop devices it left and removes the directories it made.
losetup --list --noheadings --output NAME,BACK-FILE 2>/dev/null |
    awk '$2 ~ "^/tmp/larkd-real-udisks\\.[^/]*/disk\\.img" {print $1}' | while read -r stale; do
        grep -q "^$stale " /proc/self/mounts && umount -l "$stale"
        losetup -d "$stale"
    done
for stale in /tmp/larkd-real-udisks.*/; do
    [ -f "$stale/created" ] && xargs -r rm -rf <"$stale/created"
    rm -rf "$stale"
done
rm -f /run/udev/rules.d/99-larkd-real-udisks.rules
work=$(mktemp -d /tmp/larkd-real-udisks.XXXXXX)
udevd_pid= bus_pid= udisksd_pid= loop= partition_loop=
created_run=()
for dir in /run/udev /run/udisks2 /var/lib/udisks2 /run/media /media/root; do [ -e "$dir" ] || created_run+=("$dir"); done
printf '%s\n' "${created_run[@]}" >"$work/created"
# What udevd may change: ownership and modes of nodes, and links and
# directories it adds (/dev/disk, /dev/block, ...).
find /dev -xdev -printf '%y %m %U %G %p\n' | sort -k5 >"$work/dev-before"

cleanup() {
    set +e
    stop() { [ -n "$1" ] && kill "$1" 2>/dev/null && wait "$1" 2>/dev/null; }
    stop "$udisksd_pid"
    # A check that mounted through udisksd and failed before unmounting.
    [ -n "$partition_loop" ] && grep -q "^$partition_loop " /proc/self/mounts && umount -l "$partition_loop"
    for device in $partition_loop $loop; do losetup -d "$device" 2>/dev/null; done
    [ -n "$udevd_pid" ] && udevadm settle --timeout=5 2>/dev/null
    stop "$udevd_pid"
    stop "$bus_pid"
    rm -f /run/udev/rules.d/99-larkd-real-udisks.rules
    find /dev -xdev -printf '%y %m %U %G %p\n' | sort -k5 >"$work/dev-after"
    # Put back modes and owners of what existed before.
    while read -r type mode uid gid path; do
        [ "$type" != l ] && [ -e "$path" ] && chmod "$mode" "$path" && chown "$uid:$gid" "$path"
    done <"$work/dev-before"
    # Remove the links and directories udevd added; device nodes belong to the kernel.
    awk '{print $5}' "$work/dev-before" >"$work/paths-before"
    awk '$1 == "l" || $1 == "d" {print $5}' "$work/dev-after" | grep -vxF -f "$work/paths-before" | sort -r |
        while read -r path; do
            if [ -L "$path" ]; then rm -f "$path"; else rmdir "$path" 2>/dev/null; fi
        done
    rm -rf "${created_run[@]}" "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

setpriv --pdeathsig KILL -- "$udevd" >"$work/udevd.log" 2>&1 &
udevd_pid=$!
wait_until 100 udevadm control --ping || skip "systemd-udevd did not start: $(tail -n3 "$work/udevd.log")"

# Every client here is root; the bus allows what udisks2's own policy allows root.
start_private_bus "$work" || skip "dbus-daemon did not start"

# The disk: a DOS partition table with one partition. Kernels without
# partition-table support (like this project's CI machine) do not scan it, so
# the partition is a second loop device over the partition's bytes, which a
# udev rule describes as blkid describes a scanned partition; udisksd then
# serves it as it serves /dev/sdb1. The same rule gives the disk the udev data
# of a USB disk, so that udisksd also serves a drive for it.
truncate -s 64M "$work/disk.img"
echo 'start=2048, type=83' | sfdisk --quiet "$work/disk.img" >/dev/null
loop=$(losetup --find --show "$work/disk.img") || skip "no loop device available"
partition_loop=$(losetup --find --show --offset $((2048 * 512)) --sizelimit $((129024 * 512)) "$work/disk.img") ||
    skip "no second loop device available"

mkdir -p /run/udev/rules.d
{
    printf 'KERNEL=="%s", ENV{ID_PART_ENTRY_SCHEME}="dos", ENV{ID_PART_ENTRY_NUMBER}="1", ' "$(basename "$partition_loop")"
    printf 'ENV{ID_PART_ENTRY_TYPE}="0x83", ENV{ID_PART_ENTRY_OFFSET}="2048", ENV{ID_PART_ENTRY_SIZE}="129024", '
    printf 'ENV{ID_PART_ENTRY_DISK}="%s"\n' "$(cat "/sys/class/block/$(basename "$loop")/dev")"
    printf 'KERNEL=="%s", ENV{ID_BUS}="usb", ENV{ID_VENDOR}="Larkd", ENV{ID_MODEL}="Test_Disk", ' "$(basename "$loop")"
    printf 'ENV{ID_SERIAL}="Larkd_Test_Disk_0001", ENV{ID_SERIAL_SHORT}="0001"\n'
} >/run/udev/rules.d/99-larkd-real-udisks.rules
mkfs.ext4 -q -F -L LARKTEST "$partition_loop"
udevadm control --reload
udevadm trigger --action=change "$loop" "$partition_loop" 2>/dev/null || true
udevadm settle --timeout=10 || true

setpriv --pdeathsig KILL -- "$udisksd" --no-sigint >"$work/udisksd.log" 2>&1 &
udisksd_pid=$!
# Ready once it shows the partition's filesystem.
wait_until 200 dbus-send --system --print-reply --dest=org.freedesktop.UDisks2 \
    "/org/freedesktop/UDisks2/block_devices/$(basename "$partition_loop")" org.freedesktop.DBus.Properties.Get \
    string:org.freedesktop.UDisks2.Filesystem string:MountPoints >/dev/null ||
    skip "udisksd did not show $partition_loop with a filesystem: $(tail -n3 "$work/udisksd.log")"
export REAL_UDISKS_LOOP=$loop REAL_UDISKS_PARTITION=$partition_loop

"$@"
