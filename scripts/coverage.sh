#!/bin/bash
# Prints which part of the lines and branches of the module's core the tests of the sanitized build run, a
# row for each file, and fails below the bounds. What is not run is in tests/coverage.md.
#   --no-build  reads what the last run of "ctest --preset sanitized" left
#   --missing   also prints the functions with lines or branches that did not run
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

leastLines=98
leastBranches=92

tree=$build/sanitized
work=$tree/coverage

# Not of the core: the dialog's window, and the check of the lock order, which the released module does not have.
notCore='/pindialog(_kind)?\.(cpp|h)$|/lock_order\.cpp$'

runTests()
{
    mkdir -p "$build"
    configure sanitized || return 1
    compile sanitized || return 1
    rm -rf "$tree/profiles"
    ctest --preset sanitized -j"$(nproc)" --output-on-failure >"$build/tests-coverage.log" 2>&1 && return 0
    cat "$build/tests-coverage.log" >&2
    return 1
}

# programs: the options that name the instrumented programs.
programs()
{
    find "$tree/bin" -maxdepth 1 -type f -name '*_test' -printf '-object=%p\n' | sort
}

# measure: work/all.json with every function, of the module's files alone.
measure()
{
    local objects
    mkdir -p "$work"
    if ! compgen -G "$tree/profiles/*.profraw" >/dev/null; then
        echo "coverage.sh: no profile in $tree/profiles; run the tests first" >&2
        return 1
    fi
    llvm-profdata-14 merge -sparse "$tree"/profiles/*.profraw -o "$work/all.profdata"
    mapfile -t objects < <(programs)
    llvm-cov-14 export -instr-profile="$work/all.profdata" "${objects[@]}" \
        -ignore-filename-regex='(^|/)tests/|^/usr/|stand_in' >"$work/all.json" 2>"$work/export.log"
}

# summary: a row for each file: lines, lines run, branches, branches run, name; the total at the end.
summary()
{
    jq -r --arg notCore "$notCore" '
        def row(name): [.lines.count, .lines.covered, .branches.count, .branches.covered, name] | @tsv;
        [.data[0].files[] | select(.filename | test($notCore) | not)] as $files |
        ($files | sort_by(.filename)[] | .filename as $name | .summary | row($name | sub("^.*provider/src/"; ""))),
        ({lines: {count: ([$files[].summary.lines.count] | add), covered: ([$files[].summary.lines.covered] | add)},
          branches: {count: ([$files[].summary.branches.count] | add),
                     covered: ([$files[].summary.branches.covered] | add)}} | row("all"))' "$work/all.json"
}

# table: the rows as people read them; the status says whether the bounds are kept.
table()
{
    awk -F '\t' -v leastLines="$leastLines" -v leastBranches="$leastBranches" '
        function share(run, all) { return all > 0 ? sprintf("%6.2f %%", 100 * run / all) : "       -" }
        BEGIN { printf "%-36s %8s  %8s\n", "coverage of the module", "lines", "branches" }
        {
            printf "%-36s %s  %s\n", $5, share($2, $1), share($4, $3)
            lines = 100 * $2 / ($1 > 0 ? $1 : 1)
            branches = 100 * $4 / ($3 > 0 ? $3 : 1)
        }
        END {
            printf "coverage: %.2f %% of lines, %.2f %% of branches (at least %d %% and %d %%)\n",
                   lines, branches, leastLines, leastBranches
            exit lines < leastLines || branches < leastBranches
        }'
}

missing=no
doBuild=yes
while [ "$#" -gt 0 ]; do
    case $1 in
        --no-build) doBuild=no ;;
        --missing) missing=yes ;;
        *)
            echo "usage: scripts/coverage.sh [--no-build] [--missing]" >&2
            exit 2
            ;;
    esac
    shift
done

if [ "$doBuild" = yes ]; then
    runTests
fi
measure
if [ "$missing" = yes ]; then
    python3 scripts/coverage/missing.py "$work/all.json"
fi
summary | table
