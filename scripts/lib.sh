# shellcheck shell=bash
# Pieces that the scripts of this folder share: where things are, how steps are reported, how a preset is
# built. Sourced, not run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build

# The prefix that cmake/run-under-wine uses; one for each tree, so that nobody's own is touched.
export WINEPREFIX=${KEYWARDEN_WINEPREFIX:-$build/wine}
export WINEDEBUG=${WINEDEBUG:--all}
# Neither .NET nor HTML is needed; without this, Wine asks whether to download them.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

# A script that another one calls goes on with the caller's clock.
export KEYWARDEN_BEGUN=${KEYWARDEN_BEGUN:-$EPOCHSECONDS}

# say TEXT: one line of progress, with the seconds since the run began.
say()
{
    printf '[%4ds] %s\n' "$((EPOCHSECONDS - KEYWARDEN_BEGUN))" "$*"
}

# timed NAME COMMAND...: runs a stage and says how long it took; the stage's status is returned.
# A stage that is a shell function must report its own failures: "set -e" is off inside it.
timed()
{
    local name=$1 begun=$SECONDS status=0
    shift
    say "$name ..."
    "$@" || status=$?
    if [ "$status" -eq 0 ]; then
        say "$name: done in $((SECONDS - begun)) s"
    else
        say "$name: FAILED (status $status) after $((SECONDS - begun)) s"
    fi
    return "$status"
}

# configure PRESET, compile PRESET OPTIONS...: what the tools say is in build/configure-PRESET.log and
# build/build-PRESET.log, and shown only if they fail; Ninja's steps would drown the rest.
configure()
{
    cmake --preset "$1" >"$build/configure-$1.log" 2>&1 && return 0
    cat "$build/configure-$1.log" >&2
    return 1
}

compile()
{
    cmake --build --preset "$@" >"$build/build-$1.log" 2>&1 && return 0
    grep -v '^\[[0-9]*/[0-9]*\] ' "$build/build-$1.log" >&2
    return 1
}

# stopWine: ends the Wine processes of this tree's prefix, and of no other.
stopWine()
{
    [ -d "$WINEPREFIX" ] || return 0
    wineserver -k 2>/dev/null || true
    wineserver -w 2>/dev/null || true
}
