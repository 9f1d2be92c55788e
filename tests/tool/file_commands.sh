#!/bin/bash
# How keywarden's commands read and write files, and the formats of sign, on a SoftHSM2 token. OpenSSL
# verifies every result.
#   tests/tool/file_commands.sh [AREA...]   areas: outputs streams choice salts digests several cms jws
#                                           certificates limits log; default: all
set -euo pipefail
area=tool-files
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

prepare()
{
    # shellcheck disable=SC2119 # makeToken gets no argument on purpose: all keys
    makeOwnPrefix && makeToken &&
        addKey rsa1024 0A24 3650 yes -algorithm RSA -pkeyopt rsa_keygen_bits:1024 &&
        addKey twin 0D01 3650 yes -algorithm EC -pkeyopt ec_paramgen_curve:P-256 &&
        addKey twin 0D02 3650 yes -algorithm EC -pkeyopt ec_paramgen_curve:P-256 || return 1
    rm -rf "$profile" "$files"
    mkdir -p "$profile" "$files"
    keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")" || return 1
    head -c 100000 /dev/urandom >"$files/document"
    printf 'x' | cat "$files/document" - >"$files/altered"
    head -c 32 /dev/urandom >"$files/secret"
    local key
    for key in rsa2048 rsa3072 p256 p384 p521; do
        openssl pkey -in "$(tokenKey "$key" key.pem)" -pubout -out "$files/$key.pub"
    done
}

# piped INPUT ARGUMENTS...: runs keywarden with the file as standard input. Standard output goes to
# $work/result, standard error to $work/out.
piped()
{
    local input=$1 status=0
    shift
    WINEDLLPATH=$windows/winelib timeout 120 wine "$program" --profile "$(windowsPath "$profile")" "$@" \
        <"$input" >"$work/result" 2>"$work/out.raw" || status=$?
    tr -d '\r' <"$work/out.raw" >"$work/out"
    return "$status"
}

pipedWithPin()
{
    answering "" "enter $pin" piped "$@"
}

# verifies KEY SIGNATURE FILE OPTION...: OpenSSL's judgement of a plain signature with SHA-256.
verifies()
{
    local key=$1 signature=$2 file=$3
    shift 3
    openssl dgst -sha256 -verify "$files/$key.pub" "$@" -signature "$signature" "$file"
}

# ---- what happens to files

# modeOfOthers FILE: what users other than the owner and his group may do, as Wine keeps it.
modeOfOthers()
{
    stat -c %a "$files/$1" | tail -c 2
}

testOutputs()
{
    local keepOutputs=yes
    echo old >"$files/kept"
    fails 1 "kept already exists" "an existing file is not replaced" \
        keywarden sign "$(at document)" --key 01AB -o "$(at kept)"
    fails 1 "kept already exists" "nor by export" keywarden export --key 01AB -o "$(at kept)"
    fails 1 "kept already exists" "nor by encrypt" \
        keywarden encrypt "$(at secret)" --key 01AB -o "$(at kept)"
    holds "it has its content" test "$(cat "$files/kept")" = old
    holds "the advice is --force" grep -q -- "--force replaces it" "$work/out"
    succeeds "--force replaces it" withPin sign "$(at document)" --key 01AB -o "$(at kept)" --force
    holds "with the signature" verifies rsa2048 "$files/kept" "$files/document"
    cp "$files/secret" "$files/input"
    ln "$files/input" "$files/link"
    ln -s input "$files/symlink"
    for name in input INPUT link symlink; do
        fails 1 "is the same file as" "the input is not replaced: $name" \
            keywarden encrypt "$(at input)" --key 01AB -o "$(at "$name")" --force
    done
    holds "the input has its content" cmp "$files/secret" "$files/input"
    succeeds "encrypt a secret" keywarden encrypt "$(at secret)" --key 01AB -o "$(at cipher)"
    succeeds "decrypt it" withPin decrypt "$(at cipher)" --key 01AB -o "$(at plain)"
    holds "decrypted text is not for others" test "$(modeOfOthers plain)" = 0
    holds "other results are" test "$(modeOfOthers cipher)" != 0
    openssl ecparam -name prime256v1 -genkey -noout 2>/dev/null |
        openssl pkey -pubout -out "$files/peer.pem"
    succeeds "derive a key" withPin derive --key 0256 --peer "$(at peer.pem)" -o "$(at derived)"
    holds "a derived key is not for others" test "$(modeOfOthers derived)" = 0
    holds "nothing is left beside the results" test -z "$(find "$files" -name '*.tmp')"
    rm -f "$files/plain"
}

