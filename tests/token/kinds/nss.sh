# NSS softoken, the token of Firefox and Thunderbird, on a database that NSS' tools make. The parameters
# give it one slot, the one of the database. Sourced by kind.sh.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # kind.sh reads and has the variables

makeToken()
{
    makeDatabase
    local token="configDir='sql:$work/database' tokenDescription='keywarden' flags=passwordRequired"
    export P11_BRIDGE_PARAMETERS="tokens=<0x02=[$token]>"
}

# Without parameters, and with those that programs usually give: the database is the second slot then.
otherSettings()
{
    unset P11_BRIDGE_PARAMETERS
    tryOut bare Opens
    export P11_BRIDGE_PARAMETERS="configdir='sql:$work/database' certPrefix='' keyPrefix='' secmod='secmod.db'"
    tryOut slots ListsItsKeys
}

makeDatabase()
{
    mkdir -p "$work/database"
    echo "$pin" >"$work/pin"
    onDatabase certutil -N -f "$work/pin"
    makeAuthority
    importPair rsa
    importPair ec
    makeLone
    onDatabase certutil -A -n lone -t ,, -i "$keys/lone.crt.pem" -f "$work/pin"
    nameEcKey lone
    export P11_BRIDGE_MODULE=/usr/lib/x86_64-linux-gnu/libsoftokn3.so
}

# onDatabase TOOL ARGUMENTS...
onDatabase()
{
    quietly "$@" -d "sql:$work/database"
}

# importPair NAME: makes the key, and imports it with its certificate.
importPair()
{
    makeKey "$1"
    quietly openssl pkcs12 -export -inkey "$keys/$1.key.pem" -in "$keys/$1.crt.pem" -name "$1" \
        -passout "pass:$pin" -out "$work/pair.p12"
    onDatabase pk12util -i "$work/pair.p12" -k "$work/pin" -w "$work/pin"
    if [ "$1" = rsa ]; then
        nameRsaKey rsa
    else
        nameEcKey "$1"
    fi
}

# nameRsaKey NAME, nameEcKey NAME: NSS gives a key the CKA_ID itself, the SHA-1 of its modulus or point.
nameRsaKey()
{
    openssl x509 -in "$keys/$1.crt.pem" -noout -modulus | sed 's/^Modulus=//' | xxd -r -p | sha1Text \
        >"$keys/$1.id"
}

nameEcKey()
{
    openssl x509 -in "$keys/$1.crt.pem" -noout -pubkey | openssl pkey -pubin -outform DER |
        tail -c $((2 * (ecBits / 8) + 1)) | sha1Text >"$keys/$1.id"
}

sha1Text()
{
    openssl dgst -sha1 -binary | xxd -p -u
}
