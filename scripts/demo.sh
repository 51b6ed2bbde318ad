#!/usr/bin/env bash
# Shows the client at work on a real game: Freedoom's folder becomes an image, the image is cut into parts for
# delivery, joined again and verified, made a drive of, played over a slow link while it arrives, installed, and
# patched. Works in a folder of its own and removes it at the end.
set -Eeuo pipefail
cd "$(dirname "$0")/.."

tavrin=${TAVRIN_BIN:-$PWD/build/release/bin/tavrin}
game=/usr/share/games/doom
part_size=1000000

if [[ ! -x $tavrin ]]; then
    echo "demo.sh: no client at $tavrin; \"make build\" makes one" >&2
    exit 1
fi
scripts/install-deps.sh demo

work=$(mktemp -d)
image=$work/freedoom
export XDG_STATE_HOME=$work/state XDG_CONFIG_HOME=$work/config WINEPREFIX=$work/root
tidy_up() {
    "$tavrin" umount "$image-drive" --hard --quiet 2>/dev/null || true
    rm -rf "$work"
}
source scripts/demo-steps.sh

say() {
    printf '\n%s\n' "$*"
}

say "The game: $(du -shL "$game" | cut -f1) in $game."
ls -l "$game"

say "Its folder becomes an image: the content in blocks, and a map that says where each block lies."
run content create "$game" "$image"

say "What the image is made of:"
run image info "$image"

say "The first entries of its map:"
run image map "$image" --first 0 --last 8

say "For delivery the stored file is cut into parts of $part_size bytes."
run image split "$image" --part-size "$part_size"

say "The receiver joins the parts again."
run image join "$image"

say "And makes sure that every digest, size and map entry is right."
run image verify "$image"

say "With a file system the image becomes a drive, and every read of it leaves a trace."
run image build "$game" "$image-drive"
if ((EUID == 0)) && [[ -r /dev/fuse ]]; then
    run mount "$image-drive" --trace "$work/trace"
    drive=$("$tavrin" status "$image-drive" --json | sed -n 's/.*"mountPath": "\(.*\)",/\1/p')
    printf '$ diff -rq %s %s\n' "$game" "$drive/TAVRIN-protected/app"
    diff -rq "$game" "$drive/TAVRIN-protected/app"
    run status
    run umount "$image-drive"
    run trace info "$work/trace"
    say "A complete image that nobody traces is served by the kernel itself, where it can."
    run mount "$image-drive"
    run status
    diff -rq "$game" "$drive/TAVRIN-protected/app"
    run umount "$image-drive"
    say "And this is what it is for: a game that is played while it arrives."
    scripts/demo-stream.sh "$tavrin" "$work"
    say "Titles of launchers run from the drive, and leave nothing behind."
    scripts/demo-launchers.sh "$tavrin" "$game" "$work"
else
    say "Drives are left out: this machine or user has no means for them (root and /dev/fuse)."
fi

if [[ -x $(dirname "$tavrin")/hdiffz ]]; then
    say "The game's next version comes as a patch, of what has changed."
    scripts/demo-patch.sh "$tavrin" "$game" "$work"
else
    say "Patches are left out: their tools couldn't be built (scripts/build-patch-tools.sh)."
fi

if [[ -d $work/got-ordered/runs ]]; then
    say "What the run of the ordered image was like, and what of it leaves the machine:"
    run stats show "$work/got-ordered"
fi

say "All of it worked."
