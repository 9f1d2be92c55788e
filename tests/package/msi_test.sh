#!/bin/bash
# The life of the Windows Installer package under Wine, in a prefix of its own: msiexec installs it silently,
# repairs, upgrades, refuses to go back, rolls back and removes it, with the module free and in use; files and
# registry are compared with those before. Run by scripts/test.sh --full and by people who change the package;
# release_test.sh makes the release first.
# Prints "ok NAME" or "FAIL NAME: reason" a check, then the counts; the status is 1 if any failed.
set -euo pipefail
area="msi-test"
. "$(dirname "$0")/machine.sh"
unset DISPLAY

productKeys='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
refused=1603    # ERROR_INSTALL_FAILURE
rolledBack=1627 # ERROR_FUNCTION_FAILED, as Wine says it; Windows says 1603

# msiexec CODE ARGUMENTS: silently; the arguments as a command line has them. What it logs is in $work/msi.log.
msiexec()
{
    same "the exit code" "$1" "$(exitCode "msiexec $2 /qn /l*v $(windowsPath "$work/msi.log")")"
    timeout 120 wineserver -w
}

# install [PROPERTIES [CODE [PACKAGE]]]
install()
{
    msiexec "${2:-0}" "/i $(windowsPath "${3:-$msi}") ${1:-}"
}

# Wine's msiexec has no /f; this is what it stands for.
repair()
{
    install "REINSTALL=ALL REINSTALLMODE=amus $*"
}

remove()
{
    msiexec 0 "/x $(windowsPath "${1:-$msi}")"
}

# checkInstalledFiles [STAGE]
checkInstalledFiles()
{
    local stage=${1:-$package/stage}
    cmp "$stage/nvksprovider.dll" "$system/nvksprovider.dll"
    diff -rq "$stage" "$files" | grep -v "^Only in $stage: nvksprovider.dll$" || true
}

checkNothingInstalled()
{
    [ ! -e "$files" ] || echo "the product's folder is there"
    [ ! -e "$system/nvksprovider.dll" ] || echo "the module is there"
    [ ! -e "$system/nvksprovider.conf" ] || echo "the configuration of all users is there"
}

# checkListed VERSION: once, with what an inventory reads.
checkListed()
{
    windows reg query "$productKeys" /s >"$work/listed"
    same "the versions" "DisplayVersion    REG_SZ    $1" \
        "$(grep -A 20 "DisplayName.*$product" "$work/listed" | sed -n 's/^ *\(DisplayVersion.*\)/\1/p')"
    grep -qF "InstallLocation    REG_SZ    $folder" "$work/listed" || echo "no location"
}

# Wine leaves the separators of a folder that it removed.
plainPath()
{
    machinePath | sed -e 's/;;*/;/g' -e 's/;$//'
}

checkPath()
{
    same "PATH" "$1" "$(plainPath)"
}

checkSameRegistry()
{
    sed -i '/^"PATH"=/s/;*"$/"/' "$work"/{before,after}.registry
    checkSameSnapshot registry
}

damageAndRepair()
{
    echo "damaged" >"$system/nvksprovider.dll"
    rm "$files/keywarden.exe" "$files/README.md"
    repair "$@"
    checkInstalledFiles
}

# An action that fails after the registration: the configuration cannot be written.
checkRollback()
{
    install 'P11FILE=C:\odd.dll LOGTYPES=odd' $rolledBack
    checkNothingInstalled
}

# The installer and the package refuse each other.
checkBesideInstaller()
{
    same "the installer's exit code" 0 "$(exitCode "$(windowsPath "$setup") /S")"
    install "" $refused
    windows "$files/uninstall.exe" /S >/dev/null || true
    settle
    checkNothingInstalled
    install
    same "the installer's exit code" 2 "$(exitCode "$(windowsPath "$setup") /S")"
    checkInstalledFiles
    remove
}

startMachine
laterStage=$work/later
laterMsi=$work/later.msi
makeLater "$laterStage"
"$root/packaging/msi.sh" "$laterVersion" "$laterStage" "$laterMsi"
# The installer of Windows itself leaves its own traces only once.
install >/dev/null
remove >/dev/null
setPath REG_EXPAND_SZ '%SystemRoot%\system32;%SystemRoot%;C:\Tools (x86)\bin'
settle
snapshot before
pathBefore=$(plainPath)

check "refuses an unknown mode" install 'P11FILE=C:\odd.dll MODE=odd' $refused
check "refuses properties without a library" install LOGTYPES=FILE $refused
check "refused: nothing is installed" checkNothingInstalled
check "installs silently" install
check "installed: files" checkInstalledFiles
check "installed: PATH" checkPath "$pathBefore;$folder\\"
check "installed: entry among the programs" checkListed "$version"
check "installed: Start menu" checkStartMenu
check "installed: keywarden runs by its name" checkRuns
check "installed: writes no configuration of its own accord" same configuration none "$(sharedValue p11File)"
check "a repair restores what is damaged" damageAndRepair
check "is removed silently" remove
settle
snapshot after
check "removed: files are as before" checkSameSnapshot files
check "removed: the registry is as before" checkSameRegistry
check "removed: the user's files stay" checkUserFiles

check "for all users: installs" install \
    'P11FILE="C:\Odd vendor\odd.dll" MODE=classic LOGTYPES=FILE,CONSOLE LOGSTORE="~\odd logs\" LOGROTATE=3'
check "for all users: their configuration" checkSharedConfiguration <<'VALUES'
p11File=C:\Odd vendor\odd.dll
mode=classic
logTypes=FILE,CONSOLE
logStore=~\odd logs\
logRotate=3
VALUES
check "a repair takes no properties" damageAndRepair 'P11FILE=C:\other.dll'
check "repaired: the configuration is as before" checkSharedConfiguration <<<'p11File=C:\Odd vendor\odd.dll'
check "upgrades" install "" 0 "$laterMsi"
check "upgraded: the later version alone" checkListed "$laterVersion"
check "upgraded: files" checkInstalledFiles "$laterStage"
check "upgraded: PATH has the folder once" checkPath "$pathBefore;$folder\\"
check "refuses to go back" install "" $refused
check "refused: still the later version" checkListed "$laterVersion"
check "refused: files" checkInstalledFiles "$laterStage"
check "removes the later version" remove "$laterMsi"
check "removed: nothing is installed" checkNothingInstalled
# Wine does not tell the old version's removal that it is a part of an upgrade, so the new one is told again.
check "an upgrade takes properties" install 'P11FILE=C:\other.dll' 0 "$laterMsi"
check "upgraded: the configuration" checkSharedConfiguration <<<'p11File=C:\other.dll'
remove "$laterMsi" >/dev/null

check "rolls back when the configuration cannot be written" checkRollback
check "neither the installer nor the package installs over the other" checkBesideInstaller
install >/dev/null
check "in use: upgrades" whileInUse install "" 3010 "$laterMsi"
settle
check "in use: files are new after the next start" checkInstalledFiles "$laterStage"
check "in use: no leftovers" checkNoLeftovers

echo "msi: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
