#!/bin/bash
# A virtual screen for the tests. The server chooses a free display number itself, so that two runs at
# the same time do not get the same one.
#   screen.sh start FOLDER    starts a screen and writes its display to FOLDER/display
#   screen.sh stop FOLDER     ends that screen
#   screen.sh run COMMAND...  runs a command on a screen of its own
# CTest calls "start" and "stop" (see CMakeLists.txt); the first process that calls them is CTest.
set -euo pipefail

# startScreen FOLDER: CTest would wait for a process that has its output open, so the server has none.
startScreen()
{
    local folder=$1 screen tries
    mkdir -p "$folder"
    rm -f "$folder/display" "$folder/number"
    setsid Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp \
        3>"$folder/number" </dev/null >"$folder/screen.log" 2>&1 &
    screen=$!
    echo "$screen" >"$folder/screen.pid"
    for ((tries = 0; tries < 300; tries++)); do
        if [ -s "$folder/number" ]; then
            echo ":$(cat "$folder/number")" >"$folder/display"
            return 0
        fi
        kill -0 "$screen" 2>/dev/null || break
        sleep 0.1
    done
    stopScreen "$folder"
    echo "screen.sh: Xvfb did not start:" >&2
    cat "$folder/screen.log" >&2
    return 1
}

# isScreen PID: the id may belong to another process by now.
isScreen()
{
    [ "$(cat "/proc/$1/comm" 2>/dev/null)" = Xvfb ]
}

# stopScreen FOLDER: ends the server by its id, and waits until it is gone.
stopScreen()
{
    local folder=$1 screen tries
    rm -f "$folder/display"
    [ -e "$folder/screen.pid" ] || return 0
    screen=$(cat "$folder/screen.pid")
    if isScreen "$screen"; then
        kill "$screen" 2>/dev/null || true
        for ((tries = 0; tries < 50; tries++)); do
            isScreen "$screen" || break
            sleep 0.1
        done
    fi
    rm -f "$folder/screen.pid"
}

# expectFree FOLDER: fails while another CTest works with the folder's screen. What an interrupted run
# left is ended.
expectFree()
{
    local owner
    owner=$(cat "$1/owner" 2>/dev/null || true)
    if [ -n "$owner" ] && [ "$owner" != "$PPID" ] &&
        [ "$(cat "/proc/$owner/comm" 2>/dev/null)" = ctest ]; then
        echo "screen.sh: another run of the tests works in this build (process $owner)" >&2
        return 1
    fi
    stopScreen "$1"
}

runOnScreen()
{
    local folder status=0
    folder=$(mktemp -d)
    # shellcheck disable=SC2064 # the folder of now
    trap "stopScreen '$folder'; rm -rf '$folder'" EXIT
    startScreen "$folder"
    DISPLAY=$(cat "$folder/display") "$@" || status=$?
    return "$status"
}

case ${1:-} in
    start)
        expectFree "${2:?a folder}"
        startScreen "$2"
        echo "$PPID" >"$2/owner"
        ;;
    stop)
        stopScreen "${2:?a folder}"
        rm -f "$2/owner"
        ;;
    run)
        shift
        runOnScreen "$@"
        ;;
    *)
        echo "usage: screen.sh start FOLDER | stop FOLDER | run COMMAND..." >&2
        exit 2
        ;;
esac
