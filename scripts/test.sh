#!/bin/bash
# Everything that must hold before a change goes in: sets the machine up, checks the sources, builds
# for Windows and for this machine, runs all tests, checks the DLL and the installer. Run by people
# and by CI.
#   --full    the long way, about an hour: clang-tidy over all files, not only over those that changed;
#             the Windows tests three times more: on the module as it is shipped, with Wine's checks of
#             the heap, and those of threads and endurance with twenty times the rounds; each fuzz
#             target for two minutes instead of three seconds; the instructions that the hot paths take;
#             the installer and a new user's way from it to a verified signature
#   -R REGEX  only the tests whose names match, without lint and release checks, for work in progress
# The last line is "N passed, N failed". It counts the tests of both builds and the release checks; a
# stage that fails (setup, lint, build) and a test that could not be run count as failures too. The
# status is 1 if anything failed or if no test ran.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

presets=(windows host)
fuzzSeconds=3
passed=0
failed=0

# stage NAME COMMAND...: a stage that fails counts as one failure.
stage()
{
    timed "$@" && return 0
    failed=$((failed + 1))
    return 1
}

# finish: the last words, whatever happened before.
finish()
{
    [ "$((passed + failed))" -gt 0 ] || echo "no test ran"
    say "in all"
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}

# cleanUp: no process of this run and no Wine process of this tree outlives it; other trees' are not
# touched.
cleanUp()
{
    trap - EXIT INT TERM
    [ -z "$beside" ] || kill -- "-$beside" 2>/dev/null || true
    stopWine
}

interrupted()
{
    cleanUp
    echo "interrupted" >&2
    exit 130
}

configure()
{
    local preset=$1
    cmake --preset "$preset" >"$build/configure-$preset.log" 2>&1 || {
        cat "$build/configure-$preset.log" >&2
        return 1
    }
}

# compile PRESET: shows what the build says only if it fails; Ninja's steps would drown the rest.
compile()
{
    local preset=$1
    cmake --build --preset "$preset" -j2 >"$build/build-$preset.log" 2>&1 || {
        grep -v '^\[[0-9]*/[0-9]*\] ' "$build/build-$preset.log" >&2
        return 1
    }
}

# startWine: brings up the Wine processes that the tests share, for as long as the run lasts. Were the
# first test to start them, they would hold its output open and CTest would wait for them to end.
startWine()
{
    stopWine # one that an earlier run left would know an earlier screen
    wineserver -p </dev/null >/dev/null 2>&1
    # Services come with any program, the desktop's process with the first that asks for a window.
    wine rundll32 user32.dll,GetDesktopWindow </dev/null >/dev/null 2>&1
}

# runSuite NAME PRESET OPTIONS...: one run of CTest. Its results are left in build/tests-NAME.xml.
runSuite()
{
    local name=$1 preset=$2
    shift 2
    timed "tests: $name" ctest --preset "$preset" -j2 --output-on-failure --no-tests=error \
        --output-junit "$build/tests-$name.xml" "$@"
}

# runSuites REGEX FULL: all suites on one screen.
runSuites()
{
    local status=0 options=()
    # A name may well belong to one of the suites alone.
    [ -z "$1" ] || options=(--no-tests=ignore -R "$1")
    startWine
    runSuite windows windows "${options[@]}" || status=1
    runSuite host host "${options[@]}" || status=1
    if [ "$2" = yes ]; then
        KEYWARDEN_MODULE=Z:$build/windows/bin/nvksprovider.dll \
            runSuite shipped windows -L 'module|token' || status=1
        WINEDEBUG=-all,warn+heap runSuite heap windows --timeout 1800 || status=1
        KEYWARDEN_ROUNDS=20 runSuite rounds windows --timeout 3600 -R 'threads|soak' || status=1
    fi
    stopWine
    return "$status"
}

# onScreen COMMAND...: with a virtual screen of its own, on a display number that is free.
onScreen()
{
    xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" "$@"
}

# countSuite NAME: adds what the results say. Only a test that ran and passed counts as passed:
# skipped, disabled and not found ones are failures, or missing pieces would go unseen.
countSuite()
{
    local results=$build/tests-$1.xml all good
    if [ ! -s "$results" ]; then
        [ -z "$matching" ] || return 0
        echo "$1: no results were written"
        failed=$((failed + 1))
        return 0
    fi
    all=$(grep -c '<testcase ' "$results" || true)
    good=$(grep -c '<testcase .*status="run"' "$results" || true)
    echo "$1: $good of $all tests passed"
    sed -n 's/.*<testcase name="\([^"]*\)".*status="\([^"]*\)".*/\2 \1/p' "$results" |
        sed -n '/^run /!s/^/    not passed: /p'
    passed=$((passed + good))
    failed=$((failed + all - good))
}

