#!/usr/bin/env python3
"""One unit with a card in its SD slot and a USB stick, larkd started by its
installed systemd unit: what the display application receives and what the
system shows, at boot, on pulling and re-inserting both media, on SIGUSR2
and SIGTERM, and when larkd starts again with its volumes still mounted:
after a clean stop, a hang caught by the watchdog and SIGKILL.
    one_unit.py BUILD_DIR
"""

import os
import sys

sys.dont_write_bytecode = True  # nothing written into the source tree
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "lab"))
from lab import Lab, Timings, expect, free_loopback_port, log, run_scenario  # noqa: E402
from unit import Unit, crc7_key, is_removal  # noqa: E402

VFAT_OPTS = "flush,utf8,shortname=mixed"
CARD_DEV, STICK_DEV = "/dev/mmcblk0p1", "/dev/sda1"
OPTIONS = "--vfat %s --peer-mac 52:54:00:00:00:0b --code-name lab" % VFAT_OPTS


def check_card_arrival(u, volume):
    """The card's arrival: identity from sysfs, mount, link and export."""
    cid = u.m.sh("cat /sys/block/mmcblk0/device/cid").strip()
    expect(len(cid) == 32, "sysfs CID is not 32 hex digits: %r" % cid)
    # The emulated card reports a zero CRC byte, so this also shows the fix.
    expect(volume["key"] == crc7_key(cid),
           "key %s is not the sysfs CID %s with its CRC7 corrected" % (volume["key"], cid))
    expect(volume["type"] == "memorycard", "card type is %s" % volume["type"])
    expect(volume["friendlyname"] == "Memory Card - Left", "card name is %s" % volume["friendlyname"])
    expect(volume["remote"] is False and volume["fixed"] is False and volume["readonly"] is False,
           "card flags: %s" % volume)
    mount = u.wait_mounted(CARD_DEV)
    target, fstype, options = mount
    expect(volume["path"] == target, "path %s, mounted at %s" % (volume["path"], target))
    expect(fstype == "vfat", "card mounted as %s" % fstype)
    for opt in VFAT_OPTS.split(","):
        expect(opt in options, "vfat option %s missing from %s" % (opt, options))
    link = os.path.join(os.path.dirname(target), "Memory Card - 1")
    expect(u.link(link) == os.path.basename(target), "friendly link %s -> %s" % (link, u.link(link)))
    expect(target in u.exports(), "%s not exported:\n%s" % (target, u.exports()))
    return target


def check_stick_arrival(u, volume):
    target, fstype, options = u.wait_mounted(STICK_DEV)
    expect(volume["path"] == target, "stick path %s, mounted at %s" % (volume["path"], target))
    expect(volume["type"] == "harddrive" and volume["key"] == "", "stick identity: %s" % volume)
    expect(volume["friendlyname"] == "USB Mass Storage", "stick name is %s" % volume["friendlyname"])
    expect(fstype == "vfat" and "shortname=mixed" in options, "stick mount: %s %s" % (fstype, options))
    link = os.path.join(os.path.dirname(target), "USB Memory Card A1")
    expect(u.link(link) == os.path.basename(target), "stick link %s -> %s" % (link, u.link(link)))
    return target


def check_removal(u, path, device, what):
    u.wait_volume(lambda v: is_removal(v) and v["path"] == path, "the removal of the " + what)
    u.wait_unmounted(device)
    u.m.wait_for("! exportfs -v | grep -qF %s" % repr(path), what + " unexported", 30)
    link = os.path.join(os.path.dirname(path), "Memory Card - 1" if what == "card" else "USB Memory Card A1")
    # udisks2 removes the mount directory only after the objects, in its
    # clean-up: the link must go with the volume, not be left dangling.
    u.m.wait_for("! test -L %s" % repr(link), what + " link removed", 30)


def wait_restarted(u, old_pid, restarts):
    """Waits for systemd's own restart (counted in NRestarts) to bring up a
    new larkd; returns its process id."""
    u.m.wait_for('test "$(systemctl show -P NRestarts larkd)" = %d && test "$(systemctl show -P ActiveState larkd)" = active'
                 % restarts, "larkd restarted by systemd (restart %d)" % restarts, 60)
    pid = int(u.m.sh("systemctl show -P MainPID larkd"))
    expect(pid not in (0, old_pid), "larkd's main process is still %d" % pid)
    return pid


def check_restored(u, card_path, stick_path, when):
    """The reconnected application hears of both volumes, each still at
    its mount point, linked and exported, and larkd does not try to mount
    them again. Returns larkd's process id."""
    mark = u.seen
    card = u.wait_volume(lambda v: v["type"] == "memorycard", "the card " + when)
    last = u.seen
    expect(check_card_arrival(u, card) == card_path, "the card %s is at %s, was at %s" % (when, card["path"], card_path))
    u.seen = mark
    stick = u.wait_volume(lambda v: v["type"] == "harddrive", "the stick " + when)
    u.seen = max(u.seen, last)
    expect(check_stick_arrival(u, stick) == stick_path, "the stick %s is at %s, was at %s" % (when, stick["path"], stick_path))
    pid = int(u.m.sh("systemctl show -P MainPID larkd"))
    log_lines = u.m.sh("journalctl -b _PID=%d --no-pager -o cat" % pid)
    expect("failed to mount" not in log_lines.lower(), "larkd %s tried to mount again:\n%s" % (when, log_lines))
    return pid


