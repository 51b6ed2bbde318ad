#!/usr/bin/env bash
# Installs the Debian packages that the project needs and the machine lacks.
#
#   scripts/install-deps.sh [GROUP...]
#
# Without a group: what building and testing need. Groups add to that:
#   clang     sanitizer builds          lint     format check and clang-tidy
#   fuzz      libFuzzer builds          demo     the game that the demonstration uses
#   package   Debian packages           peers     what the benchmarks compare with, and their games
#   servers   web servers, balancers, caches and proxies that the client is tried with
#   storage   databases and other programs that drives are written to with
#   wine      runs programs for Windows, for tests
#   patch-tools   what scripts/build-patch-tools.sh needs
#   duckdb    what scripts/fetch-duckdb.sh needs
# Says and touches nothing where all is there already.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config ccache python3
    libssl-dev libarchive-dev libzstd-dev libcurl4-openssl-dev libcpp-httplib-dev nlohmann-json3-dev
    libvalijson-dev libspdlog-dev libcli11-dev libtomlplusplus-dev robin-map-dev libtsl-ordered-map-dev libfuse3-dev fuse3 fuse2fs
    libxcb1-dev libxcb-ewmh-dev libxcb-icccm4-dev libxcb-randr0-dev libpci-dev libsimdjson-dev libsystemd-dev xvfb openbox dbus-daemon
    libgtest-dev libgmock-dev libbenchmark-dev
    erofs-utils e2fsprogs squashfs-tools nginx-light openssl
)
for group in "$@"; do
    case "$group" in
    clang | fuzz) packages+=(clang-14 libclang-rt-14-dev llvm-14) ;;
    lint) packages+=(git clang-14 clang-tidy-14 clang-format-14) ;;
    demo) packages+=(freedoom chocolate-doom bc curl) ;;
    package) packages+=(dpkg-dev file) ;;
    peers)
        packages+=(nbdkit libnbd-bin qemu-system-common qemu-block-extra qemu-utils rclone curl)
        packages+=(freedoom chocolate-doom supertux flare-game libxtst6 libgl1-mesa-dri xdelta3 zstd zsync casync)
        ;;
    servers)
        packages+=(nginx apache2-bin lighttpd haproxy varnish squid tinyproxy busybox caddy openssl media-types)
        ;;
    wine) packages+=(wine wine64) ;;
    storage) packages+=(sqlite3 postgresql git fio tar unzip) ;;
    patch-tools)
        packages+=(make openssl zlib1g-dev libbz2-dev libzstd-dev liblz4-dev)
        # Debian's npm has hundreds of packages below it, and excludes the one that comes with other builds of Node.js.
        command -v npm >/dev/null || packages+=(npm)
        ;;
    duckdb)
        packages+=(openssl)
        command -v npm >/dev/null || packages+=(npm)
        ;;
    *)
        echo "install-deps.sh: no group \"$group\" (there are: clang, lint, fuzz, demo, package, peers, servers, storage, wine, patch-tools, duckdb)" >&2
        exit 2
        ;;
    esac
done

# dpkg-query fails as soon as it doesn't know one of the names; what it knows is still printed.
installed=$(dpkg-query --show --showformat='${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for package in "${packages[@]}"; do
    grep --quiet --line-regexp --fixed-strings "installed $package" <<<"$installed" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

if ((EUID == 0)); then
    as_root=(env)
elif command -v sudo >/dev/null; then
    as_root=(sudo env)
else
    echo "install-deps.sh: missing packages can only be installed as root or with sudo: ${missing[*]}" >&2
    exit 1
fi

# Tests start their servers themselves; those of the system that come with the packages stay as they are, stopped.
policy=/usr/sbin/policy-rc.d
if [[ ! -e $policy ]]; then
    trap '"${as_root[@]}" rm -f "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
    "${as_root[@]}" chmod 755 "$policy"
fi

echo "Installing: ${missing[*]}"
"${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get update --quiet=2
"${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get install --quiet=2 --yes --no-install-recommends "${missing[@]}"
