#!/bin/bash
# "keywarden prove" through the router: what each step shows on a token that works, without the PIN dialog,
# and how it fails: another PIN, no PIN, no token, no key, no registration, wrong signatures. What cannot
# be done under Wine must be "not possible here", with the reason. docs/prove-example.txt is the output of
# a run; KEYWARDEN_REWRITE_PAGES=1 writes it anew.
#   tests/router/prove.sh
set -euo pipefail
area=prove
# shellcheck source=tests/router/support.sh
. "$(dirname "$0")/support.sh"
onOwnScreen "$@"

example=$root/docs/prove-example.txt
page=$work/prove.html
fourPins="pin pin pin pin" # sign and decrypt, sign and agree

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    useRouter
    useBehaviour modern
    cp "$profile/.norvanta-keywarden/nvksprovider.conf" "$work/good.conf"
    acquire=$(windowsPath "$routerFolder/router_acquire.dll")
}

# prove OPTION...: Wine's crypt32.dll opens no keys of CNG.
prove()
{
    keywarden prove --acquire "$acquire" "$@"
}

# outcomes: "NAME KEY OUTCOME" for each step of the latest document.
outcomes()
{
    jq -r '.steps[] | "\(.name) \(.key // "-") \(.outcome)"' "$work/out"
}

# outcomesAre: the steps are those on standard input.
outcomesAre()
{
    diff - <(outcomes)
}

# stepIs NAME KEY FILTER: the jq filter holds for that step; "-" stands for no key.
stepIs()
{
    jq -e --arg name "$1" --arg key "$2" \
        ".steps[] | select(.name == \$name and (.key // \"-\") == \$key) | $3" "$work/out" >/dev/null || {
        jq -c --arg name "$1" '.steps[] | select(.name == $name)' "$work/out"
        return 1
    }
}

# stepFails NAME KEY STATUS: that step has failed with that status, by name.
stepFails()
{
    stepIs "$1" "$2" ".outcome == \"failed\" and .statusName == \"$3\" and (.advice | length > 0)"
}

# noneAfter NAME: no private key was used after the step of that name.
noneAfter()
{
    jq -e --arg name "$1" '[.steps[] | select(.name | IN("sign", "decrypt", "agree", "tls", "dotnet"))] |
        all(.name == $name and .outcome == "failed" or .outcome == "not-tried")' "$work/out"
}

# ---- a token that works

testWholeRun()
{
    rm -f "$page"
    succeeds "prove with the PIN dialog" answeringEach "$fourPins" \
        prove --pin-dialog --json --page "$(windowsPath "$page")"
    holds "each step has its outcome" outcomesAre <<END
registration - not-possible
bcrypt-providers - not-possible
ncrypt-providers - done
open - done
keys - done
key 01AB done
publication 01AB done
property-92 01AB not-possible
acquire 01AB done
sign 01AB done
verify 01AB done
verify-certificate 01AB done
decrypt 01AB done
tls 01AB not-possible
dotnet 01AB not-possible
key 0256 done
publication 0256 done
property-92 0256 not-possible
acquire 0256 done
sign 0256 done
verify 0256 done
verify-certificate 0256 done
agree 0256 done
tls 0256 not-possible
dotnet 0256 not-possible
removal - not-tried
END
    holds "the counts are those of the steps" jq -e '.steps as $all |
        ([.done, .failed, .notPossible, .notTried] | add) == ($all | length) and .failed == 0 and
        .notPossible == ([$all[] | select(.outcome == "not-possible")] | length)' "$work/out"
    holds "what is not possible has its reason" jq -e '[.steps[] | select(.outcome == "not-possible")] |
        all(.text | test("system|BCrypt|bcrypt.dll|Schannel|powershell"))' "$work/out"
    holds "Schannel's own word is told" stepIs tls 01AB '.text | contains("0x80090302")'
    holds "the page has the steps" pageHasSteps
    holds "the page has neither scripts nor links" pageIsPlain
    holds "no key of a server is left" noServerKeys
}

pageHasSteps()
{
    local count
    count=$(grep -c '^<tr class="' "$page")
    [ "$count" -eq "$(jq '.steps | length' "$work/out")" ] &&
        grep -q '^<tr class="done"><td>sign</td><td>01AB</td><td>done</td>' "$page" &&
        grep -q '^<tr class="not-possible"><td>tls</td><td>0256</td>' "$page"
}

pageIsPlain()
{
    ! grep -Ei '<script|<link|src=|href=|@import|url\(' "$page"
}

# The key of CryptoAPI that the TLS step makes for its server.
noServerKeys()
{
    wineserver -k && wineserver -w # the registry is written to its file
    ! grep -a "KeyWarden prove" "$WINEPREFIX/user.reg" "$WINEPREFIX/system.reg"
}

