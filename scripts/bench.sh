#!/bin/bash
# Measures what the module adds to the token's work: builds the benchmarks, runs them one after
# another, prints their figures as a table and leaves them in build/bench/results.json, the curves over
# size as pictures beside it. Nothing else should run meanwhile; the figures are ratios of things
# measured in turn, but a busy machine widens them.
#   --quick   only shows that every benchmark works; the figures say nothing
#   --record  also puts the pictures and the figures into docs/performance
#   NAME...   only these benchmarks; the others' figures stay as they were
# The status is 1 when a benchmark could not be run. A figure that misses its reach is no failure: it
# is marked in the table.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

windowsBenchmarks=(softhsm_operations scripted_operations logger tracing opening keys loading threads
    call_counts)
hostBenchmarks=(codecs)
scriptBenchmarks=(fleet)

bench=$build/bench
parts=$bench/parts

# compile: what the build says is shown only if it fails.
compile()
{
    local preset
    for preset in windows bench; do
        cmake --preset "$preset" >"$bench/configure-$preset.log" 2>&1 || {
            cat "$bench/configure-$preset.log" >&2
            return 1
        }
    done
    for preset in bench-windows bench; do
        cmake --build --preset "$preset" -j2 >"$bench/build-$preset.log" 2>&1 || {
            grep -v '^\[[0-9]*/[0-9]*\] ' "$bench/build-$preset.log" >&2
            return 1
        }
    done
}

makeToken()
{
    tests/token/fixtures/make-token.sh --small "$bench/token" keywarden-pin-4711
}

runWindows()
{
    KEYWARDEN_BUILD=$build/windows SOFTHSM2_CONF=$bench/token/softhsm2.conf \
        cmake/run-under-wine "$build/windows/bin/bench_$1.exe" "$parts/$1.json" "${quick[@]}"
}

runHost()
{
    "$bench/bin/bench_$1" "$parts/$1.json" "${quick[@]}"
}

runScript()
{
    "bench/$1.sh" "$parts/$1.json" "${quick[@]}"
}

wanted()
{
    local name
    [ "${#names[@]}" -gt 0 ] || return 0
    for name in "${names[@]}"; do
        [ "$name" != "$1" ] || return 0
    done
    return 1
}

# runAll: every wanted benchmark; one that fails does not keep the others from running.
runAll()
{
    local name status=0
    for name in "${windowsBenchmarks[@]}"; do
        ! wanted "$name" || timed "$name" runWindows "$name" || status=1
    done
    for name in "${hostBenchmarks[@]}"; do
        ! wanted "$name" || timed "$name" runHost "$name" || status=1
    done
    for name in "${scriptBenchmarks[@]}"; do
        ! wanted "$name" || timed "$name" runScript "$name" || status=1
    done
    return "$status"
}

# collect: one file of all parts, with the machine that they were measured on.
collect()
{
    jq -n --arg cpu "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1)" \
        --arg cores "$(nproc)" --arg wine "$(wine --version)" \
        --arg compiler "$(x86_64-w64-mingw32-g++-posix -dumpfullversion)" \
        --slurpfile parts <(cat "$parts"/*.json) \
        '{machine: {cpu: $cpu, cores: ($cores | tonumber), wine: $wine, compiler: ("GCC " + $compiler)},
          rows: ($parts | add)}' >"$bench/results.json.new"
    mv "$bench/results.json.new" "$bench/results.json"
}

# table: the rows for people, in Markdown.
table()
{
    jq -r '
        def shown: if . == null then "" elif . == 0 then "0"
            else (. | fabs | log10 | floor) as $digits
                | (pow(10; ([2 - $digits, 0] | max))) as $unit
                | ((. * $unit | round) / $unit | tostring) end;
        "| what | against | size | figure | quartiles | reach | |",
        "| --- | --- | ---: | ---: | --- | --- | --- |",
        (.rows[] | "| \(.group): \(.name) | \(.against) | \(.size // "" | tostring) | \(.value | shown) "
            + "\(.unit) | \(.low | shown) to \(.high | shown) | "
            + (if .limit then "\(.rule) \(.limit)" else "report" end) + " | "
            + (if .reached == false then "short" elif .reached then "reached" else "" end) + " |")
        ' "$bench/results.json"
}

# plots FOLDER: a picture for each group that has curves, a line for each name in it.
plots()
{
    local folder=$1 group file
    mkdir -p "$folder"
    jq -r '[.rows[] | select(.size != null)] | group_by(.group)[]
            | select([.[].size] | unique | length > 1) | .[0].group' "$bench/results.json" |
        while IFS= read -r group; do
            file=$(tr -cs '[:alnum:]' - <<<"$group" | sed 's/^-*//; s/-*$//')
            plotGroup "$group" "$bench/plot-$file" "$folder/$file.svg"
        done
}

# plotGroup GROUP DATA PICTURE: DATA.N holds one curve: size, value, low, high.
plotGroup()
{
    local group=$1 data=$2 picture=$3 name unit count=0 curves=()
    while IFS=$'\t' read -r name unit; do
        count=$((count + 1))
        jq -r --arg group "$group" --arg name "$name" --arg unit "$unit" '[.rows[] | select(.group == $group and .name == $name
                and .unit == $unit and .size != null)] | sort_by(.size)[]
            | "\(.size) \(.value) \(.low) \(.high)"' "$bench/results.json" >"$data.$count"
        curves+=("'$data.$count' using 1:2:3:4 with yerrorlines pointtype 7 pointsize 0.4 title '$name ($unit)'")
    done < <(jq -r --arg group "$group" '[.rows[] | select(.group == $group and .size != null)
            | {name, unit}] | unique[] | "\(.name)\t\(.unit)"' "$bench/results.json")
    gnuplot <<END
set terminal svg size 760,380 font 'sans-serif,12' background '#ffffff'
set output '$picture'
set title '$group'
set logscale x
set yrange [0:*]
set grid
set key outside right
plot $(IFS=,; echo "${curves[*]}")
END
}

quick=()
record=no
names=()
for argument in "$@"; do
    case $argument in
        --quick) quick=(--quick) ;;
        --record) record=yes ;;
        -*)
            echo "usage: scripts/bench.sh [--quick] [--record] [NAME...]" >&2
            exit 2
            ;;
        *) names+=("$argument") ;;
    esac
done

mkdir -p "$parts"
trap stopWine EXIT
timed "setup" scripts/setup.sh --bench
timed "build" compile
timed "token" makeToken
stopWine
wineserver -p </dev/null >/dev/null 2>&1
status=0
runAll || status=1
collect
table
plots "$bench"
if [ "$record" = yes ]; then
    plots docs/performance
    cp "$bench/results.json" docs/performance/results.json
fi
exit "$status"
