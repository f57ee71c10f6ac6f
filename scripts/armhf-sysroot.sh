#!/usr/bin/env bash
# Makes (or finds in the cache) the Debian armhf sysroot that the cross build
# links against and the emulator loads libraries from, and prints its path.
#   scripts/armhf-sysroot.sh
# The cache (LARKD_ARMHF_SYSROOT_CACHE, default /var/cache/larkd-armhf-sysroot)
# lives outside any build tree so that it outlasts clean clones; each sysroot
# is keyed by the package list, the suite and the mirrors, so a changed list
# makes a new one. A separate sysroot keeps the host's dpkg single-arch.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${LARKD_ARMHF_SYSROOT_CACHE:-/var/cache/larkd-armhf-sysroot}
suite=bookworm
mirrors=(
    "deb http://deb.debian.org/debian $suite main"
    "deb http://deb.debian.org/debian $suite-updates main"
)
# No security suite: its armhf index is often out of step with its Release
# file here, which fails the whole download; a sysroot only links and loads.
# Bump when the way a sysroot is made changes, so old ones are not reused.
layout=2

mapfile -t packages < <(grep -Ev '^\s*(#|$)' "$root/scripts/armhf-sysroot-packages.txt")
key=$(printf '%s\n' "$layout" "${mirrors[@]}" "${packages[@]}" | sha256sum | cut -c1-16)
sysroot=$cache/$key

mkdir -p "$cache"
# Two runs on one machine must not build the same sysroot at once.
exec 8>"$cache/.lock"
flock 8
if [ ! -e "$sysroot/.complete" ]; then
    echo "armhf-sysroot: making $sysroot" >&2
    start=$SECONDS
    work=$sysroot.partial
    rm -rf "$work" "$sysroot"
    printf '%s\n' "${mirrors[@]}" |
        mmdebstrap --quiet --variant=extract --arch=armhf --mode=root --format=directory \
            --include="${packages[*]}" "$suite" "$work" - >&2

    # Absolute links would lead the cross linker out of the sysroot into the
    # host's x86_64 libraries: make each one relative to its own directory.
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        case "$target" in
        /*) ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$work$target")" "$link" ;;
        esac
    done < <(find "$work" -type l -print0)

    # Under the emulator every absolute path that exists in the sysroot hides
    # the host's: keep only what linking and loading need, so that /etc, /run,
    # /var and /dev stay the machine's own for the emulated tests.
    find "$work" -mindepth 1 -maxdepth 1 ! -name usr ! -name 'lib*' -exec rm -rf {} +

    touch "$work/.complete"
    mv "$work" "$sysroot"
    echo "armhf-sysroot: made in $((SECONDS - start)) s ($(du -sh "$sysroot" | cut -f1))" >&2
fi
# Sysroots of older package lists are left for a manual clean-up; one is a
# few hundred megabytes.
echo "$sysroot"
