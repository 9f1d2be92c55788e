#!/bin/bash
# The main job, end to end, on a bare Debian 12 machine: sets everything up, makes a SoftHSM2 token
# with two keys, and works with them through the module by keywarden, the command line tool. OpenSSL
# judges every result. The PIN goes through the module's own dialog: typed by you where there is a
# display, by xdotool on a virtual screen where there is none (--headless: there in any case).
# What it made stays in build/demo.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
. "$root/scripts/dialog.sh"
cd "$root"

demo=$build/demo
token=$demo/token
profile=$demo/profile
pin=keywarden-pin-4711
rsaKey=01AB
ecKey=0256
number=0

# step TEXT COMMAND...: one numbered step with its outcome and its time. The first failure ends the
# run, with the step's name.
step()
{
    local text=$1 begun=$EPOCHREALTIME took
    shift
    number=$((number + 1))
    printf '%2d. %s\n' "$number" "$text"
    if ! "$@"; then
        printf '    FAILED in step %d: %s\n' "$number" "$text" >&2
        exit 1
    fi
    took=$(((${EPOCHREALTIME/./} - ${begun/./}) / 1000))
    printf '    ok, %d.%03d s\n' "$((took / 1000))" "$((took % 1000))"
}

buildAll()
{
    cmake --preset windows >"$demo/configure.log" || return 1
    cmake --build --preset windows --target nvksprovider keywarden p11bridge |
        tee "$demo/build.log" | awk '/^\[/ && n++ % 10 == 0 { print "    " $0; fflush() }'
}

makeToken()
{
    tests/support/fixtures/make-token.sh --small "$token" "$pin" >"$demo/token.log" || return 1
    export SOFTHSM2_CONF=$token/softhsm2.conf
    export P11_BRIDGE_MODULE=/usr/lib/softhsm/libsofthsm2.so
}

windowsPath()
{
    echo "Z:${1//\//\\}"
}

# keywarden ARGUMENT...: the command line tool, for the profile of this demonstration.
keywarden()
{
    KEYWARDEN_BUILD=$build/windows cmake/run-under-wine "$build/windows/bin/keywarden.exe" \
        --profile "$(windowsPath "$profile")" "$@" | sed 's/\r$//; s/^/    /'
}

# A fresh profile, and an empty "My" store: certificates of an earlier run have the same key names.
initialise()
{
    rm -rf "$profile"
    mkdir -p "$profile"
    wine reg delete 'HKCU\Software\Microsoft\SystemCertificates\My' /f >/dev/null 2>&1 || true
    keywarden init --p11 "$(windowsPath "$build/windows/winelib/p11bridge.dll")" --log-level TRACE
}

listKeys()
{
    keywarden keys | tee "$demo/keys.txt" || return 1
    grep -q "$rsaKey .*RSA" "$demo/keys.txt" && grep -q "$ecKey .*ECDSA_P256" "$demo/keys.txt"
}

# withPin PICTURE COMMAND...: a command that shows the dialog.
withPin()
{
    local picture=$1
    shift
    if [ "$headless" = yes ]; then
        answering "$picture" "enter $pin" "$@"
    else
        echo "    The PIN is: $pin"
        "$@"
    fi
}

makeDocument()
{
    printf 'Norvanta KeyWarden signs this line on a PKCS#11 token.\n' >"$demo/document.txt"
}

# signWith KEY SIGNATURE
signWith()
{
    keywarden sign "$(windowsPath "$demo/document.txt")" --key "$1" -o "$(windowsPath "$demo/$2")"
}

# judge KEY SIGNATURE: by OpenSSL, with the public key of the certificate published in "My"; then by
# the token, which must agree.
judge()
{
    keywarden export --key "$1" -o "$(windowsPath "$demo/$1.pem")" || return 1
    openssl dgst -sha256 -verify "$demo/$1.pem" -signature "$demo/$2" "$demo/document.txt" |
        sed 's/^/    OpenSSL: /' || return 1
    keywarden verify "$(windowsPath "$demo/document.txt")" --key "$1" \
        --signature "$(windowsPath "$demo/$2")"
}

encryptBoth()
{
    printf 'a secret for the token\n' >"$demo/plain.txt"
    keywarden encrypt "$(windowsPath "$demo/plain.txt")" --key "$rsaKey" \
        -o "$(windowsPath "$demo/cipher.1")" &&
        openssl pkeyutl -encrypt -pubin -inkey "$demo/$rsaKey.pem" -in "$demo/plain.txt" \
            -out "$demo/cipher.2"
}

