#!/usr/bin/env bash
# The drive of an ordinary user: builds, mounts, reads, writes, unmounts, and tidies up after a killed service.
#
#   without_root.sh CLIENT SCHEMAS
#
# Exits 77 (skipped) where the machine has no means for it. As root: gives the user "nobody" a /dev/fuse of its own
# in a mount namespace.
set -euo pipefail

client=$1
schemas=$2
skip() {
    echo "skipped: $1"
    exit 77
}

if [[ ${3:-} != inside ]]; then
    ((EUID == 0)) || skip "needs root, to become another user"
    for tool in fuse2fs fusermount3 unshare su mke2fs; do
        command -v "$tool" >/dev/null || skip "there is no $tool"
    done
    folder=$(mktemp -d)
    trap 'rm -rf "$folder"' EXIT
    # The build folder may be closed to others.
    mkdir -p "$folder/bin" "$folder/share/tavrin"
    cp "$client" "$(dirname "$client")/zqdd" "$folder/bin"
    cp -r "$schemas" "$folder/share/tavrin/schemas"
    cp "$0" "$folder/test.sh"
    mkdir "$folder/game"
    head -c 3000000 /dev/urandom >"$folder/game/data"
    echo settings >"$folder/game/settings"
    mknod "$folder/fuse" c 10 229 || skip "no device nodes can be made"
    chown -R nobody "$folder"
    chmod 666 "$folder/fuse"
    unshare --mount bash -c 'mount --bind "$1/fuse" /dev/fuse &&
        su nobody -s /bin/bash -c "bash $1/test.sh $1/bin/tavrin $1/share/tavrin/schemas inside"' bash "$folder"
    exit
fi

home=$(dirname "$(dirname "$client")")
cd "$home"
export HOME=$home WINEPREFIX=$home/root XDG_STATE_HOME=$home/state TAVRIN_ZQDD_IDLE_MS=500
unset XDG_RUNTIME_DIR TAVRIN_ZQDD
trap '"$client" umount image --hard --quiet || true' EXIT
fail() {
    echo "failed: $1"
    exit 1
}
mounted() {
    "$client" mount image "$@" --json | sed -n 's/.*"mountPath": "\(.*\)".*/\1/p'
}

"$client" image build game image --fs ext4 --quiet
diff -r game "$(mounted --mode ro)/TAVRIN-protected/app" || fail "the drive differs from its source"
"$client" umount image

app=$(mounted)/TAVRIN-protected/app
echo saved >"$app/saved"
"$client" umount image
app=$(mounted)/TAVRIN-protected/app
[[ $(<"$app/saved") == saved ]] || fail "what was written is gone"

kill -9 "$("$client" status image --json | sed -n 's/.*"servicePid": \([0-9]*\).*/\1/p')"
"$client" umount image 2>told && fail "nothing is told of writes that may be lost"
grep -q "left behind" told || fail "nothing was tidied up"
grep -q "tavrin-$UID/" /proc/self/mountinfo && fail "a mount is left"
[[ -n $(mounted) ]] || fail "no mount after a killed service"
"$client" umount image

# All of it detached by hand, while a program still uses it.
volume=$(mounted --mode ro)
exec 7<"$volume/TAVRIN-protected/app/data"
fusermount3 -uz "$volume"
fusermount3 -uz "${volume%volume}front"
for ((i = 0; i < 100; ++i)); do
    "$client" status | grep -q "Nothing is mounted" && break
    sleep 0.1
done
((i < 100)) || fail "a drive that was detached stays"
exec 7<&-

# The kernel's table of mounts names places, and no links to them.
mkdir runtime
ln -s runtime link
export XDG_RUNTIME_DIR=$home/link
timeout 20 "$client" mount image || fail "no mount where a link leads to the session's folder"
grep -q "$home/runtime/tavrin/" /proc/self/mountinfo || skip "a login session has another folder"
timeout 20 "$client" umount image || fail "no unmount where a link leads to the session's folder"
unset XDG_RUNTIME_DIR

"$client" image build game erofs --quiet
mkdir few
ln -s "$(command -v fusermount3)" few
sleep 1 # until the service has ended, which knows the PATH of before
PATH=$home/few "$client" mount image 2>refusal && fail "ext4 was mounted without its driver"
grep -q "install the package of that name" refusal || fail "the refusal doesn't say what is missing"
# Neither what is missing otherwise nor its remedy would help.
PATH=$home/few "$client" mount erofs 2>refusal && fail "EROFS was mounted without root"
grep -q "image that is built with --fs ext4" refusal || fail "the refusal doesn't say what to do"
echo "passed"
