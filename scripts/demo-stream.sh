#!/usr/bin/env bash
# Shows what the client is for: a game over a link of 20 Mbit/s and 20 ms, downloaded first, and played while it
# arrives: as it is, packed, ordered by the trace of a run, and ordered by the traces of two other levels. Then what was
# downloaded comes to the order of its run in place. The game plays recorded demos and ends by itself; no display is
# needed. Part of demo.sh. Fails, and names the step,
# as soon as something isn't as it should be.
#
#   demo-stream.sh TAVRIN WORK_FOLDER
set -Eeuo pipefail
cd "$(dirname "$0")/.."

tavrin=$1 work=$2
rate=2500000 latency=20
app='{{ZQDRIVE}}/TAVRIN-protected/app/chocolate-doom'
server=
step='making the game'
tidy_up() {
    for image in "$work"/got-*; do
        if [[ -d $image ]]; then "$tavrin" umount "$image" --hard --quiet || true; fi
    done
    if [[ -n $server ]]; then kill "$server" || true; wait "$server" || true; fi
} 2>/dev/null
source scripts/demo-steps.sh

mkdir "$work/game"
cp -L /usr/games/chocolate-doom /usr/share/games/doom/freedoom1.wad "$work/game"
g++ -shared -fPIC -O1 -o "$work/first_frame.so" bench/support/first_frame.cpp -ldl

# Makes the image $1 of the game; further words are options.
publish() {
    local image=$1
    shift
    "$tavrin" image build "$work/game" "$image" --cmd "$app" --quiet \
        --arg -iwad --arg freedoom1.wad --arg -timedemo --arg demo1 --arg -nosound "$@"
}

