# shellcheck shell=bash disable=SC2154
# Sourced by the demos, which set `tavrin` and `work`, and define tidy_up(). While `step` is set, a failure names it.

fail() {
    trap - ERR
    printf '%s: failed%s: %s\n' "${0##*/}" "${step:+ at $step}" "$1" >&2
    exit 1
}
trap tidy_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'fail "\"$BASH_COMMAND\" gave exit code $?"' ERR

# Shows the command as one would type it, then runs it.
run() {
    local shown="tavrin $*"
    printf '$ %s\n' "${shown//$work\//}"
    "$tavrin" "$@"
}
