# SoftHSM2 behind `p11-kit server`: p11-kit's client library connects to it by a socket. Sourced by kind.sh.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # kind.sh reads and has the variables

makeToken()
{
    makeSoftHsm
    socketFolder=$(mktemp -d) # a path in the build folder can be too long for a socket
    serve "$work/server.log" p11-kit server --foreground --name "$socketFolder/socket" \
        --provider "$module" "pkcs11:token=keywarden"
    waitForSocket
    unset SOFTHSM2_CONF # from here on, only the server reaches the token
    export P11_BRIDGE_MODULE=/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so
    export P11_KIT_SERVER_ADDRESS=unix:path=$socketFolder/socket
}

waitForSocket()
{
    for _ in {1..100}; do
        [ ! -S "$socketFolder/socket" ] || return 0
        kill -0 "$server" 2>/dev/null || break
        sleep 0.1
    done
    cat "$work/server.log" >&2
    return 1
}