# ---- standard input and output

# onFullDisk ARGUMENTS...: runs keywarden where no file grows beyond 1 KiB, also that of its output.
onFullDisk()
{
    (
        trap '' XFSZ
        ulimit -f 1
        exec "$root/cmake/run-under-wine" "$program" "$@" >/dev/null 2>&1
    )
}

testStreams()
{
    local status=0
    onFullDisk help || status=$?
    holds "an output that was cut is a failure" test "$status" = 1
    holds "a whole one is none" onFullDisk version
    succeeds "sign from standard input to standard output" \
        pipedWithPin "$files/document" sign - --key 01AB -o -
    cp "$work/result" "$files/piped.sig"
    holds "the output is the signature alone" verifies rsa2048 "$files/piped.sig" "$files/document"
    holds "messages go to standard error" grep -q '^Signed: standard output (256 bytes)$' "$work/out"
    succeeds "verify a file from standard input" \
        piped "$files/document" verify - --key 01AB --signature "$(at piped.sig)"
    succeeds "verify with the signature from standard input" \
        piped "$files/piped.sig" verify "$(at document)" --key 01AB --signature -
    fails 2 "can be read only once" "not both" \
        piped "$files/document" verify - --key 01AB --signature -
    succeeds "encrypt in a pipe" piped "$files/secret" encrypt - --key 01AB -o -
    cp "$work/result" "$files/cipher"
    succeeds "decrypt in a pipe" pipedWithPin "$files/cipher" --json decrypt - --key 01AB -o -
    holds "to the same" cmp "$files/secret" "$work/result"
    holds "the document goes to standard error" jq -e '.output == "-" and .bytes == 32' "$work/out"
    succeeds "export to standard output" piped /dev/null export --key 01AB -o -
    holds "byte for byte" cmp "$work/result" "$files/rsa2048.pub"
    openssl ecparam -name prime256v1 -genkey -noout -out "$files/peer.key" 2>/dev/null
    openssl pkey -in "$files/peer.key" -pubout -out "$files/peer.pem"
    succeeds "an HMAC key from standard input" pipedWithPin "$files/document" \
        derive --key 0256 --peer "$(at peer.pem)" --kdf hmac --hmac-key-file - -o -
    openssl pkeyutl -derive -inkey "$files/peer.key" -peerkey "$files/p256.pub" >"$files/agreed"
    openssl dgst -sha256 -mac HMAC -macopt "hexkey:$(sha256sum <"$files/document" | cut -c 1-64)" \
        -binary "$files/agreed" >"$files/wanted"
    # HMAC hashes a key that is longer than a block.
    holds "OpenSSL derives the same" cmp "$files/wanted" "$work/result"
    fails 1 "standard input cannot be read|standard input has 0 bytes" "an empty standard input" \
        piped /dev/null encrypt - --key 01AB -o -
}

# ---- which key

fingerprint()
{
    openssl x509 -in "$(tokenKey rsa2048 crt.pem)" -noout -fingerprint "-$1" | cut -d= -f2
}

testChoice()
{
    local name
    for name in 01ab "KeyWarden rsa2048" "keywarden RSA2048" rsa2048 RSA2048 "$(fingerprint sha1)" \
        "$(fingerprint sha256 | tr -d : | tr '[:upper:]' '[:lower:]')"; do
        prints '.key == "01AB"' "the key by \"$name\"" \
            keywarden --json export --key "$name" -o "$(at out)"
    done
    fails 1 '"twin" stands for 2 keys' "two keys of one label" \
        keywarden export --key twin -o "$(at out)"
    holds "both are listed" grep -q "0D01 (KeyWarden twin, .*0D02 (KeyWarden twin, " "$work/out"
    fails 7 'there is no key "KeyWarden"' "a part of a subject is none" \
        keywarden export --key KeyWarden -o "$(at out)"
    fails 7 'there is no key ""' "an empty name" keywarden export --key "" -o "$(at out)"
}

# ---- options of signatures

