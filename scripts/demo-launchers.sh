#!/usr/bin/env bash
# Shows titles of launchers, and an installation out of an image. For each launcher a title is mounted in the launcher's
# real layout, and compared; unmounted, and all is as it was; mounted once more, its drive service killed, and all is as
# it was after "launcher restore". Then an image becomes a plain folder, whose program starts. Part of demo.sh, as root.
# Fails, and names the step, as soon as something isn't as it should be.
#
#   demo-launchers.sh TAVRIN GAME_FOLDER WORK_FOLDER
set -Eeuo pipefail
cd "$(dirname "$0")/.."

tavrin=$1 game=$2 work=$3/launchers
step='laying out the machine' image=
tidy_up() {
    [[ -z $image ]] || "$tavrin" umount "$image" --hard --quiet || true
} 2>/dev/null
source scripts/demo-steps.sh

export WINEPREFIX=$work/root
data="$WINEPREFIX/drive_c/ProgramData"
mkdir -p "$WINEPREFIX/dosdevices" "$work/title/Fern/.egstore" "$work/title/Origin/LocalContent/Fern" \
    "$data/Epic/EpicGamesLauncher/Data/Manifests" "$data/Epic/EpicGamesLauncher/Data/egstore/Other/.egstore" \
    "$data/Origin/LocalContent/Other" "$data/RobotCache/RobotCacheClient/config"
ln -s ../drive_c "$WINEPREFIX/dosdevices/c:"

manifest() { # GUID FOLDER
    cat <<END
{ "FormatVersion": 0, "LaunchCommand": "", "LaunchExecutable": "Binaries\\\\Win64\\\\Fern.exe",
  "ManifestLocation": "", "InstallationGuid": "$1", "InstallLocation": "C:\\\\Games\\\\$2", "StagingLocation": "",
  "MainWindowProcessName": "", "MandatoryAppFolderName": "$2", "AppName": "$2", "MainGameAppName": "$2" }
END
}
# The player has another title of each launcher, and this one of Epic's, too.
manifest 0AF3 Other >"$data/Epic/EpicGamesLauncher/Data/Manifests/0AF3.item"
manifest 7B1C Fern >"$data/Epic/EpicGamesLauncher/Data/Manifests/7B1C.item"
echo other >"$data/Epic/EpicGamesLauncher/Data/egstore/Other/.egstore/0AF3.mancpn"
echo other >"$data/Origin/LocalContent/Other/other.mfst"
cat >"$data/RobotCache/RobotCacheClient/config/appConfig.json" <<'END'
{"client_language": 1, "client_run_at_startup": false, "formatVersion": 3, "gameOrders": [3, 1],
 "hide_ticker": true, "hours_mined": "0", "iron_balance": "0",
 "last_login": {"password": "not for the log", "remember_password": true, "username": "player"},
 "libraries": ["D:\\Games"], "miner_id": "", "miningRewardSetConfigurationId": "",
 "mining_configs": {"cpuLiftOff": false, "cpu_mining_state": false, "first_time_mining": true, "liftOff": false,
                    "gpu_mining_state": false},
 "mining_reward_fromdate": "", "mining_reward_todate": "", "selected_server": 0,
 "window": {"close_behaviour": 0, "hight": 700, "width": 1000}, "a key of a later client": [1, 2]}
END
cat >"$WINEPREFIX/system.reg" <<'END'
WINE REGISTRY Version 2
;; All keys relative to REGISTRY\\Machine

#arch=win64

[Software\\Classes\\RobotCache\\shell\\open\\command] 1700000000
@="\"C:\\Program Files\\RobotCache\\RobotCacheClient.exe\" \"%1\""

[Software\\Classes\\com.epicgames.launcher\\shell\\open\\command] 1700000000
@="\"C:\\Program Files (x86)\\Epic Games\\Launcher\\EpicGamesLauncher.exe\" %1"

[Software\\Wow6432Node\\Ubisoft\\Launcher] 1700000000
"InstallDir"="C:\\Program Files (x86)\\Ubisoft\\Ubisoft Game Launcher\\"

[Software\\Wow6432Node\\Valve\\Steam] 1700000000
"InstallPath"="C:\\Program Files (x86)\\Steam"

