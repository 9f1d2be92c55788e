# Shared by the shell tests of this folder: programs beside the router, with the module registered, in
# each behaviour. Sourced by these tests after `area` is set, never run. It brings the shared parts of the
# tests that run keywarden with it.
# shellcheck shell=bash

# shellcheck source=tests/support/keywarden.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/keywarden.sh"

routerFolder=$windows/router
program=$routerFolder/keywarden.exe
# Programs that do not know --profile find the same configuration.
profile=$WINEPREFIX/drive_c/users/$(id -un)
providers=$work/providers

# holdDesktop: dialogs need a desktop, which Wine may be closing between two programs. What holds it ends
# with the Wine processes of this script.
holdDesktop()
{
    wine "$routerFolder/desktop_holder.exe" </dev/null >/dev/null 2>&1 &
}

# useRouter [MODULE]: registers the module for all programs that follow, and holds the desktop for them.
useRouter()
{
    local module=${1:-$windows/bin/nvksprovider.dll}
    echo "Norvanta Software KeyStore Provider=$(windowsPath "$module")" >"$providers"
    KEYWARDEN_ROUTER_PROVIDERS=$(windowsPath "$providers")
    export KEYWARDEN_ROUTER_PROVIDERS
    export WINEDLLOVERRIDES='mscoree,mshtml=;ncrypt=n'
    holdDesktop
}

# useBehaviour NAME: writes the configuration for the token, classic or modern.
useBehaviour()
{
    local file=$profile/.norvanta-keywarden/nvksprovider.conf
    if [ ! -e "$file" ]; then
        keywarden init --p11 "$(windowsPath "$windows/winelib/p11bridge.dll")" || return 1
    fi
    sed -i '/^ *mode *=/d' "$file"
    echo "mode=$1" >>"$file"
}

# answeringEach ANSWERS COMMAND...: a command that shows the dialog once for each word of ANSWERS, which
# is "pin", "wrong" or "cancel". Its status is returned; 99 if a dialog did not come.
answeringEach()
{
    local answers=$1 answer worker window last='' status=0
    shift
    "$@" &
    worker=$!
    for answer in $answers; do
        while window=$(dialogOf "$worker") && [ "$window" = "$last" ]; do
            sleep 0.05 # the one before is still there
        done
        if [ -z "$window" ]; then
            wait "$worker" || true
            return 99
        fi
        case $answer in
            pin) answer="enter $pin" ;;
            wrong) answer="enter not-the-pin" ;;
        esac
        answerDialog "$window" "" "$answer" || return 99
        last=$window
    done
    wait "$worker" || status=$?
    return "$status"
}