# Serves the folder $1 in the place of what was served before, and sets url.
serve() {
    if [[ -n $server ]]; then kill "$server" && wait "$server"; fi
    : >"$work/serve.log"
    "$tavrin" serve "$1" --rate "$rate" --latency "$latency" >"$work/serve.log" 2>&1 &
    server=$!
    until [[ -s $work/serve.log ]]; do
        if [[ ! -d /proc/$server ]]; then fail 'the server has ended'; fi
        sleep 0.05
    done
    url=$(head -n 1 "$work/serve.log")
    if [[ $url != http://* ]]; then fail "$url"; fi
}

step='publishing the game'
image=$work/published
publish "$image"
size=$(stat -c %s "$image/img.zqf")

step='serving it'
serve "$image"

# The number at a key of the report of the run $1; nothing where there is none.
value() {
    sed -n "s/.*\"$2\": *\([-0-9]*\).*/\1/p" "$work/$1.json" | head -n 1
}

# Plays the image at $1 into a report; further words are options of the run.
play() {
    local name=$1
    shift
    HOME=$work SDL_VIDEODRIVER=dummy SDL_AUDIODRIVER=dummy LD_PRELOAD=$work/first_frame.so \
        TAVRIN_FIRST_FRAME=$work/frame-$name "$tavrin" run "$work/got-$name" --url "$url" \
        --report "$work/$name.json" "$@" >"$work/$name.log" 2>&1 || {
        local code=$?
        cat "$work/$name.log" >&2
        fail "the run gave exit code $code"
    }
    if [[ -z $(value "$name" firstFrameMs) ]]; then
        cat "$work/$name.log" >&2
        fail 'the game has shown no frame'
    fi
    if ! cmp "$image/img.zqf" "$work/got-$name/img.zqf"; then fail 'what has arrived is another image'; fi
}

# Plays the demo $1 from the drive of the image that was downloaded, and traces what it reads.
trace_level() {
    local installed=$work/got-download drive
    "$tavrin" mount "$installed" --trace "$work/trace-$1" --quiet
    drive=$("$tavrin" status "$installed" --json | sed -n 's/.*"mountPath": "\(.*\)",/\1/p')
    # Its normal end has the exit code 255.
    HOME=$work SDL_VIDEODRIVER=dummy SDL_AUDIODRIVER=dummy "$drive/TAVRIN-protected/app/chocolate-doom" \
        -iwad "$drive/TAVRIN-protected/app/freedoom1.wad" -timedemo "$1" -nosound >"$work/$1.log" 2>&1 || true
    "$tavrin" umount "$installed" --quiet
}

# A line of the table: the run $1 as what it is, $2, after a download of so many milliseconds and bytes.
row() {
    local name=$1 what=$2 downloaded_ms=$3 downloaded=$4 key
    local -A of=()
    for key in firstFrameMs preloadSize nUnderflows avgUnderflowTime nOnDemandFetches avgOnDemandTime \
        bytesReceived bytesTwice; do
        of[$key]=$(value "$name" "$key")
    done
    printf '%-44s %8s %8s %8d %8s %6d %8d %8s %8s\n' "$what" \
        "$(decimal $((of[firstFrameMs] + downloaded_ms)) 1000)" "$(decimal "${of[preloadSize]}" 1000000)" \
        "${of[nUnderflows]}" "$(decimal $((of[nUnderflows] * of[avgUnderflowTime])) 1000)" \
        "${of[nOnDemandFetches]}" "${of[avgOnDemandTime]}" \
        "$(decimal $((of[bytesReceived] + downloaded)) 1000000)" "$(decimal "${of[bytesTwice]}" 1000000)"
}

# $1 / $2 with one digit after the point.
decimal() {
    printf '%.1f' "$(bc -l <<<"$1 / $2")"
}

printf '\nThe game: %s MB as an image, over a link of 20 Mbit/s and %s ms.\n' "$(decimal "$size" 1000000)" "$latency"

step='the download before the start'
begin=$(date +%s%3N)
mkdir "$work/got-download"
for file in app.json img.json img.idx img.zqf; do
    curl -sSf -o "$work/got-download/$file" "$url$file"
done
download=$(($(date +%s%3N) - begin))
step='the run of the game that was downloaded'
play download --now
step='the run that plays while the image arrives'
play plain --now --keep-mounted
"$tavrin" umount "$work/got-plain" --quiet
step='packing the image'
"$tavrin" image pack "$image" --quiet
step='the run that plays while the packed image arrives'
play packed --now --keep-mounted
"$tavrin" umount "$work/got-packed" --quiet

step='ordering the game by the trace of the run that had it all'
ordered=$work/ordered
trace=$(echo "$work"/got-download/traces/*)
publish "$ordered" --order "$trace"
"$tavrin" image pack "$ordered" --quiet
step='serving the ordered image'
image=$ordered
serve "$image"
step='the run that plays while the ordered image arrives'
pages=$PWD/build/demo
mkdir -p "$pages"
play ordered --now --keep-mounted --page "$pages/run.html"
"$tavrin" umount "$work/got-ordered" --quiet
step='the pictures'
"$tavrin" trace plot "$trace" "$pages/trace.svg" --quiet

step='tracing two other levels'
for demo in demo2 demo3; do trace_level "$demo"; done
step='ordering the game by these'
levels=$work/levels
publish "$levels" --order "$work/trace-demo2" --order "$work/trace-demo3"
"$tavrin" image pack "$levels" --quiet
step='serving that image'
image=$levels
serve "$image"
step='the run that plays a level that nobody has traced'
play levels --now --keep-mounted
"$tavrin" umount "$work/got-levels" --quiet
step='the pictures of that run'
untraced=$(echo "$work"/got-levels/traces/*)
"$tavrin" trace plot "$untraced" "$pages/untraced-plain.svg" --image "$work/got-plain" --quiet
"$tavrin" trace plot "$untraced" "$pages/untraced-ordered.svg" --image "$work/got-levels" --quiet

step='the table'
printf '\n%-44s %8s %8s %17s %15s %17s\n' '' 'first' 'there at' 'underflows' 'on demand' 'over the link, MB'
printf '%-44s %8s %8s %8s %8s %6s %8s %8s %8s\n' \
    'the game is' 'frame, s' 'start,MB' 'number' 'sum, s' 'number' 'each, ms' 'received' 'twice'
row download 'downloaded as a whole, then started' "$download" "$size"
row plain 'started at once, and played while it arrives' 0 0
row packed 'the same, from a packed image' 0 0
row ordered 'the same, ordered by the trace of a run' 0 0
row levels 'the same, ordered by two other levels' 0 0
printf '\nAll images are equal to the published ones, byte for byte.\n'

step='bringing the image that was there first to the order of its run'
installed=$work/got-download
printf '\nWhoever has the image already downloads nothing again: it comes to the better order in place.\n'
printf '$ tavrin image optimize got-download --traces\n'
"$tavrin" image optimize "$installed" --traces
step='comparing it with the image that was built in that order'
for file in img.zqf img.idx img.json app.json; do
    cmp "$installed/$file" "$ordered/$file"
done
"$tavrin" image verify "$installed" --quiet
step='comparing each file of its drive'
"$tavrin" mount "$installed" --quiet
drive=$("$tavrin" status "$installed" --json | sed -n 's/.*"mountPath": "\(.*\)",/\1/p')
diff -r "$work/game" "$drive/TAVRIN-protected/app"
"$tavrin" umount "$installed" --quiet
printf 'It is what a build in that order gives, byte for byte, and its drive has each file of the game.\n\n'
printf 'The page of the last run: %s\nWhat the trace looks like: %s\n' "$pages/run.html" "$pages/trace.svg"
printf 'The run that nobody has traced, over the disk as it is: %s\n' "$pages/untraced-plain.svg"
printf 'The same over the order that other levels give: %s\n' "$pages/untraced-ordered.svg"
