#!/bin/bash
# keywarden check --sign on a SoftHSM2 token: keys that belong to their certificates and one that does not.
# The PIN is typed into the dialog. The token's library runs in the program's child process.
#   tests/tool/check_sign.sh
set -euo pipefail
area=tool-check
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

# stepIs NAME FILTER: the jq filter holds for that step of the latest document.
stepIs()
{
    jq -e --arg name "$1" ".steps[] | select(.name == \$name) | $2" "$work/out" >/dev/null || {
        jq -c --arg name "$1" '.steps[] | select(.name == $name)' "$work/out"
        return 1
    }
}

# addForeignCertificate: a private key with the certificate of another key, as after a renewal that went
# wrong. There is no public key object that could show it.
addForeignCertificate()
{
    local file=$work/foreign
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -outform DER -out "$file.key.der" \
        2>"$file.log" &&
        openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$file.other.pem" \
            2>"$file.log" &&
        openssl req -x509 -new -key "$file.other.pem" -subj "/CN=KeyWarden foreign" -days 30 \
            -addext basicConstraints=critical,CA:FALSE -outform DER -out "$file.crt.der" || return 1
    pkcs11-tool --module "$softhsm" --token-label keywarden --login --pin "$pin" \
        --write-object "$file.key.der" --type privkey --id 0F01 --usage-sign >>"$work/token.log" 2>&1 &&
        pkcs11-tool --module "$softhsm" --token-label keywarden --login --pin "$pin" \
            --write-object "$file.crt.der" --type cert --id 0F01 >>"$work/token.log" 2>&1
}

# patiently COMMAND...: enters the PIN later than the time limit of the calls.
patiently()
{
    local worker window
    "$@" --timeout 3 &
    worker=$!
    window=$(dialogOf "$worker")
    sleep 5
    answerDialog "$window" "" "enter $pin"
    wait "$worker"
}

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    rm -rf "$profile"
    mkdir -p "$profile"
    keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")"
}

prepare || {
    bad "prepare" "see the files in $work: $(cat "$work/out" 2>/dev/null)"
    finish
    exit 1
}
succeeds "check --sign" withPin check --sign --json
holds "every key signs for its certificate" stepIs signatures \
    '.outcome == "ok" and (.details | length > 0)'
holds "each signature was verified" stepIs signatures \
    '.details | all(endswith("signed, and verified with the certificate"))'
succeeds "the time limit of check --sign does not count while the dialog is open" \
    patiently keywarden check --sign --json
holds "the keys were tried" stepIs signatures '.outcome == "ok"'
printf document >"$work/document"
succeeds "nor does that of sign" patiently keywarden sign "$(windowsPath "$work/document")" \
    --key 01AB -o "$(windowsPath "$work/document.sig")"
fails 1 '"outcome": "failed"' "a wrong PIN" answering "" "enter wrong-$pin" keywarden check --sign --json
holds "the wrong PIN is told" stepIs signatures '.text | contains("CKR_PIN_INCORRECT")'
succeeds "no PIN" answering "" cancel keywarden check --sign --json
holds "without a PIN, nothing was tried" stepIs signatures '.outcome == "skipped"'
holds "there is a key with the certificate of another one" addForeignCertificate
succeeds "check does not see the private keys" keywarden check --json
fails 1 '"signatures"' "check --sign tries them" withPin check --sign --json
holds "the key is named" stepIs signatures \
    '.details | any(. == "0F01: the signature does not verify with the certificate")'
holds "only that one" stepIs signatures '.text | startswith("1 of ")'

# The scripted token: the dialog has closed when C_Login begins.
sed -i "s|^p11File=.*|p11File=$(windowsPath "$windows/odd/certified_token.dll" | sed 's|\\|\\\\|g')|" \
    "$profile/.norvanta-keywarden/nvksprovider.conf"
certificates=("$work"/token/keys/*.crt.der)
ODD_CERTIFICATE=$(windowsPath "${certificates[0]}")
export ODD_CERTIFICATE
pin=scripted-4711 # within the lengths of this token
export ODD_FAULT="C_Login hang"
fails 1 'did not come back from C_Login within 3 s' "a library that hangs after the PIN" \
    withPin check --sign --timeout 3
export ODD_FAULT="C_Login locked"
fails 1 'The PIN is locked, usually' "a locked PIN has its own advice" withPin check --sign
fails 6 'CKR_PIN_LOCKED|SCARD_W_CHV_BLOCKED' "a locked PIN has its own exit code" \
    withPin sign "$(windowsPath "$work/document")" --key 7391 \
    -o "$(windowsPath "$work/locked.sig")"
holds "a locked PIN leaves no file" test ! -e "$work/locked.sig"
finish
