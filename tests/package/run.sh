#!/usr/bin/env bash
# run.sh BUILD: installs a build into a folder of its own, builds a launcher against that with CMake and with
# pkg-config, and has both make an image, mount it and read a file.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
[[ $EUID == 0 && -c /dev/fuse ]] || { echo "mounting needs root and /dev/fuse"; exit 77; }
command -v mkfs.erofs >/dev/null || { echo "erofs-utils isn't installed"; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/installed
export WINEPREFIX=$work/machine XDG_STATE_HOME=$work/state
mkdir "$work/game" "$XDG_STATE_HOME"
echo "the level" >"$work/game/level.dat"
printf '#!/bin/sh\n' >"$work/game/start"
chmod +x "$work/game/start"
cmake --install "$build" --prefix "$prefix" >"$work/log"

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >>"$work/log"
cmake --build "$work/cmake" >>"$work/log"
cp "$work/cmake/launcher" "$prefix/bin/with-cmake"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig:$(echo "$prefix"/lib/*/pkgconfig)
# shellcheck disable=SC2046
g++ -std=c++20 -o "$prefix/bin/with-pkg-config" "$here/launcher.cpp" $(pkg-config --cflags --libs --static tavrin)

for launcher in with-cmake with-pkg-config; do
    line=$("$prefix/bin/$launcher" "$work/$launcher.image" "$work/game" level.dat)
    [[ $line == "the level" ]] || { echo "$launcher read '$line'"; exit 1; }
done
