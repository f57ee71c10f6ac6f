#!/usr/bin/env bash
# Sets up and builds larkd if needed, then runs it in the foreground with its
# log on the console. Stop it with Ctrl-C or SIGTERM.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" build
exec "$root/build/daemon/larkd" --disable-syslog "$@"
