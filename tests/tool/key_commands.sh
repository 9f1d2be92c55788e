#!/bin/bash
# keywarden's key commands on a SoftHSM2 token: keys, sign, verify, encrypt, decrypt, export, derive.
# OpenSSL checks every result and jq the output of --json. The PIN is typed into the dialog.
# file_commands.sh has the formats of sign, standard input and output, and what is refused of files.
#   tests/tool/key_commands.sh [AREA...]    areas: keys signatures ciphers exports agreements pins
#                                           reasons follow
#                                           files usage json cng progress; default: all
set -euo pipefail
area=tool-keys
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

rsaKeys="rsa2048:01AB rsa3072:03A1"
ecKeys="p256:0256 p384:0384 p521:0521"
digestInfoOfSha1=3021300906052b0e03021a05000414

prepare()
{
    # shellcheck disable=SC2119 # makeToken gets no argument on purpose: all keys
    makeOwnPrefix && makeToken &&
        addKey exponent3 0E03 3650 yes -algorithm RSA -pkeyopt rsa_keygen_bits:2048 \
            -pkeyopt rsa_keygen_pubexp:3 &&
        addKey expired 0E01 -1 yes -algorithm EC -pkeyopt ec_paramgen_curve:P-256 &&
        addKey secretive 0E02 3650 no -algorithm RSA -pkeyopt rsa_keygen_bits:2048 &&
        addKey secretive-ec 0E04 3650 no -algorithm EC -pkeyopt ec_paramgen_curve:P-256 || return 1
    rm -rf "$profile" "$files"
    mkdir -p "$profile" "$files"
    keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")" || return 1
    # tests/router/cng_commands.sh runs the commands in both behaviours.
    sed -i '/^mode=/d' "$profile/.norvanta-keywarden/nvksprovider.conf"
    head -c 100000 /dev/urandom >"$files/document"
    printf 'x' | cat "$files/document" - >"$files/altered"
    : >"$files/empty"
    head -c 32 /dev/urandom >"$files/secret"
}

