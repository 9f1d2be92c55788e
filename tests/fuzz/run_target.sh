#!/bin/bash
# Runs one fuzz target from its seeds and from what earlier runs found (build/sanitized/fuzz/corpus). Run by
# CTest.
#   run_target.sh NAME PROGRAM [TIMES [OPTION...]]
#   KEYWARDEN_FUZZ_SECONDS  how long (default 3), TIMES as long
#   OPTION                  of libFuzzer, besides those below
# Prints "ok NAME: ..." with executions, coverage and corpus, or "FAIL NAME: reason". The input of a finding
# is kept in build/sanitized/fuzz/findings, the fuzzer's output in build/sanitized/fuzz/logs.
set -euo pipefail

usage="usage: run_target.sh NAME PROGRAM [TIMES [OPTION...]]"
name=${1:?$usage}
program=${2:?$usage}
seconds=$((${KEYWARDEN_FUZZ_SECONDS:-3} * ${3:-1}))
options=("${@:4}")
here=$(cd "$(dirname "$0")" && pwd)
fuzz=$(cd "$(dirname "$program")/.." && pwd)/fuzz
log=$fuzz/logs/$name.log

# The build counts what the tests run; this is chance.
export LLVM_PROFILE_FILE=/dev/null

# makeSeeds: the seeds as files for libFuzzer. Those in hexadecimal may have comments ("# ..."); a list has
# one in hexadecimal in each line.
makeSeeds()
{
    local seed target=$fuzz/seeds/$name
    rm -rf "$target"
    mkdir -p "$target"
    for seed in "$here/seeds/$name"/*; do
        case $seed in
            *.hex) sed 's/#.*//' "$seed" | xxd -r -p >"$target/$(basename "$seed" .hex)" ;;
            *.list) makeListedSeeds "$seed" "$target/$(basename "$seed" .list)" ;;
            *) cp "$seed" "$target" ;;
        esac
    done
    [ -n "$(ls -A "$target")" ]
}

# makeListedSeeds LIST STEM
makeListedSeeds()
{
    local line number=0
    while read -r line; do
        number=$((number + 1))
        xxd -r -p <<<"$line" >"$2-$number"
    done <"$1"
}

# replaySeeds: each seed once, with released memory given out again at once. Otherwise the address
# sanitizer keeps it back, and no object ever stands where a released one stood.
replaySeeds()
{
    ASAN_OPTIONS=quarantine_size_mb=0:thread_local_quarantine_size_kb=0 \
        timeout --foreground -k 10 300 "$program" -runs=0 "${options[@]}" \
        -artifact_prefix="$fuzz/findings/$name-" "$fuzz/seeds/$name" >"$log" 2>&1
}

runTarget()
{
    # The limit is for a run that hangs where libFuzzer's own clock does not reach.
    timeout --foreground -k 10 $((seconds + 120)) "$program" \
        -max_total_time="$seconds" -max_len=1024 -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$fuzz/findings/$name-" "${options[@]}" \
        "$fuzz/corpus/$name" "$fuzz/seeds/$name" >"$log" 2>&1
}

# reasonOf STATUS: why the run failed, in a line; nothing when it did not.
reasonOf()
{
    local input what
    input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    if [ "$1" != 0 ] || [ -n "$input" ]; then
        what=$(grep -a -m 1 -e 'does not hold' -e 'runtime error' -e 'ERROR: ' -e 'Assertion' "$log" ||
            echo "status $1")
        what=$(sed "s/.*ERROR: //; s/.*: Assertion '/Assertion '/; s/^\(\.\.\/\)*//" <<<"$what")
        echo "$what (input: ${input:-none kept}, log: $log)"
    elif [ "$(statistic number_of_executed_units)" -eq 0 ]; then
        echo "nothing was run (log: $log)"
    fi
}

# statistic NAME: a number of libFuzzer's final statistics; 0 when it is not there.
statistic()
{
    local value
    value=$(sed -n "s/^stat::$1: *//p" "$log" | tail -n 1)
    echo "${value:-0}"
}

# figures: executions; calls of the module, if the target counts them; edges, features and inputs of the
# corpus as libFuzzer counts them.
figures()
{
    local last edges features corpus calls
    last=$(grep -a $'\tDONE ' "$log" | tail -n 1)
    edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' <<<"$last")
    features=$(sed -n 's/.* ft: \([0-9]*\) .*/\1/p' <<<"$last")
    corpus=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$last")
    calls=$(sed -n 's/^calls: \([0-9]*\)$/\1 calls, /p' "$log" | tail -n 1)
    echo "$(statistic number_of_executed_units) executions, $calls${edges:-?} edges," \
        "${features:-?} features, ${corpus:-?} inputs in the corpus"
}

mkdir -p "$fuzz/logs" "$fuzz/findings" "$fuzz/corpus/$name"
if ! makeSeeds; then
    echo "FAIL $name: tests/fuzz/seeds/$name has no seeds"
    exit 1
fi
status=0
replaySeeds || status=$?
[ "$status" -ne 0 ] || runTarget || status=$?
reason=$(reasonOf "$status")
if [ -z "$reason" ]; then
    echo "ok $name: $(figures), 0 findings"
    exit 0
fi
sed -n '/ERROR: \|runtime error/,/^SUMMARY/p' "$log" | head -n 25
echo "FAIL $name: $reason"
exit 1
