#!/usr/bin/env bash
# The size of the tests against the rest of the code: non-blank, non-comment
# lines of .cpp, .h, .py and .sh files, tests/ on one side, every other source
# folder (tools, bench and scripts included) on the other.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
    find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' \) -print0 |
        xargs -0 cat | grep -cvE '^\s*($|//|#|\*|/\*)'
}
code_dirs=$(git ls-files | cut -d/ -f1 | sort -u | while read -r d; do
    [ -d "$d" ] && [ "$d" != tests ] && echo "$d"; done)
tests=$(count tests)
# shellcheck disable=SC2086
code=$(count $code_dirs)
echo "tests $tests lines, code $code lines: $((100 * tests / code))%"
