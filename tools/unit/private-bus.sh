#!/usr/bin/env bash
# A dbus-daemon that lets everyone do everything, so that a unit, a test or a
# script never shares a bus and nothing needs the machine's system bus.
#   private-bus.sh DIR    runs it, listening on DIR/bus.socket; prints its
#                         address on stdout once it serves; ends when killed
# Sourced, start_private_bus DIR starts it in the background, killed with the
# calling shell; sets bus_pid and exports DBUS_SYSTEM_BUS_ADDRESS. Returns 1
# if the daemon does not come up.
private_bus_config() {
    cat >"$1/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$1/bus.socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/>
    <allow send_type="method_call"/> <allow send_type="signal"/>
    <allow send_type="method_return"/> <allow send_type="error"/>
    <allow receive_type="method_call"/> <allow receive_type="signal"/>
    <allow receive_type="method_return"/> <allow receive_type="error"/>
  </policy>
</busconfig>
CONF
}

start_private_bus() {
    local dir=$1
    private_bus_config "$dir"
    # Its only complaint as root is about the fd limit.
    setpriv --pdeathsig KILL -- dbus-daemon --config-file="$dir/bus.conf" --nofork \
        --print-address=3 3>"$dir/bus.address" 2>/dev/null &
    bus_pid=$!
    for _ in $(seq 100); do
        [ -s "$dir/bus.address" ] && break
        sleep 0.05
    done
    DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$dir/bus.address")
    export DBUS_SYSTEM_BUS_ADDRESS
    [ -n "$DBUS_SYSTEM_BUS_ADDRESS" ]
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    [ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
    private_bus_config "$1"
    exec dbus-daemon --config-file="$1/bus.conf" --nofork --print-address 2>/dev/null
fi
