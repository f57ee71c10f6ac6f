"""A lab machine as a unit: larkd under its systemd unit, a display
application stand-in (larkd-client follow) whose messages are read back, and
what the system shows (mounts, links, exports)."""

import json
import shlex
import time

from lab import LabError, log

APP_LOG = "/run/lab-app.jsonl"
APP_PID = "/run/lab-app.pid"
PORT = 15003


def crc7_key(cid):
    """The CID with its last byte made the CRC7 of the first 15, end bit set."""
    crc = 0
    for byte in bytes.fromhex(cid[:30]):
        for bit in range(7, -1, -1):
            data = (byte >> bit) & 1
            crc = (crc << 1) & 0xFF
            if ((crc >> 7) & 1) != data:
                crc ^= 0x09
    return cid[:30] + "%02x" % (((crc << 1) & 0xFF) | 1)


def arrival(message):
    return message.get("message", {}).get("content", {}).get("dataarrival")


def is_removal(volume):
    return volume is not None and all(volume[k] is None for k in volume if k != "path")


class Unit:
    def __init__(self, machine):
        self.m = machine
        self.seen = 0  # messages already consumed by wait_volume
        machine.diagnostics += ["journalctl -b _COMM=larkd --no-pager -o short-monotonic | tail -80",
                                "cat " + APP_LOG, "findmnt -l -t vfat,nfs,nfs4", "exportfs -v",
                                "ls -l /run/media/"]

    def setup(self, address=None):
        self.m.sh("/lab/guest/setup.sh %s" % (address or ""), timeout=120)

    def start_larkd(self, options, volumes=0):
        """Writes the options where the installed unit reads them, starts the
        service and connects the application stand-in once the daemon
        reports the given number of volumes (0: as soon as it listens)."""
        started = time.monotonic()
        self.stop_following()
        # The application port must accept a connection as soon as the start
        # returns: the unit's display application is ordered after larkd.
        out = self.m.sh("""
            env=$(systemctl show -P EnvironmentFiles larkd | cut -d' ' -f1)
            test -n "$env"
            mkdir -p "$(dirname "$env")"
            printf 'LARKD_OPTIONS="%%s"\\n' %s > "$env"
            systemctl start larkd
            if (exec 3<>/dev/tcp/127.0.0.1/%d) 2>/dev/null; then echo accepted; else echo refused; fi
            systemctl show -p Type,ActiveState larkd
        """ % (shlex.quote(options), PORT))
        expect_lines = ["accepted", "Type=notify", "ActiveState=active"]
        if out.split() != expect_lines:
            raise LabError("%s: right after `systemctl start larkd`: %s (expected %s)"
                           % (self.m.name, out.split(), expect_lines))
        if volumes:
            # An application that connects while the daemon is still mounting
            # what it found at start may be told nothing (the mount points
            # arrive after the mount reply): ask until the daemon has settled.
            self.m.wait_for("test $(larkd-client list --wait 1000 | grep -c dataarrival) -ge %d" % volumes,
                            "%d volumes reported" % volumes, 120)
        self.follow()
        log("%s: larkd up in %.1f s" % (self.m.name, time.monotonic() - started))

    def follow(self):
        """The application stand-in, connecting again whenever larkd goes
        away, as the unit's application does; its messages start afresh."""
        self.m.sh("rm -f %s; setsid bash -c 'while :; do larkd-client follow; sleep 0.5; done' "
                  "> %s 2> /run/lab-app.err < /dev/null & echo $! > %s" % (APP_LOG, APP_LOG, APP_PID))
        self.seen = 0

    def stop_following(self):
        self.m.sh("test ! -e {0} || kill -- -$(cat {0}) || true; rm -f {0}".format(APP_PID))

    def messages(self):
        text = self.m.sh("cat %s" % APP_LOG)
        out = []
        for line in text.splitlines():
            try:
                out.append(json.loads(line))
            except ValueError:
                raise LabError("application stand-in printed a line that is not JSON: %r" % line)
        return out

    def wait_volume(self, predicate, what, timeout=90):
        """The next "dataarrival" after those already consumed for which the
        predicate holds; earlier non-matching ones are consumed too."""
        deadline = time.monotonic() + timeout
        while True:
            msgs = self.messages()
            while self.seen < len(msgs):
                volume = arrival(msgs[self.seen])
                self.seen += 1
                if volume is not None and predicate(volume):
                    return volume
            if time.monotonic() > deadline:
                raise LabError("%s: the application never received %s; it received:\n%s"
                               % (self.m.name, what, "\n".join(json.dumps(x) for x in msgs)))
            time.sleep(1)

    def mount_of(self, source):
        """(mount point, fstype, options) of a device or NFS source, or None."""
        status, out = self.m.sh("findmnt -n -r -o TARGET,FSTYPE,OPTIONS -S %s" % shlex.quote(source),
                                check=False)
        if status != 0 or not out.strip():
            return None
        target, fstype, options = out.splitlines()[0].split(" ")
        return target.replace("\\x20", " "), fstype, options.split(",")

    def wait_mounted(self, source, timeout=60):
        deadline = time.monotonic() + timeout
        while (mount := self.mount_of(source)) is None:
            if time.monotonic() > deadline:
                raise LabError("%s: %s was not mounted within %d s" % (self.m.name, source, timeout))
            time.sleep(1)
        return mount

    def wait_unmounted(self, source, timeout=60):
        self.m.wait_for("! findmnt -S %s > /dev/null" % shlex.quote(source), source + " unmounted", timeout)

    def link(self, path):
        """The target of a symbolic link, or None."""
        status, out = self.m.sh("readlink %s" % shlex.quote(path), check=False)
        return out.strip() if status == 0 else None

    def exports(self):
        return self.m.sh("exportfs -v")

    def journal(self):
        """larkd's log lines."""
        return self.m.sh("journalctl -b _COMM=larkd --no-pager -o cat")

    def udisks_count(self, text):
        """How often udisksd has logged a line containing the text."""
        return self.m.sh("journalctl -b _COMM=udisksd --no-pager -o cat").count(text)
