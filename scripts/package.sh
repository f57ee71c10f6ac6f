#!/usr/bin/env bash
# Builds the Debian packages larkd and larkd-client from a build tree:
#   scripts/package.sh [BUILD_DIR]      default BUILD_DIR: build
# A native tree gives amd64 (the host's architecture) packages; a cross tree
# made by scripts/cross-armhf.sh (build-armhf) gives armhf ones, whose
# dependencies dpkg-shlibdeps computes from the sysroot's libraries and their
# packages' shlibs and symbols files. The packages land in BUILD_DIR/deb/.
# The tree is configured for the /usr prefix (only install paths change,
# nothing is recompiled) and larkd and larkd-client are brought up to date;
# debhelper (packaging/debian) then packages what `cmake --install` gives.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case "$build" in /*) ;; *) build="$root/$build" ;; esac
cache=$build/CMakeCache.txt
if [ ! -e "$cache" ]; then
    echo "package: $build is not a build tree; make one with scripts/setup.sh or scripts/cross-armhf.sh" >&2
    exit 1
fi
cached() { sed -n "s/^$1:[A-Z]*=//p" "$cache"; }

sysroot=$(cached LARKD_ARMHF_SYSROOT)
buildpackage=(dpkg-buildpackage --build=binary --no-sign)
if [ -n "$sysroot" ]; then
    # The sysroot stands in for installed armhf build dependencies.
    buildpackage+=(--host-arch=armhf --no-check-builddeps)
    export CC=arm-linux-gnueabihf-gcc LARKD_SHLIBDEPS_SYSROOT=$sysroot DEB_BUILD_OPTIONS=nocheck
fi
# Paths in the systemd unit are fixed when the tree is configured.
[ "$(cached CMAKE_INSTALL_PREFIX)" = /usr ] || cmake -S "$root" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$build" -j"$(nproc)" --target larkd larkd-client

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$cache")
changelog_version=$(dpkg-parsechangelog -l "$root/packaging/debian/changelog" -S Version)
if [ "${changelog_version%-*}" != "$version" ]; then
    echo "package: packaging/debian/changelog is at $changelog_version, the project at $version" >&2
    exit 1
fi

out=$build/deb
source=$out/larkd-$version
rm -rf "$out"
mkdir -p "$source/docs"
cp -r "$root/packaging/debian" "$source/"
cp "$root/README.md" "$source/"
cp "$root/docs/protocol.md" "$source/docs/"
(cd "$source" && LARKD_BUILD_DIR=$build "${buildpackage[@]}") >"$out/build.log" 2>&1 || {
    cat "$out/build.log" >&2
    exit 1
}
ls "$out"/*.deb
