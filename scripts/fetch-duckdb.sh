#!/usr/bin/env bash
# Fetches DuckDB's library and its header into build/duckdb; `stats collect` counts with it. Does nothing where they
# are there in the right version. Everything else is built and works without them, so whatever keeps them from being
# fetched is told in a sentence and is no failure.
set -euo pipefail
cd "$(dirname "$0")/.."

# Debian has neither. Both are pinned, and so is the name of each file: it is loaded into the client.
case $(uname -m) in
x86_64)
    package=@duckdb/node-bindings-linux-x64@1.5.6-r.1
    integrity=sha512-IXcrZJE6kEqM0Z4wwdVnGBHX/frOS33VPNAwDXQ/Q+Fs84b058Qe94chrCCIcNJlG8Y3UHIUU4eBeCQxW5mN1Q==
    ;;
aarch64)
    package=@duckdb/node-bindings-linux-arm64@1.5.6-r.1
    integrity=sha512-3jnUaDil1BrF/6vAZwVaInJ1xoBaWGHB4PDiUnzJWKCo8a8TLx9j7/gPyPl/UGRBftrYIuTihRZSfF4mWMgtWA==
    ;;
*)
    package=''
    ;;
esac
# The C functions keep their form from one version to the next, so the header of an earlier one serves.
header=duckdb@1.4.4
header_integrity=sha512-hEJJ5hyVF0VLj3dmOLpsWrQR0b3d4Ykqtygm6iUXjHJDDnSqg/USKxcb5qvNrOhFYPgktayU6dXCtgPqcmmpog==
target=$PWD/build/duckdb
version="$package $integrity $header $header_integrity"

if [[ -f $target/libduckdb.so && -f $target/duckdb.h && -f $target/version && $(<"$target/version") == "$version" ]]; then
    exit 0
fi

go_without() {
    echo "fetch-duckdb.sh: $*, so this build can't collect the statistics of a fleet." >&2
    exit 0
}

[[ -n $package ]] || go_without "there is no DuckDB library for this processor"
# The library and the header belong together.
mkdir -p "$target"
rm -f "$target"/{version,libduckdb.so,duckdb.h,LICENSE}
scripts/install-deps.sh duckdb || go_without "npm can't be installed"
echo "Fetching DuckDB's library"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$target/fetch.log

# fetch PACKAGE INTEGRITY FOLDER: unpacks the package into the folder. npm goes to the registry that it is configured
# for. Without its limits it tries for minutes where there is none.
fetch() {
    mkdir -p "$3"
    (cd "$3" && timeout 300 npm pack --silent --ignore-scripts --fetch-retries=1 --fetch-retry-mintimeout=1000 \
        --fetch-timeout=60000 "$1") >"$log" 2>&1 || go_without "npm can't get the package $1"
    local archive found
    archive=$(echo "$3"/*.tgz)
    found=sha512-$(openssl dgst -sha512 -binary "$archive" | base64 --wrap=0)
    [[ $found == "$2" ]] || go_without "the package $1 has the digest $found instead of $2"
    tar -xzf "$archive" -C "$3" >"$log" 2>&1 || go_without "the package $1 can't be unpacked"
}
fetch "$package" "$integrity" "$work/library"
fetch "$header" "$header_integrity" "$work/header"

for file in library/package/libduckdb.so header/package/src/duckdb/src/include/duckdb.h library/package/LICENSE; do
    cp "$work/$file" "$target/${file##*/}.new" || go_without "$target can't be written"
    mv "$target/${file##*/}.new" "$target/${file##*/}"
done
echo "$version" >"$target/version"
rm -f "$log"
