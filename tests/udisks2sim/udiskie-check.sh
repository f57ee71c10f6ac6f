#!/usr/bin/env bash
# Run by with-sim-bus.sh with the example unit: Debian's udiskie, an automounter
# written against the real UDisks2 service, must mount the cards put into the
# simulated slot and reader through the simulator (the simulator's record shows
# its Mount calls), notice their removal (udiskie's own log shows it) and leave
# the system partitions alone.
set -euo pipefail
if ! command -v udiskie >/dev/null; then
    echo "SKIP: udiskie is not installed (scripts/setup.sh installs it)" >&2
    exit 77
fi
sim=${UDISKS2_SIM:?run through with-sim-bus.sh}
log=$(mktemp)
udiskie -C -a -N -T -F --no-terminal -v >"$log" 2>&1 &
udiskie_pid=$!
trap 'set +e; kill $udiskie_pid 2>/dev/null; wait $udiskie_pid 2>/dev/null; rm -f "$log"' EXIT

# wait_for DESCRIPTION COMMAND...: polls COMMAND for up to 10 s.
wait_for() {
    local what=$1
    shift
    for _ in $(seq 200); do
        "$@" && return 0
        sleep 0.05
    done
    echo "FAIL: $what" >&2
    { echo "--- simulator record"; "$sim" ctl calls; echo "--- udiskie log"; cat "$log"; } >&2 || true
    exit 1
}
recorded() { "$sim" ctl calls | grep -q "$1"; }
logged() { grep -q "$1" "$log"; }
untouched() { ! "$sim" ctl calls | grep -q "$1"; }

wait_for "udiskie did not reach the simulated service" logged "Daemon version: 2.9.4"
"$sim" ctl insert left charts
wait_for "udiskie did not mount the card in the built-in slot" recorded "^Mount mmcblk0p1 $SIM_MOUNT_BASE/CHARTS"
"$sim" ctl remove left
wait_for "udiskie did not notice the card's removal" logged "device_removed: /org/freedesktop/UDisks2/block_devices/mmcblk0p1"
"$sim" ctl insert reader photos
wait_for "udiskie did not mount the card in the reader" recorded "^Mount sdb1 $SIM_MOUNT_BASE/PHOTOS"
"$sim" ctl remove reader
wait_for "udiskie did not notice the card pulled from the reader" logged "device_removed: /org/freedesktop/UDisks2/block_devices/sdb1"
wait_for "udiskie mounted a system partition" untouched "mmcblk2"
echo "udiskie mounted both cards through the simulator and noticed both removals"
