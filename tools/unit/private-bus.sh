# Sourced by the test scripts: start_private_bus DIR
# Starts a dbus-daemon that lets everyone do everything, listening on
# DIR/bus.socket and killed with the calling shell; sets bus_pid and exports
# DBUS_SYSTEM_BUS_ADDRESS. Returns 1 if the daemon does not come up.
start_private_bus() {
    local dir=$1
    cat >"$dir/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/bus.socket</listen>
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
