#!/usr/bin/env python3
"""Seeds the faults of faults.py one at a time into a source tree, rebuilds
and runs the suite (without the virtual machines), and reports which tests
catch each fault: a test suite's power to find faults, measured.

    tools/faults/seed.py [--build DIR] [--only 1,5,7] [--tests REGEX] [--prefer RECORD]

With --prefer, the output of an earlier run: each fault first meets the tests
that caught it then, and the whole suite only if none of them does.

Run it in a scratch clone: each fault is undone after its run, but a run
that is interrupted leaves the fault in place. Needs what scripts/test.sh
needs (root for the namespace tests)."""
import argparse, os, re, subprocess, sys, time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from faults import FAULTS

root = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("--build", default=os.path.join(root, "build"))
parser.add_argument("--only", default="", help="fault numbers, comma-separated (1-based)")
parser.add_argument("--tests", default="", help="ctest -R regular expression")
parser.add_argument("--prefer", default="", help="an earlier run's output")
args = parser.parse_args()
earlier = {}
if args.prefer:
    for line in open(args.prefer):
        found = re.match(r"\s*(\d+) .*\): (.*) \[", line)
        if found and found.group(2) != "NOT CAUGHT":
            earlier[int(found.group(1))] = found.group(2).split(", ")
chosen = [int(n) for n in args.only.split(",") if n] or range(1, len(FAULTS) + 1)

def run(command, **kw):
    return subprocess.run(command, cwd=args.build, capture_output=True, text=True, **kw)

missed = []
for number in chosen:
    path, good, bad, what = FAULTS[number - 1]
    source = os.path.join(root, path)
    text = open(source).read()
    if text.count(good) != 1:
        print("%2d %s: the text to change is not there once in %s" % (number, what, path), flush=True)
        missed.append(number)
        continue
    started = time.monotonic()
    try:
        open(source, "w").write(text.replace(good, bad))
        built = run(["cmake", "--build", ".", "-j2"])
        if built.returncode != 0:
            print("%2d %s: does not build" % (number, what), flush=True)
            continue
        command = ["ctest", "-LE", "vm", "-j2", "--timeout", "300"]
        caught = []
        if number in earlier:
            tests = run(command + ["-R", "^(%s)$" % "|".join(earlier[number])])
            caught = sorted(set(re.findall(r"^\s*\d+ - (\S+) \(", tests.stdout, re.M)))
        if not caught:
            tests = run(command + (["-R", args.tests] if args.tests else []))
            caught = sorted(set(re.findall(r"^\s*\d+ - (\S+) \(", tests.stdout, re.M)))
    finally:
        open(source, "w").write(text)
    if not caught:
        missed.append(number)
    print("%2d %s (%s): %s [%.0f s]" % (number, what, path, ", ".join(caught) or "NOT CAUGHT",
                                        time.monotonic() - started), flush=True)
run(["cmake", "--build", ".", "-j2"])
print("caught %d of %d" % (len(chosen) - len(missed), len(chosen)))
sys.exit(1 if missed else 0)
