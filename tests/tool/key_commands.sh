#!/bin/bash
# keywarden's key commands on a SoftHSM2 token: keys, sign, verify, encrypt, decrypt, export, derive.
# OpenSSL checks every result. The PIN is typed into the dialog. file_commands.sh has the formats of sign,
# standard input and output, and what is refused of files; command_outcomes.sh has failures and what is printed.
#   tests/tool/key_commands.sh [AREA...]    areas: keys signatures ciphers exports agreements; default: all
set -euo pipefail
area=tool-keys
# shellcheck source=tests/tool/key_token.sh
. "$(dirname "$0")/key_token.sh"
onOwnScreen "$@"

rsaKeys="rsa2048:01AB rsa3072:03A1"
ecKeys="p256:0256 p384:0384 p521:0521"
digestInfoOfSha1=3021300906052b0e03021a05000414

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

[ "$#" -gt 0 ] || set -- keys signatures ciphers exports agreements
runAreas "$@"
