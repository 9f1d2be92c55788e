#!/bin/bash
# Runs one fuzz target from its seeds and from what earlier runs found (build/fuzz/corpus). Run by CTest.
#   run_target.sh NAME PROGRAM
#   KEYWARDEN_FUZZ_SECONDS  how long (default 3)
# Prints "ok NAME: ..." with executions, coverage and corpus, or "FAIL NAME: reason". The input of a finding
# is kept in build/fuzz/findings, the fuzzer's output in build/fuzz/logs.
set -euo pipefail

name=${1:?usage: run_target.sh NAME PROGRAM}
program=${2:?usage: run_target.sh NAME PROGRAM}
seconds=${KEYWARDEN_FUZZ_SECONDS:-3}
here=$(cd "$(dirname "$0")" && pwd)
fuzz=$(cd "$(dirname "$program")/.." && pwd)
log=$fuzz/logs/$name.log

# makeSeeds: the seeds as files for libFuzzer. Those in hexadecimal may have comments ("# ...").
makeSeeds()
{
    local seed target=$fuzz/seeds/$name
    rm -rf "$target"
    mkdir -p "$target"
    for seed in "$here/seeds/$name"/*; do
        case $seed in
            *.hex) sed 's/#.*//' "$seed" | xxd -r -p >"$target/$(basename "$seed" .hex)" ;;
            *) cp "$seed" "$target" ;;
        esac
    done
    [ -n "$(ls -A "$target")" ]
}

runTarget()
{
    # The limit is for a run that hangs where libFuzzer's own clock does not reach.
    timeout --foreground -k 10 $((seconds + 120)) "$program" \
        -max_total_time="$seconds" -max_len=1024 -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$fuzz/findings/$name-" \
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

# figures: executions; edges, features and inputs of the corpus as libFuzzer counts them.
figures()
{
    local last edges features corpus
    last=$(grep -a $'\tDONE ' "$log" | tail -n 1)
    edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' <<<"$last")
    features=$(sed -n 's/.* ft: \([0-9]*\) .*/\1/p' <<<"$last")
    corpus=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$last")
    echo "$(statistic number_of_executed_units) executions, ${edges:-?} edges," \
        "${features:-?} features, ${corpus:-?} inputs in the corpus"
}

mkdir -p "$fuzz/logs" "$fuzz/findings" "$fuzz/corpus/$name"
if ! makeSeeds; then
    echo "FAIL $name: tests/fuzz/seeds/$name has no seeds"
    exit 1
fi
status=0
runTarget || status=$?
reason=$(reasonOf "$status")
if [ -z "$reason" ]; then
    echo "ok $name: $(figures), 0 findings"
    exit 0
fi
sed -n '/ERROR: \|runtime error/,/^SUMMARY/p' "$log" | head -n 25
echo "FAIL $name: $reason"
exit 1