testSalts()
{
    local salt
    for salt in 0 20 222; do
        succeeds "sign with a salt of $salt bytes" withPin sign "$(at document)" --key 01AB --pad pss \
            --salt "$salt" -o "$(at salt.sig)"
        holds "OpenSSL verifies it" verifies rsa2048 "$files/salt.sig" "$files/document" \
            -sigopt rsa_padding_mode:pss -sigopt "rsa_pss_saltlen:$salt"
        succeeds "verify it" keywarden verify "$(at document)" --key 01AB --pad pss --salt "$salt" \
            --signature "$(at salt.sig)"
    done
    fails 3 "The signature is bad" "verify with another salt" keywarden verify "$(at document)" \
        --key 01AB --pad pss --salt 8 --signature "$(at salt.sig)"
    fails 2 "takes 257 bytes, and this key has 256" "a salt that is too long" \
        keywarden sign "$(at document)" --key 01AB --pad pss --salt 223 -o "$(at out)"
    fails 2 "applies only to an RSA key" "padding of an elliptic curve key" \
        keywarden sign "$(at document)" --key 0256 --pad pkcs1 -o "$(at out)"
    fails 2 "applies only to an elliptic curve key" "ECDSA format of an RSA key" \
        keywarden sign "$(at document)" --key 01AB --ec-format der -o "$(at out)"
}

testDigests()
{
    local another digest key
    digest=$(sha256sum <"$files/document" | cut -c 1-64)
    another=$(tr 0-9a-f 1-9a-f0 <<<"$digest")
    for key in rsa2048:01AB p256:0256; do
        succeeds "sign a digest: ${key%%:*}" withPin sign --digest "$digest" --hash sha256 \
            --key "${key##*:}" -o "$(at digest.sig)"
        holds "OpenSSL verifies the file" verifies "${key%%:*}" "$files/digest.sig" "$files/document"
        succeeds "verify a digest" keywarden verify --digest "$digest" --hash sha256 \
            --key "${key##*:}" --signature "$(at digest.sig)"
    done
    fails 3 "The signature is bad" "another digest" keywarden verify --digest "$another" \
        --hash sha256 --key 0256 --signature "$(at digest.sig)"
    fails 2 "has 96 hexadecimal digits, not 64" "a digest of another length" \
        keywarden sign --digest "$digest" --hash sha384 --key 01AB -o "$(at out)"
    fails 2 "excludes FILE" "a digest and a file" \
        keywarden sign "$(at document)" --digest "$digest" --hash sha256 --key 01AB -o "$(at out)"
    fails 2 "is required without the name" "a digest without an output" \
        keywarden sign --digest "$digest" --hash sha256 --key 01AB
}

# ---- several files

# manyPins COUNT COMMAND...: enters the PIN into that many dialogs of one process.
manyPins()
{
    local count=$1 worker window last="" status=0 tries
    shift
    "$@" &
    worker=$!
    for ((; count > 0; count--)); do
        for ((tries = 0; tries < 400; tries++)); do
            window=$(xdotool search --onlyvisible --name "$dialogTitle" 2>/dev/null | head -n 1) || true
            [ -z "$window" ] || [ "$window" = "$last" ] || break
            sleep 0.05
        done
        last=$window
        [ -z "$window" ] || answerDialog "$window" "" "enter $pin"
    done
    wait "$worker" || status=$?
    return "$status"
}

testSeveral()
{
    local name
    for name in a b c; do
        echo "file $name" >"$files/$name"
        rm -f "$files/$name.sig"
    done
    mkdir -p "$files/results"
    succeeds "sign three files" manyPins 3 keywarden sign "$(at a)" "$(at b)" "$(at c)" --key 01AB
    for name in a b c; do
        holds "a signature beside $name" verifies rsa2048 "$files/$name.sig" "$files/$name"
    done
    holds "the dialogs are announced before the first signature" \
        test "$(head -n 1 "$work/out")" = "The PIN dialog appears once for each of the 3 files."
    fails 1 "b.sig already exists" "all outputs are tried before the first dialog" \
        keywarden sign "$(at document)" "$(at b)" --key 01AB
    holds "so that none is signed" test ! -e "$files/document.sig"
    prints '.key == "01AB" and (.signatures | length) == 2 and .signatures[1].bytes == 256' \
        "two files into a folder" manyPins 2 keywarden --json sign "$(at a)" "$(at b)" --key 01AB \
        --force -o "$(at results)"
    holds "it has both" test "$(cd "$files/results" && echo *)" = "a.sig b.sig"
    fails 2 "must be an existing folder" "two files into one" \
        keywarden sign "$(at a)" "$(at b)" --key 01AB -o "$(at out)"
    mkdir -p "$files/other"
    cp "$files/a" "$files/other/A"
    fails 2 "two results would be" "two results of one name" \
        keywarden sign "$(at a)" "$(at 'other\A')" --key 01AB -o "$(at results)" --force
    rm -f "$files"/[abc].sig
    fails 1 "b: signing failed: .*; 1 of 2 files are signed" "the second dialog is cancelled" \
        secondCancelled keywarden sign "$(at a)" "$(at b)" --key 01AB
    holds "the first is signed" verifies rsa2048 "$files/a.sig" "$files/a"
    holds "the second is not" test ! -e "$files/b.sig"
}

