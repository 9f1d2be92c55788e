# Shared by key_commands.sh and command_outcomes.sh: their token, profile and files. Sourced by them, never run.
# As keywarden.sh, which they get through this file, it needs `area`.
# shellcheck shell=bash

# shellcheck source=tests/support/keywarden.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/keywarden.sh"

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

# makePeer NAME CURVE
makePeer()
{
    openssl genpkey -algorithm EC -pkeyopt "ec_paramgen_curve:$2" -out "$files/peer.$1.key" &&
        openssl pkey -in "$files/peer.$1.key" -pubout -out "$files/peer.$1.pem"
}

# runAreas AREA...: prepares, runs these areas, and prints the counts.
runAreas()
{
    local one
    prepare || {
        bad "prepare" "see the files in $work"
        finish
        return 1
    }
    for one in "$@"; do
        "test${one^}"
    done
    finish
}