# Without the first line, which has version, system and time.
textOfRun()
{
    sed 1d "$work/out" | sed "/^Page: /d; s/valid to [0-9-]*/valid to DATE/"
}

testExample()
{
    succeeds "prove as text" answeringEach "$fourPins" prove --pin-dialog
    if [ -n "${KEYWARDEN_REWRITE_PAGES:-}" ]; then
        textOfRun >"$example"
    fi
    holds "docs/prove-example.txt is this run" diff "$example" <(textOfRun)
}

testWithoutDialog()
{
    succeeds "prove without the PIN dialog" keywarden prove --key 0256 --acquire "$acquire" --json
    holds "no private key was used" jq -e '[.steps[] |
        select(.name | IN("sign", "verify", "verify-certificate", "agree", "tls", "dotnet"))] |
        length == 6 and all(.outcome == "not-tried")' "$work/out"
    holds "only the chosen key was taken" jq -e '[.steps[] | .key | values] | unique == ["0256"]' \
        "$work/out"
}

# ---- what goes wrong

# acquires FUNCTION: Wine's own function finds no such key.
testSystemsAcquire()
{
    fails 1 '"outcome": "failed"' "prove with Wine's own crypt32.dll" keywarden prove --json --key 01AB
    holds "its error is told" stepIs acquire 01AB \
        '.outcome == "failed" and (.text | startswith("CryptAcquireCertificatePrivateKey failed: "))'
    holds "it is the only failure" jq -e '.failed == 1' "$work/out"
}

testPin()
{
    fails 1 '"outcome": "failed"' "a wrong PIN" answeringEach wrong prove --pin-dialog --json
    holds "its status" stepFails sign 01AB SCARD_W_WRONG_CHV
    holds "the PIN is not asked for again" noneAfter sign
    fails 1 '"outcome": "failed"' "a cancelled dialog" answeringEach cancel prove --pin-dialog --json
    holds "its status is that of the dialog" stepFails sign 01AB NTE_USER_CANCELLED
    holds "no dialog follows the cancelled one" noneAfter sign
}

testMissing()
{
    fails 1 '"outcome": "failed"' "a key that does not exist" prove --key FFFF --json --pin-dialog
    holds "the status of the key" stepFails key FFFF NTE_BAD_KEYSET
    holds "its steps are not tried" stepIs sign FFFF '.outcome == "not-tried"'
    SOFTHSM2_CONF=$work/empty.conf fails 1 '"outcome": "failed"' "no token" prove --json
    holds "the status of the token" stepFails open - SCARD_E_NO_SMARTCARD
    holds "without a token there are no keys" stepIs keys - '.outcome == "not-tried"'
    : >"$providers"
    fails 1 '"outcome": "failed"' "no registration" prove --json
    holds "CNG's list does not have the provider" stepIs ncrypt-providers - '.outcome == "failed"'
    holds "the status of the registration" stepIs open - \
        '.outcome == "failed" and .status == "0x8009001e"'
    useRouter
}

# ---- a token that signs, decrypts and agrees, but wrongly

testWrongToken()
{
    sed "s|^p11File=.*|p11File=$(windowsPath "$windows/odd/certified_token.dll" | sed 's|\\|\\\\|g')|" \
        "$work/good.conf" >"$profile/.norvanta-keywarden/nvksprovider.conf"
    export ODD_PRIVATE_KEY=1 ODD_CERTIFICATE
    pin=odd-PIN-7391
    ODD_CERTIFICATE=$(windowsPath "$work/token/keys/rsa2048.crt.der")
    fails 1 '"outcome": "failed"' "a token with wrong results, RSA" answeringEach "pin pin" \
        prove --pin-dialog --json
    holds "it has signed" stepIs sign 7391 '.outcome == "done"'
    holds "BCrypt refuses its signature" stepFails verify 7391 STATUS_INVALID_SIGNATURE
    holds "so it does with the certificate's key" stepFails verify-certificate 7391 \
        STATUS_INVALID_SIGNATURE
    holds "it decrypts something else" stepIs decrypt 7391 '.outcome == "failed"'
    ODD_CERTIFICATE=$(windowsPath "$work/token/keys/p256.crt.der")
    fails 1 '"outcome": "failed"' "a token with wrong results, elliptic curve" answeringEach "pin pin" \
        prove --pin-dialog --json
    holds "BCrypt refuses the ECDSA signature" stepFails verify 7391 STATUS_INVALID_SIGNATURE
    holds "the two sides derive different keys" stepIs agree 7391 \
        '.outcome == "failed" and (.text | contains("another key"))'
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
testWholeRun
holdDesktop
testExample
testWithoutDialog
testSystemsAcquire
testPin
testMissing
testWrongToken
finish
