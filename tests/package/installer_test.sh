#!/bin/bash
# Makes a signed release and lives through its life under Wine, in a prefix of its own: installs it
# silently, repairs it, uninstalls it, and compares files and registry with those before; uninstalls
# it by the keyboard on a virtual screen. Run by scripts/test.sh and by people who change the
# installer.
# Prints "ok NAME" or "FAIL NAME: reason" a check, then the counts; the status is 1 if any failed.
# CNG keeps no registrations under Wine, so what comes of them is not seen here.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$root/build/package-test # made afresh by each run
package=$root/build/package
. "$root/tests/support/checks.sh"

[ "${1:-}" = --uninstall-on-this-screen ] || unset DISPLAY
export WINEPREFIX=$work/wine WINEDEBUG=-all
# Without the last one, the shortcut would become an entry of this machine's own menu.
export WINEDLLOVERRIDES='mscoree,mshtml=;winemenubuilder.exe=d'

product="Norvanta KeyWarden"
folder="C:\\Program Files\\$product"
files="$WINEPREFIX/drive_c/Program Files/$product"
system=$WINEPREFIX/drive_c/windows/system32
startMenu="$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/$product"
environmentKey='HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\Environment'
uninstallKey='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\NorvantaKeyWarden'

# same WHAT EXPECTED FOUND
same()
{
    [ "$2" = "$3" ] || echo "$1 is \"$3\", expected \"$2\""
}

# windows COMMAND...: runs a Windows program; its output without carriage returns.
windows()
{
    timeout 120 wine "$@" </dev/null 2>/dev/null >"$work/output" || {
        local status=$?
        tr -d '\r' <"$work/output"
        return "$status"
    }
    tr -d '\r' <"$work/output"
}

# settle: waits until all Windows processes have ended and the registry is on disk. Then starts
# Windows once more, as files that were in use go with its next start.
settle()
{
    timeout 120 wineserver -w
    timeout 120 wineboot </dev/null >/dev/null 2>&1 || true
    timeout 120 wineserver -w
}

makeRelease()
{
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=KeyWarden packaging test" \
        -addext extendedKeyUsage=codeSigning -keyout "$work/sign.key" -out "$work/sign.pem" \
        2>"$work/openssl.log" || return 1
    "$root/scripts/package.sh" --sign-with "$work/sign.pem" "$work/sign.key" \
        >"$work/package.log" 2>&1 || tail -n 5 "$work/package.log"
}

# The user has a configuration and logs (but logs no more, as that would remove old ones), and the machine a PATH with all that one may find there.
makeMachine()
{
    mkdir -p "$WINEPREFIX"
    timeout 300 wineboot -i </dev/null >"$work/wineboot.log" 2>&1 || return 1
    configuration=$(find "$WINEPREFIX/drive_c/users" -maxdepth 1 -mindepth 1 ! -name Public |
        head -n 1)/.norvanta-keywarden
    mkdir -p "$configuration/logs"
    printf 'p11File=C:\\none.dll\nlogLevel=INFO\nlogTypes=\nlogStore=~\\.norvanta-keywarden\\logs\nlogRotate=7\n' \
        >"$configuration/nvksprovider.conf"
    echo "a record" >"$configuration/logs/nvksprovider-20260101.log"
    # Without a window manager Wine waits two seconds for each dialog to be taken by one.
    windows reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /d N /f >/dev/null
    setPath REG_EXPAND_SZ '%SystemRoot%\system32;%SystemRoot%;C:\Tools (x86)\bin;'
    # Programs that the test itself uses leave their own traces in the registry only once.
    windows cmd /c exit
    settle
}

# setPath TYPE VALUE
setPath()
{
    windows reg add "$environmentKey" /v PATH /t "$1" /d "$2" /f >/dev/null
}

# registryValue KEY NAME: "TYPE VALUE"
registryValue()
{
    windows reg query "$1" /v "$2" | sed -n 's/^ *[^ ]* *\(REG_[A-Z_]*\) *\(.*\)$/\1 \2/p'
}

