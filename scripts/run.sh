#!/usr/bin/env bash
# A demonstration of larkd on a simulated unit, safe on any Linux machine.
# Sets up and builds if needed, then starts, in a private mount namespace of
# their own: a private D-Bus, the UDisks2 simulator (two SD card slots, a USB
# port, a card reader) and larkd, with recording stand-ins for exportfs,
# mount, umount and mountpoint. The machine's own /run/media, system bus and
# NFS exports are never touched. It then puts a card and a USB stick in,
# shows what the display application hears through larkd-client, takes them
# out again and stops everything.
#   scripts/run.sh [LARKD-OPTION...]     default: --vfat utf8,shortname=mixed
# Needs root (for the private mount namespace). Port: LARKD_DEMO_PORT (15003).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
port=${LARKD_DEMO_PORT:-15003}

if [ "$(id -u)" -ne 0 ]; then
    echo "run.sh: the demonstration needs root: larkd runs in a private mount namespace" >&2
    echo "        (its own /run/media), which only root can make. Try: sudo $0" >&2
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

[ $# -gt 0 ] || set -- --vfat utf8,shortname=mixed
state=$(mktemp -d)
larkd_pid=
follow_pid=
cleanup() {
    set +e
    [ -n "$follow_pid" ] && kill "$follow_pid" 2>/dev/null && wait "$follow_pid" 2>/dev/null
    if [ -n "$larkd_pid" ] && kill -0 "$larkd_pid" 2>/dev/null; then
        kill -TERM "$larkd_pid" && wait "$larkd_pid" 2>/dev/null
    fi
    rm -rf "$state"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say "Starting the simulated unit: private bus, UDisks2 simulator, larkd on 127.0.0.1:$port"
echo "   Unit description: $unit"
echo "   Lines from larkd's log start with 'larkd |', messages to the display application with 'app   |'."
echo "   larkd options: $*"
QT_LOGGING_RULES=${QT_LOGGING_RULES:-lk.daemon.debug=true} LARKD_BINARY=$build/daemon/larkd UDISKS2_SIM_BINARY=$sim \
    "$root/tests/scripts/larkd-unit.sh" "$state" "$unit" --port "$port" "$@" \
    > >(sed -u 's/^/   larkd | /') 2>&1 &
larkd_pid=$!
for _ in $(seq 200); do
    [ -s "$state/bus" ] && break
    kill -0 "$larkd_pid" 2>/dev/null || { echo "run.sh: the unit did not start" >&2; exit 1; }
    sleep 0.05
done
export DBUS_SYSTEM_BUS_ADDRESS
DBUS_SYSTEM_BUS_ADDRESS=$(cat "$state/bus")
until "$client" --port "$port" list --wait 100 >/dev/null 2>&1; do
    kill -0 "$larkd_pid" 2>/dev/null || { echo "run.sh: larkd exited" >&2; exit 1; }
    sleep 0.1
done
echo "   The unit's own eMMC is present from the start; larkd leaves system partitions alone."

media() {
    echo "   /run/media as larkd sees it:"
    # shellcheck disable=SC2012
    ls -l "/proc/$larkd_pid/root/run/media" | tail -n +2 | sed 's/^/      /'
}

say "The display application connects: larkd-client follow (one JSON document a line)"
"$client" --port "$port" follow > >(sed -u 's/^/   app   | /') 2>&1 &
follow_pid=$!
pause 1

say "A card goes into the left SD slot: udisks2-sim ctl insert left charts"
"$sim" ctl insert left charts
pause
media

say "A USB stick goes into the USB port: udisks2-sim ctl insert usb stick"
"$sim" ctl insert usb stick
pause
media

say "SIGUSR1 asks larkd to tell the application about every volume again"
kill -USR1 "$larkd_pid"
pause

say "The card comes out: udisks2-sim ctl remove left (a removal is a \"dataarrival\" whose fields are null but \"path\")"
"$sim" ctl remove left
pause
say "The stick comes out: udisks2-sim ctl remove usb"
"$sim" ctl remove usb
pause
media

say "What larkd asked of the system meanwhile"
echo "   UDisks2 (simulator's record):"
"$sim" ctl calls | sed 's/^/      /'
echo "   exportfs, mount, umount, mountpoint (stand-ins' record):"
tr '\t' ' ' <"$state/calls" | sed 's/^/      /'

say "Stopping: SIGTERM to larkd (volumes would stay mounted; bus and simulator go with it)"
kill "$follow_pid" 2>/dev/null; wait "$follow_pid" 2>/dev/null || true
follow_pid=
kill -TERM "$larkd_pid"
status=0
wait "$larkd_pid" || status=$?
larkd_pid=
echo "   larkd exited with status $status"
say "Done"