def main(build_dir):
    times = Timings()
    with Lab(build_dir) as lab:
        card, stick = lab.card_and_stick()
        m = lab.machine("unit", mac="52:54:00:00:00:0a", net=("listen", free_loopback_port()),
                        sd=card, usb=stick)
        m.start()
        times["boot"] = m.wait_ready()
        # The lab's own part: udisks2 sees both media.
        m.wait_for("udisksctl info -b /dev/mmcblk0p1 | grep -q LABCARD", "udisks2's card", 60)
        m.wait_for("udisksctl info -b /dev/sda1 | grep -q LABSTICK", "udisks2's stick", 60)
        u = Unit(m)
        u.setup("169.254.10.1")

        with times.step("at boot"):
            u.start_larkd(OPTIONS, volumes=2)
            card_path = check_card_arrival(u, u.wait_volume(lambda v: v["type"] == "memorycard",
                                                            "the card present at boot"))
            u.seen = 0
            stick_path = check_stick_arrival(u, u.wait_volume(lambda v: v["type"] == "harddrive",
                                                              "the stick present at boot"))

        with times.step("hot-plug"):
            m.pull_card()
            check_removal(u, card_path, CARD_DEV, "card")
            m.insert_card()
            card_path = check_card_arrival(u, u.wait_volume(lambda v: v["type"] == "memorycard",
                                                            "the re-inserted card"))
            m.pull_stick()
            check_removal(u, stick_path, STICK_DEV, "stick")
            m.insert_stick()
            stick_path = check_stick_arrival(u, u.wait_volume(lambda v: v["type"] == "harddrive",
                                                              "the re-inserted stick"))

        with times.step("signals"):
            # SIGUSR2: every volume unmounted and mounted again, as after
            # pulling and re-inserting all media.
            events = ("Unmounted " + CARD_DEV, "Mounted " + CARD_DEV, "Unmounted " + STICK_DEV, "Mounted " + STICK_DEV)
            before = [u.udisks_count(e) for e in events]
            mark = u.seen
            m.sh("systemctl kill -s USR2 larkd")
            u.wait_volume(lambda v: v["type"] == "memorycard", "the card again after SIGUSR2")
            u.seen = mark
            u.wait_volume(lambda v: v["type"] == "harddrive", "the stick again after SIGUSR2")
            u.wait_mounted(CARD_DEV)
            u.wait_mounted(STICK_DEV)
            after = [u.udisks_count(e) for e in events]
            expect([a - b for a, b in zip(after, before)] == [1, 1, 1, 1],
                   "SIGUSR2: udisksd's %s went from %s to %s" % (events, before, after))
            expect("SIGUSR2: Simulating removing/inserting SD card" in u.journal(), "no SIGUSR2 log line")

            # SIGTERM: a clean exit; volumes stay mounted.
            m.sh("systemctl stop larkd")
            status = m.sh("systemctl show -P ExecMainStatus larkd").strip()
            expect(status == "0", "larkd exited with status %s on SIGTERM" % status)
            expect("Handling SIGTERM" in u.journal(), "no SIGTERM log line")
            expect(u.mount_of(CARD_DEV) is not None and u.mount_of(STICK_DEV) is not None,
                   "volumes were unmounted on SIGTERM")

        # Restarts lose nothing: each new larkd adopts what udisks2 still has
        # mounted, and the application, reconnecting, hears of it again. The
        # unit's own watchdog, short now that the loop never waits.
        with times.step("restarts"):
            expect(m.sh("systemctl show -P WatchdogUSec larkd").strip() == "10s",
                   "the unit's WatchdogSec is not 10 s")
            mounts = u.udisks_count("Mounted ")
            restarts = int(m.sh("systemctl show -P NRestarts larkd"))
            u.start_larkd(OPTIONS, volumes=2)
            pid = check_restored(u, card_path, stick_path, "after a clean stop")
            expect("watchdog ping every 5000 ms" in u.journal(), "larkd does not ping at half the unit's WatchdogSec")

            # Stopped, it misses its pings: the watchdog kills it, systemd
            # starts another. It has to outlive one watchdog period first, or
            # its pings were never heard and the restart would prove nothing.
            m.wait_for("test $(ps -o etimes= -p %d) -ge 12" % pid, "larkd up for 12 s", 30)
            expect(int(m.sh("systemctl show -P MainPID larkd")) == pid and
                   int(m.sh("systemctl show -P NRestarts larkd")) == restarts,
                   "larkd was restarted before it was stopped; its pings do not reach systemd")
            m.sh("kill -STOP %d" % pid)
            pid = wait_restarted(u, pid, restarts + 1)
            expect("Watchdog timeout" in m.sh("journalctl -b -u larkd --no-pager -o cat"),
                   "systemd did not log the watchdog's timeout")
            check_restored(u, card_path, stick_path, "after the watchdog's restart")

            # Killed outright, it is restarted on failure, and adopts again.
            m.sh("kill -KILL %d" % pid)
            pid = wait_restarted(u, pid, restarts + 2)
            check_restored(u, card_path, stick_path, "after SIGKILL")
            expect(u.udisks_count("Mounted ") == mounts,
                   "udisksd mounted again what larkd should have adopted")
    log("one unit passed: %s" % times)


if __name__ == "__main__":
    run_scenario(main)