secondCancelled()
{
    local worker window next status=0
    "$@" &
    worker=$!
    window=$(dialogOf "$worker")
    answerDialog "$window" "" "enter $pin"
    next=$window
    while kill -0 "$worker" 2>/dev/null && { [ -z "$next" ] || [ "$next" = "$window" ]; }; do
        sleep 0.05
        next=$(xdotool search --onlyvisible --name "$dialogTitle" 2>/dev/null | head -n 1) || true
    done
    answerDialog "$next" "" cancel
    wait "$worker" || status=$?
    # The code of a cancelled dialog or the one of a failure.
    [ "$status" -ne 4 ] || status=1
    return "$status"
}

# ---- CMS

# cmsVerifies FORM SIGNATURE FILE CERTIFICATE
cmsVerifies()
{
    openssl cms -verify -inform "$1" -in "$2" -content "$3" -binary -CAfile "$4" -purpose any \
        -out /dev/null
}

cmsCase()
{
    local name=${1%%:*} id=${1##*:} certificate
    shift
    certificate=$(tokenKey "$name" crt.pem)
    succeeds "sign as CMS: $name $*" withPin sign "$(at document)" --key "$id" --format cms "$@" \
        -o "$(at document.p7s)"
    holds "OpenSSL verifies it" cmsVerifies DER "$files/document.p7s" "$files/document" "$certificate"
    holds "and not for another file" rejects cmsVerifies DER "$files/document.p7s" "$files/altered" \
        "$certificate"
}

rejects()
{
    ! "$@"
}

testCms()
{
    local text
    cmsCase rsa2048:01AB
    cmsCase rsa3072:03A1 --hash sha512
    cmsCase rsa2048:01AB --pad pss
    cmsCase rsa2048:01AB --pad pss --hash sha384 --salt 20
    cmsCase p256:0256
    cmsCase p384:0384 --hash sha384
    cmsCase p521:0521 --hash sha512
    succeeds "sign as CMS, PEM" withPin sign "$(at document)" --key 01AB --format cms-pem \
        -o "$(at document.pem)"
    holds "OpenSSL verifies the PEM" cmsVerifies PEM "$files/document.pem" "$files/document" \
        "$(tokenKey rsa2048 crt.pem)"
    text=$(openssl cms -cmsout -print -inform DER -in "$files/document.p7s" 2>/dev/null)
    holds "the content is not in it" grep -q 'eContent: <ABSENT>' <<<"$text"
    holds "the time of signing is" grep -q 'signingTime' <<<"$text"
    succeeds "sign a digest as CMS" withPin sign --hash sha256 --key 0256 --format cms \
        --digest "$(sha256sum <"$files/document" | cut -c 1-64)" -o "$(at digest.p7s)"
    holds "OpenSSL verifies the file" cmsVerifies DER "$files/digest.p7s" "$files/document" \
        "$(tokenKey p256 crt.pem)"
}

# ---- JWS

fromBase64Url()
{
    local text
    text=$(tr '_-' '/+')
    while [ $((${#text} % 4)) -ne 0 ]; do
        text="$text="
    done
    base64 -d <<<"$text"
}

# jwsVerifies FILE KEY PAYLOAD: takes the signature apart and lets OpenSSL verify it by the header's
# algorithm.
jwsVerifies()
{
    local header payload signature algorithm hash
    IFS=. read -r header payload signature <"$1" || true
    [ -n "$payload" ] || payload=$(base64 -w 0 <"$3" | tr '/+' '_-' | tr -d =)
    fromBase64Url <<<"$payload" | cmp - "$3" || return 1
    algorithm=$(fromBase64Url <<<"$header" | jq -r .alg)
    hash=sha${algorithm:2}
    printf '%s.%s' "$header" "$payload" >"$work/signed"
    fromBase64Url <<<"$signature" >"$work/signature"
    case $algorithm in
        RS*) openssl dgst "-$hash" -verify "$files/$2.pub" -signature "$work/signature" "$work/signed" ;;
        PS*) openssl dgst "-$hash" -verify "$files/$2.pub" -sigopt rsa_padding_mode:pss \
            -sigopt rsa_pss_saltlen:digest -signature "$work/signature" "$work/signed" ;;
        ES*) derOfRaw && openssl dgst "-$hash" -verify "$files/$2.pub" -signature "$work/der" \
            "$work/signed" ;;
        *) return 1 ;;
    esac
}

# The DER of the r and s in $work/signature.
derOfRaw()
{
    local both half
    both=$(xxd -p -c 1000 "$work/signature")
    half=$((${#both} / 2))
    printf 'asn1=SEQUENCE:both\n[both]\nr=INTEGER:0x%s\ns=INTEGER:0x%s\n' "${both:0:half}" \
        "${both:half}" >"$work/raw.conf"
    openssl asn1parse -genconf "$work/raw.conf" -out "$work/der" -noout
}

jwsCase()
{
    local algorithm=$1 name=${2%%:*} id=${2##*:}
    shift 2
    succeeds "sign as JWS: $algorithm $*" withPin sign "$(at document)" --key "$id" --format jws "$@" \
        -o "$(at document.jws)"
    holds "its algorithm is $algorithm" test "$(cut -d. -f1 "$files/document.jws" | fromBase64Url |
        jq -r '.alg + " " + .kid')" = "$algorithm $id"
    holds "OpenSSL verifies it" jwsVerifies "$files/document.jws" "$name" "$files/document"
    holds "and not for another file" rejects jwsVerifies "$files/document.jws" "$name" "$files/altered"
}

testJws()
{
    jwsCase RS256 rsa2048:01AB
    jwsCase RS512 rsa3072:03A1 --hash sha512
    jwsCase PS256 rsa2048:01AB --pad pss
    jwsCase PS384 rsa2048:01AB --pad pss --hash sha384
    jwsCase ES256 p256:0256
    jwsCase ES384 p384:0384
    jwsCase ES512 p521:0521
    succeeds "sign as detached JWS" withPin sign "$(at document)" --key 0256 --format jws-detached \
        -o "$(at detached.jws)"
    holds "the payload is not in it" grep -Eq '^[^.]+\.\.[^.]+$' "$files/detached.jws"
    holds "OpenSSL verifies it" jwsVerifies "$files/detached.jws" p256 "$files/document"
    fails 2 "a JWS by this key requires sha384" "a hash that does not fit the curve" \
        keywarden sign "$(at document)" --key 0384 --format jws --hash sha256 -o "$(at out)"
}

# ---- the rest

testCertificates()
{
    local key
    for key in rsa2048:01AB p521:0521; do
        succeeds "export a certificate: ${key%%:*}" \
            keywarden export --key "${key##*:}" --format cert -o "$(at cert.pem)"
        holds "it is the token's" cmp "$files/cert.pem" \
            <(openssl x509 -in "$(tokenKey "${key%%:*}" crt.pem)")
        succeeds "as DER" keywarden export --key "${key##*:}" --format cert-der -o "$(at cert.der)"
        holds "it is the same" cmp "$files/cert.der" "$(tokenKey "${key%%:*}" crt.der)"
    done
    clearStore
    succeeds "the certificate comes from the token, not from \"My\"" \
        keywarden export --key 01AB --format cert -o "$(at cert.pem)"
}

testLimits()
{
    local command
    for command in encrypt decrypt; do
        fails 1 "OAEP with sha512 takes 130 bytes, and the modulus of this key has 128" \
            "$command: OAEP with a hash that is too long for the key" \
            keywarden "$command" "$(at secret)" --key 0A24 --pad oaep --hash sha512 -o "$(at out)"
    done
    fails 2 "applies only with --pad oaep" "a hash without OAEP" \
        keywarden encrypt "$(at secret)" --key 01AB --hash sha256 -o "$(at out)"
}

# The log's folder goes while the dialog is open: the module throws, then and when it is given back.
brokenLog()
{
    local worker window status=0 logs=$profile/.norvanta-keywarden/logs
    "$@" &
    worker=$!
    window=$(dialogOf "$worker")
    mv "$logs" "$logs.away"
    : >"$logs"
    answerDialog "$window" "" "enter $pin"
    wait "$worker" || status=$?
    rm -f "$logs"
    mv "$logs.away" "$logs"
    return "$status"
}

testLog()
{
    sed -i '/^mode=/d' "$profile/.norvanta-keywarden/nvksprovider.conf"
    fails 1 "^keywarden: " "a log that breaks is an error, not the end of the process" \
        brokenLog keywarden sign "$(at document)" --key 01AB -o "$(at out)"
    holds "which says so in words" rejects grep -q "terminate called" "$work/out"
}

areas=("$@")
[ "$#" -gt 0 ] || areas=(Outputs Streams Choice Salts Digests Several Cms Jws Certificates Limits Log)
prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
for one in "${areas[@]}"; do
    "test${one^}"
done
finish
