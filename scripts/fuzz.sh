#!/bin/bash
# Fuzzes every parser of bytes that come from outside: builds the targets in tests/fuzz with clang,
# libFuzzer and the address and undefined-behaviour sanitizers, and runs each of them, two at a time,
# from its seeds and from what earlier runs found (build/fuzz/corpus). Run by people and by test.sh.
#   SECONDS  how long each target runs (default 60)
#   TARGET   only the targets whose names contain this
# Prints a line a target, "ok NAME ..." with executions, coverage and corpus, or "FAIL NAME: reason";
# then the counts. The status is 1 if any failed. The input of a finding stays in build/fuzz/findings;
# build/fuzz/bin/fuzz_NAME FILE runs it again. Its stack shows functions where llvm-symbolizer (package
# llvm) is there.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

usage="usage: scripts/fuzz.sh [SECONDS] [TARGET]"
fuzz=$build/fuzz
atOnce=2 # targets that run at a time

# checkCompiler: says what is missing, before CMake says it in its own words.
checkCompiler()
{
    local runtime
    if ! command -v clang++ >/dev/null; then
        echo "fuzz.sh: clang++ is missing; scripts/setup.sh installs it" >&2
        return 1
    fi
    runtime=$(clang++ -print-resource-dir)/lib/linux
    for library in fuzzer asan; do
        if [ ! -e "$runtime/libclang_rt.$library-$(uname -m).a" ]; then
            echo "fuzz.sh: clang's $library library is missing in $runtime;" \
                "scripts/setup.sh installs it" >&2
            return 1
        fi
    done
}

compile()
{
    if ! { cmake --preset fuzz && cmake --build --preset fuzz; } >"$build/build-fuzz.log" 2>&1; then
        grep -v '^\[[0-9]*/[0-9]*\] ' "$build/build-fuzz.log" >&2
        return 1
    fi
}

# makeSeeds NAME: the seeds as files for libFuzzer. Those in hexadecimal may carry comments ("# ...").
makeSeeds()
{
    local seed target=$fuzz/seeds/$1
    rm -rf "$target"
    mkdir -p "$target"
    for seed in "tests/fuzz/seeds/$1"/*; do
        case $seed in
            *.hex) sed 's/#.*//' "$seed" | xxd -r -p >"$target/$(basename "$seed" .hex)" ;;
            *) cp "$seed" "$target" ;;
        esac
    done
    [ -n "$(ls -A "$target")" ]
}

# runTarget NAME SECONDS: what libFuzzer says goes to the target's log.
runTarget()
{
    local name=$1 seconds=$2 status=0
    mkdir -p "$fuzz/corpus/$name"
    # The limit is for a run that hangs where libFuzzer's own clock does not reach.
    timeout --foreground -k 10 $((seconds + 120)) "$fuzz/bin/fuzz_$name" \
        -max_total_time="$seconds" -max_len=1024 -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$fuzz/findings/$name-" \
        "$fuzz/corpus/$name" "$fuzz/seeds/$name" >"$fuzz/logs/$name.log" 2>&1 || status=$?
    echo "$status" >"$fuzz/logs/$name.status"
}

# reasonOf NAME: why a run failed, in a line; nothing when it did not.
reasonOf()
{
    local log=$fuzz/logs/$1.log status input what
    status=$(cat "$fuzz/logs/$1.status" 2>/dev/null || echo none)
    input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    if [ "$status" != 0 ] || [ -n "$input" ]; then
        what=$(grep -a -m 1 -e 'does not hold' -e 'runtime error' -e 'ERROR: ' -e 'Assertion' "$log" ||
            echo "status $status")
        what=$(sed "s/.*ERROR: //; s/.*: Assertion '/Assertion '/; s/^\(\.\.\/\)*//" <<<"$what")
        echo "$what (input: ${input:-none kept}, log: $log)"
    elif [ "$(statOf "$1" number_of_executed_units)" -eq 0 ]; then
        echo "nothing was run (log: $log)"
    fi
}

# statOf NAME STATISTIC: a number of libFuzzer's final statistics; 0 when it is not there.
statOf()
{
    local value
    value=$(sed -n "s/^stat::$2: *//p" "$fuzz/logs/$1.log" | tail -n 1)
    echo "${value:-0}"
}

# figuresOf NAME: executions; edges, features and inputs of the corpus as libFuzzer counts them.
figuresOf()
{
    local last edges features corpus
    last=$(grep -a $'\tDONE ' "$fuzz/logs/$1.log" | tail -n 1)
    edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' <<<"$last")
    features=$(sed -n 's/.* ft: \([0-9]*\) .*/\1/p' <<<"$last")
    corpus=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$last")
    echo "$(statOf "$1" number_of_executed_units) executions, ${edges:-?} edges," \
        "${features:-?} features, ${corpus:-?} inputs in the corpus"
}

# report NAME: its line. A finding's own words from the log stand before it.
report()
{
    local reason
    reason=$(reasonOf "$1")
    if [ -z "$reason" ]; then
        passed=$((passed + 1))
        echo "ok $1: $(figuresOf "$1"), 0 findings"
    else
        failed=$((failed + 1))
        sed -n '/ERROR: \|runtime error/,/^SUMMARY/p' "$fuzz/logs/$1.log" | head -n 25 >&2
        echo "FAIL $1: $reason"
    fi
}

# targetsNamed PART: the targets whose names contain it.
targetsNamed()
{
    local source
    for source in tests/fuzz/*.cpp; do
        source=$(basename "$source" .cpp)
        [[ $source != *"$1"* ]] || echo "$source"
    done
}

seconds=${1:-60}
if [ "$#" -gt 2 ] || ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "$usage" >&2
    exit 2
fi
mapfile -t targets < <(targetsNamed "${2:-}")
if [ "${#targets[@]}" -eq 0 ]; then
    echo "fuzz.sh: no target is named like $2" >&2
    exit 2
fi

mkdir -p "$build"
checkCompiler
timed "build fuzz" compile
rm -rf "$fuzz/logs"
mkdir -p "$fuzz/logs" "$fuzz/findings"
for name in "${targets[@]}"; do
    if ! makeSeeds "$name"; then
        echo "fuzz.sh: tests/fuzz/seeds/$name has no seeds" >&2
        exit 1
    fi
done

say "fuzzing: ${#targets[@]} targets, $seconds s each"
export fuzz
export -f runTarget
printf '%s\0' "${targets[@]}" |
    xargs -0 -P "$atOnce" -I{} bash -c 'runTarget "$@"' runTarget {} "$seconds"
passed=0
failed=0
for name in "${targets[@]}"; do
    report "$name"
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
