#!/usr/bin/env bash
# Builds hdiffz and hpatchz, the tools that make and apply the difference of two files, into build/patch-tools. Does
# nothing where they are there in the right version. Everything else is built and works without them, so whatever
# keeps them from being built is told in a sentence and is no failure.
set -euo pipefail
cd "$(dirname "$0")/.."

# The package holds the sources of the tools and of all that they need but isn't Debian's. Pinned, since patches must
# come out the same for everybody.
package=react-native-update@10.40.2
integrity=sha512-nlW9PDUvt90zmHNid2ql3p0ZIOJeeUR3GAE4RyAcXDwUmNs9lsJ3r2tiKAXnwmuOpF+iXDUheBTf9LpD30vwHA==
sources=package/android/jni/HDiffPatch
flags='-w -O2 -D_CompressPlugin_zstd -D_CompressPlugin_lz4 -D_CompressPlugin_lz4hc'
libraries='-lz -lbz2 -lzstd -llz4'
target=$PWD/build/patch-tools
version="$package $integrity $flags $libraries"

if [[ -x $target/hdiffz && -x $target/hpatchz && -f $target/version && $(<"$target/version") == "$version" ]]; then
    exit 0
fi

go_without() {
    echo "build-patch-tools.sh: $*, so this build can neither make nor apply patches." >&2
    exit 0
}

# Those of another version would make other patches.
mkdir -p "$target"
rm -f "$target"/{version,hdiffz,hpatchz,LICENSE}
log=$target/build.log
scripts/install-deps.sh patch-tools || go_without "what hdiffz and hpatchz are built with can't be installed"
echo "Building hdiffz and hpatchz"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# npm goes to the registry that it is configured for. Without its limits it tries for minutes where there is none.
(cd "$work" && timeout 300 npm pack --silent --ignore-scripts --fetch-retries=1 --fetch-retry-mintimeout=1000 \
    --fetch-timeout=60000 "$package") >"$log" 2>&1 || go_without "npm can't get the package $package"
archive=$(echo "$work"/*.tgz)
found=sha512-$(openssl dgst -sha512 -binary "$archive" | base64 --wrap=0)
[[ $found == "$integrity" ]] || go_without "the package $package has the digest $found instead of $integrity"

# By the environment, since the sources' makefile adds its own flags to these. That of our own make isn't handed on.
build() {
    tar -xzf "$archive" -C "$work"
    export CFLAGS=$flags CXXFLAGS=$flags
    unset MAKEFLAGS MAKELEVEL
    # What the second call links isn't among the prerequisites of its targets.
    make -C "$work/$sources" -j "$(nproc)" md5Lib lzmaLib libhdiffpatch.a &&
        make -C "$work/$sources" hdiffz hpatchz PATCH_LINK="$libraries"
}
(build) >"$log" 2>&1 || go_without "hdiffz and hpatchz can't be built ($log says why)"

for file in hdiffz hpatchz LICENSE; do
    cp "$work/$sources/$file" "$target/$file.new"
    mv "$target/$file.new" "$target/$file"
done
echo "$version" >"$target/version"
rm -f "$log"
