#!/bin/bash
# The way of an administrator from the Windows Installer package to ten profiles that all work: one silent
# installation with the configuration of all users, then each user signs with the PIN dialog, with a log of
# their own. Runs in a Wine prefix of its own, with SoftHSM2 as the token. Run by scripts/test.sh --full and by
# people who change the rollout; release_test.sh makes the release first.
set -euo pipefail
area=rollout
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

version=$(sed -n 's/^project(keywarden VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
msi=$(windowsPath "$build/package/keywarden-$version-x64.msi")
installed="$WINEPREFIX/drive_c/Program Files/Norvanta KeyWarden"
module=$WINEPREFIX/drive_c/windows/system32/nvksprovider.dll
program=$installed/keywarden.exe

# msiexec ARGUMENTS: silently.
msiexec()
{
    timeout 120 wine msiexec "$@" /qn </dev/null >"$work/out" 2>&1
}

# The library's path and the log's folder have what differs: Windows resolves the variable in each process.
install()
{
    msiexec /i "$msi" P11FILE='%KEYWARDEN_LIBRARY%' LOGSTORE='~\odd logs' LOGTYPES=FILE
}

removeAll()
{
    msiexec /x "$msi"
}

# Before the first log-on, a profile is empty.
prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    KEYWARDEN_LIBRARY=$(windowsPath "$windows/winelib/p11bridge.dll")
    export KEYWARDEN_LIBRARY
    rm -rf "$work/profiles"
    mkdir -p "$work/profiles"
    echo "Dear reader" >"$work/letter.txt"
}

# user NAME: the next commands are that user's.
user()
{
    profile="$work/profiles/$1"
    mkdir -p "$profile"
}

aUserWorks()
{
    succeeds "$1: check" keywarden check
    holds "$1: the configuration of all users holds" \
        grep -q '^ok *configuration-file: .*system32.nvksprovider.conf' "$work/out"
    signs "$1"
    holds "$1: has a log" test -s "$profile/odd logs/nvksprovider-$(date +%Y%m%d).log"
}

signs()
{
    local name=$1 letter signature=$profile/letter.sig
    letter=$(windowsPath "$work/letter.txt")
    succeeds "$name: signs" withPin sign "$letter" --key 01AB -o "$(windowsPath "$signature")"
    holds "$name: OpenSSL verifies" openssl dgst -sha256 -verify "$work/key.pem" -signature "$signature" \
        "$work/letter.txt"
}

# The log's folder is a path in the ANSI code page. Without a log, all works.
aUserWithoutALogWorks()
{
    fails 1 "^FAILED *log-folder: " "$1: check says that there is no log" keywarden check
    signs "$1"
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
succeeds "the administrator installs" install
user administrator
succeeds "the administrator exports the public key" keywarden export --key 01AB \
    -o "$(windowsPath "$work/key.pem")" --force
for name in anna björn carla david eva fritz "gerda h" ida jan; do
    user "$name"
    aUserWorks "$name"
done
user 大輔
aUserWithoutALogWorks 大輔
user "own file"
succeeds "a user may have a file of their own" keywarden init --p11 "$KEYWARDEN_LIBRARY"
succeeds "which holds for that user" keywarden status
holds "and status says so" grep -q "(this user's own)" "$work/out"
succeeds "the administrator removes all" removeAll
holds "no program is left" test ! -e "$installed"
holds "no module is left" test ! -e "$module"
holds "no configuration of all users is left" test ! -e "${module%.dll}.conf"
finish
