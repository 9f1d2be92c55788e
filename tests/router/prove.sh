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

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    rm -rf "$profile/.norvanta-keywarden"
    useRouter
    useBehaviour modern
    cp "$profile/.norvanta-keywarden/nvksprovider.conf" "$work/good.conf"
    rm -rf "$work/no-token"
    mkdir -p "$work/no-token"
    sed "s|^directories.tokendir = .*|directories.tokendir = $work/no-token|" \
        "$SOFTHSM2_CONF" >"$work/no-token.conf"
    acquire=$(windowsPath "$routerFolder/router_acquire.dll")
}

# prove OPTION...: Wine's crypt32.dll opens no keys of CNG.
prove()
{
    keywarden prove --acquire "$acquire" "$@"
}

# outcomes: "OUTCOME NAME KEY" for each step of the latest output, which is text.
outcomes()
{
    sed -En 's/^(done|FAILED|not possible|not tried) +([a-z0-9-]+( [0-9A-F]+)?): .*/\1 \2/p' "$work/out"
}

# outcomesAre: the steps are those on standard input.
outcomesAre()
{
    diff - <(outcomes)
}

# said NAME KEY TEXT: the latest output, which is text, has the extended regular expression in that step.
said()
{
    grep -Eq "^(done|FAILED|not possible|not tried) +$1 $2: .*$3" "$work/out"
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
    succeeds "prove with the PIN dialog" answeringEach "pin pin pin pin" \
        prove --pin-dialog --page "$(windowsPath "$page")"
    holds "each step has its outcome" outcomesAre <<END
not possible registration
not possible bcrypt-providers
done ncrypt-providers
done open
done keys
done key 01AB
done publication 01AB
not possible property-92 01AB
done acquire 01AB
done sign 01AB
done verify 01AB
done verify-certificate 01AB
done decrypt 01AB
not possible tls 01AB
not possible dotnet 01AB
done key 0256
done publication 0256
not possible property-92 0256
done acquire 0256
done sign 0256
done verify 0256
done verify-certificate 0256
done agree 0256
not possible tls 0256
not possible dotnet 0256
not tried removal
END
    holds "Schannel's own word is told" said tls 01AB 'AcceptSecurityContext: 0x80090302'
    holds "so is what BCrypt cannot do" said agree 0256 'BCrypt does not derive keys here: 0xc00000e5'
    holds "the counts are right" \
        grep -qx '26 steps: 17 done, 0 failed, 8 not possible here, 1 not tried.' "$work/out"
    if [ -n "${KEYWARDEN_REWRITE_PAGES:-}" ]; then
        textOfRun >"$example"
    fi
    holds "docs/prove-example.txt is this run" diff "$example" <(textOfRun)
    holds "the page has the steps" pageHasSteps
    holds "the page has neither scripts nor links" pageIsPlain
    holds "no key of a server is left" noServerKeys
}

# Without the first line, which has version, system and time.
textOfRun()
{
    sed '1d; /^Page: /d; s/valid to [0-9-]*/valid to DATE/' "$work/out"
}

pageHasSteps()
{
    [ "$(grep -c '^<tr class="' "$page")" -eq "$(outcomes | wc -l)" ] &&
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

testWithoutDialog()
{
    succeeds "prove without the PIN dialog" keywarden prove --key 0256 --acquire "$acquire" --json
    holds "the counts are those of the steps" jq -e '.steps as $all |
        ([.done, .failed, .notPossible, .notTried] | add) == ($all | length) and .failed == 0 and
        .notTried == ([$all[] | select(.outcome == "not-tried")] | length)' "$work/out"
    holds "no private key was used" jq -e '[.steps[] |
        select(.name | IN("sign", "verify", "verify-certificate", "agree", "tls", "dotnet"))] |
        length == 6 and all(.outcome == "not-tried")' "$work/out"
    holds "only the chosen key was taken" jq -e '[.steps[] | .key | values] | unique == ["0256"]' \
        "$work/out"
}

# ---- what goes wrong

# Wine's own function finds no such key.
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
    useBehaviour classic
    fails 1 '"outcome": "failed"' "a wrong PIN in classic" answeringEach wrong prove --pin-dialog --json
    holds "its status in classic" stepFails sign 01AB NTE_INTERNAL_ERROR
    holds "nor is the PIN asked for again in classic" noneAfter sign
    useBehaviour modern
}

testMissing()
{
    fails 1 '"outcome": "failed"' "a key that does not exist" prove --key FFFF --json --pin-dialog
    holds "the status of the key" stepFails key FFFF NTE_BAD_KEYSET
    holds "its steps are not tried" stepIs sign FFFF '.outcome == "not-tried"'
    SOFTHSM2_CONF=$work/no-token.conf fails 1 '"outcome": "failed"' "no token" prove --json
    holds "without a token there are no keys" stepFails keys - NTE_NO_MORE_ITEMS
    SOFTHSM2_CONF=$work/missing.conf fails 1 '"outcome": "failed"' "a library that fails" prove --json
    holds "the status of the library" stepFails open - NTE_INTERNAL_ERROR
    holds "nothing is tried without a provider" stepIs keys - '.outcome == "not-tried"'
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
    clearStore # the same certificates, under the names of other keys
    export ODD_PRIVATE_KEY=rsa ODD_CERTIFICATE
    pin=odd-PIN-7391
    ODD_CERTIFICATE=$(windowsPath "$work/token/keys/rsa2048.crt.der")
    fails 1 '"outcome": "failed"' "a token with wrong results, RSA" answeringEach "pin pin" \
        prove --pin-dialog --json
    holds "it has signed" stepIs sign 7391 '.outcome == "done"'
    holds "BCrypt refuses its signature" stepFails verify 7391 STATUS_INVALID_SIGNATURE
    holds "so it does with the certificate's key" stepFails verify-certificate 7391 \
        STATUS_INVALID_SIGNATURE
    holds "it decrypts something else" stepIs decrypt 7391 '.outcome == "failed"'
    ODD_PRIVATE_KEY=ec
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
testWithoutDialog
testSystemsAcquire
testPin
testMissing
testWrongToken
finish