# What the provider encrypted is opened by OpenSSL with the key's file, and the other way round.
judgeEncryption()
{
    openssl pkeyutl -decrypt -inkey "$token/keys/rsa2048.key.pem" -in "$demo/cipher.1" \
        -out "$demo/plain.1" && cmp "$demo/plain.txt" "$demo/plain.1" || return 1
    echo "    OpenSSL: decrypted what the provider encrypted"
    keywarden decrypt "$(windowsPath "$demo/cipher.2")" --key "$rsaKey" \
        -o "$(windowsPath "$demo/plain.2")" && cmp "$demo/plain.txt" "$demo/plain.2" || return 1
    echo "    The token decrypted what OpenSSL encrypted"
}

# Modulus and point of CNG's blobs against the exported PEM files.
exportBoth()
{
    local modulus point
    keywarden export --key "$rsaKey" --format blob -o "$(windowsPath "$demo/rsa.blob")" || return 1
    keywarden export --key "$ecKey" --format blob -o "$(windowsPath "$demo/ec.blob")" || return 1
    modulus=$(openssl rsa -pubin -in "$demo/$rsaKey.pem" -noout -modulus)
    [ "${modulus#Modulus=}" = "$(tail -c 256 "$demo/rsa.blob" | xxd -p -u -c 512)" ] || return 1
    point=$(openssl pkey -pubin -in "$demo/$ecKey.pem" -outform DER | tail -c 64 | xxd -p -c 128)
    [ "$point" = "$(tail -c 64 "$demo/ec.blob" | xxd -p -c 128)" ] || return 1
    echo "    OpenSSL: modulus and point are those of the certificates"
}

agreeSecret()
{
    openssl ecparam -name prime256v1 -genkey -noout -out "$demo/peer.key" || return 1
    openssl pkey -in "$demo/peer.key" -pubout -out "$demo/peer.pem" || return 1
    keywarden derive --key "$ecKey" --peer "$(windowsPath "$demo/peer.pem")" \
        -o "$(windowsPath "$demo/derived.key")"
}

judgeAgreement()
{
    openssl pkeyutl -derive -inkey "$demo/peer.key" -peerkey "$demo/$ecKey.pem" |
        openssl dgst -sha256 -binary >"$demo/derived.openssl" || return 1
    cmp "$demo/derived.key" "$demo/derived.openssl" || return 1
    echo "    OpenSSL: derived the same key on the other side"
}

# The table of the operations; the rest of the report is long.
readTrace()
{
    keywarden log --html "$(windowsPath "$demo/trace.html")" >"$demo/trace.txt" || return 1
    sed -n '/OPERATION/,/^ *$/p' "$demo/trace.txt"
    grep -q '^ *SignHash ' "$demo/trace.txt"
}

runSteps()
{
    step "Make a SoftHSM2 token with an RSA-2048 and a P-256 key" makeToken
    step "Write nvksprovider.conf into a fresh user profile" initialise
    step "List the keys, which publishes their certificates in \"My\"" listKeys
    step "Check the set-up" keywarden check
    step "Make a document" makeDocument
    step "Sign it with the RSA key (the PIN goes through the dialog)" \
        withPin "$demo/pin-dialog.png" signWith "$rsaKey" document.rsa.sig
    step "Verify it with OpenSSL, with the public key of the certificate in \"My\"" \
        judge "$rsaKey" document.rsa.sig
    step "Sign it with the EC key" withPin "" signWith "$ecKey" document.ec.sig
    step "Verify that with OpenSSL" judge "$ecKey" document.ec.sig
    step "Encrypt with the RSA public key, by the provider and by OpenSSL" encryptBoth
    step "Decrypt both, OpenSSL the one and the token the other" withPin "" judgeEncryption
    step "Export both public keys as CNG's blobs" exportBoth
    step "Agree a secret with a key of OpenSSL's and derive from it" withPin "" agreeSecret
    step "Compare the derived key with OpenSSL's" judgeAgreement
    step "Read the trace of all this" readTrace
}

headless=yes
[ -z "${DISPLAY:-}" ] || headless=no
case ${1:-} in
    "") ;;
    --headless) headless=yes ;;
    --steps-on-this-screen)
        headless=yes
        number=$2
        runSteps
        exit
        ;;
    *)
        echo "usage: scripts/demo.sh [--headless]" >&2
        exit 2
        ;;
esac

mkdir -p "$demo"
# keywarden replaces no file, so those of an earlier run go.
rm -f "$demo"/*.sig "$demo"/*.pem "$demo"/*.blob "$demo/cipher.1" "$demo/plain.2" "$demo/derived.key" \
    "$demo/trace.html"
step "Set the machine up: packages and Wine" scripts/setup.sh
step "Build the module and its tool" buildAll
trap stopWine EXIT
stopWine # a server that an earlier run left would know an earlier screen
if [ "$headless" = yes ]; then
    xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" "$0" --steps-on-this-screen "$number"
    echo "The filled dialog: $demo/pin-dialog.png"
else
    runSteps
fi
echo "The trace of every step: $(ls "$profile"/.norvanta-keywarden/logs/*.log)"
echo "The same as time lines, for a browser: $demo/trace.html"
