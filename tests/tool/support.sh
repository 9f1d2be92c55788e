# What the shell tests of keywarden share: a screen and a Wine prefix of their own, a token, the
# program, and the lines that report. Sourced; not run by itself.
#
# A script sets `area`, its folder below build/, before it sources this file. It prints "ok NAME" or
# "FAIL NAME: reason" a check; `finish` prints the counts and gives the status.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export KEYWARDEN_WINEPREFIX=$root/build/$area/wine
. "$root/scripts/lib.sh"
. "$root/scripts/dialog.sh"

work=$root/build/$area
windows=${KEYWARDEN_BUILD:-$build/windows}
export KEYWARDEN_BUILD=$windows
softhsm=/usr/lib/softhsm/libsofthsm2.so
pin=keywarden-pin-4711
passed=0
failed=0

# ok NAME, bad NAME REASON...: the outcome of a check.
ok()
{
    passed=$((passed + 1))
    echo "ok $1"
}

bad()
{
    failed=$((failed + 1))
    echo "FAIL $1: $(shift; printf '%s' "$*" | tr '\n' ' ' | cut -c 1-600)"
}

finish()
{
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}

# onOwnScreen ARGUMENTS...: runs the calling script again below a virtual screen that nothing else
# uses, unless it runs there already.
onOwnScreen()
{
    [ "${KEYWARDEN_SCREEN:-}" != "$area" ] || return 0
    KEYWARDEN_SCREEN=$area exec "$root/tests/support/desktop/screen.sh" run "$0" "$@"
}

# makeOwnPrefix: a Wine prefix that no other test knows, so that neither its dialogs nor its "My"
# store meet theirs. Ended when the script ends.
makeOwnPrefix()
{
    mkdir -p "$work"
    "$root/scripts/setup.sh" >"$work/setup.log" 2>&1 || {
        cat "$work/setup.log" >&2
        return 1
    }
    trap stopWine EXIT
    stopWine # a server that an earlier run left would know an earlier screen
    wineserver -p </dev/null >/dev/null 2>&1
    clearStore
}

clearStore()
{
    wine reg delete 'HKCU\Software\Microsoft\SystemCertificates\My' /f </dev/null >/dev/null 2>&1 ||
        true
}

windowsPath()
{
    echo "Z:${1//\//\\}"
}

# makeToken [--small]: a new SoftHSM2 token, which the bridge is to load.
makeToken()
{
    "$root/tests/support/fixtures/make-token.sh" "$@" "$work/token" "$pin" >"$work/token.log" || return 1
    export SOFTHSM2_CONF=$work/token/softhsm2.conf
    export P11_BRIDGE_MODULE=$softhsm
}

program=$windows/bin/keywarden.exe
profile=$work/profile

# keywarden ARGUMENTS...: runs the program with the profile of this script; what it printed, both
# outputs in one, is in $work/out and its status is returned.
keywarden()
{
    local status=0
    timeout 120 "$root/cmake/run-under-wine" "$program" --profile "$(windowsPath "$profile")" "$@" \
        >"$work/out.raw" || status=$?
    tr -d '\r' <"$work/out.raw" >"$work/out"
    return "$status"
}

# withPin ARGUMENTS...: a run of keywarden whose dialog gets the PIN.
withPin()
{
    answering "" "enter $pin" keywarden "$@"
}

# succeeds NAME COMMAND...; the output is shown when it does not.
succeeds()
{
    local name=$1 status=0
    shift
    "$@" || status=$?
    if [ "$status" -eq 0 ]; then
        ok "$name"
    else
        bad "$name" "status $status: $(cat "$work/out")"
    fi
}

# fails STATUS TEXT NAME COMMAND...: that status, and the text (a regular expression) in the output.
fails()
{
    local wanted=$1 text=$2 name=$3 status=0
    shift 3
    "$@" || status=$?
    if [ "$status" -ne "$wanted" ]; then
        bad "$name" "status $status, not $wanted: $(cat "$work/out")"
    elif ! grep -Eq -- "$text" "$work/out"; then
        bad "$name" "no \"$text\" in: $(cat "$work/out")"
    else
        ok "$name"
    fi
}

# holds NAME COMMAND...: a judgement that prints nothing that matters but its reason.
holds()
{
    local name=$1 reason status=0
    shift
    reason=$("$@" 2>&1) || status=$?
    if [ "$status" -eq 0 ]; then
        ok "$name"
    else
        bad "$name" "status $status: $reason"
    fi
}
