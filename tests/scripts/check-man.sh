#!/bin/sh
# check-man.sh PAGE... : every manual page renders without a single warning,
# both as man(1) shows it and under groff with all warnings on.
set -u
status=0
for page in "$@"; do
    warnings=$({
        MANWIDTH=80 man --warnings=w -l "$page" >/dev/null
        groff -man -Tutf8 -ww -z "$page"
    } 2>&1)
    if [ -n "$warnings" ]; then
        printf '%s:\n%s\n' "$page" "$warnings"
        status=1
    fi
done
exit $status
