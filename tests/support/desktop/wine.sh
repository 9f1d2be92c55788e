#!/bin/bash
# The Wine processes that the tests share, in the prefix of this tree.
#   wine.sh start FOLDER  starts them on the screen whose display is in FOLDER/display
#   wine.sh stop          ends them; those of other prefixes are not touched
# If the first test started them, they would have its output open, and CTest would wait for them.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/../../../scripts/lib.sh"

startWine()
{
    local display
    if [ ! -e "$WINEPREFIX/system.reg" ]; then
        echo "wine.sh: there is no Wine prefix in $WINEPREFIX; scripts/setup.sh makes it" >&2
        return 1
    fi
    display=$(cat "$1/display")
    stopWine # one that an earlier run left would know an earlier screen
    export DISPLAY=$display
    wineserver -p </dev/null >/dev/null 2>&1
    # Services come with any program, the desktop's process with the first that asks for a window.
    setsid wine rundll32 user32.dll,GetDesktopWindow </dev/null >/dev/null 2>&1
}

case ${1:-} in
    start) startWine "${2:?the folder of the screen}" ;;
    stop) stopWine ;;
    *)
        echo "usage: wine.sh start FOLDER | stop" >&2
        exit 2
        ;;
esac
