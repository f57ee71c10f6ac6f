#!/usr/bin/env bash
# Cross-builds larkd, its tools and its tests for the unit's 32-bit ARM
# processor (Debian armhf) and runs the tests under qemu-arm-static.
#   scripts/cross-armhf.sh [BUILD_DIR]       default BUILD_DIR: build-armhf
# Needs root: packages, the sysroot cache, namespaces and a binfmt_misc entry
# that lets tests start ARM programs (the daemon, tools) as child processes.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)
build=${1:-build-armhf}
case "$build" in /*) ;; *) build="$root/$build" ;; esac

# Left out under emulation, each for its reason:
#   netns        two-unit network tests: the emulator translates only part of
#                the socket-option and rtnetlink ABI they lean on, so a
#                failure would be the emulator's, not the ARM code's
#   realservice  they exercise the machine's own x86_64 services (udisksd,
#                systemd-udevd), which the native runs already cover, and
#                starting them changes /dev for the whole machine
#   fuzz         CPU-bound bounded runs, many times slower emulated; the
#                native runs fuzz the same portable code
#   sysfs        they lay a generated sysfs over /sys for libudev (their own
#                or the daemon's they start), whose path walk starts from an
#                open "/"; the emulator maps that to the sysroot, so the walk
#                never sees the tree
excluded_labels='^(netns|realservice|fuzz|sysfs)$'

"$root/scripts/setup.sh" --packages-only

echo "== armhf sysroot"
start=$SECONDS
dir=$("$root/scripts/armhf-sysroot.sh")
sysroot=$dir/sysroot
emulator=$dir/host/usr/bin/qemu-arm-static
echo "armhf: sysroot and emulator in $dir, ready in $((SECONDS - start)) s"

echo "== armhf cross build"
start=$SECONDS
"$root/scripts/setup.sh" "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" \
    -DLARKD_ARMHF_SYSROOT="$sysroot" -DLARKD_ARMHF_EMULATOR="$emulator" -DLARKD_WERROR=ON
echo "armhf: cross build in $((SECONDS - start)) s"

larkd=$build/daemon/larkd
description=$(file -b "$larkd")
echo "armhf: larkd is $description"
case "$description" in
"ELF 32-bit LSB "*", ARM, EABI5 "*) ;;
*) echo "armhf: larkd is not a 32-bit ARM EABI5 binary" >&2; exit 1 ;;
esac
arm-linux-gnueabihf-strip -o "$build/larkd.stripped" "$larkd"
echo "armhf: stripped larkd is $(stat -c %s "$build/larkd.stripped") bytes"

echo "== armhf tests under qemu-arm-static (without labels $excluded_labels)"
start=$SECONDS
status=0
unshare --mount --propagation private --pid --fork --kill-child --mount-proc \
    "$root/scripts/armhf-emulated-tests.sh" "$build" "$emulator" --output-on-failure -j"$jobs" -LE "$excluded_labels" ||
    status=$?
echo "armhf: emulated tests in $((SECONDS - start)) s"
exit "$status"