# publicKey NAME:ID: exports it as PEM, once, and prints its path on this machine.
publicKey()
{
    local file=$files/${1##*:}.pem
    [ -s "$file" ] || keywarden export --key "${1##*:}" -o "$(at "${1##*:}.pem")" || return 1
    echo "$file"
}

# ---- keys

# rowIs ID FIELDS: the fields are separated by one space each.
rowIs()
{
    local row
    row=$(grep "^$1 " "$work/out" | tr -s ' ')
    [ "$row" = "$2" ] || {
        echo "\"$row\", not \"$2\""
        return 1
    }
}

testKeys()
{
    local expiry past
    succeeds "keys lists" keywarden keys
    expiry=$(date -u -d "$(openssl x509 -in "$(tokenKey rsa2048 crt.pem)" -noout -enddate |
        cut -d= -f2)" +%F)
    past=$(date -u -d "$(openssl x509 -inform DER -in "$(tokenKey expired crt.der)" -noout -enddate |
        cut -d= -f2)" +%F)
    holds "keys has a heading" grep -q '^KEY  *ALGORITHM  *BITS  *SUBJECT  *EXPIRES  *OPERATIONS$' \
        "$work/out"
    holds "keys describes an RSA key" rowIs 01AB \
        "01AB RSA 2048 KeyWarden rsa2048 $expiry sign, verify, encrypt, decrypt"
    holds "keys describes an EC key" rowIs 0521 \
        "0521 ECDSA_P521 521 KeyWarden p521 $expiry sign, verify, agree"
    holds "keys shows an expired certificate" rowIs 0E01 \
        "0E01 ECDSA_P256 256 KeyWarden expired $past (expired) sign, verify, agree"
    holds "keys without a public key object: no encryption, no verification" rowIs 0E02 \
        "0E02 RSA 2048 KeyWarden secretive $expiry sign, decrypt"
    holds "keys without a public key object, EC" rowIs 0E04 \
        "0E04 ECDSA_P256 256 KeyWarden secretive-ec $expiry sign, agree"
    holds "keys lists each key once" test "$(grep -c '^0' "$work/out")" = 10
    fails 1 "encrypting failed: NTE_INTERNAL_ERROR" "and encrypts nothing" \
        keywarden encrypt "$(at secret)" --key 0E02 -o "$(at out)"
    succeeds "but it signs" withPin sign "$(at document)" --key 0E02 -o "$(at secretive.sig)"
    fails 1 "verifying failed: NTE_INTERNAL_ERROR" "and verifies nothing, which is no bad signature" \
        keywarden verify "$(at document)" --key 0E02 --signature "$(at secretive.sig)"
}

# ---- sign and verify

# opensslOptions PAD: the options of "openssl dgst".
opensslOptions()
{
    if [ "$1" = pss ]; then
        echo "-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest"
    fi
}

# signAndVerify NAME:ID HASH PAD: both directions, and an altered file.
signAndVerify()
{
    local name=${1%%:*} id=${1##*:} hash=$2 pad=$3 what options public padding=()
    what="$name $hash $pad"
    [[ $name != rsa* && $name != exponent* ]] || padding=(--pad "$pad")
    options=$(opensslOptions "$pad")
    public=$(publicKey "$1")
    succeeds "sign: $what" withPin sign "$(at document)" --key "$id" --hash "$hash" \
        "${padding[@]}" -o "$(at "$id.sig")"
    # shellcheck disable=SC2086 # the words are separate arguments
    holds "OpenSSL verifies: $what" openssl dgst "-$hash" -verify "$public" $options \
        -signature "$files/$id.sig" "$files/document"
    # shellcheck disable=SC2086 # the words are separate arguments
    openssl dgst "-$hash" -sign "$(tokenKey "$name" key.pem)" $options -out "$files/openssl.sig" \
        "$files/document"
    succeeds "verify OpenSSL's: $what" keywarden verify "$(at document)" --key "$id" \
        --hash "$hash" "${padding[@]}" --signature "$(at openssl.sig)"
    fails 3 "The signature is bad" "verify an altered file: $what" \
        keywarden verify "$(at altered)" --key "$id" --hash "$hash" \
        "${padding[@]}" --signature "$(at openssl.sig)"
}

recoversDigestInfo()
{
    local recovered
    recovered=$(openssl pkeyutl -verifyrecover -pubin -inkey "$files/01AB.pem" \
        -pkeyopt rsa_padding_mode:pkcs1 -in "$1" | xxd -p -c 100)
    [ "$recovered" = "$digestInfoOfSha1$(openssl dgst -sha1 -r "$files/document" | cut -c 1-40)" ] ||
        {
            echo "recovered: $recovered"
            return 1
        }
}

testSignatures()
{
    local hash pad key bits
    for hash in sha1 sha256 sha384 sha512; do
        for pad in pkcs1 pss; do
            signAndVerify rsa2048:01AB "$hash" "$pad"
        done
        signAndVerify p256:0256 "$hash" pkcs1
    done
    signAndVerify rsa3072:03A1 sha256 pkcs1
    signAndVerify rsa3072:03A1 sha384 pss
    signAndVerify p384:0384 sha384 pkcs1
    signAndVerify p384:0384 sha1 pkcs1
    signAndVerify p521:0521 sha512 pkcs1
    signAndVerify p521:0521 sha256 pkcs1
    succeeds "sign SHA-1" withPin sign "$(at document)" --key 01AB --hash SHA1 -o "$(at sha1.sig)"
    holds "a SHA-1 signature contains the standard DigestInfo" recoversDigestInfo "$files/sha1.sig"
    succeeds "sign an empty file" withPin sign "$(at empty)" --key 0256 -o "$(at empty.sig)"
    holds "OpenSSL verifies an empty file" openssl dgst -sha256 -verify "$(publicKey p256:0256)" \
        -signature "$files/empty.sig" "$files/empty"
    for key in $ecKeys; do
        bits=${key%%:*}
        bits=${bits#p}
        succeeds "sign with raw r and s: $key" withPin sign "$(at document)" --key "${key##*:}" \
            --ec-format raw -o "$(at raw.sig)"
        holds "r and s have their length: $key" \
            test "$(stat -c %s "$files/raw.sig")" = $((2 * ((bits + 7) / 8)))
        succeeds "verify raw r and s: $key" keywarden verify "$(at document)" --key "${key##*:}" \
            --ec-format raw --signature "$(at raw.sig)"
    done
    fails 3 "not a DER-encoded ECDSA signature" "verify raw r and s as DER" \
        keywarden verify "$(at document)" --key 0521 --signature "$(at raw.sig)"
    fails 3 "ec-format raw" "which gives its advice" \
        keywarden verify "$(at document)" --key 0521 --signature "$(at raw.sig)"
    fails 3 "The signature is bad" "verify with another hash" \
        keywarden verify "$(at document)" --key 01AB --hash sha256 --signature "$(at sha1.sig)"
    fails 3 "The signature is bad" "verify with another key" \
        keywarden verify "$(at document)" --key 03A1 --hash sha1 --signature "$(at sha1.sig)"
}

# ---- encrypt and decrypt

# bothWays NAME:ID PAD FILE
bothWays()
{
    local name=${1%%:*} id=${1##*:} pad=$2 plain=$3 public
    local options="-pkeyopt rsa_padding_mode:$2"
    public=$(publicKey "$1")
    succeeds "encrypt: $name $pad $plain" keywarden encrypt "$(at "$plain")" --key "$id" --pad "$pad" \
        -o "$(at cipher)"
    # shellcheck disable=SC2086 # the words are separate arguments
    openssl pkeyutl -decrypt -inkey "$(tokenKey "$name" key.pem)" $options -in "$files/cipher" \
        -out "$files/plain" || true
    holds "OpenSSL decrypts: $name $pad $plain" cmp "$files/$plain" "$files/plain"
    # shellcheck disable=SC2086 # the words are separate arguments
    openssl pkeyutl -encrypt -pubin -inkey "$public" $options -in "$files/$plain" \
        -out "$files/cipher"
    rm -f "$files/plain"
    succeeds "decrypt OpenSSL's: $name $pad $plain" withPin decrypt "$(at cipher)" --key "$id" \
        --pad "$pad" -o "$(at plain)"
    holds "to the same: $name $pad $plain" cmp "$files/$plain" "$files/plain"
}

testCiphers()
{
    local key pad hash
    head -c 245 /dev/urandom >"$files/longest-pkcs1"
    head -c 214 /dev/urandom >"$files/longest-oaep"
    printf 'x' | cat "$files/longest-pkcs1" - >"$files/longer-pkcs1"
    printf 'x' | cat "$files/longest-oaep" - >"$files/longer-oaep"
    for pad in pkcs1 oaep; do
        for key in $rsaKeys; do
            bothWays "$key" "$pad" secret
        done
        bothWays rsa2048:01AB "$pad" "longest-$pad"
        rm -f "$files/out"
        fails 1 "has [0-9]+ bytes; 1 to (245|214) can" "encrypt one byte too many: $pad" \
            keywarden encrypt "$(at "longer-$pad")" --key 01AB --pad "$pad" -o "$(at out)"
        holds "leaves no file: $pad" test ! -e "$files/out"
    done
    for hash in sha256 sha384 sha512; do
        fails 1 "encrypting failed: NTE_INTERNAL_ERROR.*" "encrypt: the token does not know OAEP with $hash" \
            keywarden encrypt "$(at secret)" --key 01AB --pad oaep --hash "$hash" -o "$(at out)"
        holds "and the advice says so: $hash" grep -q "support OAEP only with --hash sha1" "$work/out"
    done
    holds "a failure leaves no file" test ! -e "$files/out"
    fails 1 "empty has 0 bytes" "encrypt an empty file" \
        keywarden encrypt "$(at empty)" --key 01AB -o "$(at out)"
    fails 1 "data encrypted with this key has 256" "decrypt what is too long" \
        keywarden decrypt "$(at document)" --key 01AB -o "$(at out)"
    openssl pkeyutl -encrypt -pubin -inkey "$(publicKey rsa2048:01AB)" -in "$files/secret" \
        -pkeyopt rsa_padding_mode:oaep -out "$files/cipher"
    fails 1 "decrypting failed: NTE_INTERNAL_ERROR" "decrypt with the wrong padding" \
        withPin decrypt "$(at cipher)" --key 01AB --pad pkcs1 -o "$(at out)"
    openssl pkeyutl -encrypt -pubin -inkey "$files/01AB.pem" -in "$files/empty" -out "$files/cipher"
    succeeds "decrypt an empty message" withPin decrypt "$(at cipher)" --key 01AB -o "$(at plain)"
    holds "to an empty file" cmp "$files/empty" "$files/plain"
    for command in encrypt decrypt; do
        fails 1 '"0256" is not an RSA key' "$command with an EC key" \
            keywarden "$command" "$(at secret)" --key 0256 -o "$(at out)"
    done
}

# ---- export

exponentIs3()
{
    openssl pkey -pubin -in "$files/0E03.pem" -noout -text | grep '^Exponent: 3 '
}

# blobIs NAME:ID MAGIC BYTES: the magic of the header, and OpenSSL's modulus or point of BYTES bytes.
blobIs()
{
    local name=${1%%:*} id=${1##*:} magic=$2 length=$3 tail wanted
    [ "$(head -c 4 "$files/$id.blob")" = "$magic" ] || {
        echo "magic: $(head -c 4 "$files/$id.blob" | xxd -p)"
        return 1
    }
    tail=$(tail -c "$length" "$files/$id.blob" | xxd -p -u -c 1000)
    case $name in
        rsa*)
            wanted=$(openssl rsa -in "$(tokenKey "$name" key.pem)" -noout -modulus)
            wanted=${wanted#Modulus=}
            ;;
        *)
            wanted=$(openssl pkey -in "$(tokenKey "$name" key.pem)" -pubout -outform DER |
                tail -c "$length" | xxd -p -u -c 1000)
            ;;
    esac
    [ "$tail" = "$wanted" ]
}

testExports()
{
    local key name id
    for key in $rsaKeys $ecKeys exponent3:0E03; do
        name=${key%%:*}
        id=${key##*:}
        openssl pkey -in "$(tokenKey "$name" key.pem)" -pubout -out "$files/wanted.pem"
        openssl pkey -in "$(tokenKey "$name" key.pem)" -pubout -outform DER -out "$files/wanted.der"
        succeeds "export pem: $name" keywarden export --key "$id" -o "$(at "$id.pem")"
        holds "OpenSSL has the same PEM: $name" cmp "$files/wanted.pem" "$files/$id.pem"
        succeeds "export der: $name" keywarden export --key "$id" --format der -o "$(at "$id.der")"
        holds "OpenSSL has the same DER: $name" cmp "$files/wanted.der" "$files/$id.der"
        succeeds "export blob: $name" keywarden export --key "$id" --format blob -o "$(at "$id.blob")"
    done
    holds "the exponent 3 is in the PEM" exponentIs3
    holds "blob of an RSA key" blobIs rsa2048:01AB RSA1 256
    holds "blob of a longer one" blobIs rsa3072:03A1 RSA1 384
    holds "blob of a P-256 key" blobIs p256:0256 ECS1 64
    holds "blob of a P-384 key" blobIs p384:0384 ECS3 96
    holds "blob of a P-521 key" blobIs p521:0521 ECS5 132
    signAndVerify exponent3:0E03 sha256 pkcs1
}

# ---- derive

# deriveLike KEY HASH KDF OPTIONS...: compares with OpenSSL on the peer's side, whose input is the bytes
# $before, the secret and the bytes $behind.
deriveLike()
{
    local name=${1%%:*} id=${1##*:} hash=$2 kdf=$3 what
    shift 3
    what="$name $kdf $hash $*"
    succeeds "derive: $what" withPin derive --key "$id" --peer "$(at "peer.$name.pem")" --hash "$hash" \
        --kdf "$kdf" -o "$(at derived)" "$@"
    {
        printf '%s' "$before" | xxd -r -p
        openssl pkeyutl -derive -inkey "$files/peer.$name.key" -peerkey "$(publicKey "$name:$id")"
        printf '%s' "$behind" | xxd -r -p
    } >"$files/input"
    if [ "$kdf" = hmac ]; then
        openssl dgst "-$hash" -mac HMAC -macopt "hexkey:$hmacKey" -binary "$files/input" \
            >"$files/wanted"
    else
        openssl dgst "-$hash" -binary "$files/input" >"$files/wanted"
    fi
    holds "OpenSSL derives the same: $what" cmp "$files/wanted" "$files/derived"
}

# makePeer NAME CURVE
makePeer()
{
    openssl genpkey -algorithm EC -pkeyopt "ec_paramgen_curve:$2" -out "$files/peer.$1.key" &&
        openssl pkey -in "$files/peer.$1.key" -pubout -out "$files/peer.$1.pem"
}

derives()
{
    keywarden derive --key 0256 --peer "$(at "$1")" -o "$(at out)"
}

testAgreements()
{
    local key hash before="" behind="" hmacKey
    hmacKey=$(openssl rand -hex 70)
    for key in p256:P-256 p384:P-384 p521:P-521 secp256k1:secp256k1; do
        makePeer "${key%%:*}" "${key##*:}"
    done
    for key in $ecKeys; do
        deriveLike "$key" sha256 hash
    done
    for hash in sha1 sha384 sha512; do
        deriveLike p256:0256 "$hash" hash
    done
    xxd -r -p <<<"$hmacKey" >"$files/hmac.key"
    deriveLike p256:0256 sha256 hmac --hmac-key-file "$(at hmac.key)"
    deriveLike p521:0521 sha512 hmac --hmac-key-file "$(at hmac.key)"
    before=00ff10
    behind=deadBEEF01
    deriveLike p256:0256 sha256 hash --prepend "$before" --append "$behind"
    deriveLike p384:0384 sha384 hmac --prepend "$before" --append "$behind" \
        --hmac-key-file "$(at hmac.key)"
    before=""
    behind=""
    cp "$files/peer.p256.pem" "$files/peer.pem"
    openssl pkey -pubin -in "$files/peer.pem" -outform DER -out "$files/peer.p256.pem"
    deriveLike p256:0256 sha256 hash # from a peer in DER
    rm -f "$files/out"
    fails 1 "the peer's key is on P-384, the token's on P-256" "derive with another curve" \
        derives peer.p384.pem
    fails 1 "is not on P-256, P-384 or P-521" "derive with an unknown curve" derives peer.secp256k1.pem
    fails 1 "is not on P-256, P-384 or P-521" "derive with an RSA key as peer" \
        derives "$(basename "$(publicKey rsa2048:01AB)")"
    fails 1 '"01AB" is not an elliptic curve key' "derive with an RSA key" \
        keywarden derive --key 01AB --peer "$(at peer.pem)" -o "$(at out)"
    sed '/END/d' "$files/peer.pem" >"$files/broken.pem"
    fails 1 "no line \"-----END PUBLIC KEY-----\"" "derive with a PEM that ends early" derives broken.pem
    sed '2s/[A-Za-z]/!/' "$files/peer.pem" >"$files/broken.pem"
    fails 1 "the PEM file is damaged" "derive with a PEM with a wrong character" derives broken.pem
    sed '2d' "$files/peer.pem" >"$files/broken.pem"
    fails 1 "does not contain a public key" "derive with a PEM that lacks a line" derives broken.pem
    fails 1 "does not contain a public key" "derive with something else" derives document
    fails 1 "does not contain a public key" "derive with an empty file" derives empty
    fails 1 "does not contain a public key" "derive with a private key" derives peer.p256.key
    printf '\0' >"$files/short.key"
    fails 1 "deriving the key failed: NTE_INTERNAL_ERROR" "derive: the token requires a longer HMAC key" \
        withPin derive --key 0256 --peer "$(at peer.pem)" --kdf hmac \
        --hmac-key-file "$(at short.key)" -o "$(at out)"
    holds "a failed derivation leaves no file" test ! -e "$files/out"
}

# ---- the dialog

# Without a screen the dialog ends at once, as if the user had accepted an empty PIN.
withoutScreen()
{
    (unset DISPLAY && keywarden "$@")
}

# pinCases NAME COMMAND...: a cancelled dialog, a wrong PIN, and no dialog.
pinCases()
{
    local name=$1
    shift
    fails 4 "NTE_USER_CANCELLED" "$name: cancelled" answering "" cancel keywarden "$@"
    holds "$name: cancelled, in words" grep -q "The PIN dialog was cancelled" "$work/out"
    fails 5 "failed: NTE_INTERNAL_ERROR \(0x8009002d\), CKR_PIN_INCORRECT" "$name: wrong PIN" \
        answering "" "enter not-the-pin" keywarden "$@"
    holds "$name: wrong PIN, in words" grep -q "The PIN is wrong. The token counts the attempt." "$work/out"
    fails 8 "failed: no PIN was entered" "$name: no screen" withoutScreen "$@"
    holds "$name: leaves no file" test ! -e "$files/out"
}

testPins()
{
    makePeer p256 P-256
    rm -f "$files/out"
    openssl pkeyutl -encrypt -pubin -inkey "$(publicKey rsa2048:01AB)" -in "$files/secret" \
        -out "$files/cipher"
    pinCases sign sign "$(at document)" --key 01AB -o "$(at out)"
    pinCases "sign, EC" sign "$(at document)" --key 0256 -o "$(at out)"
    pinCases decrypt decrypt "$(at cipher)" --key 01AB -o "$(at out)"
    pinCases derive derive --key 0256 --peer "$(at peer.p256.pem)" -o "$(at out)"
    succeeds "the right PIN still works" withPin sign "$(at document)" --key 01AB -o "$(at out)"
}

# ---- why an operation failed

# configured LINE...: the configuration has these lines instead of those of the same keys.
configured()
{
    local file=$profile/.norvanta-keywarden/nvksprovider.conf line
    [ -e "$files/configuration" ] || cp "$file" "$files/configuration"
    cp "$files/configuration" "$file"
    for line in "$@"; do
        sed -i "/^${line%%=*}=/d" "$file"
        echo "$line" >>"$file"
    done
}

wrongPin()
{
    answering "" "enter not-the-pin" keywarden sign "$(at document)" --key 01AB -o "$(at out)" --force
}

# In classic every failure has one status. The token's state tells a wrong PIN, but only for an operation
# that asks for the PIN.
testReasons()
{
    local encryption=(encrypt "$(at secret)" --key 0E02 -o "$(at out)" --force)
    configured logTypes=
    fails 5 "log is off, but the token says that a wrong PIN was entered" "log off, classic: wrong PIN" \
        wrongPin
    fails 1 "log is off, so the PKCS#11 result is not known. Run .keywarden log on." \
        "log off, classic: another failure after a wrong PIN" keywarden "${encryption[@]}"
    holds "no word of a PIN" test "$(grep -ci "pin\b" "$work/out")" = 0
    configured logTypes= mode=modern
    fails 5 "SCARD_W_WRONG_CHV \(0x8010006b\)$" "log off, modern: wrong PIN" wrongPin
    holds "and says what to do" grep -q "Make sure that you have the correct PIN" "$work/out"
    configured mode=modern
    fails 5 "SCARD_W_WRONG_CHV \(0x8010006b\), CKR_PIN_INCORRECT" "log on, modern: wrong PIN" wrongPin
    fails 4 "NTE_USER_CANCELLED \(0x80090036\)$" "modern: cancelled" \
        answering "" cancel keywarden sign "$(at document)" --key 01AB -o "$(at out)" --force
    fails 8 "NTE_SILENT_CONTEXT" "modern: no screen" \
        withoutScreen sign "$(at document)" --key 01AB -o "$(at out)" --force
    configured
    fails 7 "there is no key" "no key" keywarden export --key FFFF -o "$(at out)" --force
    fails 1 "The log has no failed PKCS#11 call" "log on, classic: no call failed" \
        keywarden "${encryption[@]}"
    # log on and log off, and what they write.
    configured mode=modern
    succeeds "log on" keywarden log on
    succeeds "sign with the full trace" withPin sign "$(at document)" --key 01AB -o "$(at out)" --force
    succeeds "log" keywarden --json log --op SignHash --slow 0
    holds "the trace has the calls and the program" jq -e '.slow | any(
        (.calls | any(.name == "C_Sign")) and ((.program // "") | endswith("keywarden.exe")))' \
        "$work/out"
    succeeds "log off" keywarden log off
    succeeds "the right PIN still works" withPin sign "$(at document)" --key 01AB -o "$(at out)" --force
    configured
}

# log --follow shows an operation while it goes on waiting for the next one.
testFollow()
{
    local follower
    configured mode=modern
    # run-under-wine would show the output only at the end.
    WINEDLLPATH=$windows/winelib wine "$program" --profile "$(windowsPath "$profile")" log --follow \
        </dev/null >"$files/followed" 2>&1 &
    follower=$!
    holds "log --follow waits" waitFor "Waiting for operations"
    keywarden verify "$(at document)" --key 01AB --signature "$(at document)" || true
    holds "it is shown" waitFor "VerifySignature"
    holds "and the program goes on" kill "$follower"
    wait "$follower" 2>/dev/null || true
    configured
}

# waitFor TEXT: until the followed log shows it, at most a minute.
waitFor()
{
    local i
    for ((i = 0; i < 600; i++)); do
        ! grep -q "$1" "$files/followed" || return 0
        sleep 0.1
    done
    cat "$files/followed"
    return 1
}

# ---- files and names

testFiles()
{
    local command names="The provider's keys: 01AB, 0256, 0384, 03A1, 04C2, 0521, 0E01, 0E02, 0E03, 0E04"
    makePeer p256 P-256
    cp "$files/secret" "$files/signature"
    for command in "sign $(at document) -o $(at out)" \
        "verify $(at document) --signature $(at signature)" \
        "encrypt $(at secret) -o $(at out)" "decrypt $(at secret) -o $(at out)" \
        "export -o $(at out)" "derive --peer $(at peer.p256.pem) -o $(at out)"; do
        # shellcheck disable=SC2086 # the words are separate arguments
        fails 7 'there is no key "none"' "${command%% *}: unknown key" keywarden $command --key none
        holds "${command%% *}: lists the keys" grep -q "$names" "$work/out"
    done
    for command in "sign $(at none) --key 01AB -o $(at out)" \
        "verify $(at none) --key 01AB --signature $(at signature)" \
        "verify $(at document) --key 01AB --signature $(at none)" \
        "encrypt $(at none) --key 01AB -o $(at out)" "decrypt $(at none) --key 01AB -o $(at out)" \
        "derive --key 0256 --peer $(at none) -o $(at out)"; do
        # shellcheck disable=SC2086 # the words are separate arguments
        fails 1 'none cannot be read: .+\([0-9]+\)' "${command%% *}: missing file" keywarden $command
    done
    fails 1 'cannot be written: .+\([0-9]+\)' "export: unwritable output" \
        keywarden export --key 01AB -o "$(at 'none\out')"
    fails 1 'cannot be written: it is a folder' "encrypt: the output is a folder" \
        keywarden encrypt "$(at secret)" --key 01AB -o "$(windowsPath "$files")"
    fails 1 'cannot be written: .+\([0-9]+\)' "sign: unwritable output, before the dialog" \
        keywarden sign "$(at document)" --key 01AB -o "$(at 'none\out')"
    fails 1 "cannot be read" "sign: a folder is no file" \
        keywarden sign "$(windowsPath "$files")" --key 01AB -o "$(at out)"
    mkdir -p "$files/Straße 部"
    cp "$files/document" "$files/Straße 部/größe"
    succeeds "sign: names outside ASCII" withPin sign "$(at 'Straße 部\größe')" --key 01AB \
        -o "$(at 'Straße 部\подпись')"
    holds "OpenSSL verifies it" openssl dgst -sha256 -verify "$(publicKey rsa2048:01AB)" \
        -signature "$files/Straße 部/подпись" "$files/document"
}

# ---- usage

# usage TEXT ARGUMENTS...: exit code 2, and the text in the output.
usage()
{
    local text=$1
    shift
    fails 2 "$text" "wrong usage: $*" keywarden "$@"
}

testUsage()
{
    local command option
    for command in sign verify encrypt decrypt; do
        option=-o
        [ "$command" != verify ] || option=--signature
        usage "FILE is required" "$command" --key 01AB "$option" out
        usage "--key is required" "$command" file "$option" out
        usage "not one of sha1, sha256, sha384, sha512" "$command" file --key 01AB "$option" out \
            --hash md5
        usage "--pad" "$command" file --key 01AB "$option" out --pad none
        usage "excludes" "$command" file --key 01AB "$option" out --cng --module x.dll
        usage "not expected: --flag" "$command" file --key 01AB "$option" out --flag
    done
    usage "--signature is required" verify file --key 01AB
    usage "--ec-format" sign file --key 0256 -o out --ec-format xml
    usage "--format" export --key 01AB -o out --format jwk
    usage "--key is required" export -o out
    usage "--peer is required" derive --key 0256 -o out
    usage "--kdf" derive --key 0256 --peer peer -o out --kdf tls
    usage "not one of sha1" derive --key 0256 --peer peer -o out --hash sha3
    usage "hexadecimal digits" derive --key 0256 --peer peer -o out --prepend abc
    usage "hexadecimal digits" derive --key 0256 --peer peer -o out --append xy
    usage "hmac requires --hmac-key-file" derive --key 0256 --peer peer -o out --kdf hmac
    usage "applies only with --kdf hmac" derive --key 0256 --peer peer -o out --hmac-key-file key
    usage "not expected" keys superfluous
    for command in keys sign verify encrypt decrypt export derive; do
        succeeds "$command --help" keywarden "$command" --help
        holds "$command --help shows the usage" grep -q "^Usage: keywarden.*$command" "$work/out"
    done
}

# ---- --json

testJson()
{
    makePeer p256 P-256
    prints '(.keys | length) == 10 and ([.keys[].name] | index("01AB") != null)' keys \
        keywarden --json keys
    prints '.keys | map(keys_unsorted) | unique == [["name", "algorithm", "bits", "subject",
        "expires", "expired", "published", "operations"]]' "fields of a key" keywarden --json keys
    prints '.keys[] | select(.name == "0E01") | .expired == true and .bits == 256
        and .operations == ["sign", "verify", "agree"]' "expired" keywarden --json keys
    prints '.keys[] | select(.name == "01AB") | .expired == false
        and .subject == "KeyWarden rsa2048" and .algorithm == "RSA"
        and (.expires | test("^[0-9]{4}-[0-9]{2}-[0-9]{2}$"))' "not expired" keywarden keys --json
    prints '.key == "01AB" and .bytes == 256 and (.signature | endswith("sig"))
        and (.file | endswith("document"))' sign \
        withPin --json sign "$(at document)" --key 01AB -o "$(at sig)"
    prints '.good == true and .key == "01AB"' verify \
        keywarden --json verify "$(at document)" --key 01AB --signature "$(at sig)"
    prints '.good == false and .key == "01AB" and (.reason | length > 0)' "a bad signature" \
        keywarden --json verify "$(at altered)" --key 01AB --signature "$(at sig)"
    prints '.key == "01AB" and .bytes == 256 and (.output | endswith("cipher"))' encrypt \
        keywarden --json encrypt "$(at secret)" --key 01AB -o "$(at cipher)"
    prints '.key == "01AB" and .bytes == 32 and (.output | endswith("plain"))' decrypt \
        withPin --json decrypt "$(at cipher)" --key 01AB -o "$(at plain)"
    prints '.key == "0256" and .format == "der" and .bytes == 91' export \
        keywarden --json export --key 0256 --format der -o "$(at out)"
    prints '.key == "0256" and .bytes == 32 and (.output | endswith("out"))' derive \
        withPin --json derive --key 0256 --peer "$(at peer.p256.pem)" -o "$(at out)"
    prints '(.error == "there is no key \"x\"") and (.advice | contains("01AB"))' \
        "a failure is a document as well" keywarden --json export --key x -o "$(at out)"
    fails 7 '"error"' "and the exit code stays" keywarden --json export --key x -o "$(at out)"
}

# ---- --cng and --module

# Wine's ncrypt.dll does not forward calls to other providers, so only the failure can be tested here.
# That --cng reaches the registered module can be tested only on Windows.
testCng()
{
    fails 1 "the provider cannot (be opened|list)" "--cng where the provider is not registered: keys" \
        keywarden keys --cng
    holds "--cng: advice" grep -q '"keywarden status" to see whether it is registered' "$work/out"
    fails 1 "keywarden status" "--cng where the provider is not registered: sign" \
        keywarden sign "$(at document)" --key 01AB -o "$(at out)" --cng
    succeeds "--module" keywarden keys --module "$(windowsPath "$windows/bin/nvksprovider.dll")"
    fails 1 "none.dll does not load: .*keywarden check|none.dll does not load" "--module that is not there" \
        keywarden keys --module "$(at none.dll)"
    fails 1 "is not a key storage provider" "--module that is something else" \
        keywarden keys --module 'C:\windows\system32\version.dll'
    mv "$profile/.norvanta-keywarden" "$profile/away"
    fails 1 "Cannot open file: .*nvksprovider.conf" "no configuration" keywarden keys
    holds "no configuration: advice" grep -q 'keywarden check' "$work/out"
    mv "$profile/away" "$profile/.norvanta-keywarden"
}

# ---- the progress bar

# Runs the program on a terminal, created by script(1), and returns the program's status. Removes
# sequences that move or hide the cursor from the output.
onTerminal()
{
    local status=0
    script -qefc "WINEPREFIX=$WINEPREFIX WINEDLLPATH=$windows/winelib wine '$program' --profile \
'$(windowsPath "$profile")' $*" "$work/out.raw" >/dev/null </dev/null || status=$?
    sed 's/\x1b\[[?0-9;]*[A-Za-z]//g' "$work/out.raw" >"$work/out"
    return "$status"
}

testProgress()
{
    truncate -s 70M "$files/large"
    truncate -s 3M "$files/small"
    openssl dgst -sha256 -sign "$(tokenKey rsa2048 key.pem)" -out "$files/large.sig" "$files/large"
    openssl dgst -sha256 -sign "$(tokenKey rsa2048 key.pem)" -out "$files/small.sig" "$files/small"
    succeeds "a large file" keywarden verify "$(at large)" --key 01AB --signature "$(at large.sig)"
    holds "no progress bar but on a terminal" test "$(cat "$work/out")" = "The signature is good."
    succeeds "a large file on a terminal" onTerminal "verify '$(at large)' --key 01AB --signature \
'$(at large.sig)'"
    holds "a progress bar on a terminal" grep -aq 'hashing *\[####*\.*\]' "$work/out"
    holds "the bar fills" grep -aq '########################################\]' "$work/out"
    succeeds "a small file on a terminal" onTerminal "verify '$(at small)' --key 01AB --signature \
'$(at small.sig)'"
    holds "no progress bar for a small file" test "$(grep -ac hashing "$work/out")" = 0
    rm -f "$files/large"
}

areas=("$@")
[ "$#" -gt 0 ] || areas=(Keys Signatures Ciphers Exports Agreements Pins Reasons Follow Files Usage Json Cng Progress)
prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
for one in "${areas[@]}"; do
    "test${one^}"
done
finish
