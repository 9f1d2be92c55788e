#!/bin/bash
# What keywarden's key commands print, and how they fail, on a SoftHSM2 token: the dialog, the reasons of
# failures, wrong use, --json, --cng and --module, the progress bar. key_commands.sh has their results.
#   tests/tool/command_outcomes.sh [AREA...]    areas: pins reasons follow files usage json cng progress;
#                                               default: all
set -euo pipefail
area=tool-outcomes
# shellcheck source=tests/tool/key_token.sh
. "$(dirname "$0")/key_token.sh"
onOwnScreen "$@"

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
    fails 1 "keywarden status" "--cng where the provider is not registered: keys" \
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
    # The console draws only what stays for a moment.
    configured "p11File=$(windowsPath "$windows/odd/certified_token.dll" | sed 's|\\|\\\\|g')"
    export ODD_FAULT="C_Initialize hang"
    fails 1 "C_Initialize" "check on a terminal" onTerminal "check --timeout 2"
    holds "a progress line on a terminal" grep -aq 'C_Initialize \.\.\.' "$work/out"
    fails 1 "did not come back from C_Initialize" "check in a pipe" keywarden check --timeout 2
    holds "no progress line but on a terminal" test "$(grep -ac ' \.\.\.' "$work/out")" = 0
    unset ODD_FAULT
    configured
}

[ "$#" -gt 0 ] || set -- pins reasons follow files usage json cng progress
runAreas "$@"
