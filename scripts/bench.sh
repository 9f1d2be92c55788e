#!/bin/bash
# Measures what the module adds to the token's work: builds the benchmarks, runs them one after
# another, prints their figures as a table and leaves them in build/bench/results.json, the curves over
# size as pictures beside it. Nothing else should run meanwhile; the figures are ratios of things
# measured in turn, but a busy machine widens them.
#   --quick   only shows that every benchmark works; the figures say nothing
#   --record  also puts the pictures and the figures into docs/performance, for its page
#   NAME...   only these benchmarks; the others' figures stay as they were
# The status is 1 when a benchmark could not be run. A figure that misses its reach is no failure: it
# is marked in the table.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

windowsBenchmarks=(softhsm_operations scripted_operations modes logger tracing opening keys loading
    threads call_counts)
hostBenchmarks=(codecs)
scriptBenchmarks=(fleet tool)

bench=$build/bench
parts=$bench/parts

compileAll()
{
    configure windows && configure bench && compile bench-windows && compile bench
}

makeToken()
{
    tests/support/fixtures/make-token.sh --small "$bench/token" keywarden-pin-4711
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

# plots: build/bench/GROUP-UNIT.svg for each group and unit that has a curve, which is a name with more
# than two sizes; a line for each of them.
plots()
{
    local group unit file
    jq '[.rows[] | select(.size != null)] | group_by([.group, .unit, .name])
        | map(select(length > 2) | sort_by(.size))' "$bench/results.json" >"$bench/curves.json"
    jq -r 'map("\(.[0].group)\t\(.[0].unit)") | unique[]' "$bench/curves.json" |
        while IFS=$'\t' read -r group unit; do
            file=$(tr -cs '[:alnum:]' - <<<"$group $unit" | sed 's/^-*//; s/-*$//')
            plotGroup "$group" "$unit" "$bench/plot-$file" "$bench/$file.svg"
        done
}

# curvesOf GROUP UNIT FILTER: what the jq filter makes of these curves, with the names as arguments.
curvesOf()
{
    jq -r --arg group "$1" --arg unit "$2" --arg name "${4:-}" \
        "map(select(.[0].group == \$group and .[0].unit == \$unit)) | $3" "$bench/curves.json"
}

# scales GROUP UNIT: gnuplot's choice of linear or logarithmic axes, by the values.
scales()
{
    curvesOf "$1" "$2" 'flatten
        | (if ([.[].size] | min) > 0 then "set logscale x" else "" end),
          (if ([.[].value] | min) > 0 and ([.[].value] | max / min) > 30 then "set logscale y"
           else "set yrange [0:*]" end)'
}

# plotGroup GROUP UNIT DATA PICTURE: DATA.N holds one curve: size, median, quartiles.
plotGroup()
{
    local group=$1 unit=$2 data=$3 picture=$4 name count=0 curves=()
    while IFS= read -r name; do
        count=$((count + 1))
        curvesOf "$group" "$unit" \
            'map(select(.[0].name == $name)) | flatten[] | "\(.size) \(.value) \(.low) \(.high)"' \
            "$name" >"$data.$count"
        curves+=("'$data.$count' with yerrorlines pointtype 7 pointsize 0.4 title \"$name\"")
    done < <(curvesOf "$group" "$unit" '.[] | .[0].name')
    gnuplot <<END
set terminal svg noenhanced size 800,360 font 'sans-serif,12' background '#ffffff'
set output '$picture'
set title "$group"
set ylabel "$unit"
$(scales "$group" "$unit")
set grid
set key outside right
plot $(IFS=,; echo "${curves[*]}")
END
}

# recordForPage: the figures, and the pictures that the page shows.
recordForPage()
{
    mkdir -p docs/performance
    cp "$bench/results.json" docs/performance/
    grep -o '(performance/[^)]*\.svg)' docs/performance.md | tr -d '()' |
        while IFS= read -r picture; do
            cp "$bench/${picture#performance/}" docs/performance/ || return 1
        done
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
timed "build" compileAll
timed "token" makeToken
stopWine
wineserver -p </dev/null >/dev/null 2>&1
status=0
runAll || status=1
collect
table
plots
[ "$record" = no ] || recordForPage || status=1
exit "$status"
