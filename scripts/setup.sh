#!/usr/bin/env bash
# Installs the Debian packages larkd needs (only those missing), then
# configures and builds it.
#   scripts/setup.sh [BUILD_DIR [CMAKE_ARGS...]]     default BUILD_DIR: build
#   scripts/setup.sh --packages-only                 installs, nothing else
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

mapfile -t wanted < <(grep -Ev '^\s*(#|$)' "$root/scripts/packages.txt")
missing=()
for package in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
        -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "${missing[@]}" >/dev/null
fi

[ "${1:-}" != --packages-only ] || exit 0

build=${1:-build}
shift || true
case "$build" in /*) ;; *) build="$root/$build" ;; esac
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
