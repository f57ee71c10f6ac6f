#!/usr/bin/env bash
# A demonstration of larkd on a simulated unit, safe on any Linux machine.
# Sets up and builds if needed, then starts two simulated units, each in a
# network namespace of its own joined by a veth pair ("eth0" on both sides,
# link-local addresses), and each in a private mount namespace: a private
# D-Bus, the UDisks2 simulator (two SD card slots, a USB port, a card reader)
# and larkd, with recording stand-ins for exportfs, mount, umount and
# mountpoint. The first unit is laid out as the device looks: the sysfs of its
# slots and cards (card identities included) and the platform slot file. The
# machine's own /sys, /dev, /run/media, system bus and NFS exports are never
# touched. It then puts a card and a USB stick in the first unit, shows what
# its display application hears through larkd-client and what the second
# unit's application hears (the card as a remote volume), takes them out
# again and stops everything.
#   scripts/run.sh [LARKD-OPTION...]     default: --vfat utf8,shortname=mixed
# The options are the first unit's. Needs root (for the namespaces). Port
# inside each unit: LARKD_DEMO_PORT (15003).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
port=${LARKD_DEMO_PORT:-15003}

if [ "$(id -u)" -ne 0 ]; then
    echo "run.sh: the demonstration needs root: each unit runs in private mount and network" >&2
    echo "        namespaces (its own /run/media, /sys and eth0), which only root can make. Try: sudo $0" >&2
    exit 1
fi

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
pause() { sleep "${1:-1.5}"; }

say "Setting up and building (only what is missing or changed)"
"$root/scripts/setup.sh" build
build=$root/build
sim=$build/tools/udisks2-sim/udisks2-sim
client=$build/tools/larkd-client/larkd-client
unit=$root/tools/udisks2-sim/units/two-slots-stick-reader.json

sysfs=$build/tools/unit/unit-sysfs
mac=(02:4c:4b:00:0a:01 02:4c:4b:00:0a:02)
address=(169.254.10.1 169.254.10.2)

