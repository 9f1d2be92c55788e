#!/bin/bash
# The life of the installer under Wine, in a prefix of its own: it installs silently, repairs, upgrades, moves,
# and is removed, with the module free and in use; files and registry are compared with those before. It is
# also removed by the keyboard on a virtual screen. Run by scripts/test.sh --full and by people who change the
# installer; release_test.sh makes the release first.
# Prints "ok NAME" or "FAIL NAME: reason" a check, then the counts; the status is 1 if any failed.
set -euo pipefail
area="package-test"
. "$(dirname "$0")/machine.sh"
[ "${1:-}" = --uninstall-on-this-screen ] || unset DISPLAY

# install [CODE [SETUP]]
install()
{
    same "the exit code" "${1:-0}" "$(exitCode "$(windowsPath "${2:-$setup}") /S")"
    timeout 120 wineserver -w
}

# refuses TEXT PARAMETER...: the installer says so and changes nothing.
refuses()
{
    local text=$1 status=0
    shift
    windows "$setup" /S "$@" >"$work/refused" || status=$?
    same "the exit code" 2 "$status"
    grep -qF "$text" "$work/refused" || cat "$work/refused"
}

checkHelp()
{
    local parameter
    windows "$setup" '/?' >"$work/help" || echo "the exit code is $?"
    for parameter in /S /P11FILE= /MODE= /LOGTYPES= /LOGSTORE= /LOGROTATE= /D=; do
        grep -q "^$parameter" "$work/help" || echo "no $parameter"
    done
    [ ! -e "$files" ] || echo "something is installed"
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
    nextWindow || return 1 # the certificates
    xdotool key "$1"
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

# installFor PARAMETERS: as a command line has them.
installFor()
{
    same "the exit code" 0 "$(exitCode "$(windowsPath "$setup") /S $1")"
    timeout 120 wineserver -w
}

sameVersion()
{
    same "the version" "REG_SZ $1" "$(registryValue "$uninstallKey" DisplayVersion)"
}

# moveTo FOLDER: the last parameter, without quotes.
moveTo()
{
    same "the exit code" 0 "$(exitCode "$(windowsPath "$laterSetup") /S /D=$1")"
    timeout 120 wineserver -w
    same "the folder" "REG_SZ $1" "$(registryValue "$uninstallKey" InstallLocation)"
}

# checkLaterPrograms FOLDER: also while the old ones are still in use.
checkLaterPrograms()
{
    cmp "$laterStage/keywarden.exe" "$1/keywarden.exe"
    cmp "$laterStage/nvksprovider.dll" "$system/nvksprovider.dll"
}

checkMoved()
{
    [ ! -e "$files" ] || echo "the old folder is still there"
    checkLaterPrograms "$WINEPREFIX/drive_c/Moved"
}

uninstallInUse()
{
    windows "$files/uninstall.exe" /S >/dev/null || echo "the uninstaller does not start"
    for _ in $(seq 100); do
        [ -e "$files/uninstall.exe" ] || return 0
        sleep 0.2
    done
    echo "the uninstaller does not come to its end"
}

checkRemoved()
{
    checkNoLeftovers
    [ ! -e "$system/nvksprovider.dll" ] || echo "the module is still there"
    [ ! -e "$system/nvksprovider.conf" ] || echo "the configuration of all users is still there"
    [ ! -e "$files" ] || echo "the product's folder has $(ls "$files")"
}

if [ "${1:-}" = --uninstall-on-this-screen ]; then # this script calls itself so, below xvfb-run
    uninstallOnThisScreen "$2"
    exit
fi
if [ "$#" -ne 0 ]; then
    echo "usage: tests/package/installer_test.sh     (no arguments)" >&2
    exit 2
fi
startMachine
laterStage=$work/later
laterSetup=$work/later-setup.exe
makeLater "$laterStage"
"$root/packaging/setup.sh" "$laterVersion" "$laterStage" "$laterSetup"
snapshot before
pathBefore=$(machinePath)

check "shows its parameters" checkHelp
check "refuses an unknown parameter" refuses "Unknown parameter: /ODD" /ODD
check "refuses an unknown mode" refuses "Unknown parameter: /MODE=odd" '/P11FILE=C:\odd.dll' /MODE=odd
check "refuses a mode without a library" refuses "need /P11FILE" /MODE=modern
snapshot after
check "refused: files are as before" checkSameSnapshot files
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

check "for all users: installs" installFor '/P11FILE="C:\Odd vendor\odd.dll" /MODE=classic /LOGSTORE=C:\Logs\ /LOGROTATE=3'
check "for all users: their configuration" checkSharedConfiguration <<'VALUES'
p11File=C:\Odd vendor\odd.dll
mode=classic
logTypes=FILE
logStore=C:\Logs\
logRotate=3
VALUES
check "upgrades" install 0 "$laterSetup"
check "upgraded: the later version" sameVersion "$laterVersion"
check "upgraded: keeps the configuration of all users" checkSharedConfiguration <<<'p11File=C:\Odd vendor\odd.dll'
check "refuses to go back" refuses "A newer version of $product is installed: $laterVersion"
check "refused: still the later version" sameVersion "$laterVersion"
check "moves" moveTo 'C:\Moved'
check "moved: nothing is left where it was" checkMoved
check "moved: PATH" checkPath "${pathBefore}C:\\Moved;"
check "moved: keeps the configuration of all users" checkSharedConfiguration <<<'p11File=C:\Odd vendor\odd.dll'
check "moves back" moveTo "$folder"
check "in use: uninstalls" whileInUse uninstallInUse
settle
check "in use: nothing is left after the removal" checkRemoved
snapshot after
check "uninstalled again: files are as before" checkSameSnapshot files
check "uninstalled again: the registry is as before" checkSameSnapshot registry
check "in use: installs" install
check "in use: upgrades the module and the program" whileInUse install 3010 "$laterSetup"
check "in use: the new ones are in place" checkLaterPrograms "$files"
settle
check "in use: nothing is left after the next start" checkNoLeftovers
check "uninstalls the later version" uninstall

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