machinePath()
{
    registryValue "$environmentKey" PATH
}

# snapshot NAME: every file with its checksum, every folder, and the whole registry without its times.
snapshot()
{
    (cd "$WINEPREFIX/drive_c" && {
        find . -type f -exec sha256sum {} +
        # The folder of the uninstaller's copy, which is empty by now, is all that it leaves behind.
        find . -type d ! \( -path '*/Temp/~nsu*.tmp' -empty \) -printf '%p/\n'
    }) | LC_ALL=C sort -k 2 >"$work/$1.files"
    # Wine writes the entries of screen and graphics card anew each time.
    sed -e '/^#time=/d' -e '/^WINE REGISTRY/d' -e 's/^\(\[.*\]\) [0-9]*$/\1/' \
        "$WINEPREFIX/system.reg" "$WINEPREFIX/user.reg" |
        awk '/^\[/ { hardware = /Control\\\\Class\\\\\{4D36E9(68|6E)-/ } !hardware' \
            >"$work/$1.registry"
}

checkSameSnapshot()
{
    diff "$work/before.$1" "$work/after.$1" | sed -n 's/^[<>] /&/p' | head -n 12
}

# The files of a release.

checkSums()
{
    (cd "$package" && sha256sum --check --strict --quiet SHA256SUMS)
    same "the number of checksums" 3 "$(wc -l <"$package/SHA256SUMS")"
}

checkZip()
{
    unzip -q "$zip" -d "$work/zip" || return 1
    diff -rq "$package/stage" "$work/zip/keywarden-$version-win64" |
        grep -vE '^Only in .*: (INSTALL.txt|nvksprovider.dll.debug|keywarden.exe.debug)$' || true
    [ -s "$work/zip/keywarden-$version-win64/INSTALL.txt" ] || echo "no INSTALL.txt"
}

# checkSymbols FILE: gdb finds the symbols by the name in the file's section, and they name the sources
# without a path of the build machine.
checkSymbols()
{
    local folder=$work/zip/keywarden-$version-win64
    x86_64-w64-mingw32-objdump -s -j .gnu_debuglink "$folder/$1" >/dev/null 2>&1 ||
        echo "$1 does not name its symbols"
    x86_64-w64-mingw32-objdump -h "$folder/$1.debug" | grep -q ' .debug_info ' ||
        echo "$1.debug has no symbols"
    if grep -aqF -e "$root/provider/" -e "$root/tools/" -e "$root/build/" "$folder/$1.debug"; then
        echo "$1.debug has the path $root"
    fi
}

sbom()
{
    jq -er "$@" "$package/keywarden-$version.spdx.json"
}

checkSbomShape()
{
    sbom '.spdxVersion == "SPDX-2.3" and .dataLicense == "CC0-1.0" and .SPDXID == "SPDXRef-DOCUMENT"
        and (.documentNamespace | test("^https://[^#]+$")) and (.creationInfo.creators | length > 0)
        and (.creationInfo.created | test("^[0-9-]{10}T[0-9:]{8}Z$"))
        and all(.packages[]; .name and .versionInfo and .downloadLocation)
        and ([.packages[], .files[]] | map(.SPDXID) | (unique | length) == length)
        and all([.packages[], .files[]][]; .SPDXID | test("^SPDXRef-[A-Za-z0-9.-]+$"))' >/dev/null ||
        echo "not the shape of SPDX 2.3"
    # No relation leads nowhere.
    sbom '(([.packages[], .files[]] | map(.SPDXID)) + ["SPDXRef-DOCUMENT"]) as $known
        | [.relationships[] | .spdxElementId, .relatedSpdxElement] - $known | length == 0' \
        >/dev/null || echo "a relation to something that is not there"
}

