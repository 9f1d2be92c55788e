# Shared by the shell tests that run keywarden: a screen and a Wine prefix of their own, a token, the program,
# and the report of checks. Sourced by these tests, never run.
#
# A script sets `area`, its folder in build/, before it sources this file. Each check prints "ok NAME" or
# "FAIL NAME: reason"; `finish` prints the counts and returns the status.
# shellcheck shell=bash
# shellcheck disable=SC2034 # the variables without a use in this file are for the scripts

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
export KEYWARDEN_WINEPREFIX=$root/build/${area:?}/wine
# shellcheck source=scripts/lib.sh
. "$root/scripts/lib.sh"
# shellcheck source=scripts/dialog.sh
. "$root/scripts/dialog.sh"

work=$root/build/$area
files=$work/files
windows=${KEYWARDEN_BUILD:-$build/windows}
export KEYWARDEN_BUILD=$windows
softhsm=/usr/lib/softhsm/libsofthsm2.so
pin=keywarden-pin-4711
passed=0
failed=0

# ok NAME, bad NAME REASON...: report the outcome of a check.
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

# onOwnScreen ARGUMENTS...: runs the calling script again on a virtual screen of its own, unless it
# already has one.
onOwnScreen()
{
    [ "${KEYWARDEN_SCREEN:-}" != "$area" ] || return 0
    KEYWARDEN_SCREEN=$area exec "$root/tests/support/desktop/screen.sh" run "$0" "$@"
}

# makeOwnPrefix: creates a Wine prefix for this script alone, with its own dialogs and its own "My"
# store. Its processes end with the script.
makeOwnPrefix()
{
    mkdir -p "$work"
    "$root/scripts/setup.sh" >"$work/setup.log" 2>&1 || {
        cat "$work/setup.log" >&2
        return 1
    }
    trap stopWine EXIT
    stopWine # a server of an earlier run would use that run's screen
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

# makeToken [--small]: creates a SoftHSM2 token and makes the bridge load it.
makeToken()
{
    "$root/tests/support/fixtures/make-token.sh" "$@" "$work/token" "$pin" >"$work/token.log" || return 1
    export SOFTHSM2_CONF=$work/token/softhsm2.conf
    export P11_BRIDGE_MODULE=$softhsm
}

program=$windows/bin/keywarden.exe
profile=$work/profile

# forgetOutputs ARGUMENTS...: removes the files that the command will write, because keywarden replaces none
# without --force. A check of that sets keepOutputs.
forgetOutputs()
{
    local argument before="" file
    [ -z "${keepOutputs:-}" ] || return 0
    for argument in "$@"; do
        case $before in
            -o | --output | --html)
                file=${argument#Z:}
                file=${file//\\//}
                [ ! -f "$file" ] || rm -f "$file"
                ;;
        esac
        before=$argument
    done
}

# keywarden ARGUMENTS...: runs the program with the profile of this script and returns its status. Both
# outputs go to $work/out, and so do those of the script that starts Wine. A failure without a word is told
# there, too.
keywarden()
{
    local status=0
    forgetOutputs "$@"
    timeout 120 "$root/cmake/run-under-wine" "$program" --profile "$(windowsPath "$profile")" "$@" \
        >"$work/out.raw" 2>&1 || status=$?
    [ "$status" -eq 0 ] || [ -s "$work/out.raw" ] || echo "(status $status, no output)" >"$work/out.raw"
    tr -d '\r' <"$work/out.raw" >"$work/out"
    return "$status"
}

# withPin ARGUMENTS...: runs keywarden and enters the PIN into its dialog.
withPin()
{
    answering "" "enter $pin" keywarden "$@"
}

# succeeds NAME COMMAND...: checks that the command succeeds. Prints its output if it fails.
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

# fails STATUS TEXT NAME COMMAND...: checks for that status, and for the text (a regular expression) in
# the output.
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

# holds NAME COMMAND...: checks that the command succeeds. Its output is the reason of a failure.
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

# at FILE: its Windows path.
at()
{
    windowsPath "$files/$1"
}

# tokenKey NAME ENDING: a file that make-token.sh wrote for a key.
tokenKey()
{
    echo "$work/token/keys/$1.$2"
}

writeObject()
{
    pkcs11-tool --module "$softhsm" --token-label keywarden --login --pin "$pin" --write-object "$@" \
        >>"$work/token.log" 2>&1
}

# addKey NAME ID DAYS PUBLIC OPTION...: one more key with its certificate; PUBLIC is yes or no.
addKey()
{
    local name=$1 id=$2 days=$3 public=$4 file
    shift 4
    file=$work/token/keys/$name
    openssl genpkey "$@" -out "$file.key.pem" 2>>"$work/token.log" &&
        openssl req -new -key "$file.key.pem" -subj "/CN=KeyWarden $name" -out "$work/request.pem" &&
        openssl x509 -req -in "$work/request.pem" -signkey "$file.key.pem" -days "$days" \
            -outform DER -out "$file.crt.der" 2>>"$work/token.log" &&
        openssl pkey -in "$file.key.pem" -outform DER -out "$work/private.der" &&
        openssl pkey -in "$file.key.pem" -pubout -outform DER -out "$work/public.der" &&
        writeObject "$work/private.der" --type privkey --label "$name" --id "$id" --usage-sign &&
        writeObject "$file.crt.der" --type cert --label "$name" --id "$id" || return 1
    [ "$public" = no ] ||
        writeObject "$work/public.der" --type pubkey --label "$name" --id "$id" --usage-sign
}

# prints FILTER NAME COMMAND...: one document is printed, and jq's filter is true for it.
prints()
{
    local filter=$1 name=$2
    shift 2
    "$@" || true
    holds "--json: $name" jq -es "length == 1 and (.[0] | $filter)" "$work/out"
}
