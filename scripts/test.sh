#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite twice: a normal build, then a
# clang build with AddressSanitizer and UndefinedBehaviorSanitizer in which
# any sanitizer report, from a test or from a process it started, fails.
# The normal build is packaged (amd64) and its packages are checked and
# installed into a throwaway root. Then the armhf cross build runs its tests
# under emulation and is packaged too; last, the scenarios in virtual
# machines (label "vm") run once, against the normal build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

# A new machine has neither the lab's machine image nor the armhf sysroot.
# Under CI both are built afresh in a temporary cache, so that every run
# proves the path a new user's first run takes.
if [ -n "${CI:-}" ]; then
    fresh=$(mktemp -d /var/tmp/larkd-first-run.XXXXXX)
    trap 'rm -rf "$fresh"' EXIT
    export LARKD_LAB_CACHE="$fresh/lab" LARKD_ARMHF_SYSROOT_CACHE="$fresh/armhf-sysroot"
    echo "== CI: machine image and armhf sysroot built afresh in $fresh"
fi

echo "== normal build"
"$root/scripts/setup.sh" build -DLARKD_WERROR=ON
(cd "$root/build" && ctest --output-on-failure -j"$jobs" -LE vm)
status=0

echo "== Debian packages (amd64)"
{ "$root/scripts/package.sh" build && "$root/tests/scripts/check-package.sh" "$root/build/deb"; } || status=1

echo "== sanitizer build (ASan + UBSan)"
"$root/scripts/setup.sh" build-asan -DLARKD_WERROR=ON -DLARKD_SANITIZE=ON -DLARKD_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-O1
reports="$root/build-asan/sanitizer-reports"
rm -rf "$reports" && mkdir -p "$reports"
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:log_path=$reports/asan"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$reports/ubsan"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
(cd "$root/build-asan" && ctest --output-on-failure -j"$jobs" -LE vm) || status=$?
if compgen -G "$reports/*" >/dev/null; then
    echo "sanitizer reports:"
    cat "$reports"/*
    status=1
fi

echo "== armhf cross build, tests under emulation"
env -u ASAN_OPTIONS -u UBSAN_OPTIONS -u LSAN_OPTIONS "$root/scripts/cross-armhf.sh" || status=1
echo "== Debian packages (armhf)"
{ "$root/scripts/package.sh" build-armhf &&
    "$root/tests/scripts/check-package.sh" "$root/build/deb" "$root/build-armhf/deb"; } || status=1

echo "== lab: scenarios in virtual machines (tests/lab)"
# The machine image first, so that building it (minutes, on a new machine)
# does not count against the first scenario's time limit.
if [ "$(id -u)" -eq 0 ] && command -v mmdebstrap >/dev/null; then
    start=$SECONDS
    image=$(python3 "$root/tools/lab/lab.py" image) || status=1
    echo "lab: machine image ${image:-not built} ready in $((SECONDS - start)) s"
fi
# Verbose: the scenarios print their timings, and the reason when a machine
# that cannot run qemu skips them.
(cd "$root/build" && env -u ASAN_OPTIONS -u UBSAN_OPTIONS -u LSAN_OPTIONS \
    ctest -V -L vm) || status=1
exit "$status"
