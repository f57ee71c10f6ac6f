# Sourced by the stand-ins: appends "NAME<TAB>arg<TAB>arg..." to LARKD_RECORD_FILE.
record() {
    [ -n "${LARKD_RECORD_FILE:-}" ] || return 0
    line=$(basename "$0")
    for arg in "$@"; do
        line=$(printf '%s\t%s' "$line" "$arg")
    done
    printf '%s\n' "$line" >>"$LARKD_RECORD_FILE"
}
