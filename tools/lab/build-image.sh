#!/usr/bin/env bash
# Prints the directory of the lab's machine image (kernel, initrd, root
# filesystem), building it from Debian packages first when the cache has no
# image for the current package list and guest files.
#   build-image.sh [CACHE_ROOT]      default /var/cache/larkd-lab
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cache_root=${1:-${LARKD_LAB_CACHE:-/var/cache/larkd-lab}}
# Standard output carries the image's directory and nothing else: whatever
# the tools below print goes to standard error.
exec 3>&1 1>&2

key=$(cat "$here/build-image.sh" "$here/guest-packages.txt" "$here/guest/lab-agent" "$here/guest/lab-agent.service" | sha256sum | cut -c1-16)
image="$cache_root/$key"
if [ -f "$image/complete" ]; then
    echo "$image" >&3
    exit 0
fi

mkdir -p "$cache_root"
exec 9>"$cache_root/.lock"
flock 9
# Another build may have finished while we waited for the lock.
if [ -f "$image/complete" ]; then
    echo "$image" >&3
    exit 0
fi

# Half-made images of builds that were killed; none can be running now.
rm -rf "$cache_root"/.build.*
work=$(mktemp -d "$cache_root/.build.XXXXXX")
trap 'rm -rf "$work"' EXIT
started=$(date +%s)

packages=$(grep -v '^#' "$here/guest-packages.txt" | grep -v '^$' | paste -sd, -)
echo "lab: building the machine image from Debian packages (a few minutes)"
# net.ifnames=0 gives the wired interface its unit name, eth0.
mmdebstrap --variant=apt --include="$packages" \
    --customize-hook='echo lab > "$1/etc/hostname"' \
    --customize-hook='printf "lab /lab 9p trans=virtio,version=9p2000.L,ro,nofail 0 0\n" > "$1/etc/fstab"' \
    --customize-hook='mkdir -p "$1/lab"' \
    --customize-hook="install -m 755 '$here/guest/lab-agent' \"\$1/usr/local/sbin/lab-agent\"" \
    --customize-hook="install -m 644 '$here/guest/lab-agent.service' \"\$1/etc/systemd/system/lab-agent.service\"" \
    --customize-hook='chroot "$1" systemctl enable lab-agent.service' \
    --customize-hook='chroot "$1" systemctl mask apt-daily.timer apt-daily-upgrade.timer man-db.timer e2scrub_all.timer fstrim.timer systemd-networkd-wait-online.service' \
    --customize-hook='cp -L "$1/vmlinuz" "$1/initrd.img" "$1/../"' \
    bookworm "$work/root" http://deb.debian.org/debian

mkfs.ext4 -q -L labroot -d "$work/root" "$work/rootfs.img" 3G
rm -rf "$work/root"
echo "$(($(date +%s) - started))" > "$work/build-seconds"
touch "$work/complete"
rm -rf "$image"
mv "$work" "$image"
trap - EXIT
echo "lab: image built in $(cat "$image/build-seconds") s: $image"
echo "$image" >&3