checkSbomVersions()
{
    local name debian installed
    while read -r name debian; do
        installed=$(dpkg-query -W -f '${Version}' "$debian")
        same "the version of $name" "$installed" \
            "$(sbom --arg name "$name" '.packages[] | select(.name == $name) | .versionInfo')"
    done <<'COMPONENTS'
libstdc++ g++-mingw-w64-x86-64-posix
libgcc gcc-mingw-w64-x86-64-posix
winpthreads mingw-w64-x86-64-dev
CLI11 libcli11-dev
nlohmann-json nlohmann-json3-dev
COMPONENTS
    same "the product's version" "$version" \
        "$(sbom '.packages[] | select(.SPDXID == "SPDXRef-Product") | .versionInfo')"
}

checkSbomFiles()
{
    sbom '.files[] | (.checksums[] | select(.algorithm == "SHA256") | .checksumValue) + "  " +
        .fileName' >"$work/sbom.sums" || return 1
    (cd "$package/stage" && sha256sum --check --strict --quiet "$work/sbom.sums")
    same "the number of files" "$(find "$package/stage" -type f | wc -l)" \
        "$(wc -l <"$work/sbom.sums")"
}

# checkSignature FILE
checkSignature()
{
    osslsigncode verify -CAfile "$work/sign.pem" "$1" >"$work/verify.log" 2>&1 ||
        tail -n 3 "$work/verify.log"
}

checkTamperedSignature()
{
    cp "$1" "$work/tampered.exe"
    printf 'X' | dd of="$work/tampered.exe" bs=1 seek=4096 conv=notrunc status=none
    [ -n "$(checkSignature "$work/tampered.exe")" ] || echo "a changed byte is not noticed"
}

# Installed.

install()
{
    local status=0
    windows "$setup" /S >/dev/null || status=$?
    same "the exit code" "${1:-0}" "$status"
    timeout 120 wineserver -w
}

# What is in the product's folder and in the system's, and nothing else.
checkInstalledFiles()
{
    cmp "$package/stage/nvksprovider.dll" "$system/nvksprovider.dll"
    diff -rq "$package/stage" "$files" | grep -v -e "^Only in $package/stage: nvksprovider.dll$" \
        -e "^Only in $files: uninstall.exe$" || true
    [ -f "$files/uninstall.exe" ] || echo "no uninstaller"
}

checkPath()
{
    same "PATH" "$1" "$(machinePath)"
}

checkUninstallEntry()
{
    local name expected
    while IFS='|' read -r name expected; do
        same "$name" "$expected" "$(registryValue "$uninstallKey" "$name")"
    done <<ENTRIES
DisplayName|REG_SZ $product
DisplayVersion|REG_SZ $version
Publisher|REG_SZ Norvanta
InstallLocation|REG_SZ $folder
UninstallString|REG_SZ "$folder\\uninstall.exe"
QuietUninstallString|REG_SZ "$folder\\uninstall.exe" /S
NoModify|REG_DWORD 0x1
ENTRIES
}

checkStartMenu()
{
    local text
    text=$(tr -d '\0' <"$startMenu/Check KeyWarden.lnk") || return 1
    grep -qaF "/k \"\"$folder\\keywarden.exe\" check\"" <<<"$text" || echo "another command line"
    grep -qaF '%USERPROFILE%' <<<"$text" || echo "another folder"
    grep -qaiF 'C:\windows\system32\cmd.exe' <<<"$text" || echo "another program"
}

# By its bare name, as a new terminal finds it.
checkRuns()
{
    same "the version" "keywarden $version" "$(windows cmd /c keywarden --version)"
    windows cmd /c keywarden status | grep -qx "This system cannot report .*" ||
        echo "status: $(cat "$work/output")"
}

# There is no module beside the installed program; the configuration's library is not there.
checkUsesInstalledModule()
{
    local text
    text=$(timeout 60 wine cmd /c keywarden --json keys </dev/null 2>/dev/null | tr -d '\r') || true
    grep -q '"error": "opening the provider failed: ' <<<"$text" || echo "keys: $text"
}

