#!/bin/bash
# The way of a new user from the installation to a verified signature: install, init, check, keys, sign,
# verification by OpenSSL, uninstall. Runs in a Wine prefix of its own, in the profile of that prefix's
# user, with SoftHSM2 as the token. tests/package/release_test.sh makes the release first.
set -euo pipefail
area=new-user
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

installed="$WINEPREFIX/drive_c/Program Files/Norvanta KeyWarden"
module=$WINEPREFIX/drive_c/windows/system32/nvksprovider.dll

install()
{
    timeout 120 wine "$build"/package/keywarden-*-setup.exe /S </dev/null >"$work/out" 2>&1
}

# The uninstaller continues in a copy of itself, and the first process does not wait for it.
uninstall()
{
    local tries
    timeout 120 wine "$installed/uninstall.exe" /S </dev/null >"$work/out" 2>&1 || return 1
    for tries in $(seq 60); do
        [ -e "$installed" ] || return 0
        sleep 1
    done
    echo "still there after $tries s: $(ls "$installed")" >"$work/out"
    return 1
}

# Without --profile, like a user: the profile is the user's own.
keywarden()
{
    local status=0
    timeout 120 "$root/cmake/run-under-wine" "$installed/keywarden.exe" "$@" >"$work/out.raw" ||
        status=$?
    tr -d '\r' <"$work/out.raw" >"$work/out"
    return "$status"
}

# The configuration folder in the profile of the user who runs this script.
ownFolder()
{
    echo "$WINEPREFIX/drive_c/users/$(id -un)/.norvanta-keywarden"
}

# A new user has no configuration, no log and no certificate.
prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    rm -rf "$(ownFolder)" "$installed" "$module"
    rm -f "$work/letter.txt" "$work/letter.sig" "$work/key.pem"
    echo "Dear reader" >"$work/letter.txt"
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
succeeds "install" install
succeeds "keywarden prints its version" keywarden --version
fails 1 "Cannot open file: .*nvksprovider.conf" "before init, the keys cannot be listed" keywarden keys
fails 1 "keywarden init" "and check gives advice" keywarden check
succeeds "init" keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")"
holds "the configuration is in the user's profile" test -f "$(ownFolder)/nvksprovider.conf"
succeeds "check" keywarden check
succeeds "keys" keywarden keys
holds "keys names the user's keys" grep -q '^01AB  *RSA  *2048  *KeyWarden rsa2048 ' "$work/out"
succeeds "check finds the certificates published" keywarden check
holds "in \"My\"" grep -q '^ok *published' "$work/out"
succeeds "sign" withPin sign "$(windowsPath "$work/letter.txt")" --key 01AB \
    -o "$(windowsPath "$work/letter.sig")"
succeeds "export" keywarden export --key 01AB -o "$(windowsPath "$work/key.pem")"
holds "OpenSSL verifies" openssl dgst -sha256 -verify "$work/key.pem" \
    -signature "$work/letter.sig" "$work/letter.txt"
succeeds "log" keywarden log
succeeds "uninstall" uninstall
holds "uninstall leaves no program" test ! -e "$installed"
holds "uninstall leaves no module" test ! -e "$module"
holds "uninstall leaves the user's configuration" test -f "$(ownFolder)/nvksprovider.conf"
finish