[Software\\Wow6432Node\\Valve\\Steam\\Apps\\480] 1700000000
"Name"="as the player has it"
END

# The title, with what each launcher wants of it.
manifest 7B1C Fern >"$work/title/epic.item"
echo 'of the store' >"$work/title/Fern/.egstore/7B1C.mancpn"
echo 'of Origin' >"$work/title/Origin/LocalContent/Fern/fern.mfst"
"$tavrin" image build "$work/title" "$work/image" --quiet
image=$work/image

# All that the player has: files with modes, owners and content, and the registry.
state() {
    (cd "$WINEPREFIX" && find drive_c -path drive_c/ProgramData/TAVRIN -prune -o -printf '%M %U:%G %p %l\n' &&
        find drive_c -path drive_c/ProgramData/TAVRIN -prune -o -type f -exec sha256sum {} + &&
        grep -h -v -e '^#time' -e '^$' system.reg) | sort
}
as_before() {
    step="comparing after $1"
    state | diff "$work/before" - || fail "the player's files aren't as they were"
}

# Gives the title the launcher $1, mounts it, and looks for what the launcher has now with the command $2...
try() {
    local word=$1
    shift
    step="$word"
    python3 - "$image/app.json" "$word" <<'END'
import json, sys
file, word = sys.argv[1:]
app = json.load(open(file))
app['access'] = [word]
app['registry'] = [
    {'key': 'HKLM/Software/Wow6432Node/Valve/Steam/Apps/480', 'value': 'Name', 'regType': 'REG_SZ', 'data': 'Fern'},
    {'key': 'HKLM/Software/Wow6432Node/Uplay Install 55', 'value': 'Dir', 'regType': 'REG_SZ', 'data': '{{ZQDRIVE}}/'}]
json.dump(app, open(file, 'w'))
END
    printf '\n%s:\n' "$word"
    # EA Origin keeps its folder, empty.
    state >"$work/before"
    run mount "$image"
    "$@" || fail "the launcher doesn't see the title"
    run launcher list | grep -v 'not installed' | sed -n '/title\|image/,$p'
    python3 -c 'import json, sys; a = json.load(open(sys.argv[1]))["app"]; print("  starts", a["cmd"], *a.get("args", []))' \
        "$image/app.json"
    run umount "$image"
    as_before 'the unmount'
    "$tavrin" mount "$image" --quiet
    printf '$ kill -9 SERVICE\n'
    kill -9 "$("$tavrin" status "$image" --json | sed -n 's/.*"servicePid": \([0-9]*\).*/\1/p')"
    # A drive that the kernel serves outlives its service.
    run umount "$image" --hard
    run launcher restore
    as_before '"launcher restore"'
    "$tavrin" umount "$image" --quiet
}

epic=$data/Epic/EpicGamesLauncher/Data
try Steam grep -q 'steam://rungameid/480' "$image/app.json"
try Ubisoft grep -q 'uplay://launch/55/0' "$image/app.json"
try 'Epic Games' grep -q '"InstallLocation": "[D-Z]:/TAVRIN-protected/app/Fern"' "$epic/Manifests/7B1C.item"
try Origin cmp "$work/title/Origin/LocalContent/Fern/fern.mfst" "$data/Origin/LocalContent/Fern/fern.mfst"
try RobotCache grep -q 'TAVRIN-protected/RobotCacheLibrary' "$data/RobotCache/RobotCacheClient/config/appConfig.json"

step='the extraction'
printf '\nAn image becomes a plain installation:\n'
mkdir "$work/game"
cp -a "$game/." "$work/game/"
printf '#!/bin/sh\necho "started in $(pwd)"\n' >"$work/game/start.sh"
chmod 755 "$work/game/start.sh"
"$tavrin" image build "$work/game" "$work/whole" --quiet
run content extract "$work/whole" "$work/installed"
printf '$ diff -r game installed/TAVRIN-protected/app\n'
diff -r "$work/game" "$work/installed/TAVRIN-protected/app"
[[ ! -e $work/whole ]] || fail 'the image is still there'
step='starting the extracted program'
(cd "$work/installed/TAVRIN-protected/app" && ./start.sh)
