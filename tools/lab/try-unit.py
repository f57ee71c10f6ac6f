#!/usr/bin/env python3
"""A unit to try larkd on by hand: one virtual machine with the build's
packages installed, an SD card and a USB stick in it, larkd started with the
given options and `larkd-client follow` as its display application.

    tools/lab/try-unit.py BUILD_DIR [LARKD-OPTION...]      # as root

Then one command a line on standard input: "pull card", "insert card",
"pull stick", "insert stick", "messages" (what the application heard), or
any shell command, run inside the machine as root. End of input stops it.
"""

import json
import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from lab import Lab, LabError, free_loopback_port, log  # noqa: E402
from unit import Unit  # noqa: E402

MEDIA = {"pull card": "pull_card", "insert card": "insert_card",
         "pull stick": "pull_stick", "insert stick": "insert_stick"}


def main(build_dir, options):
    with Lab(build_dir) as lab:
        card, stick = lab.card_and_stick()
        m = lab.machine("unit", mac="52:54:00:00:00:0a", net=("listen", free_loopback_port()),
                        sd=card, usb=stick)
        m.start()
        m.wait_ready()
        u = Unit(m)
        u.setup("169.254.10.1")
        u.start_larkd(" ".join(options), volumes=2)
        log("ready: commands on standard input, end of input stops the machine")
        for line in sys.stdin:
            command = line.strip()
            try:
                if command in MEDIA:
                    getattr(m, MEDIA[command])()
                elif command == "messages":
                    for message in u.messages():
                        print(json.dumps(message))
                elif command:
                    status, output = m.sh(command, check=False)
                    print(output + ("" if status == 0 else "\n(exit status %d)" % status))
            except LabError as e:
                print("lab: %s" % e, file=sys.stderr)
            sys.stdout.flush()


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2:])
