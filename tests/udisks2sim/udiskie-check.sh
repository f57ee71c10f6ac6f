#!/usr/bin/env bash
# Run by with-sim-bus.sh with the example unit: Debian's udiskie, an automounter
# written against the real UDisks2 service, must mount the cards put into the
# simulated slot and reader through the simulator (the simulator's record shows
# its Mount calls), notice their removal (udiskie's own log shows it) and leave
# the system partitions alone.
set -euo pipefail
command -v udiskie >/dev/null || { echo "SKIP: udiskie is not installed (scripts/setup.sh installs it)" >&2; exit 77; }
sim=${UDISKS2_SIM:?run through with-sim-bus.sh}
log=$(mktemp)
udiskie -C -a -N -T -F --no-terminal -v >"$log" 2>&1 &
udiskie_pid=$!
trap 'set +e; kill $udiskie_pid 2>/dev/null; wait $udiskie_pid 2>/dev/null; rm -f "$log"' EXIT

# expect DESCRIPTION calls|log PATTERN: polls the simulator's record or udiskie's log for up to 10 s.
expect() {
    for _ in $(seq 200); do
        text=$(if [ "$2" = calls ]; then "$sim" ctl calls; else cat "$log"; fi)
        grep -q "$3" <<<"$text" && return 0
        sleep 0.05
    done
    echo "FAIL: udiskie did not $1" >&2
    { echo "--- simulator record"; "$sim" ctl calls; echo "--- udiskie log"; cat "$log"; } >&2 || true
    exit 1
}

expect "reach the simulated service" log "Daemon version: 2.9.4"
for card in "left charts mmcblk0p1 CHARTS" "reader photos sdb1 PHOTOS"; do
    read -r slot medium node label <<<"$card"
    "$sim" ctl insert "$slot" "$medium"
    expect "mount the card in slot $slot" calls "^Mount $node $SIM_MOUNT_BASE/$label"
    "$sim" ctl remove "$slot"
    expect "notice the removal of the card in slot $slot" log "device_removed: /org/freedesktop/UDisks2/block_devices/$node"
done
if "$sim" ctl calls | grep -q mmcblk2; then
    echo "FAIL: udiskie touched a system partition" >&2
    exit 1
fi
echo "udiskie mounted both cards through the simulator and noticed both removals"
