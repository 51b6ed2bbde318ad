#!/usr/bin/env bash
# Shows an update: three versions of a game, and the patches between them. The installed image becomes the second
# version from a folder, and another one from a server while it is killed again and again; then it comes to the
# published order, and to the third version. Part of demo.sh. Fails, and names the step, as soon as something isn't as
# it should be.
#
#   demo-patch.sh TAVRIN GAME_FOLDER WORK_FOLDER
set -Eeuo pipefail
cd "$(dirname "$0")/.."

tavrin=$1 game=$2 work=$3/patch
rate=1500000 latency=20 kills=10
server= killed=
step='making the versions'
tidy_up() {
    "$tavrin" umount "$work/installed" --hard --quiet || true
    if [[ -n $server ]]; then kill "$server" || true; wait "$server" || true; fi
} 2>/dev/null
source scripts/demo-steps.sh

# Bytes $2 to $3 of the file $1.
cut_out() {
    head -c "$3" "$1" | tail -c "$(($3 - $2))"
}

mkdir "$work"
mkdir "$work/v1" "$work/v2" "$work/v3"
cp -L "$game"/* "$work/v1"
one=$work/v1/freedoom1.wad two=$work/v1/freedoom2.wad
size=$(stat -c %s "$one") other=$(stat -c %s "$two")
cut_out "$two" 0 3000000 | gzip -n >"$work/added"
# Bytes come in the middle of one file, which shifts all after them, and go from the other, which gets another name.
{
    cut_out "$one" 0 9000000
    head -c 200001 "$work/added"
    cut_out "$one" 9000000 "$size"
} >"$work/v2/freedoom1.wad"
{
    cut_out "$two" 0 5000000
    cut_out "$two" 5700000 "$other"
} >"$work/v2/freedoom2-revised.wad"
cp "$work/v2"/* "$work/v3"
cut_out "$one" 0 1500000 >"$work/v3/extra.wad"
printf 'changed' | dd of="$work/v3/freedoom1.wad" bs=1 seek=20000000 conv=notrunc status=none

step='publishing the versions'
for version in 1 2 3; do
    "$tavrin" image build "$work/v$version" "$work/image$version" --quiet
done
printf 'Three versions of a game, each an image of %s MB.\n' "$(($(stat -c %s "$work/image1/img.zqf") / 1000000))"

step='making the patches'
run patch create "$work/image1" "$work/image2" "$work/to2"
"$tavrin" patch create "$work/image2" "$work/image3" "$work/to3" --quiet
run patch verify "$work/to2"

# Whether the image $1 is that of the folder of version $2.
compare() {
    if [[ ! -d $work/raw$2 ]]; then "$tavrin" image raw "$work/image$2" "$work/raw$2" --quiet; fi
    run image verify "$1" --raw "$work/raw$2" >"$work/verify.log" || fail "$(cat "$work/verify.log")"
}

step='the update from a folder'
cp -r "$work/image1" "$work/installed"
run patch status "$work/installed" "$work/to2"
run patch apply "$work/installed" "$work/to2"
compare "$work/installed" 2
if ((EUID == 0)) && [[ -r /dev/fuse ]]; then
    step='its drive'
    "$tavrin" mount "$work/installed" --quiet
    drive=$("$tavrin" status "$work/installed" --json | sed -n 's/.*"mountPath": "\(.*\)",/\1/p')
    printf '$ diff -r v2 %s\n' "$drive/TAVRIN-protected/app"
    diff -r "$work/v2" "$drive/TAVRIN-protected/app"
    "$tavrin" umount "$work/installed" --quiet
fi

step='serving the patch'
"$tavrin" serve "$work/to2" --rate "$rate" --latency "$latency" >"$work/serve.log" 2>&1 &
server=$!
until [[ -s $work/serve.log ]]; do
    if [[ ! -d /proc/$server ]]; then fail 'the server has ended'; fi
    sleep 0.05
done
url=$(head -n 1 "$work/serve.log")

step='the update from a server, killed again and again'
cp -r "$work/image1" "$work/killed"
RANDOM=7
printf '$ tavrin patch apply killed %s    # killed again and again\n' "$url"
for ((killed = 0; killed < kills; ++killed)); do
    setsid "$tavrin" patch apply "$work/killed" "$url" --quiet 2>>"$work/killed.log" &
    pid=$!
    sleep "$(printf '0.%03d' $((RANDOM % 150 + 30)))"
    if ! kill -KILL "$pid" 2>/dev/null; then
        # On a fast machine it is through before the last kill.
        wait "$pid" || fail "it failed after $killed kills: $(cat "$work/killed.log")"
        break
    fi
    wait "$pid" 2>/dev/null || true
done
if ((killed < 3)); then fail "it was through after $killed kills"; fi
printf 'It was killed %d times.\n' "$killed"
if [[ -e $work/killed/patch.progress ]]; then
    step='a mount of what is half patched'
    if "$tavrin" mount "$work/killed" 2>"$work/mount.log"; then fail 'it was mounted'; fi
    if ! grep -q -- '--resume' "$work/mount.log"; then fail "$(cat "$work/mount.log")"; fi
    cat "$work/mount.log"
fi
if ((killed == kills)); then
    step='going on'
    run patch apply "$work/killed" --resume
fi
compare "$work/killed" 2

step='the published order'
run image optimize "$work/killed" "$work/image2"
cmp "$work/killed/img.zqf" "$work/image2/img.zqf"
run image verify "$work/killed"

step='the third version'
run patch apply "$work/killed" "$work/to3"
compare "$work/killed" 3
printf 'Both images are the versions that were published.\n'
