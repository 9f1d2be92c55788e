#!/bin/bash
# A token of another process: `p11-kit server` exports a SoftHSM2 token through a Unix socket, and the
# bridge loads p11-kit-client.so, which connects to it. keywarden lists the keys and signs.
#   tests/tool/remote_token.sh
set -euo pipefail
area=remote-token
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

client=/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so
socket=$(mktemp -d)/socket # a path in the build folder can be too long for a socket
server=

startServer()
{
    p11-kit server --foreground --name "$socket" --provider "$softhsm" "pkcs11:token=keywarden" \
        </dev/null >"$work/server.log" 2>&1 &
    server=$!
    for _ in {1..100}; do
        [ ! -S "$socket" ] || return 0
        kill -0 "$server" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}

stopServer()
{
    [ -z "$server" ] || kill "$server" 2>/dev/null || true
    [ -z "$server" ] || wait "$server" 2>/dev/null || true
    server=
}

cleanUp()
{
    stopServer
    rm -rf "$(dirname "$socket")"
    stopWine
}

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    trap cleanUp EXIT
    rm -rf "$profile" "$work/signature" "$work/key.pem"
    mkdir -p "$profile"
    echo "signed far away" >"$work/document"
    keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")" --log-level TRACE
}

# From here on, this script and its child processes reach the token only through the socket.
goRemote()
{
    startServer || return 1
    unset SOFTHSM2_CONF
    export P11_BRIDGE_MODULE=$client
    export P11_KIT_SERVER_ADDRESS=unix:path=$socket
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
holds "the client library is installed" test -f "$client"
if goRemote; then
    ok "the server listens"
else
    bad "the server listens" "$(cat "$work/server.log")"
fi
succeeds "keys" keywarden keys
holds "keys names those of the remote token" grep -q "^01AB .*sign, verify, encrypt, decrypt" "$work/out"
succeeds "check" keywarden check
holds "check names the remote token" grep -q '"keywarden"' "$work/out"
succeeds "sign" withPin sign "$(windowsPath "$work/document")" --key 01AB \
    -o "$(windowsPath "$work/signature")"
succeeds "export" keywarden export --key 01AB -o "$(windowsPath "$work/key.pem")"
holds "OpenSSL verifies" openssl dgst -sha256 -verify "$work/key.pem" \
    -signature "$work/signature" "$work/document"
fails 5 "signing failed" "a wrong PIN is refused over the socket" \
    answering "" "enter not-the-pin" keywarden sign "$(windowsPath "$work/document")" --key 01AB \
    -o "$(windowsPath "$work/none")"
stopServer
fails 7 "there is no token" "a server that is gone: keys" keywarden keys
fails 1 "FAILED +slots" "a server that is gone: check" keywarden check
succeedsAgain()
{
    startServer && withPin sign "$(windowsPath "$work/document")" --key 0256 \
        -o "$(windowsPath "$work/signature.ec")"
}
export SOFTHSM2_CONF=$work/token/softhsm2.conf # only for the server; the bridge loads the client
succeeds "a server that is back: sign" succeedsAgain
finish
