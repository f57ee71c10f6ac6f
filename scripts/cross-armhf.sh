#!/usr/bin/env bash
# Cross-builds larkd, its tools and its tests for the unit's 32-bit ARM
# processor (Debian armhf) and runs the tests under qemu-arm-static.
#   scripts/cross-armhf.sh [BUILD_DIR]       default BUILD_DIR: build-armhf
# Needs root: packages, the sysroot cache and a binfmt_misc entry that lets
# tests start ARM programs (the daemon, tools) as child processes.
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
excluded_labels='^(netns|realservice|fuzz)$'

"$root/scripts/setup.sh" --packages-only

echo "== armhf sysroot"
start=$SECONDS
sysroot=$("$root/scripts/armhf-sysroot.sh")
echo "armhf: sysroot $sysroot ready in $((SECONDS - start)) s"

echo "== armhf cross build"
start=$SECONDS
"$root/scripts/setup.sh" "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" \
    -DLARKD_ARMHF_SYSROOT="$sysroot" -DLARKD_WERROR=ON
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

# binfmt_misc: the kernel hands ARM executables to qemu-arm-static (F: opened
# now, so it works in private mount namespaces too). The entry is global, so
# it is made only when no handler for ARM exists, shared by concurrent runs
# through a lock, and removed by the last run out. binfmt_misc is mounted in
# a throwaway mount namespace: the machine's mount table stays as it was.
entry=larkd-qemu-arm
arm_magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
arm_mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
binfmt() {
    unshare --mount --propagation private sh -euc \
        'mount -t binfmt_misc larkd-binfmt /proc/sys/fs/binfmt_misc; cd /proc/sys/fs/binfmt_misc; eval "$1"' binfmt "$1"
}
arm_handled() {
    binfmt 'for e in *; do
        [ "$e" != register ] && [ "$e" != status ] || continue
        head -n1 "$e" | grep -qx enabled && grep -qx "magic 7f454c4601010100000000000000000002002800" "$e" && exit 0
    done; exit 1'
}
remove_entry() {
    # Only when no other run still holds the lock shared.
    if flock -n -x 7; then
        binfmt "[ ! -e $entry ] || echo -1 > $entry"
    fi
}
exec 7>/run/lock/larkd-armhf-binfmt.lock
flock -x 7
if ! arm_handled; then
    binfmt "echo ':$entry:M::$arm_magic:$arm_mask:$(command -v qemu-arm-static):F' > register"
fi
flock -s 7
trap remove_entry EXIT

echo "== armhf tests under qemu-arm-static (without labels $excluded_labels)"
start=$SECONDS
status=0
(cd "$build" && ctest --output-on-failure -j"$jobs" -LE "$excluded_labels") || status=$?
echo "armhf: emulated tests in $((SECONDS - start)) s"
exit "$status"
