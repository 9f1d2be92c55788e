#!/bin/bash
# The main job, end to end, on a bare Debian 12 machine: sets everything up, makes a SoftHSM2 token
# with two keys, and works with them through the module, as a CNG caller does. OpenSSL judges every
# result. The PIN goes through the module's own dialog: typed by you where there is a display, by
# xdotool on a virtual screen where there is none (--headless: there in any case).
# What it made stays in build/demo.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

demo=$build/demo
token=$demo/token
profile=$demo/profile
pin=keywarden-pin-4711
dialogTitle="Norvanta Software KeyStore Provider Logon"
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
    cmake --build --preset windows --target nvksprovider keywarden-demo p11bridge |
        tee "$demo/build.log" | awk '/^\[/ && n++ % 10 == 0 { print "    " $0; fflush() }'
}

makeToken()
{
    tests/token/fixtures/make-token.sh --small "$token" "$pin" >"$demo/token.log" || return 1
    export SOFTHSM2_CONF=$token/softhsm2.conf
    export P11_BRIDGE_MODULE=/usr/lib/softhsm/libsofthsm2.so
}

windowsPath()
{
    echo "Z:${1//\//\\}"
}

# A fresh profile, and an empty "My" store: certificates of an earlier run have the same key names.
makeProfile()
{
    rm -rf "$profile"
    mkdir -p "$profile/.norvanta-keywarden"
    cat >"$profile/.norvanta-keywarden/nvksprovider.conf" <<CONF || return 1
# Written by scripts/demo.sh
logLevel=TRACE
logTypes=FILE
logStore=~\\.norvanta-keywarden\\logs
logRotate=7
p11File=$(windowsPath "$build/windows/winelib/p11bridge.dll")
CONF
    wine reg delete 'HKCU\Software\Microsoft\SystemCertificates\My' /f >/dev/null 2>&1 || true
    sed 's/^/    /' "$profile/.norvanta-keywarden/nvksprovider.conf"
}

makeDocument()
{
    printf 'Norvanta KeyWarden signs this line on a PKCS#11 token.\n' >"$demo/document.txt"
    openssl dgst -sha256 -binary -out "$demo/document.sha256" "$demo/document.txt"
}

# provider OPERATION ARGUMENT...: the CNG caller, in a Windows process.
provider()
{
    KEYWARDEN_BUILD=$build/windows cmake/run-under-wine \
        "$build/windows/bin/keywarden-demo.exe" "$(windowsPath "$profile")" "$@"
}

listKeys()
{
    provider list | sed 's/\r$//; s/^/    /' | tee "$demo/keys.txt" || return 1
    grep -q "$rsaKey RSA" "$demo/keys.txt" && grep -q "$ecKey ECDSA_P256" "$demo/keys.txt"
}

# Types the PIN into the dialog as a person would; takes the picture before OK, if asked to.
typePin()
{
    local picture=$1 window
    window=$(timeout 30 xdotool search --sync --onlyvisible --name "$dialogTitle" | head -n 1) || return 1
    xdotool mousemove --window "$window" 150 65 click 1
    xdotool type --delay 20 "$pin"
    if [ -n "$picture" ]; then
        sleep 0.3 # the last character is drawn
        import -window root "$picture" || return 1
    fi
    xdotool key Return
}

# withPin PICTURE COMMAND...: a command that shows the dialog.
withPin()
{
    local picture=$1 worker status=0
    shift
    if [ "$headless" = no ]; then
        echo "    The PIN is: $pin"
        "$@"
        return
    fi
    "$@" &
    worker=$!
    if ! typePin "$picture"; then
        echo "    the PIN dialog could not be answered" >&2
        kill "$worker" 2>/dev/null || true
        status=1
    fi
    wait "$worker" || status=1
    return "$status"
}

verifyWithPublished()
{
    local key=$1 signature=$2
    provider certificate "$key" "$(windowsPath "$demo/$key.der")" || return 1
    openssl x509 -inform DER -in "$demo/$key.der" -noout -pubkey -out "$demo/$key.pem" || return 1
    openssl x509 -inform DER -in "$demo/$key.der" -noout -subject | sed 's/^/    /'
    openssl dgst -sha256 -verify "$demo/$key.pem" -signature "$signature" "$demo/document.txt" |
        sed 's/^/    OpenSSL: /'
}

signWith()
{
    provider sign "$1" "$(windowsPath "$demo/document.sha256")" "$(windowsPath "$2")"
}

judgeRsa()
{
    verifyWithPublished "$rsaKey" "$demo/document.rsa.sig"
}

