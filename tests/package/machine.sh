# What the tests of the packages share: a Windows machine of their own under Wine, and what they look at on it.
# A script sets `area`, its folder in build/, before it sources this file; it is never run.
# CNG keeps no registrations under Wine, so what comes of them is not seen in these tests.
# shellcheck shell=bash
# shellcheck disable=SC2034 # the variables without a use in this file are for the scripts

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$root/build/${area:?} # made afresh by each run
package=$root/build/package
signing=$root/build/package-signing # the certificate that release_test.sh signs with
version=$(sed -n 's/^project(keywarden VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
laterVersion=9.8.7
setup=$package/keywarden-$version-setup.exe
msi=$package/keywarden-$version-x64.msi
. "$root/tests/support/checks.sh"

export WINEPREFIX=$work/wine WINEDEBUG=-all
# Without the last one, the shortcut would become an entry of this machine's own menu.
export WINEDLLOVERRIDES='mscoree,mshtml=;winemenubuilder.exe=d'

product="Norvanta KeyWarden"
folder="C:\\Program Files\\$product"
files="$WINEPREFIX/drive_c/Program Files/$product"
system=$WINEPREFIX/drive_c/windows/system32
environmentKey='HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\Environment'
uninstallKey='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\NorvantaKeyWarden'

# same WHAT EXPECTED FOUND
same()
{
    [ "$2" = "$3" ] || echo "$1 is \"$3\", expected \"$2\""
}

windowsPath()
{
    echo "Z:${1//\//\\}"
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

# exitCode COMMAND-LINE: runs it as a batch file would, where a program's code has all its bits.
exitCode()
{
    printf '@start /wait "" %s\r\n@echo %%errorlevel%%\r\n' "$1" >"$WINEPREFIX/drive_c/run.bat"
    windows cmd /c 'C:\run.bat' | tail -n 1
    rm "$WINEPREFIX/drive_c/run.bat"
}

# settle: waits until all Windows processes have ended and the registry is on disk. Then starts
# Windows once more, as files that were in use go with its next start.
settle()
{
    timeout 120 wineserver -w
    timeout 120 wineboot </dev/null >/dev/null 2>&1 || true
    timeout 120 wineserver -w
}

# The user has a configuration and logs (but logs no more, as that would remove old ones), and the machine a
# PATH with all that one may find there.
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


checkUserFiles()
{
    grep -qx 'p11File=C:\\none.dll' "$configuration/nvksprovider.conf" || echo "configuration"
    grep -qx "a record" "$configuration/logs/nvksprovider-20260101.log" || echo "log"
}

# What an installation can write for all users: the value of a key, or "none" without the file.
sharedValue()
{
    local file=$system/nvksprovider.conf
    [ -f "$file" ] && sed -n "s/^$1=//p" "$file" || echo none
}

checkSharedConfiguration()
{
    local key expected
    while IFS='=' read -r key expected; do
        same "$key" "$expected" "$(sharedValue "$key")"
    done
}

checkStartMenu()
{
    local link text
    link=$(find "$WINEPREFIX/drive_c" -path '*/Start Menu/*' -name 'Check KeyWarden.lnk')
    text=$(tr -d '\0' <"$link") || return 1
    grep -qaF "/k \"\"$folder\\keywarden.exe\" check\"" <<<"$text" || echo "another command line"
    grep -qaiF 'C:\windows\system32\cmd.exe' <<<"$text" || echo "another program"
}

# By its bare name, as a new terminal finds it.
checkRuns()
{
    same "the version" "keywarden $version" "$(windows cmd /c keywarden --version)"
    windows cmd /c keywarden status | grep -qx "This system cannot report .*" ||
        echo "status: $(cat "$work/output")"
}

# whileInUse COMMAND...: while programs run that have loaded the module and keywarden.exe.
whileInUse()
{
    local hold=$work/hold
    rm -f "$hold".*
    mkfifo "$hold.input"
    timeout 100 wine "$root/build/windows/bin/hold_module.exe" 'C:\windows\system32\nvksprovider.dll' \
        <"$hold.input" >"$hold.module" 2>/dev/null &
    exec 9>"$hold.input"
    timeout 100 wine "$files/keywarden.exe" log --follow <"$hold.input" >"$hold.program" 2>/dev/null &
    for _ in $(seq 100); do
        [ -s "$hold.module" ] && [ -s "$hold.program" ] && break
        sleep 0.1
    done
    [ -s "$hold.module" ] && [ -s "$hold.program" ] || echo "the programs do not start"
    "$@"
    exec 9>&-
    kill "$!" 2>/dev/null || true
    wait
}

# Nothing is left of files that were in use, after the next start.
checkNoLeftovers()
{
    find "$system" "$files" -maxdepth 1 -name 'ns*.tmp' 2>/dev/null || true
}

endMachine()
{
    wineserver -k 2>/dev/null || true
}

# checkSignature FILE
checkSignature()
{
    osslsigncode verify -CAfile "$signing/sign.pem" "$1" >"$work/verify.log" 2>&1 ||
        tail -n 3 "$work/verify.log"
}

# makeLater FOLDER: the files of a later version, whose programs have other bytes behind their images.
makeLater()
{
    cp -r "$package/stage" "$1"
    echo "later" | tee -a "$1/keywarden.exe" >>"$1/nvksprovider.dll"
}

# startMachine: the folder of the script afresh, and the end of its Windows with the script's.
startMachine()
{
    [ ! -d "$WINEPREFIX" ] || endMachine
    rm -rf "$work"
    mkdir -p "$work"
    trap endMachine EXIT
    if [ ! -s "$setup" ] || [ ! -s "$msi" ]; then
        echo "There is no release in build/package; scripts/package.sh makes it." >&2
        exit 1
    fi
    makeMachine
}
