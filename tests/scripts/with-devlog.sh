#!/bin/sh
# with-devlog.sh SOCKET COMMAND [ARG...]
# Runs COMMAND in a private mount namespace whose /dev/log is the Unix datagram
# socket SOCKET, so that syslog(3) output can be read by a test without a
# system logger and without touching the machine's /dev; /run/media is a fresh
# tmpfs there, so a larkd started this way sweeps no link of the machine's.
set -eu
sock=$1
shift
exec unshare --mount --propagation private sh -eu -c '
    sock=$1; shift
    keep=$(mktemp -d)
    mount --rbind /dev "$keep"
    mount -t tmpfs -o mode=0755 larkd-test-dev /dev
    for node in null zero full random urandom tty; do
        touch "/dev/$node"
        mount --bind "$keep/$node" "/dev/$node"
    done
    touch /dev/log
    mount --bind "$sock" /dev/log
    umount -l "$keep"
    rmdir "$keep"
    mkdir -p /run/media
    mount -t tmpfs -o mode=0755 larkd-test-media /run/media
    exec "$@"' with-devlog "$sock" "$@"
