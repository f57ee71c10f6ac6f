"""Virtual machines for the lab: boot the cached image under qemu, run
commands inside through the guest agent, drive media through the monitor.

Everything a run makes lives in one temporary directory and in qemu
processes that die with the Python process (PR_SET_PDEATHSIG), so a run
killed by a time-out leaves nothing behind; the next run also sweeps
directories of runs whose process is gone.
"""

import base64
import contextlib
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TMP_PREFIX = "larkd-lab-"
SKIP = 77  # CTest's SKIP_RETURN_CODE


class LabError(Exception):
    pass


def log(text):
    print("lab: " + text, flush=True)


def expect(condition, text):
    if not condition:
        raise LabError(text)


class Timings(dict):
    """How long each step of a scenario took, for its last log line."""

    @contextlib.contextmanager
    def step(self, name):
        started = time.monotonic()
        yield
        self[name] = time.monotonic() - started

    def __str__(self):
        return ", ".join("%s %.1f s" % kv for kv in self.items())


def run_scenario(main):
    """A scenario's entry point: main(BUILD_DIR); a LabError fails it with its text."""
    try:
        main(sys.argv[1])
    except LabError as e:
        print("lab: FAILED: %s" % e, flush=True)
        sys.exit(1)


def skip(reason):
    print("lab: SKIPPED: " + reason, flush=True)
    sys.exit(SKIP)


