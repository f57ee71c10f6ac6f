#!/usr/bin/env python3
"""The lab's own check, independent of what larkd can do yet: a pair of
machines boots, udisks2 sees and mounts the card, the card and the stick
come and go through the monitor, multicast and NFS (through the udp->tcp
mount wrapper) work across the link, and larkd starts under its installed
systemd unit.
    lab_check.py BUILD_DIR
"""

import os
import sys
import time

sys.dont_write_bytecode = True  # nothing written into the source tree
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "lab"))
from lab import Lab, LabError, free_loopback_port, log, make_vfat_image  # noqa: E402
from unit import Unit  # noqa: E402

ADDR_A, ADDR_B = "169.254.20.1", "169.254.20.2"


def expect(condition, text):
    if not condition:
        raise LabError(text)


def check_media(a, ua):
    """udisks2 sees both media; they go and come back through the monitor."""
    info = a.wait_for("udisksctl info -b /dev/mmcblk0p1", "udisks2's card", 60)
    expect("LABCARD" in info and "vfat" in info, "udisks2's view of the card:\n" + info)
    a.wait_for("udisksctl info -b /dev/sda1 | grep -q LABSTICK", "udisks2's stick", 60)
    out = a.sh("udisksctl mount -b /dev/mmcblk0p1 -o flush,utf8")
    target = ua.wait_mounted("/dev/mmcblk0p1")[0]
    expect(target == "/media/LABCARD", "udisks2 mounted the card at %s (%s)" % (target, out))
    expect(a.sh("cat /media/LABCARD/chart.txt") == "card chart", "card content")
    a.pull_card()
    a.wait_for("! test -e /dev/mmcblk0p1", "the card's removal", 30)
    ua.wait_unmounted("/dev/mmcblk0p1", 30)
    a.insert_card()
    a.wait_for("udisksctl info -b /dev/mmcblk0p1 | grep -q LABCARD", "the card's return", 60)
    a.pull_stick()
    a.wait_for("! test -e /dev/sda", "the stick's removal", 30)
    a.insert_stick()
    a.wait_for("udisksctl info -b /dev/sda1 | grep -q LABSTICK", "the stick's return", 60)


def check_link(a, b, ua):
    """Multicast from A reaches B; B mounts A's export over NFS, asking for
    udp as the daemon does."""
    b.sh("setsid socat -u UDP4-RECV:10099,ip-add-membership=224.1.1.1:eth0 "
         "OPEN:/run/mcast.txt,creat,append < /dev/null > /dev/null 2>&1 &")
    b.wait_for("ss -lunH 'sport = :10099' | grep -q .", "B's multicast receiver", 20)
    a.sh("echo hello-from-A | socat -u STDIN UDP4-DATAGRAM:224.1.1.1:10099,ip-multicast-if=%s" % ADDR_A)
    b.wait_for("grep -q hello-from-A /run/mcast.txt", "A's multicast datagram on B", 20)

    a.sh("udisksctl mount -b /dev/mmcblk0p1")
    target = ua.wait_mounted("/dev/mmcblk0p1")[0]
    a.sh("exportfs -o ro,no_subtree_check,insecure 169.254.0.0/16:%s" % target)
    b.sh("mkdir -p /run/nfs-check && mount -t nfs -o rsize=1280,soft,udp,noatime,nodiratime,ro "
         "%s:%s /run/nfs-check" % (ADDR_A, target), timeout=90)
    expect(b.sh("cat /run/nfs-check/chart.txt") == "card chart", "card content over NFS")
    expect("udp -> tcp" in b.sh("cat /run/lab-mount.log"), "the mount wrapper did not log its change")
    b.sh("umount -fl /run/nfs-check")


def check_service(a):
    a.sh("systemctl start larkd")
    a.wait_for("ss -ltnH 'sport = :15003' | grep -q LISTEN", "larkd listening", 60)
    expect(a.sh("systemctl is-active larkd").strip() == "active", "larkd is not active")
    a.sh("systemctl stop larkd")
    expect(a.sh("systemctl show -P ExecMainStatus larkd").strip() == "0", "larkd's exit status")


def main(build_dir):
    times = {}
    with Lab(build_dir) as lab:
        card = lab.path("card.img")
        stick = lab.path("stick.img")
        make_vfat_image(card, "LABCARD", {"chart.txt": "card chart\n"})
        make_vfat_image(stick, "LABSTICK", {"route.txt": "stick route\n"})
        port = free_loopback_port()
        a = lab.machine("unitA", mac="52:54:00:00:01:0a", net=("listen", port), sd=card, usb=stick)
        b = lab.machine("unitB", mac="52:54:00:00:01:0b", net=("connect", port))
        started = time.monotonic()
        a.start()
        b.start()
        times["boot A"] = a.wait_ready()
        b.wait_ready()
        times["boot pair"] = time.monotonic() - started
        ua, ub = Unit(a), Unit(b)
        ua.setup(ADDR_A)
        ub.setup(ADDR_B)
        for name, step in (("media", lambda: check_media(a, ua)),
                           ("link", lambda: check_link(a, b, ua)),
                           ("service", lambda: check_service(a))):
            started = time.monotonic()
            step()
            times[name] = time.monotonic() - started
    log("lab check passed: " + ", ".join("%s %.1f s" % kv for kv in times.items()))


if __name__ == "__main__":
    try:
        main(sys.argv[1])
    except LabError as e:
        print("lab: FAILED: %s" % e, flush=True)
        sys.exit(1)