[ $# -gt 0 ] || set -- --vfat utf8,shortname=mixed
state=$(mktemp -d)
netns=(larkd-demo-$$-unit larkd-demo-$$-peer)
larkd_pid=
peer_pid=
follow_pids=()
cleanup() {
    set +e
    for pid in "${follow_pids[@]}"; do kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; done
    for pid in "$larkd_pid" "$peer_pid"; do
        [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null && kill -TERM "$pid" && wait "$pid" 2>/dev/null
    done
    for ns in "${netns[@]}"; do ip netns del "$ns" 2>/dev/null; done
    rm -rf "$state"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The cable between the two units: eth0 on each side, as on the device.
ip netns add "${netns[0]}"
ip netns add "${netns[1]}"
ip -n "${netns[0]}" link add eth0 address "${mac[0]}" type veth peer name eth0 address "${mac[1]}" netns "${netns[1]}"
for i in 0 1; do
    ip -n "${netns[i]}" addr add "${address[i]}/16" dev eth0
    ip -n "${netns[i]}" link set lo up
    ip -n "${netns[i]}" link set eth0 up
done
# (The units themselves start through `ip netns exec` directly, so that $! is larkd.)
in_unit() { ip netns exec "${netns[0]}" "$@"; }
in_peer() { ip netns exec "${netns[1]}" "$@"; }

# unit_started PID STATEDIR NETNS: waits for the unit's bus and larkd's port.
unit_started() {
    for _ in $(seq 200); do
        [ -s "$2/bus" ] && break
        kill -0 "$1" 2>/dev/null || { echo "run.sh: a unit did not start" >&2; return 1; }
        sleep 0.05
    done
    until ip netns exec "$3" "$client" --port "$port" list --wait 100 >/dev/null 2>&1; do
        kill -0 "$1" 2>/dev/null || { echo "run.sh: larkd exited" >&2; return 1; }
        sleep 0.1
    done
}

say "Starting the simulated unit: private bus, UDisks2 simulator, larkd on 127.0.0.1:$port, eth0 at ${address[0]}"
echo "   Unit description: $unit"
echo "   Lines from larkd's log start with 'larkd |', messages to the display application with 'app   |'."
echo "   larkd options: $*"
mkdir "$state/unit" "$state/peer"
QT_LOGGING_RULES=${QT_LOGGING_RULES:-lk.daemon.debug=true} LARKD_BINARY=$build/daemon/larkd UDISKS2_SIM_BINARY=$sim \
    LARKD_UNIT_SYSFS=$sysfs ip netns exec "${netns[0]}" "$root/tools/unit/larkd-unit.sh" "$state/unit" "$unit" --port "$port" "$@" \
    > >(sed -u 's/^/   larkd | /') 2>&1 &
larkd_pid=$!
unit_started "$larkd_pid" "$state/unit" "${netns[0]}"
echo "   Laid out as on the device: /run/corvex_platform/config names the SD slots, sysfs carries each card's identity:"
sed 's/^/      /' "/proc/$larkd_pid/root/run/corvex_platform/config"

say "Starting a second unit, the peer, on the other end of the cable: eth0 at ${address[1]}, no card"
echo "   Its log goes to a file; what its display application hears starts with 'peer  |'."
LARKD_BINARY=$build/daemon/larkd UDISKS2_SIM_BINARY=$sim LARKD_UNIT_SYSFS=$sysfs \
    ip netns exec "${netns[1]}" "$root/tools/unit/larkd-unit.sh" "$state/peer" "$unit" --port "$port" --nfs-root /var/lib/nfs/remote \
    >"$state/peer.log" 2>&1 &
peer_pid=$!
unit_started "$peer_pid" "$state/peer" "${netns[1]}" || { cat "$state/peer.log"; exit 1; }
export DBUS_SYSTEM_BUS_ADDRESS
DBUS_SYSTEM_BUS_ADDRESS=$(cat "$state/unit/bus")
echo "   The unit's own eMMC is present from the start; larkd leaves system partitions alone."

media() {
    echo "   /run/media as larkd sees it:"
    # shellcheck disable=SC2012
    ls -l "/proc/$larkd_pid/root/run/media" | tail -n +2 | sed 's/^/      /'
}

say "The display applications connect: larkd-client follow (one JSON document a line)"
in_unit "$client" --port "$port" follow > >(sed -u 's/^/   app   | /') 2>&1 &
follow_pids+=($!)
in_peer "$client" --port "$port" follow > >(sed -u 's/^/   peer  | /') 2>&1 &
follow_pids+=($!)
pause 1

# peer_follows mount|umount: waits (up to 20 s) for the peer's larkd to mount
# or unmount the card's share, as its stand-ins record. (Asking the peer's
# larkd with another client would take the application's place.)
peer_follows() {
    for _ in $(seq 200); do
        grep -q "^$1"$'\t'".*CHARTS" "$state/peer/calls" && { pause 0.3; return 0; }
        sleep 0.1
    done
    echo "   (the peer did not follow in time; its log: $state/peer.log)"
}

say "A card goes into the left SD slot: its sysfs (with the card's CID) appears, then udisks2-sim ctl insert left charts"
nsenter --mount --target "$larkd_pid" "$sysfs" /sys "$unit" left=charts
"$sim" ctl insert left charts
pause
media
peer_follows mount
say "The peer heard the card's announcement and mounted its export: a remote volume (\"remote\":true) for its application"
pause 1

say "A USB stick goes into the USB port: udisks2-sim ctl insert usb stick"
"$sim" ctl insert usb stick
pause
media

say "SIGUSR1 asks larkd to tell the application about every volume again"
kill -USR1 "$larkd_pid"
pause

say "The card comes out: udisks2-sim ctl remove left (a removal is a \"dataarrival\" whose fields are null but \"path\")"
"$sim" ctl remove left
echo "   The unit withdraws the share at once: the peer unmounts it and its application hears the removal."
peer_follows umount
pause
say "The stick comes out: udisks2-sim ctl remove usb"
"$sim" ctl remove usb
pause
media

say "What larkd asked of the system meanwhile"
echo "   UDisks2 (simulator's record):"
"$sim" ctl calls | sed 's/^/      /'
echo "   exportfs, mount, umount, mountpoint (stand-ins' record):"
tr '\t' ' ' <"$state/unit/calls" | sed 's/^/      /'
echo "   The peer's larkd: exportfs, mount, umount, mountpoint (NFS stood in for by tmpfs):"
tr '\t' ' ' <"$state/peer/calls" | sed 's/^/      /'

say "Stopping: SIGTERM to both larkd (volumes would stay mounted; bus and simulator go with it)"
for pid in "${follow_pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null || true; done
follow_pids=()
kill -TERM "$peer_pid"
wait "$peer_pid" || true
peer_pid=
kill -TERM "$larkd_pid"
status=0
wait "$larkd_pid" || status=$?
larkd_pid=
echo "   larkd exited with status $status"
say "Done"