# OpenSSL wants an ECDSA signature as DER, CNG has r and s one behind the other.
judgeEc()
{
    local r s
    r=$(head -c 32 "$demo/document.ec.sig" | xxd -p -c 64)
    s=$(tail -c 32 "$demo/document.ec.sig" | xxd -p -c 64)
    printf 'asn1=SEQUENCE:signature\n[signature]\nr=INTEGER:0x%s\ns=INTEGER:0x%s\n' "$r" "$s" \
        >"$demo/ec.conf"
    openssl asn1parse -genconf "$demo/ec.conf" -noout -out "$demo/document.ec.der" || return 1
    verifyWithPublished "$ecKey" "$demo/document.ec.der"
}

encryptBoth()
{
    printf 'a secret for the token\n' >"$demo/plain.txt"
    provider encrypt "$rsaKey" "$(windowsPath "$demo/plain.txt")" "$(windowsPath "$demo/cipher.1")" &&
        openssl pkeyutl -encrypt -pubin -inkey "$demo/$rsaKey.pem" -in "$demo/plain.txt" \
            -out "$demo/cipher.2"
}

# What the provider encrypted is opened by OpenSSL with the key's file, and the other way round.
judgeEncryption()
{
    openssl pkeyutl -decrypt -inkey "$token/keys/rsa2048.key.pem" -in "$demo/cipher.1" \
        -out "$demo/plain.1" && cmp "$demo/plain.txt" "$demo/plain.1" || return 1
    echo "    OpenSSL: decrypted what the provider encrypted"
    provider decrypt "$rsaKey" "$(windowsPath "$demo/cipher.2")" "$(windowsPath "$demo/plain.2")" &&
        cmp "$demo/plain.txt" "$demo/plain.2" || return 1
    echo "    The token decrypted what OpenSSL encrypted"
}

# The modulus and the point of the blobs against those of the certificates.
exportBoth()
{
    local modulus point
    provider export "$rsaKey" "$(windowsPath "$demo/rsa.blob")" || return 1
    provider export "$ecKey" "$(windowsPath "$demo/ec.blob")" || return 1
    modulus=$(openssl x509 -inform DER -in "$demo/$rsaKey.der" -noout -modulus)
    [ "${modulus#Modulus=}" = "$(tail -c 256 "$demo/rsa.blob" | xxd -p -u -c 512)" ] || return 1
    point=$(openssl pkey -pubin -in "$demo/$ecKey.pem" -outform DER | tail -c 64 | xxd -p -c 128)
    [ "$point" = "$(tail -c 64 "$demo/ec.blob" | xxd -p -c 128)" ] || return 1
    echo "    OpenSSL: modulus and point are those of the certificates"
}

agreeSecret()
{
    openssl ecparam -name prime256v1 -genkey -noout -out "$demo/peer.key" || return 1
    openssl pkey -in "$demo/peer.key" -pubout -outform DER | tail -c 65 >"$demo/peer.point" || return 1
    provider agree "$ecKey" "$(windowsPath "$demo/peer.point")" "$(windowsPath "$demo/derived.key")"
}

judgeAgreement()
{
    openssl pkeyutl -derive -inkey "$demo/peer.key" -peerkey "$demo/$ecKey.pem" |
        openssl dgst -sha256 -binary >"$demo/derived.openssl" || return 1
    cmp "$demo/derived.key" "$demo/derived.openssl" || return 1
    echo "    OpenSSL: derived the same key on the other side"
}

runSteps()
{
    step "Make a SoftHSM2 token with an RSA-2048 and a P-256 key" makeToken
    step "Write nvksprovider.conf into a fresh user profile" makeProfile
    step "Hash a document" makeDocument
    step "Open the provider and list its keys" listKeys
    step "Sign the hash with the RSA key (the PIN goes through the dialog)" \
        withPin "$demo/pin-dialog.png" signWith "$rsaKey" "$demo/document.rsa.sig"
    step "Verify it with OpenSSL against the certificate published in \"My\"" judgeRsa
    step "Sign the hash with the EC key" withPin "" signWith "$ecKey" "$demo/document.ec.sig"
    step "Verify that with OpenSSL" judgeEc
    step "Encrypt with the RSA public key, by the provider and by OpenSSL" encryptBoth
    step "Decrypt both, OpenSSL the one and the token the other" withPin "" judgeEncryption
    step "Export both public keys" exportBoth
    step "Agree a secret with a key of OpenSSL's and derive from it" withPin "" agreeSecret
    step "Compare the derived key with OpenSSL's" judgeAgreement
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
step "Set the machine up: packages and Wine" scripts/setup.sh
step "Build the module" buildAll
trap stopWine EXIT
stopWine # a server that an earlier run left would know an earlier screen
if [ "$headless" = yes ]; then
    xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" "$0" --steps-on-this-screen "$number"
    echo "The filled dialog: $demo/pin-dialog.png"
else
    runSteps
fi
echo "The trace of every step: $(ls "$profile"/.norvanta-keywarden/logs/*.log)"