checkStepRegistered()
{
    local text
    text=$(timeout 60 wine cmd /c keywarden --json check </dev/null 2>/dev/null) || true
    same "the outcome" skipped \
        "$(jq -r '.steps[] | select(.name == "registered") | .outcome' <<<"$text")"
}

checkRepair()
{
    echo "damaged" >"$system/nvksprovider.dll"
    rm "$files/keywarden.exe" "$files/README.md"
    install
    checkInstalledFiles
}

# Gone.

# The uninstaller goes on in a copy of itself, which the first process does not wait for.
uninstall()
{
    windows "$files/uninstall.exe" /S >/dev/null || echo "the uninstaller does not start"
    settle
}

# In this way of calling it is waited for, but cannot remove itself. The last argument must not have
# quotes, so a batch file says it.
checkRefusedUnregistration()
{
    local status=0
    printf '@start /wait "" "%s\\uninstall.exe" /S _?=%s\r\n@exit %%errorlevel%%\r\n' \
        "$folder" "$folder" >"$WINEPREFIX/drive_c/uninstall.bat"
    windows cmd /c 'C:\uninstall.bat' >/dev/null || status=$?
    rm "$WINEPREFIX/drive_c/uninstall.bat"
    # Wine has no function that takes a registration back.
    same "the exit code" 3 "$status"
    same "what is left" "uninstall.exe" "$(ls "$files")"
    rm -r "$files"
    timeout 120 wineserver -w
}

checkUserFiles()
{
    grep -qx 'p11File=C:\\none.dll' "$configuration/nvksprovider.conf" || echo "configuration"
    grep -qx "a record" "$configuration/logs/nvksprovider-20260101.log" || echo "log"
}

# nextWindow: waits for a window of the uninstaller that has not been there before. The title of the
# first one ends in a blank.
nextWindow()
{
    local id
    for _ in $(seq 300); do
        for id in $(xdotool search --onlyvisible --name "^$product Uninstall ?$" 2>/dev/null); do
            if [[ " $windowsSeen " != *" $id "* ]]; then
                windowsSeen+=" $id"
                sleep 0.5 # until it takes keys
                return 0
            fi
        done
        sleep 0.1
    done
    echo "no further window of the uninstaller"
    return 1
}

# uninstallOnThisScreen ANSWER: as a person would, by the keyboard. ANSWER is y or n.
uninstallOnThisScreen()
{
    windowsSeen=
    timeout 120 wine "$files/uninstall.exe" </dev/null >/dev/null 2>&1 &
    nextWindow || return 1
    xdotool key Return
    nextWindow || return 1 # the registration: Wine has no function that takes it back
    xdotool key Return
    nextWindow || return 1 # the configuration
    xdotool key "$1"
    for _ in $(seq 100); do # "Close" is there when all is done; until then the key does nothing
        sleep 0.3
        xdotool key Return
        xdotool search --onlyvisible --name "^$product Uninstall ?$" >/dev/null 2>&1 || break
    done
    timeout 120 wineserver -w
}

uninstallByHand()
{
    xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" "$0" --uninstall-on-this-screen "$1"
    [ ! -e "$files" ] || echo "the product's folder is still there"
}

# Another's file in the folder stays, and so does the folder then.
checkRemovedUserFiles()
{
    same "what is left" "$(printf '%s\n' . ./logs ./logs/notes.txt)" \
        "$(cd "$configuration" && find . | LC_ALL=C sort)"
}

# longPath LENGTH
longPath()
{
    # shellcheck disable=SC1003 # the backslash is of the path
    local text='C:\windows\system32;C:\Other programs\' filler
    printf -v filler '%*s' "$(($1 - ${#text}))" ''
    echo "$text${filler// /x}"
}

cleanUp()
{
    wineserver -k 2>/dev/null || true
}

