#!/usr/bin/env python3
"""Two units on one link, each with a link-local address on eth0: unit B
discovers unit A by its MAC, mounts A's card over real NFS and reports it as
a remote volume; pulling the card on A removes it on B. First the lab's own
part: multicast and NFS (through the udp->tcp mount wrapper) across the link.
    two_units.py BUILD_DIR
"""

import os
import sys
import time

sys.dont_write_bytecode = True  # nothing written into the source tree
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "lab"))
from lab import Lab, Timings, expect, free_loopback_port, log, run_scenario  # noqa: E402
from unit import Unit, arrival, is_removal  # noqa: E402

MAC_A, MAC_B = "52:54:00:00:00:0a", "52:54:00:00:00:0b"
ADDR_A, ADDR_B = "169.254.10.1", "169.254.10.2"
NFS_ROOT = "/run/larkd-nfs"


def check_link(a, b):
    """Multicast from A reaches B; B mounts a directory A exports, asking for
    udp as the daemon does."""
    b.sh("setsid socat -u UDP4-RECV:10099,ip-add-membership=224.1.1.1:eth0 "
         "OPEN:/run/mcast.txt,creat,append < /dev/null > /dev/null 2>&1 &")
    b.wait_for("ss -lunH 'sport = :10099' | grep -q .", "B's multicast receiver", 20)
    a.sh("echo hello-from-A | socat -u STDIN UDP4-DATAGRAM:224.1.1.1:10099,ip-multicast-if=%s" % ADDR_A)
    b.wait_for("grep -q hello-from-A /run/mcast.txt", "A's multicast datagram on B", 20)
    a.sh("mkdir -p /srv/check && echo shared > /srv/check/f && "
         "exportfs -o ro,no_subtree_check,insecure 169.254.0.0/16:/srv/check")
    b.sh("mkdir -p /run/nfs-check && mount -t nfs -o rsize=1280,soft,udp,noatime,nodiratime,ro "
         "%s:/srv/check /run/nfs-check" % ADDR_A, timeout=90)
    expect(b.sh("cat /run/nfs-check/f") == "shared", "content over NFS")
    expect("udp -> tcp" in b.sh("cat /run/lab-mount.log"), "the mount wrapper did not log its change")
    b.sh("umount -fl /run/nfs-check")
    a.sh("exportfs -u 169.254.0.0/16:/srv/check")


def main(build_dir):
    times = Timings()
    with Lab(build_dir) as lab:
        card, _ = lab.card_and_stick()
        port = free_loopback_port()
        a = lab.machine("unitA", mac=MAC_A, net=("listen", port), sd=card)
        b = lab.machine("unitB", mac=MAC_B, net=("connect", port))
        with times.step("boot pair"):
            a.start()
            b.start()
            a.wait_ready()
            b.wait_ready()
        ua, ub = Unit(a), Unit(b)
        ua.setup(ADDR_A)
        ub.setup(ADDR_B)
        b.sh("mkdir -p " + NFS_ROOT)
        with times.step("link"):
            check_link(a, b)

        with times.step("discover and mount"):
            remote, source = discover_and_mount(ua, ub, b)
        with times.step("removal on B"):
            a.pull_card()
            ub.wait_volume(lambda v: is_removal(v) and v["path"] == remote["path"],
                           "the removal of A's card", timeout=60)
            ub.wait_unmounted(source)
        with times.step("stays gone"):
            # Two expiry periods: neither exported nor announced by A, the
            # card is not mounted on B again.
            time.sleep(8)
            card_path = source.split(":", 1)[1]
            expect(card_path not in ua.exports(), "A still exports its pulled card:\n" + ua.exports())
            expect(ub.mount_of(source) is None, "B mounted A's pulled card again")
            later = [arrival(m) for m in ub.messages()[ub.seen:]]
            expect(not [v for v in later if v is not None and not is_removal(v)],
                   "B was told of a volume after the card was pulled: %s" % later)
    log("two units passed: %s" % times)


def discover_and_mount(ua, ub, b):
    """B reports A's card, mounted over NFS; returns the report and the source."""
    ua.start_larkd("--vfat utf8 --peer-mac %s --code-name lab" % MAC_B)
    ub.start_larkd("--peer-mac %s --code-name lab --nfs-root %s" % (MAC_A, NFS_ROOT))
    card_path = ua.wait_mounted("/dev/mmcblk0p1")[0]
    source = "%s:%s" % (ADDR_A, card_path)
    remote = ub.wait_volume(lambda v: not is_removal(v), "A's card as a remote volume", timeout=120)
    target, fstype, options = ub.wait_mounted(source)
    expect(fstype.startswith("nfs") and "proto=tcp" in options, "B mounted A's card as %s %s" % (fstype, options))
    expect(remote["path"] == "/mnt" + target[len(NFS_ROOT):],
           "B reported path %s for the mount at %s" % (remote["path"], target))
    expect(remote["friendlyname"] == "Memory Card - Left",
           "B reported the name %s" % remote["friendlyname"])
    expect(remote["readonly"] is True, "A's card arrived writable on B: %s" % remote)
    # B knows A by its MAC: a share from the peer is not reported remote,
    # and A's address becomes B's peer address.
    expect(remote["remote"] is False, "B did not take A's share for its peer's: %s" % remote)
    expect("Discovered peer IP address: " + ADDR_A in ub.journal(), "B never discovered A's address")
    content = b.sh("cat %s/chart.txt" % repr(target))
    expect(content == "card chart", "reading A's card over NFS gave %r" % content)
    expect(card_path in b.sh("cat /run/lab-mount.log"), "the mount did not go through the lab's wrapper")
    # A remote volume that goes and comes back while its peer is fine has
    # expired between announcements; seen once on a host starved of CPU.
    flaps = sum(1 for msg in ub.messages() if is_removal(arrival(msg)))
    if flaps:
        log("note: B's application saw %d removal(s) of A's card before it was pulled" % flaps)
    return remote, source


if __name__ == "__main__":
    run_scenario(main)
