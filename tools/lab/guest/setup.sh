#!/bin/bash
# Makes a freshly booted lab machine a unit: larkd installed from its
# packages, the platform's slot configuration, udisks2 mounting shared
# under /run/media as on the unit, the NFS server, and eth0 with a
# link-local address.
#   setup.sh [ADDRESS]      e.g. 169.254.0.1; none: eth0 is left alone
set -euo pipefail
address=${1:-}

# Installed from its packages, enabled but not started: each scenario writes
# its options before the first start.
printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d
chmod 755 /usr/sbin/policy-rc.d
dpkg -i /lab/debs/*.deb > /run/lab-dpkg.log 2>&1 || { cat /run/lab-dpkg.log; exit 1; }
rm /usr/sbin/policy-rc.d

mkdir -p /run/corvex_platform
echo "sd_slots=left,/dev/mmcblk0" > /run/corvex_platform/config

# Shared mounts land in /media/LABEL; the unit's udisks2 mounts in
# /run/media, where larkd keeps its links.
ln -sfn /media /run/media
mkdir -p /run/udev/rules.d
echo 'SUBSYSTEM=="block", ENV{UDISKS_FILESYSTEM_SHARED}="1"' > /run/udev/rules.d/99-lab-shared-mounts.rules
udevadm control --reload
udevadm trigger --action=change --subsystem-match=block
udevadm settle

install -m 755 /lab/guest/mount /usr/local/sbin/mount
systemctl start nfs-server

if [ -n "$address" ]; then
    ip link set eth0 up
    ip addr add "$address/16" dev eth0
    # The unit's network set-up routes multicast to eth0.
    ip route add 224.0.0.0/4 dev eth0
fi
