#!/bin/bash
# Mutual TLS with keys of a token: tls_client takes its certificate from "My", signs the handshake through
# the router and the module, and talks to "openssl s_server", which judges. The PIN is typed into the dialog.
#   tests/router/mutual_tls.sh
set -euo pipefail
area=mutual-tls
# shellcheck source=tests/router/support.sh
. "$(dirname "$0")/support.sh"
onOwnScreen "$@"

client=$routerFolder/tls_client.exe
server=
port=

prepare()
{
    local name
    # shellcheck disable=SC2119 # makeToken gets no argument on purpose: all keys
    makeOwnPrefix && makeToken || return 1
    trap cleanUp EXIT
    for name in rsa2048 rsa3072 p256 p384; do
        cat "$work/token/keys/$name.crt.pem"
    done >"$work/clients.pem"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj /CN=localhost \
        -addext subjectAltName=IP:127.0.0.1 -keyout "$work/server.key.pem" -out "$work/server.crt.pem" \
        2>"$work/token.log" || return 1
    useRouter
    useBehaviour classic
}

# ---- the server

# startServer CONNECTIONS OPTION...: it sends each line back, its characters in reverse order.
startServer()
{
    local connections=$1
    shift
    : >"$work/server.log" # the port of the server before must not be taken for this one's
    openssl s_server -accept 127.0.0.1:0 -naccept "$connections" -rev -Verify 1 -verify_return_error \
        -CAfile "$work/clients.pem" -cert "$work/server.crt.pem" -key "$work/server.key.pem" "$@" \
        </dev/null >"$work/server.log" 2>&1 &
    server=$!
    for _ in {1..100}; do
        port=$(sed -n 's/^ACCEPT 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/server.log")
        [ -z "$port" ] || return 0
        kill -0 "$server" 2>/dev/null || return 1
        sleep 0.05
    done
    return 1
}

# stopServer: a server that has had its connections ends by itself, which is waited for; after a failed
# handshake it may wait for more connections.
stopServer()
{
    [ -n "$server" ] || return 0
    for _ in {1..20}; do
        kill -0 "$server" 2>/dev/null || break
        sleep 0.05
    done
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
    server=
}

cleanUp()
{
    stopServer
    stopWine
}

# ---- the client

# connect VERSION NAME [OPTION...]: the client with the certificate of that key. Both outputs go to
# $work/out.
connect()
{
    local version=$1 name=$2 status=0
    shift 2
    timeout 60 "$root/cmake/run-under-wine" "$client" -server "127.0.0.1:$port" \
        -ca "$(windowsPath "$work/server.crt.pem")" -tls "$version" -subject "KeyWarden $name" \
        -acquire "$(windowsPath "$routerFolder/router_acquire.dll")" -message "hello from $name" "$@" \
        >"$work/out.raw" || status=$?
    tr -d '\r' <"$work/out.raw" >"$work/out"
    return "$status"
}

# ---- what the server says

# serverSays TEXT [TIMES]: the regular expression matches so many lines of the server; default: one.
serverSays()
{
    local count
    count=$(grep -Ec -- "$1" "$work/server.log" || true)
    [ "$count" -eq "${2:-1}" ] || {
        echo "$count lines with \"$1\" in: $(cat "$work/server.log")"
        return 1
    }
}

answerIs()
{
    grep -qx "answer: $(rev <<<"$1")" "$work/out"
}

# handshake VERSION NAME SIGNATURE [OPTION...]: one connection with that key. SIGNATURE is what the server
# says that the client signed with, the options are the server's.
handshake()
{
    local version=$1 name=$2 signature=$3 what
    what="$behaviour, TLS $version, $name, $signature"
    shift 3
    succeeds "the server listens: $what" startServer 1 "$@"
    succeeds "the client connects: $what" answering "" "enter $pin" connect "$version" "$name"
    holds "the server's answer arrives: $what" answerIs "hello from $name"
    stopServer
    holds "the server verifies: $what" serverSays '^Verification: OK$'
    holds "the subject is right: $what" serverSays "^Peer certificate: CN = KeyWarden $name\$"
    holds "the protocol is right: $what" serverSays "^Protocol version: TLSv$version\$"
    holds "the signature is right: $what" serverSays "^Signature type: $signature\$"
}

testAllHandshakes()
{
    local name
    for name in rsa2048 rsa3072; do
        handshake 1.2 "$name" RSA -client_sigalgs rsa_pkcs1_sha256
        handshake 1.2 "$name" RSA-PSS -client_sigalgs rsa_pss_rsae_sha256
        handshake 1.3 "$name" RSA-PSS
    done
    for name in p256 p384; do
        handshake 1.2 "$name" ECDSA
        handshake 1.3 "$name" ECDSA
    done
}

testSomeHandshakes()
{
    handshake 1.2 rsa2048 RSA -client_sigalgs rsa_pkcs1_sha256
    handshake 1.3 rsa2048 RSA-PSS
    handshake 1.3 p256 ECDSA
}

# testFailures WRONGPIN: that is what the client says after a wrong PIN.
testFailures()
{
    local version
    for version in 1.2 1.3; do
        succeeds "the server listens for a failure: $behaviour, TLS $version" startServer 2
        fails 1 'the handshake failed: .*the PIN dialog was cancelled \(0x80090036\)' \
            "a cancelled dialog ends the handshake: $behaviour, TLS $version" \
            answering "" cancel connect "$version" rsa2048
        fails 1 "the handshake failed: .*$1" "a wrong PIN ends the handshake: $behaviour, TLS $version" \
            answering "" "enter not-the-pin" connect "$version" p256
        stopServer
        holds "the server has verified nobody: $behaviour, TLS $version" serverSays '^Verification: OK$' 0
    done
}

testRenewal()
{
    succeeds "the server listens for two: $behaviour" startServer 2
    succeeds "each of two connections asks for the PIN: $behaviour" \
        answeringEach "pin pin" connect 1.3 p256 -connections 2
    stopServer
    holds "the server verifies both: $behaviour" serverSays '^Verification: OK$' 2
    succeeds "the server listens for another two: $behaviour" startServer 2
    fails 1 'the PIN dialog was cancelled' "the second connection needs its own PIN: $behaviour" \
        answeringEach "pin cancel" connect 1.3 rsa2048 -connections 2
    stopServer
    holds "the server has verified the first: $behaviour" serverSays '^Verification: OK$'
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
# The module publishes its certificates when a provider is opened.
succeeds "the keys are published" keywarden keys --cng
behaviour=classic
testSomeHandshakes
testFailures 'the provider failed \(0x8009002D\)'
behaviour=modern
useBehaviour modern
testAllHandshakes
testFailures 'the token refused the PIN \(0x8010006B\)'
testRenewal
finish
