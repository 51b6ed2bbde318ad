#!/usr/bin/env bash
# Runs each fuzz program for a while, on its stored seeds and on what earlier runs found.
#
#   scripts/fuzz.sh SECONDS [NAME...]
#
# Found cases gather in build/fuzz/corpus/NAME, failing inputs in build/fuzz/failures/NAME.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?"usage: scripts/fuzz.sh SECONDS [NAME...]"}
shift

if (($# == 0)); then
    for program in build/fuzz/fuzz/fuzz_*; do
        set -- "$@" "${program##*/fuzz_}"
    done
fi

failed=()
for name in "$@"; do
    echo "== $name, $seconds s"
    mkdir -p "build/fuzz/corpus/$name" "build/fuzz/failures/$name"
    folders=("build/fuzz/corpus/$name")
    [[ -d fuzz/seeds/$name ]] && folders+=("fuzz/seeds/$name")
    "build/fuzz/fuzz/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -verbosity=0 -artifact_prefix="build/fuzz/failures/$name/" "${folders[@]}" || failed+=("$name")
done

if ((${#failed[@]} > 0)); then
    echo "fuzz.sh: failed: ${failed[*]}; the inputs are in build/fuzz/failures" >&2
    exit 1
fi