# checks NAME COMMAND...: runs a script that prints "ok ..." or "FAIL ..." a check, and counts them.
checks()
{
    local name=$1 log=$build/${1// /-}.log status=0
    shift
    timed "$name" inLog "$log" "$@" || status=$?
    countChecks "$log" "$status"
}

# countChecks LOG STATUS: a run that broke off without its checks is a failure as well.
countChecks()
{
    local log=$1 status=$2 good bad
    good=$(grep -c '^ok ' "$log" || true)
    bad=$(grep -c '^FAIL ' "$log" || true)
    if [ "$status" -ne 0 ] && [ "$bad" -eq 0 ]; then
        bad=1
    fi
    passed=$((passed + good))
    failed=$((failed + bad))
}

# checksBeside: the checks that share nothing with the tests. They have a process group of their own and
# get what the tests leave of the processors, since those wait for Wine and for windows now and then.
checksBeside()
{
    renice -n 10 "$BASHPID" >/dev/null
    quietly "fuzzing" scripts/fuzz.sh "$fuzzSeconds"
    quietly "release checks" tests/dll/release_check.sh "$build/windows/bin/nvksprovider.dll"
}

# quietly NAME COMMAND...: as checks does, but leaves showing and counting to showChecks.
quietly()
{
    local log=$build/${1// /-}.log status=0
    rm -f "$log.status"
    timed "$@" >"$log" 2>&1 || status=$?
    echo "$status" >"$log.status"
}

# showChecks NAME: what the checks said in their own time.
showChecks()
{
    local log=$build/${1// /-}.log
    cat "$log"
    countChecks "$log" "$(cat "$log.status" || echo 1)"
}

# inLog FILE COMMAND...: shows the output and keeps it.
inLog()
{
    local log=$1
    shift
    "$@" 2>&1 | tee "$log"
}

main()
{
    local preset name builtAll=yes
    stage "setup" scripts/setup.sh || return 0
    for preset in "${presets[@]}"; do
        stage "configure $preset" configure "$preset" || return 0
    done
    if [ -z "$matching" ]; then
        if [ "$full" = yes ]; then
            stage "lint" scripts/lint.sh --full || true
        else
            stage "lint" scripts/lint.sh || true
        fi
    fi
    for preset in "${presets[@]}"; do
        stage "build $preset" compile "$preset" || builtAll=no
    done
    # Half a build would run old tests.
    [ "$builtAll" = yes ] || return 0

    if [ -z "$matching" ]; then
        set -m
        checksBeside &
        beside=$!
        set +m
    fi
    rm -f "$build"/tests-*.xml
    timed "tests" onScreen "$0" --suites-on-this-screen "$matching" "$full" || true
    for name in "${suites[@]}"; do
        countSuite "$name"
    done

    if [ -z "$matching" ]; then
        wait "$beside" || true
        beside=
        showChecks "fuzzing"
        showChecks "release checks"
        checks "time lines" tests/tool/html_test.sh
        checks "pages" tests/tool/pages_test.sh
        if [ "$full" = yes ]; then
            checks "instruction counts" scripts/instructions.sh
            checks "installer" tests/package/installer_test.sh
            checks "new user" tests/tool/new_user.sh
        fi
    fi
}

matching=
full=no
beside= # the process group of what runs beside the tests
suites=(windows host)
while [ "$#" -gt 0 ]; do
    case $1 in
        --full)
            full=yes
            suites=(windows host shipped heap rounds)
            fuzzSeconds=120
            ;;
        -R)
            matching=${2:?-R needs a regular expression}
            shift
            ;;
        --suites-on-this-screen) # this script calls itself so, below xvfb-run
            runSuites "$2" "$3"
            exit
            ;;
        *)
            echo "usage: scripts/test.sh [--full] [-R REGEX]" >&2
            exit 2
            ;;
    esac
    shift
done

mkdir -p "$build"
exec 8>"$build/test.lock"
if ! flock -n 8; then
    echo "test.sh: another run is under way in this tree" >&2
    exit 1
fi
trap cleanUp EXIT
trap interrupted INT TERM
main 8>&- # what runs below must not hold the lock on after this script
cleanUp
finish
