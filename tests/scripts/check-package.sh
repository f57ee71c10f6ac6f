#!/usr/bin/env bash
# check-package.sh DEB_DIR [CROSS_DEB_DIR]
# Checks the packages scripts/package.sh made for this machine's
# architecture in DEB_DIR: lintian finds no error; larkd's Depends names the
# package of every library its binaries load (so it was computed, and is
# complete); /etc/default/larkd is a conffile; the systemd unit starts
# /usr/sbin/larkd. Then, as root, installs them into a throwaway copy of this
# machine's root (an overlay in a private mount namespace; the machine's own
# root is never written): the unit is enabled on install and disabled on
# removal, the options file outlives removal and goes on purge.
# With CROSS_DEB_DIR (the armhf packages) its larkd must depend on the same
# packages, found in the sysroot, as the native one.
set -euo pipefail
dir=$1
cross=${2:-}
arch=$(dpkg --print-architecture)
fail() { echo "check-package: $*" >&2; exit 1; }
larkd=$(echo "$dir"/larkd_*_"$arch".deb)
client=$(echo "$dir"/larkd-client_*_"$arch".deb)
[ -f "$larkd" ] && [ -f "$client" ] || fail "no larkd and larkd-client packages for $arch in $dir"

echo "check-package: lintian $(basename "$larkd") $(basename "$client")"
lintian --fail-on error "$larkd" "$client" || fail "lintian reports errors"

# Package names of a Depends field, without versions or alternatives.
depends() { dpkg-deb -f "$1" Depends | tr ',|' '\n\n' | sed 's/(.*//; s/:.*//; s/ //g' | sed '/^$/d' | sort -u; }
names=$(depends "$larkd")
extract=$(mktemp -d)
trap 'rm -rf "$extract"' EXIT
dpkg-deb -x "$larkd" "$extract/larkd"
dpkg-deb -x "$client" "$extract/client"
for binary in "$extract/larkd/usr/sbin/larkd" "$extract/client/usr/bin/larkd-client"; do
    for soname in $(objdump -p "$binary" | awk '$1 == "NEEDED" { print $2 }'); do
        library=$(ldconfig -p | awk -v soname="$soname" '$1 == soname && !found { print $NF; found = 1 }')
        owner=$(dpkg -S "$(realpath "$library")" 2>/dev/null | head -n1 | cut -d: -f1) ||
            owner=$(dpkg -S "$library" | head -n1 | cut -d: -f1)
        package=$([ "$binary" = "$extract/larkd/usr/sbin/larkd" ] && echo "$larkd" || echo "$client")
        depends "$package" | grep -x "$owner" >/dev/null || fail "$(basename "$package") loads $soname ($owner) but does not depend on it"
    done
done
echo "check-package: larkd depends on $(echo $names)"
dpkg-deb --ctrl-tarfile "$larkd" | tar -xO ./conffiles | grep -x /etc/default/larkd >/dev/null || fail "/etc/default/larkd is not a conffile"
grep -qx 'ExecStart=/usr/sbin/larkd $LARKD_OPTIONS' "$extract/larkd/lib/systemd/system/larkd.service" ||
    fail "larkd.service does not start /usr/sbin/larkd"

if [ -n "$cross" ]; then
    cross_names=$(depends "$(echo "$cross"/larkd_*.deb)")
    [ "$cross_names" = "$names" ] || fail "the armhf larkd depends on $(echo $cross_names), the native one on $(echo $names)"
    echo "check-package: the armhf larkd depends on the same packages ($(dpkg-deb -f "$cross"/larkd_*.deb Depends))"
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "check-package: installing needs root (a private mount namespace); not tried"
    exit 0
fi
cp "$larkd" "$client" "$extract/"
unshare --mount --propagation private -- bash -euo pipefail -c '
    work=$1
    mkdir "$work/layers" "$work/root"
    mount -t tmpfs larkd-package "$work/layers"
    mkdir "$work/layers/upper" "$work/layers/work"
    mount -t overlay larkd-package -o "lowerdir=/,upperdir=$work/layers/upper,workdir=$work/layers/work" "$work/root"
    mount --rbind /dev "$work/root/dev"
    mount -t proc proc "$work/root/proc"
    # No service manager in here: the maintainer scripts only enable the unit.
    mount -t tmpfs larkd-package "$work/root/run"
    mount -t tmpfs larkd-package "$work/root/tmp"
    cp "$work"/*.deb "$work/root/tmp/"
    chroot "$work/root" /bin/bash -euo pipefail -c "
        fail() { echo \"check-package: \$*\" >&2; exit 1; }
        link=/etc/systemd/system/multi-user.target.wants/larkd.service
        dpkg -i /tmp/*.deb >/tmp/dpkg.log 2>&1 || { cat /tmp/dpkg.log; fail \"dpkg -i failed\"; }
        [ -L \$link ] || fail \"larkd.service is not enabled after installation\"
        larkd --help >/dev/null && larkd-client --help >/dev/null || fail \"the installed programs do not run\"
        dpkg -r larkd >/dev/null
        [ ! -e \$link ] || fail \"larkd.service is still enabled after removal\"
        [ -f /etc/default/larkd ] || fail \"/etc/default/larkd went with removal\"
        dpkg -P larkd larkd-client >/dev/null
        [ ! -e /etc/default/larkd ] || fail \"/etc/default/larkd outlived purge\"
        echo \"check-package: installed, enabled, removed and purged in a throwaway root\"
    "
' check-package "$extract"
