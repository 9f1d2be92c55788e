# shellcheck shell=bash
# The PIN dialog, answered by xdotool as a person would. Sourced by demo.sh and by the tests of the
# command line tool; not run by itself. The screen must show no other dialog of that title.

dialogTitle="Norvanta Software KeyStore Provider Logon"

# dialogOf PID: waits until the dialog of that process is there and prints its window; fails when the
# process ends without one.
dialogOf()
{
    local window
    while kill -0 "$1" 2>/dev/null; do
        window=$(xdotool search --onlyvisible --name "$dialogTitle" 2>/dev/null | head -n 1) || true
        if [ -n "$window" ]; then
            echo "$window"
            return 0
        fi
        sleep 0.05
    done
    return 1
}

# answerDialog WINDOW PICTURE ANSWER: "enter TEXT" types it and presses Return, "cancel" Escape. The
# picture is taken in between; an empty name takes none.
answerDialog()
{
    local window=$1 picture=$2 answer=$3
    # On the dialog's margin, for the screen's focus; the dialog gives its own to the field.
    xdotool mousemove --window "$window" 5 45 click 1
    if [ "$answer" = cancel ]; then
        xdotool key Escape
        return
    fi
    answer=${answer#enter }
    [ -z "$answer" ] || xdotool type --delay 10 "$answer"
    if [ -n "$picture" ]; then
        sleep 0.3 # the last character is drawn
        import -window root "$picture" || return 1
    fi
    xdotool key Return
}

# answering PICTURE ANSWER COMMAND...: a command that shows the dialog once. Its status is returned;
# 99 when no dialog came or it could not be answered.
answering()
{
    local picture=$1 answer=$2 worker window status=0
    shift 2
    "$@" &
    worker=$!
    if ! window=$(dialogOf "$worker"); then
        wait "$worker" || true
        return 99
    fi
    if ! answerDialog "$window" "$picture" "$answer"; then
        kill "$worker" 2>/dev/null || true
        wait "$worker" || true
        return 99
    fi
    wait "$worker" || status=$?
    return "$status"
}
