#!/usr/bin/env bash
# with-sim-bus.sh UNITFILE COMMAND [ARG...]
# Runs COMMAND against a simulated UDisks2 service on a private bus of its own:
# starts dbus-daemon and udisks2-sim with the unit description UNITFILE, exports
#   DBUS_SYSTEM_BUS_ADDRESS  the private bus (what the code under test uses)
#   UDISKS2_SIM              the simulator binary ("$UDISKS2_SIM" ctl insert left charts)
#   SIM_MOUNT_BASE           where the simulator makes mount directories
# and stops both afterwards, whatever COMMAND does. Exits with COMMAND's status.
# The simulator is UDISKS2_SIM_BINARY, else udisks2-sim on PATH, else the one in build/.
set -euo pipefail
. "$(dirname "$0")/../../tools/unit/private-bus.sh"
if [ $# -lt 2 ]; then
    echo "usage: $0 UNITFILE COMMAND [ARG...]" >&2
    exit 2
fi
unit=$1
shift
root=$(cd "$(dirname "$0")/../.." && pwd)
sim=${UDISKS2_SIM_BINARY:-$(command -v udisks2-sim || echo "$root/build/tools/udisks2-sim/udisks2-sim")}
if [ ! -x "$sim" ]; then
    echo "with-sim-bus: no simulator at $sim (build first or set UDISKS2_SIM_BINARY)" >&2
    exit 2
fi

work=$(mktemp -d)
bus_pid=
sim_pid=
cleanup() {
    set +e
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null && wait "$bus_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if ! start_private_bus "$work"; then
    echo "with-sim-bus: dbus-daemon did not start" >&2
    exit 1
fi
export UDISKS2_SIM="$sim"
export SIM_MOUNT_BASE=${SIM_MOUNT_BASE:-$work/media}

"$sim" --unit "$unit" --mount-base "$SIM_MOUNT_BASE" &
sim_pid=$!
# Ready once the control interface answers (the simulator takes its name last).
for _ in $(seq 200); do
    "$sim" ctl inserted >/dev/null 2>&1 && break
    if ! kill -0 "$sim_pid" 2>/dev/null; then
        echo "with-sim-bus: the simulator exited (unit $unit)" >&2
        exit 1
    fi
    sleep 0.05
done

status=0
"$@" || status=$?
cleanup
trap - EXIT
exit "$status"
