#!/bin/bash
# Everything that must pass before a change goes in: sets the machine up, checks the sources, builds for
# Windows, and the module's core for this machine with sanitizers and coverage; runs the tests of both by
# CTest, and the fuzz targets. Run by people and by CI.
#   --full    the long way, about an hour and a half: clang-tidy over all files, not only over those that
#             changed; for this machine, the portable parts by GCC, and the check of data races; on Windows
#             the tests of the configuration "full" as well: the module's objects, the installer, and a new
#             user's way from it to a verified signature; the Windows tests three times more: on the module
#             as it is shipped, with Wine's checks of the heap, and those of threads and endurance with
#             twenty times the rounds; each fuzz target for two minutes instead of one second, the one of
#             the calls for ten; the instructions that the hot paths take
#   -R REGEX  only the tests whose names match, without lint and fuzzing, for work in progress
# The last line is "N passed, N failed". It counts the tests of all builds; a stage that fails (setup,
# lint, build) and a test that could not be run count as failures too. The status is 1 if anything failed
# or if no test ran.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

presets=(windows sanitized)
fuzzSeconds=1
passed=0
failed=0

# These share nothing with the other tests and keep a processor busy, so they run beside them, as what is
# not for Windows does.
besideTests='^release_checks$'

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
# touched. CTest ends its screen and its Wine server, unless it was interrupted.
cleanUp()
{
    trap - EXIT INT TERM
    [ -z "$beside" ] || kill -- "-$beside" 2>/dev/null || true
    tests/support/desktop/wine.sh stop
    tests/support/desktop/screen.sh stop "$build/windows/test-screen"
}

interrupted()
{
    cleanUp
    echo "interrupted" >&2
    exit 130
}

# runSuite NAME PRESET OPTIONS...: one run of CTest, with one test more at a time than there are processors,
# because tests wait for dialogs. Its results are left in build/tests-NAME.xml.
runSuite()
{
    local name=$1 preset=$2 status=0
    shift 2
    timed "tests: $name" ctest --preset "$preset" -j"$(($(nproc) + 1))" --output-on-failure \
        --no-tests=error --output-junit "$build/tests-$name.xml" "$@" || status=$?
    echo "$status" >"$build/tests-$name.status"
}

# runSuites: the suites that the options of this script ask for.
runSuites()
{
    if [ -n "$matching" ]; then
        # A name may well belong to one of the builds alone.
        for preset in "${presets[@]}"; do
            runSuite "$preset" "$preset" --no-tests=ignore -R "$matching"
        done
        return 0
    fi
    runSuite windows windows "${configuration[@]}" -E "$besideTests"
    if [ "$full" = yes ]; then
        KEYWARDEN_MODULE=Z:$build/windows/bin/nvksprovider.dll \
            runSuite shipped windows -L 'module|token' -E "$besideTests"
        WINEDEBUG=-all,warn+heap \
            runSuite heap windows "${configuration[@]}" --timeout 1800 \
            -E "$besideTests|^(pages|time_lines|installer|new_user)\$"
        KEYWARDEN_ROUNDS=20 runSuite rounds windows --timeout 3600 -R 'threads|soak|process_end'
        runSuite host host
        KEYWARDEN_ROUNDS=20 runSuite threads threads --timeout 3600
        runSuite instructions host -C full -R '^instruction_counts$'
    fi
}

# countSuite NAME: adds what the results say. Only a test that ran and passed counts as passed:
# skipped, disabled and missing ones are failures, or missing pieces would go unseen. So does a run that
# failed, but names no test that did.
countSuite()
{
    local results=$build/tests-$1.xml all=0 good=0 status
    status=$(cat "$build/tests-$1.status" 2>/dev/null || echo none)
    if [ -s "$results" ]; then
        all=$(grep -c '<testcase ' "$results" || true)
        good=$(grep -c '<testcase .*status="run"' "$results" || true)
        echo "$1: $good of $all tests passed"
        sed -n 's/.*<testcase name="\([^"]*\)".*status="\([^"]*\)".*/\2 \1/p' "$results" |
            sed -n '/^run /!s/^/    not passed: /p'
    elif [ -z "$matching" ] || [ "$status" != 0 ]; then
        echo "$1: no results were written"
        all=1
    fi
    if [ "$status" != 0 ] && [ "$all" -eq "$good" ]; then
        echo "$1: CTest failed (status $status)"
        all=$((all + 1))
    fi
    passed=$((passed + good))
    failed=$((failed + all - good))
}

# runBeside: the build with sanitizers, its tests and coverage, the fuzz targets, and the tests named above. They have
# a process group of their own and get what the other tests leave of the processors, since those wait for
# Wine and for windows now and then.
runBeside()
{
    local status=0
    renice -n 10 "$BASHPID" >/dev/null
    timed "build sanitized" compile sanitized || return 0 # no results: each of these suites has failed
    timed "fuzzing" scripts/fuzz.sh "$fuzzSeconds" || status=$?
    echo "$status" >"$build/tests-fuzz.status"
    status=0
    # From the folder of these tests, so that CTest's own files are not those of the other run.
    timed "release checks" ctest --test-dir "$build/windows/tests/package" -R "$besideTests" \
        --verbose --no-tests=error --output-junit "$build/tests-package.xml" || status=$?
    echo "$status" >"$build/tests-package.status"
    rm -rf "$build/sanitized/profiles"
    runSuite sanitized sanitized
    timed "coverage" scripts/coverage.sh --no-build || touch "$build/coverage.failed"
}

main()
{
    local preset name targets builtAll=yes
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
        # The build of what runs beside the Windows tests does so, too.
        [ "$preset" != sanitized ] || [ -n "$matching" ] || continue
        targets=()
        if [ "$full" = yes ] && [ "$preset" = windows ]; then
            targets=(--target all full_tests)
        fi
        stage "build $preset" compile "$preset" "${targets[@]}" || builtAll=no
    done
    # Half a build would run old tests.
    [ "$builtAll" = yes ] || return 0

    rm -f "$build"/tests-*.xml "$build"/tests-*.status "$build/coverage.failed"
    if [ -z "$matching" ]; then
        set -m
        runBeside >"$build/tests-beside.log" 2>&1 &
        beside=$!
        set +m
    fi
    runSuites
    if [ -z "$matching" ]; then
        wait "$beside" || true
        beside=
        cat "$build/tests-beside.log"
    fi
    for name in "${suites[@]}"; do
        countSuite "$name"
    done
    if [ -e "$build/coverage.failed" ]; then
        echo "coverage: too low, or not measured"
        failed=$((failed + 1))
    fi
}

matching=
full=no
configuration=() # options of CTest
beside= # the process group of what runs beside the tests
suites=(windows fuzz package sanitized)
while [ "$#" -gt 0 ]; do
    case $1 in
        --full)
            full=yes
            configuration=(-C full)
            presets+=(host threads)
            suites+=(shipped heap rounds host threads instructions)
            fuzzSeconds=120
            ;;
        -R)
            matching=${2:?-R needs a regular expression}
            suites=("${presets[@]}")
            shift
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