if [ "${1:-}" = --uninstall-on-this-screen ]; then # this script calls itself so, below xvfb-run
    uninstallOnThisScreen "$2"
    exit
fi
if [ "$#" -ne 0 ]; then
    echo "usage: tests/package/installer_test.sh     (no arguments)" >&2
    exit 2
fi
if [ -d "$WINEPREFIX" ]; then
    cleanUp
fi
rm -rf "$work"
mkdir -p "$work"
trap cleanUp EXIT

check "a signed release is made" makeRelease
if [ "$failed" -ne 0 ]; then
    echo "installer: $passed passed, $failed failed; nothing to test"
    exit 1
fi
version=$(sed -n 's/^project(keywarden VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
setup=$package/keywarden-$version-setup.exe
zip=$package/keywarden-$version-win64.zip
check "checksums are right" checkSums
check "the ZIP has the files as shipped" checkZip
check "the ZIP has the symbols of the module" checkSymbols nvksprovider.dll
check "the ZIP has the symbols of keywarden.exe" checkSymbols keywarden.exe
check "the bill of materials is SPDX 2.3" checkSbomShape
check "the bill of materials has the installed versions" checkSbomVersions
check "the bill of materials has the files' checksums" checkSbomFiles
check "the installer is signed" checkSignature "$setup"
check "the module is signed" checkSignature "$package/stage/nvksprovider.dll"
check "keywarden.exe is signed" checkSignature "$package/stage/keywarden.exe"
check "a changed byte breaks the signature" checkTamperedSignature "$setup"

makeMachine
snapshot before
pathBefore=$(machinePath)

check "installs silently" install
check "installed: files" checkInstalledFiles
check "installed: PATH" checkPath "$pathBefore$folder;" # it ended in a semicolon
check "installed: entry among the programs" checkUninstallEntry
check "installed: Start menu" checkStartMenu
check "installed: the uninstaller is signed" checkSignature "$files/uninstall.exe"
check "installed: keywarden runs by its name" checkRuns
check "installed: keywarden uses the installed module" checkUsesInstalledModule
check "installed: check has the step on registration" checkStepRegistered
check "a second installation repairs" checkRepair
check "repaired: PATH has the folder once" checkPath "$pathBefore$folder;"
check "uninstalls silently" uninstall
snapshot after
check "uninstalled: files are as before" checkSameSnapshot files
check "uninstalled: the registry is as before" checkSameSnapshot registry
check "uninstalled: the user's files stay" checkUserFiles

# The installer's strings hold 1023 characters: the first PATH is too long by itself, the second with
# the folder.
setPath REG_EXPAND_SZ "$(longPath 2000)"
pathBefore=$(machinePath)
check "a long PATH: installs" install
check "a long PATH: is left as it is" checkPath "$pathBefore"
setPath REG_EXPAND_SZ "$(longPath 1000)"
pathBefore=$(machinePath)
check "a PATH without room: installs" install
check "a PATH without room: is left as it is" checkPath "$pathBefore"
check "a refused unregistration shows in the exit code" checkRefusedUnregistration
check "a PATH without room: is left by the uninstaller" checkPath "$pathBefore"
plainPath='C:\windows\system32;;C:\Tools' # with an empty entry, which stays as well
setPath REG_SZ "$plainPath"
check "a PATH of plain type: installs" install
check "a PATH of plain type: keeps its type" checkPath "REG_SZ $plainPath;$folder"
check "a PATH of plain type: uninstalls" uninstall
check "a PATH of plain type: is as before" checkPath "REG_SZ $plainPath"

check "by hand: installs" install
check "by hand: uninstalls, and keeps what it is told to keep" uninstallByHand n
check "by hand: the user's files stay" checkUserFiles
echo "another's" >"$configuration/logs/notes.txt"
check "by hand: installs again" install
check "by hand: uninstalls with the user's files" uninstallByHand y
check "by hand: the user's files are gone" checkRemovedUserFiles

echo "installer: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
