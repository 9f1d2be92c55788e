#!/bin/bash
# Runs the suite of behaviours on a token of one kind, once for each behaviour of the module.
#   tests/token/kinds/kind.sh KIND [--large]
# KIND.sh beside this file makes the token. Everything is in BUILD/token-kinds/KIND: the token, its
# certificates in keys/, and results.tsv, from which page.py makes the table of docs/tokens.md. --large takes
# the larger keys; the folder is KIND-large.
#
# A kind's script defines
#   makeToken      makes the token and keys/, and exports what its library reads from the environment; may
#                  call `serve` for a server, which ends with this script
#   otherSettings  not all kinds: calls `tryOut` for settings of the library that do not work
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../../.." && pwd)
windows=${KEYWARDEN_BUILD:-$root/build/windows}
kind=${1:?a kind of token}
pin=keywarden-pin-4711 # the one of tests/token/support/token_test.h
rsaBits=2048
ecBits=256
work=$windows/token-kinds/$kind
if [ "${2:-}" = --large ]; then
    rsaBits=3072
    ecBits=384
    work=$work-large
fi
servers=()

# quietly COMMAND...: shows what a command said only if it failed.
quietly()
{
    "$@" >"$work/command.log" 2>&1 && return 0
    cat "$work/command.log" >&2
    echo "kind.sh: failed: $*" >&2
    return 1
}

# serve LOG COMMAND...: starts a server, which ends with this script, even if that is killed. Its id is
# in $server.
serve()
{
    local log=$1
    shift
    setpriv --pdeathsig KILL "$@" </dev/null >"$log" 2>&1 &
    server=$!
    servers+=("$server")
}

cleanUp()
{
    local server
    for server in "${servers[@]}"; do
        kill "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
    done
    [ -z "${socketFolder:-}" ] || rm -rf "$socketFolder"
}

# runSuite BEHAVIOUR [FILTER]: adds the records to results.tsv.
runSuite()
{
    KEYWARDEN_TOKEN_FOLDER=$work KEYWARDEN_TOKEN_BEHAVIOUR=$1 \
        KEYWARDEN_TOKEN_RSA_BITS=$rsaBits KEYWARDEN_TOKEN_EC_BITS=$ecBits \
        "$root/cmake/run-under-wine" "$windows/bin/token_kinds_test.exe" --gtest_filter="${2:-*}"
}

# runBoth [FILTER]
runBoth()
{
    runSuite classic "$@" || status=1
    runSuite modern "$@" || status=1
}

# tryOut SETTING CASE: one case of the suite; the records are of OPERATION@SETTING.
tryOut()
{
    KEYWARDEN_TOKEN_SETTING=$1 runBoth "TokenKind.$2"
}

trap cleanUp EXIT
trap 'exit 1' HUP INT TERM
rm -rf "$work"
mkdir -p "$work/keys"
# shellcheck source=tests/token/kinds/certificates.sh
. "$here/certificates.sh"
# shellcheck source=/dev/null
. "$here/$kind.sh"
makeToken
status=0
runBoth
if [ "$(type -t otherSettings)" = function ]; then
    otherSettings
fi
exit "$status"
