#!/usr/bin/env bash
# Makes (or finds in the cache) what the armhf cross build needs from Debian
# besides the host's compiler, and prints the directory that holds it:
#   DIR/sysroot                          armhf headers and libraries
#   DIR/host/usr/bin/qemu-arm-static     the user-mode emulator for the tests
#   DIR/sysroot/DEBIAN/{shlibs,symbols}  the dependency information of the
#                                        sysroot's packages, so that
#                                        dpkg-shlibdeps -S DIR/sysroot computes
#                                        an armhf package's Depends
# The cache (LARKD_ARMHF_SYSROOT_CACHE, default /var/cache/larkd-armhf-sysroot)
# lives outside any build tree so that it outlasts clean clones. Each DIR is
# keyed by the package list, the suites and this layout, so a changed list
# makes a new one. Extracting into a directory keeps the host's dpkg
# single-arch and its packages untouched.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${LARKD_ARMHF_SYSROOT_CACHE:-/var/cache/larkd-armhf-sysroot}
suite=bookworm
archive=http://deb.debian.org/debian
# No security suite: its armhf index is often out of step with its Release
# file here, which fails the whole download; a sysroot only links and loads.
sysroot_sources=("deb $archive $suite main" "deb $archive $suite-updates main")
# Bookworm's own qemu (7.2) rejects clone(CLONE_PIDFD), which QProcess uses
# whenever the kernel has it, so no emulated test could start a process.
emulator_sources=("deb $archive $suite main" "deb $archive $suite-backports main")
emulator_package=qemu-user-static/$suite-backports
# Bump when the way a directory is made changes, so old ones are not reused.
layout=5

mapfile -t packages < <(grep -Ev '^\s*(#|$)' "$root/scripts/armhf-sysroot-packages.txt")
key=$(printf '%s\n' "$layout" "${sysroot_sources[@]}" "${packages[@]}" "${emulator_sources[@]}" "$emulator_package" |
    sha256sum | cut -c1-16)
dir=$cache/$key

extract() { # ARCH PACKAGES TARGET SOURCES... [-- MMDEBSTRAP-OPTION...]
    local arch=$1 include=$2 target=$3 sources=() options=()
    shift 3
    while (($#)) && [ "$1" != -- ]; do sources+=("$1") && shift; done
    (($#)) && shift && options=("$@")
    printf '%s\n' "${sources[@]}" |
        mmdebstrap --quiet --variant=extract --arch="$arch" --mode=root --format=directory \
            --include="$include" "${options[@]}" "$suite" "$target" - >&2
}

mkdir -p "$cache"
# Two runs on one machine must not build the same directory at once.
exec 8>"$cache/.lock"
flock 8
if [ ! -e "$dir/.complete" ]; then
    echo "armhf-sysroot: making $dir" >&2
    start=$SECONDS
    work=$dir.partial
    rm -rf "$work" "$dir"
    trap 'rm -rf "$work"' EXIT
    mkdir -p "$work"

    # Nothing is installed, so there is no dpkg database: keep the control
    # files of the downloaded packages, which carry their shlibs and symbols.
    extract armhf "${packages[*]}" "$work/sysroot" "${sysroot_sources[@]}" -- \
        --extract-hook='mkdir "$1/../control" && for deb in "$1"/var/cache/apt/archives/*.deb; do
                            dpkg-deb --control "$deb" "$1/../control/$(basename "$deb" .deb)"; done'
    # Absolute links would lead the cross linker out of the sysroot into the
    # host's x86_64 libraries: make each one relative to its own directory.
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        case "$target" in
        /*) ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$work/sysroot$target")" "$link" ;;
        esac
    done < <(find "$work/sysroot" -type l -print0)
    # Under the emulator every absolute path that exists in the sysroot hides
    # the host's: keep only what linking and loading need, so that /etc, /run,
    # /dev and the programs on PATH stay the machine's own for emulated tests.
    find "$work/sysroot" -mindepth 1 -maxdepth 1 ! -name usr ! -name 'lib*' -exec rm -rf {} +
    rm -rf "$work/sysroot/usr/bin" "$work/sysroot/usr/sbin" "$work/sysroot/usr/games"
    find "$work/sysroot/usr/share" -mindepth 1 -maxdepth 1 ! -name pkgconfig ! -name qt5 -exec rm -rf {} +
    # A DEBIAN directory makes the sysroot look like a package being built to
    # dpkg-shlibdeps, which then reads these for the libraries found in it.
    mkdir "$work/sysroot/DEBIAN"
    for kind in shlibs symbols; do
        find "$work/control" -name "$kind" -exec cat {} + >"$work/sysroot/DEBIAN/$kind"
    done
    rm -rf "$work/control"

    extract amd64 "$emulator_package" "$work/host" "${emulator_sources[@]}"
    # The package carries every target; only 32-bit ARM is wanted.
    find "$work/host" -mindepth 1 -maxdepth 1 ! -name usr -exec rm -rf {} +
    find "$work/host/usr/bin" -mindepth 1 ! -name qemu-arm ! -name qemu-arm-static -delete
    rm -rf "$work/host/usr/lib" "$work/host/usr/libexec" "$work/host/usr/sbin" "$work/host/usr/share/man"
    "$work/host/usr/bin/qemu-arm-static" --version | head -n1 >&2

    touch "$work/.complete"
    mv "$work" "$dir"
    trap - EXIT
    echo "armhf-sysroot: made in $((SECONDS - start)) s ($(du -sh "$dir" | cut -f1))" >&2
fi
# Directories of older package lists are left for a manual clean-up; one is
# about half a gigabyte.
echo "$dir"
