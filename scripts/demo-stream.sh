#!/usr/bin/env bash
# Shows what the client is for: a game over a link of 20 Mbit/s and 20 ms, downloaded first, and played while it
# arrives. The game plays a recorded demo and ends by itself; no display is needed. Part of demo.sh.
#
#   demo-stream.sh TAVRIN WORK_FOLDER
set -euo pipefail
cd "$(dirname "$0")/.."

tavrin=$1 work=$2
rate=2500000 latency=20
app='{{ZQDRIVE}}/TAVRIN-protected/app/chocolate-doom'
server=
tidy_up() {
    if [[ -n $server ]]; then kill "$server" && wait "$server" || true; fi
    for image in "$work"/got-*; do
        if [[ -d $image ]]; then "$tavrin" umount "$image" --hard --quiet || true; fi
    done
} 2>/dev/null
trap tidy_up EXIT

mkdir "$work/game"
cp -L /usr/games/chocolate-doom /usr/share/games/doom/freedoom1.wad "$work/game"
g++ -shared -fPIC -O1 -o "$work/first_frame.so" bench/support/first_frame.cpp -ldl
image=$work/published
"$tavrin" image build "$work/game" "$image" --cmd "$app" --quiet \
    --arg -iwad --arg freedoom1.wad --arg -timedemo --arg demo1 --arg -nosound
"$tavrin" serve "$image" --rate "$rate" --latency "$latency" >"$work/serve.log" 2>&1 &
server=$!
until [[ -s $work/serve.log ]]; do sleep 0.05; done
url=$(head -n 1 "$work/serve.log")
size=$(stat -c %s "$image/img.zqf")

# Plays the image at $1 into a report; further words are options of the run.
play() {
    local name=$1
    shift
    rm -f "$work/frame"
    HOME=$work SDL_VIDEODRIVER=dummy SDL_AUDIODRIVER=dummy LD_PRELOAD=$work/first_frame.so \
        TAVRIN_FIRST_FRAME=$work/frame "$tavrin" run "$work/got-$name" --url "$url" \
        --report "$work/$name.json" "$@" >"$work/$name.log" 2>&1 || {
        cat "$work/$name.log" >&2
        return 1
    }
}

value() {
    sed -n "s/.*\"$2\": *\([-0-9]*\).*/\1/p" "$work/$1.json" | head -n 1
}

row() {
    local name=$1 what=$2 extra=$3
    local frame=$(($(value "$name" firstFrameMs) + extra))
    printf '%-32s %10.1f %10.1f %10d %9d %9.1f %9.1f\n' "$what" \
        "$(bc -l <<<"$(value "$name" preloadSize) / 1000000")" "$(bc -l <<<"$frame / 1000")" \
        "$(value "$name" nOnDemandFetches)" "$(value "$name" avgOnDemandTime)" \
        "$(bc -l <<<"($(value "$name" bytesReceived) + $4) / 1000000")" \
        "$(bc -l <<<"$(value "$name" bytesTwice) / 1000000")"
}

printf '\nThe game: %s MB as an image, over a link of 20 Mbit/s and %s ms.\n' "$((size / 1000000))" "$latency"

# Downloaded as a whole, then started.
begin=$(date +%s%3N)
mkdir "$work/got-download"
for file in app.json img.json img.idx img.zqf; do
    curl -sf -o "$work/got-download/$file" "$url$file"
done
download=$(($(date +%s%3N) - begin))
play download --now
play plain --now --keep-mounted
cmp "$image/img.zqf" "$work/got-plain/img.zqf"
"$tavrin" umount "$work/got-plain" --quiet
"$tavrin" image pack "$image" --quiet
play packed --now --keep-mounted
cmp "$image/img.zqf" "$work/got-packed/img.zqf"
"$tavrin" umount "$work/got-packed" --quiet

printf '\n%-32s %10s %10s %10s %9s %9s %9s\n' '' 'there at' 'first' 'requests' 'each' 'received' 'twice'
printf '%-32s %10s %10s %10s %9s %9s %9s\n' '' 'start, MB' 'frame, s' 'on demand' 'ms' 'MB' 'MB'
row download 'downloaded first, then started' "$download" "$size"
row plain 'played while it arrives' 0 0
row packed 'the same, from a packed image' 0 0
printf '\nBoth images that arrived during play are equal to the published one, byte for byte.\n'
