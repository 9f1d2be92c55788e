# Keys and certificates for the tokens of kind.sh, which sources this file. $work/keys has
#   NAME.crt.pem, NAME.crt.der   the certificate
#   NAME.id                      the name of the key, in hexadecimal digits: CKA_ID
#   NAME.key.pem                 the private key, if the token was given one that OpenSSL made
# for the names rsa, ec and lone. The token has the certificate of "lone", but not its keys.
#
# A command that fails ends the script. So these functions are called as commands of their own, never in
# a condition.
# shellcheck shell=bash
# shellcheck disable=SC2154 # kind.sh has the variables

keys=$work/keys

# makeAuthority: the authority that issues all certificates, because a token's own are rarely self-signed.
makeAuthority()
{
    quietly openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 \
        -subj "/CN=KeyWarden test authority" -keyout "$work/authority.key" \
        -out "$work/authority.pem"
    printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=digitalSignature,keyEncipherment,keyAgreement" \
        >"$work/extensions"
}

# certify NAME PUBLIC: issues the certificate for a public key, a file in PEM.
certify()
{
    quietly openssl x509 -new -force_pubkey "$2" -subj "/CN=KeyWarden $1" -days 3650 -sha256 \
        -CA "$work/authority.pem" -CAkey "$work/authority.key" -extfile "$work/extensions" \
        -out "$keys/$1.crt.pem"
    quietly openssl x509 -in "$keys/$1.crt.pem" -outform DER -out "$keys/$1.crt.der"
}

# makeKey NAME: makes a key pair and its certificate as files.
makeKey()
{
    local algorithm=(-algorithm EC -pkeyopt "ec_paramgen_curve:P-$ecBits")
    [ "$1" != rsa ] || algorithm=(-algorithm RSA -pkeyopt "rsa_keygen_bits:$rsaBits")
    quietly openssl genpkey "${algorithm[@]}" -out "$keys/$1.key.pem"
    quietly openssl pkey -in "$keys/$1.key.pem" -pubout -out "$work/public.pem"
    certify "$1" "$work/public.pem"
}

# makeLone: the certificate whose keys no token gets.
makeLone()
{
    makeKey lone
    rm "$keys/lone.key.pem"
}

# idOf NAME: the CKA_ID of the keys that these scripts name.
idOf()
{
    case $1 in
        rsa) echo 01AB ;;
        ec) echo 0256 ;;
        lone) echo 0C0C ;;
    esac
}

# onToken ARGUMENTS...: pkcs11-tool on the token of the library $module.
onToken()
{
    quietly pkcs11-tool --module "$module" --token-label keywarden --login --pin "$pin" "$@"
}

# writeCertificate NAME: puts it on the token, and names its key.
writeCertificate()
{
    local id
    id=$(idOf "$1")
    onToken --write-object "$keys/$1.crt.der" --type cert --label "$1" --id "$id"
    echo "$id" >"$keys/$1.id"
}

# importKey NAME: makes the key, and puts it on the token with its public key and its certificate.
importKey()
{
    local id usage=(--usage-sign --usage-derive)
    id=$(idOf "$1")
    [ "$1" != rsa ] || usage=(--usage-sign --usage-decrypt)
    makeKey "$1"
    quietly openssl pkey -in "$keys/$1.key.pem" -outform DER -out "$work/private.der"
    quietly openssl pkey -in "$keys/$1.key.pem" -pubout -outform DER -out "$work/public.der"
    onToken --write-object "$work/private.der" --type privkey --label "$1" --id "$id" "${usage[@]}" \
        --sensitive
    # pkcs11-tool derives what the public key may do from the same words.
    onToken --write-object "$work/public.der" --type pubkey --label "$1" --id "$id" "${usage[@]}"
    writeCertificate "$1"
}

# generateKey NAME: lets the token make the key; its private half exists nowhere else.
generateKey()
{
    local id type=EC:secp${ecBits}r1 usage=(--usage-sign --usage-derive)
    id=$(idOf "$1")
    if [ "$1" = rsa ]; then
        type=rsa:$rsaBits
        usage=(--usage-sign --usage-decrypt)
    elif [ "$ecBits" = 256 ]; then
        type=EC:prime256v1
    fi
    onToken --keypairgen --key-type "$type" --label "$1" --id "$id" "${usage[@]}"
    if [ "$1" = rsa ]; then
        onToken --read-object --type pubkey --id "$id" -o "$work/public.der"
    else
        readEcKey "$id"
    fi
    quietly openssl pkey -pubin -inform DER -in "$work/public.der" -out "$work/public.pem"
    certify "$1" "$work/public.pem"
    writeCertificate "$1"
}

# readEcKey ID: what --read-object does for RSA; it fails with P-384. The beginning of a
# SubjectPublicKeyInfo depends only on the curve, and its end is the point.
readEcKey()
{
    local head=3059301306072a8648ce3d020106082a8648ce3d030107034200
    [ "$ecBits" = 256 ] || head=3076301006072a8648ce3d020106052b81040022036200
    onToken --list-objects --type pubkey --id "$1"
    {
        echo "$head"
        sed -n 's/^ *EC_POINT: *04[46]1\(04[0-9a-f]*\)$/\1/p' "$work/command.log"
    } | xxd -r -p >"$work/public.der"
}

# makeSoftHsm: a SoftHSM2 token with all of it.
makeSoftHsm()
{
    module=/usr/lib/softhsm/libsofthsm2.so
    mkdir -p "$work/tokens"
    printf '%s\n' "directories.tokendir = $work/tokens" "objectstore.backend = file" "log.level = ERROR" \
        "slots.removable = false" >"$work/softhsm2.conf"
    export SOFTHSM2_CONF=$work/softhsm2.conf
    quietly softhsm2-util --init-token --free --label keywarden --so-pin keywarden-so-0815 --pin "$pin"
    makeAuthority
    importKey rsa
    importKey ec
    makeLone
    writeCertificate lone
}
