#!/usr/bin/env bash
# Runs the armhf build's tests under qemu-arm-static. scripts/cross-armhf.sh
# starts it in private mount and PID namespaces:
#   unshare --mount --pid --fork --kill-child --mount-proc scripts/armhf-emulated-tests.sh BUILD_DIR EMULATOR [CTEST_ARGS...]
# The PID namespace ends every process a test leaves behind with the run, and
# keeps a stray kill(-1) from reaching the rest of the machine.
set -euo pipefail
build=$1 emulator=$2
shift 2

# binfmt_misc hands ARM executables that a test starts itself (the daemon,
# tools) to the emulator; F opens the emulator now, so the entry works in
# further mount namespaces too. Entries are machine-wide but live only while
# some mount of binfmt_misc exists: this one is private to the run. A
# concurrent run shares the entry through the lock; the last one out removes it.
entry=larkd-qemu-arm
arm_magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
arm_mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
binfmt=/proc/sys/fs/binfmt_misc
mount -t binfmt_misc larkd-binfmt "$binfmt"
exec 7>/run/lock/larkd-armhf-binfmt.lock
flock -s 7
# The newest entry is tried first, so ours wins over an older emulator's. A
# concurrent run may register it at the same moment: then it simply exists.
[ -e "$binfmt/$entry" ] || echo ":$entry:M::$arm_magic:$arm_mask:$emulator:F" 2>/dev/null >"$binfmt/register" ||
    [ -e "$binfmt/$entry" ]
remove_entry() {
    if flock -n -x 7 && [ -e "$binfmt/$entry" ]; then
        echo -1 >"$binfmt/$entry"
    fi
}
trap remove_entry EXIT

cd "$build"
ctest "$@"