def _die_with_parent():
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL("libc.so.6", use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def sweep_stale_runs():
    base = tempfile.gettempdir()
    for entry in os.listdir(base):
        if not entry.startswith(TMP_PREFIX):
            continue
        pid = entry[len(TMP_PREFIX):].split(".")[0]
        if pid.isdigit() and not os.path.exists("/proc/" + pid):
            shutil.rmtree(os.path.join(base, entry), ignore_errors=True)


def free_loopback_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _listening(port):
    with open("/proc/net/tcp") as f:
        for line in f.readlines()[1:]:
            local, state = line.split()[1], line.split()[3]
            if state == "0A" and int(local.split(":")[1], 16) == port:
                return True
    return False


def check_host():
    """Skips the run, with the reason, on a machine that cannot run the lab."""
    if shutil.which("qemu-system-x86_64") is None:
        skip("qemu-system-x86_64 is not installed (package qemu-system-x86)")
    if os.geteuid() != 0:
        skip("building the machine image needs root")
    for tool in ("qemu-img", "mkfs.vfat", "mcopy", "sfdisk", "mmdebstrap", "dpkg-buildpackage", "dh"):
        if shutil.which(tool) is None:
            skip(tool + " is not installed")


def image_dir():
    started = time.monotonic()
    out = subprocess.run([os.path.join(HERE, "build-image.sh")], check=True,
                         stdout=subprocess.PIPE, text=True).stdout.strip()
    missing = [name for name in ("vmlinuz", "initrd.img", "rootfs.img")
               if not os.path.isfile(os.path.join(out, name))]
    if not os.path.isabs(out) or missing:
        raise SystemExit("lab: build-image.sh gave %r, not a directory holding the image (%s missing)"
                         % (out, ", ".join(missing) or "not an absolute path"))
    log("image ready in %.1f s: %s" % (time.monotonic() - started, out))
    return out


def make_vfat_image(path, label, files, size_mib=64, partitioned=True):
    """A FAT medium made without the kernel's help; with a partition table it
    has one partition starting at 1 MiB, like a card out of a camera."""
    size = size_mib * 1024 * 1024
    with open(path, "wb") as f:
        f.truncate(size)
    offset = 0
    if partitioned:
        subprocess.run(["sfdisk", "-q", path], input="label: dos\nstart=2048, type=c\n",
                       text=True, check=True)
        offset = 2048 * 512
    blocks = (size - offset) // 1024  # mkfs.vfat counts 1 KiB blocks
    subprocess.run(["mkfs.vfat", "-n", label, "--offset", str(offset // 512), path, str(blocks)],
                   check=True, stdout=subprocess.DEVNULL)
    target = "%s@@%d" % (path, offset)
    for name, content in files.items():
        src = path + "." + name
        with open(src, "w") as f:
            f.write(content)
        subprocess.run(["mcopy", "-i", target, src, "::" + name], check=True)
        os.unlink(src)


class Lab:
    """One run: a temporary directory, the share handed to every machine and
    the machines themselves. Use as a context manager."""

    def __init__(self, build_dir):
        check_host()
        sweep_stale_runs()
        self.image = image_dir()
        self.dir = tempfile.mkdtemp(prefix="%s%d." % (TMP_PREFIX, os.getpid()))
        self.machines = []
        self.share = os.path.join(self.dir, "share")
        self._stage(build_dir)

    def _stage(self, build_dir):
        """The share: the Debian packages of the build, as an integrator gets
        them, and the guest-side helpers."""
        started = time.monotonic()
        package = os.path.join(HERE, "..", "..", "scripts", "package.sh")
        out = subprocess.run([package, os.path.abspath(build_dir)], check=True,
                             stdout=subprocess.PIPE, text=True).stdout.split()
        arch = subprocess.run(["dpkg", "--print-architecture"], check=True,
                              stdout=subprocess.PIPE, text=True).stdout.strip()
        debs = [p for p in out if p.endswith("_%s.deb" % arch)]
        names = sorted(os.path.basename(p).split("_")[0] for p in debs)
        if names != ["larkd", "larkd-client"]:
            raise SystemExit("lab: package.sh gave %s, not larkd and larkd-client for %s" % (out, arch))
        os.makedirs(os.path.join(self.share, "debs"))
        for deb in debs:
            shutil.copy(deb, os.path.join(self.share, "debs"))
        log("packages built in %.1f s: %s" % (time.monotonic() - started,
                                              ", ".join(os.path.basename(p) for p in debs)))
        shutil.copytree(os.path.join(HERE, "guest"), os.path.join(self.share, "guest"))

    def machine(self, name, **kwargs):
        m = Machine(self, name, **kwargs)
        self.machines.append(m)
        return m

    def path(self, name):
        return os.path.join(self.dir, name)

    def card_and_stick(self):
        """The media images: a card "LABCARD" holding chart.txt, a stick "LABSTICK"."""
        card, stick = self.path("card.img"), self.path("stick.img")
        make_vfat_image(card, "LABCARD", {"chart.txt": "card chart\n"})
        make_vfat_image(stick, "LABSTICK", {"route.txt": "stick route\n"})
        return card, stick

    def __enter__(self):
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
        return self

    def __exit__(self, *exc):
        if exc[0] is not None:
            for m in self.machines:
                m.dump_console()
                m.dump_diagnostics()
        for m in self.machines:
            m.kill()
        shutil.rmtree(self.dir, ignore_errors=True)
        return False


class Machine:
    """One virtual unit. `net` is ("listen"|"connect", port) for the loopback
    link between two units; without it the machine has no network card at
    all (never user-mode networking)."""

    def __init__(self, lab, name, mac, net=None, sd=None, usb=None, memory=1024):
        self.lab, self.name, self.mac = lab, name, mac
        self.sd, self.usb, self.net = sd, usb, net
        self.proc = None
        self.agent = None
        self.agent_buffer = b""
        self.next_id = 0
        self.diagnostics = []  # commands whose output helps explain a failure
        d = lab.path(name)
        os.makedirs(d)
        self.console = os.path.join(d, "console.log")
        self.monitor_path = os.path.join(d, "monitor.sock")
        self.agent_path = os.path.join(d, "agent.sock")
        overlay = os.path.join(d, "root.qcow2")
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b",
                        os.path.join(lab.image, "rootfs.img"), overlay], check=True)
        self.argv = [
            "qemu-system-x86_64", "-nodefaults", "-display", "none",
            "-accel", "tcg,thread=multi", "-cpu", "qemu64", "-smp", "2", "-m", str(memory),
            "-kernel", os.path.join(lab.image, "vmlinuz"),
            "-initrd", os.path.join(lab.image, "initrd.img"),
            "-append", "root=/dev/vda rw console=ttyS0 net.ifnames=0 systemd.show_status=0",
            "-serial", "file:" + self.console,
            "-monitor", "unix:%s,server=on,wait=off" % self.monitor_path,
            "-drive", "file=%s,if=virtio,format=qcow2" % overlay,
            "-virtfs", "local,path=%s,mount_tag=lab,security_model=none,readonly=on" % lab.share,
            "-device", "virtio-serial-pci",
            "-chardev", "socket,id=agent,path=%s,server=on,wait=off" % self.agent_path,
            "-device", "virtserialport,chardev=agent,name=lab.agent",
        ]
        if net is not None:
            mode, port = net
            self.argv += ["-netdev", "socket,id=n0,%s=127.0.0.1:%d" % (mode, port),
                          "-device", "virtio-net-pci,netdev=n0,mac=" + mac]
        if sd is not None:
            self.argv += ["-drive", "if=none,id=sd0,format=raw,file=" + sd,
                          "-device", "sdhci-pci", "-device", "sd-card,drive=sd0"]
        if usb is not None:
            self.argv += ["-device", "qemu-xhci,id=xhci",
                          "-drive", "if=none,id=usb0,format=raw,file=" + usb,
                          "-device", self._usb_device()]

    def _usb_device(self):
        return "usb-storage,id=stick,bus=xhci.0,drive=usb0,removable=on"

    # -- life -----------------------------------------------------------------

    def start(self):
        self.started = time.monotonic()
        self.proc = subprocess.Popen(self.argv, preexec_fn=_die_with_parent,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=open(self.console + ".qemu", "w"))
        if self.net is not None and self.net[0] == "listen":
            # The peer's qemu gives up if nobody listens yet.
            deadline = time.monotonic() + 30
            while not _listening(self.net[1]):
                self._check_alive()
                if time.monotonic() > deadline:
                    raise LabError("%s: qemu does not listen on port %d" % (self.name, self.net[1]))
                time.sleep(0.1)

    def wait_ready(self, timeout=240):
        """Waits until the guest agent answers; returns the boot time."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            self._check_alive()
            if self.agent is None:
                agent = socket.socket(socket.AF_UNIX)
                try:
                    agent.connect(self.agent_path)
                    self.agent = agent
                except OSError:
                    agent.close()
                    time.sleep(0.5)
                    continue
            try:
                self.sh("true", timeout=3)
            except LabError as e:
                if "closed" in str(e):
                    self.agent.close()
                    self.agent = None
                continue
            boot = time.monotonic() - self.started
            log("%s booted in %.1f s" % (self.name, boot))
            return boot
        raise LabError("%s did not boot within %d s" % (self.name, timeout))

    def _check_alive(self):
        if self.proc is not None and self.proc.poll() is not None:
            with open(self.console + ".qemu") as f:
                raise LabError("qemu of %s ended with %d: %s" % (self.name, self.proc.returncode, f.read()))

    def kill(self):
        if self.agent is not None:
            self.agent.close()
            self.agent = None
        if self.proc is not None and self.proc.poll() is None and self.proc.pid > 0:
            self.proc.kill()
            self.proc.wait()

    def dump_console(self, lines=60):
        try:
            with open(self.console, errors="replace") as f:
                tail = f.read().splitlines()[-lines:]
            print("---- last console lines of %s" % self.name)
            print("\n".join(tail))
        except OSError:
            pass

    def dump_diagnostics(self):
        for command in self.diagnostics:
            print("---- %s: %s" % (self.name, command))
            try:
                print(self.sh(command, timeout=20, check=False)[1])
            except (OSError, LabError, AttributeError) as e:
                print("(not available: %s)" % e)

    # -- commands inside -----------------------------------------------------

    def sh(self, script, timeout=60, check=True):
        """Runs a bash script inside; returns its combined output. A non-zero
        status raises unless check is false, then it returns (status, output)."""
        self._check_alive()
        self.next_id += 1
        ident = "c%d" % self.next_id
        line = "%s %s\n" % (ident, base64.b64encode(script.encode()).decode())
        self.agent.sendall(line.encode())
        deadline = time.monotonic() + timeout
        while True:
            while b"\n" in self.agent_buffer:
                answer, self.agent_buffer = self.agent_buffer.split(b"\n", 1)
                parts = answer.decode().split(" ")
                if parts[0] != ident or len(parts) < 2:
                    continue  # an answer to a command we gave up on
                status = int(parts[1])
                output = base64.b64decode(parts[2]).decode(errors="replace") if len(parts) > 2 else ""
                if not check:
                    return status, output
                if status != 0:
                    raise LabError("%s: command failed (%d):\n%s\n-- output:\n%s"
                                   % (self.name, status, script, output))
                return output
            left = deadline - time.monotonic()
            if left <= 0:
                raise LabError("%s: no answer within %d s to:\n%s" % (self.name, timeout, script))
            self.agent.settimeout(left)
            try:
                chunk = self.agent.recv(65536)
            except socket.timeout:
                continue
            if not chunk:
                raise LabError("%s: agent connection closed" % self.name)
            self.agent_buffer += chunk

    def wait_for(self, script, what, timeout=60):
        """Polls a script inside until it succeeds; returns its output."""
        deadline = time.monotonic() + timeout
        while True:
            status, output = self.sh(script, check=False, timeout=max(5, timeout))
            if status == 0:
                return output
            if time.monotonic() > deadline:
                raise LabError("%s: %s not seen within %d s; last output:\n%s"
                               % (self.name, what, timeout, output))
            time.sleep(1)

    # -- monitor ---------------------------------------------------------------

    def monitor(self, command):
        with socket.socket(socket.AF_UNIX) as s:
            s.settimeout(30)
            s.connect(self.monitor_path)
            self._read_prompt(s)
            s.sendall((command + "\n").encode())
            out = self._read_prompt(s)
        # The monitor echoes the command line; errors come back as text.
        text = out.decode(errors="replace").replace("\r", "")
        lines = [l for l in text.splitlines() if l.strip() and not l.startswith("(qemu)")]
        reply = "\n".join(l for l in lines if command not in l)
        if any(w in reply.lower() for w in ("error", "not found", "could not", "failed")):
            raise LabError("%s: monitor '%s': %s" % (self.name, command, reply))
        return reply

    @staticmethod
    def _read_prompt(s):
        data = b""
        while not data.endswith(b"(qemu) "):
            chunk = s.recv(4096)
            if not chunk:
                break
            data += chunk
        return data

    def pull_card(self):
        self.monitor("eject -f sd0")

    def insert_card(self):
        self.monitor("change sd0 %s raw" % self.sd)

    def pull_stick(self):
        # The drive goes with the device; it is added again on insertion.
        self.monitor("device_del stick")

    def insert_stick(self):
        self.monitor("drive_add 0 if=none,id=usb0,format=raw,file=" + self.usb)
        self.monitor("device_add " + self._usb_device())


if __name__ == "__main__":
    # `lab.py image`: the test command builds the image before the scenarios,
    # through the same check of what the builder printed.
    if sys.argv[1:] != ["image"]:
        raise SystemExit("usage: lab.py image")
    with contextlib.redirect_stdout(sys.stderr):
        image = image_dir()
    print(image)
