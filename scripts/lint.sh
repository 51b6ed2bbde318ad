#!/usr/bin/env bash
# Layout, layering and clang-tidy, over all sources that git tracks or would track. Each check runs even if
# one before it failed, so that one run shows everything.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
failed=0

mapfile -d '' sources < <(git ls-files -z --cached --others --exclude-standard --deduplicate -- '*.cpp' '*.h' |
    while IFS= read -r -d '' file; do [[ -f $file ]] && printf '%s\0' "$file"; done)

echo "== layout (${#sources[@]} files)"
clang-format-14 --dry-run --Werror "${sources[@]}" || failed=1

echo "== layering"
python3 scripts/check-includes.py || failed=1

echo "== clang-tidy"
# Nothing is built here, so there is no precompiled header to be read.
cmake --preset clang -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
# It counts the suppressed warnings of system headers on standard error, file by file.
run-clang-tidy-14 -quiet -p build/lint -j "$jobs" "^$PWD/src/.*\.cpp$" 2> >(grep -v 'warnings\? generated' >&2) ||
    failed=1

exit "$failed"
