#!/bin/bash
# "keywarden ... --cng" for each command that has it, through the router, in both behaviours: exit code,
# both outputs and what is written are the same, byte for byte, as through the module's own table.
#   tests/router/cng_commands.sh
set -euo pipefail
area=cng-commands
# shellcheck source=tests/router/support.sh
. "$(dirname "$0")/support.sh"
onOwnScreen "$@"

files=$work/files
module=$windows/bin/nvksprovider.dll

# at FILE: its Windows path.
at()
{
    windowsPath "$files/$1"
}

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    rm -rf "$files"
    mkdir -p "$files"
    head -c 5000 /dev/urandom >"$files/document"
    printf 'x' | cat "$files/document" - >"$files/altered"
    head -c 32 /dev/urandom >"$files/secret"
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 |
        openssl pkey -pubout -out "$files/peer.pem"
    openssl pkeyutl -encrypt -certin -inkey "$work/token/keys/rsa2048.crt.pem" -in "$files/secret" \
        -out "$files/cipher"
    openssl dgst -sha256 -sign "$work/token/keys/rsa2048.key.pem" -out "$files/signature" \
        "$files/document"
    useRouter "$module"
    useBehaviour classic
}

# once ANSWER NAME WAY COMMAND...: runs the command with the option WAY. ANSWER is "none" for a command
# without a dialog. Keeps the exit code, and what it printed and wrote, in $work/NAME.*.
once()
{
    local answer=$1 name=$2 way=$3 status=0
    shift 3
    rm -f "$files/out"
    # shellcheck disable=SC2086 # the words are separate arguments
    if [ "$answer" = none ]; then
        keywarden "$@" $way || status=$?
    else
        answering "" "$answer" keywarden "$@" $way || status=$?
    fi
    echo "$status" >"$work/$name.status"
    cp "$work/out" "$work/$name.printed"
    rm -f "$work/$name.written"
    [ ! -e "$files/out" ] || cp "$files/out" "$work/$name.written"
}

# both STATUS ANSWER COMMAND...: the command in both ways. Written files are compared unless `random` is
# yes, and then by their length.
both()
{
    local wanted=$1 answer=$2 what
    shift 2
    what="$behaviour: ${*//*[\\]/}"
    once "$answer" table "--module $(windowsPath "$module")" "$@"
    once "$answer" router --cng "$@"
    holds "$what: status $wanted" test "$(cat "$work/table.status")" = "$wanted"
    holds "$what: the same status" cmp "$work/table.status" "$work/router.status"
    holds "$what: the same output" diff "$work/table.printed" "$work/router.printed"
    holds "$what: the same file" sameFile
}

sameFile()
{
    if [ ! -e "$work/table.written" ]; then
        test ! -e "$work/router.written" || echo "only through CNG"
    elif [ "$random" = yes ]; then
        test "$(stat -c %s "$work/table.written")" = "$(stat -c %s "$work/router.written")"
    else
        cmp "$work/table.written" "$work/router.written"
    fi
}

testCommands()
{
    local random=no right="enter $pin"
    both 0 none keys
    both 0 none keys --json
    both 0 none export --key 01AB -o "$(at out)"
    both 0 none export --key 0256 --format der -o "$(at out)"
    both 7 none export --key FFFF -o "$(at out)"
    both 0 "$right" sign "$(at document)" --key 01AB -o "$(at out)"
    both 4 cancel sign "$(at document)" --key 01AB -o "$(at out)"
    both 5 "enter not-the-pin" sign "$(at document)" --key 0256 -o "$(at out)"
    both 0 none verify "$(at document)" --key 01AB --signature "$(at signature)"
    both 3 none verify "$(at altered)" --key 01AB --signature "$(at signature)"
    both 0 "$right" decrypt "$(at cipher)" --key 01AB -o "$(at out)"
    both 0 "$right" derive --key 0256 --peer "$(at peer.pem)" -o "$(at out)"
    random=yes
    both 0 none encrypt "$(at secret)" --key 01AB -o "$(at out)"
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
behaviour=classic
testCommands
behaviour=modern
useBehaviour modern
testCommands
finish
