#!/bin/bash
# Counts the instructions that the portable hot paths take (bench/hot_paths.cpp) and compares them with
# the recorded counts (bench/instructions.txt). Unlike a time, a count is the same on a busy machine.
# Run by people and by "test.sh --full"; takes about half a minute.
#   --record  writes the counts instead
# Prints a line a path, "ok NAME: ..." or "FAIL NAME: ..."; then the counts. A path that takes more than
# 5 percent more instructions than recorded fails, and so do a path that is not recorded and a record
# without a path. One that takes over 5 percent fewer passes, with the advice to record anew.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

recorded=bench/instructions.txt
program=$build/bench/bin/bench_hot_paths
counts=$build/bench/instructions
tolerance=5 # percent
runs=100    # of each path; the counts are those of one

# countPath NAME: leaves the instructions of a run in a file of that name. Neither the processor (the
# C library's choice of string functions), nor the locale, nor the time zone is to have a part in it.
countPath()
{
    local log=$counts/$1.log all
    env -i LC_ALL=C TZ=UTC0 LD_BIND_NOW=1 GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX,-ERMS,-SSE4_2,-SSSE3 \
        timeout 120 "$(command -v valgrind)" --tool=callgrind --toggle-collect=runHotPath \
        --callgrind-out-file=/dev/null --log-file="$log" "$program" "$1" "$runs" || return 0
    all=$(sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$log")
    [ "${all:-0}" -eq 0 ] || echo "$(((all + runs / 2) / runs))" >"$counts/$1"
}

# countedOf NAME, recordedOf NAME: nothing if there is no count.
countedOf()
{
    cat "$counts/$1" 2>/dev/null || true
}

recordedOf()
{
    sed -n "s/^$1 \([1-9][0-9]*\)$/\1/p" "$recorded"
}

# judge NAME: its line.
judge()
{
    local name=$1 now was change
    now=$(countedOf "$name")
    was=$(recordedOf "$name")
    if [ -z "$now" ]; then
        echo "FAIL $name: could not be counted (log: $counts/$name.log)"
    elif [ -z "$was" ]; then
        echo "FAIL $name: takes $now instructions, none are recorded"
    else
        change=$(awk -v now="$now" -v was="$was" 'BEGIN { printf "%+.1f", (now / was - 1) * 100 }')
        if [ $((now * 100)) -gt $((was * (100 + tolerance))) ]; then
            echo "FAIL $name: $now instructions, $change percent; recorded are $was"
        elif [ $((now * 100)) -lt $((was * (100 - tolerance))) ]; then
            echo "ok $name: $now instructions, $change percent; record them anew (--record)"
        else
            echo "ok $name: $now instructions, $change percent"
        fi
    fi
}

judgeAll()
{
    local name
    for name in "${names[@]}"; do
        judge "$name"
    done
    while read -r name _; do
        [[ " ${names[*]} " == *" $name "* ]] || echo "FAIL $name: recorded, but there is no such path"
    done < <(grep -v -e '^#' -e '^$' "$recorded")
}

# record: the file is only replaced by a whole one.
record()
{
    local name
    {
        echo "# Instructions of a run of each hot path; made by scripts/instructions.sh --record."
        for name in "${names[@]}"; do
            if [ -z "$(countedOf "$name")" ]; then
                echo "instructions.sh: $name could not be counted" >&2
                return 1
            fi
            echo "$name $(countedOf "$name")"
        done
    } >"$counts/recorded.txt"
    cp "$counts/recorded.txt" "$recorded"
    say "recorded ${#names[@]} counts in $recorded"
}

if [ "$#" -gt 1 ] || { [ "$#" -eq 1 ] && [ "$1" != --record ]; }; then
    echo "usage: scripts/instructions.sh [--record]" >&2
    exit 2
fi
mkdir -p "$build"
scripts/setup.sh --bench
timed "configure bench" configure bench
timed "build hot paths" compile bench --target bench_hot_paths
mapfile -t names < <("$program")
[ "${#names[@]}" -gt 0 ]
rm -rf "$counts"
mkdir -p "$counts"
export counts program runs
export -f countPath
timed "count" xargs -P "$(nproc)" -I{} bash -c 'countPath "$@"' countPath {} < <(printf '%s\n' "${names[@]}")
if [ "${1:-}" = --record ]; then
    record
    exit
fi
judgeAll | tee "$counts/result.txt"
failed=$(grep -c '^FAIL ' "$counts/result.txt" || true)
echo "instructions: $(grep -c '^ok ' "$counts/result.txt" || true) passed, $failed failed"
[ "$failed" -eq 0 ]
