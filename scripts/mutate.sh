#!/bin/bash
# The mutation check: do the tests notice when the module is wrong? Makes a sample of small changes
# to provider/src, runs for each of them the tests that could see it, and names those that no test
# objected to. Run by people after larger changes to the tests or the module; no part of test.sh.
#   --seed N      another sample (default: 1)
#   --count N     so many changes (default: 250)
#   --only REGEX  tries only those whose "FILE FUNCTION KIND" matches, as in 'P11Module::|status'
#   --workers N   so many Wine prefixes work at the same time (default: as many as processors)
#   --report      only shows what is known so far
#
# Five kinds of change, and the files, take equal shares: a comparison turned round or a condition
# negated, a constant off by one, a status or answer swapped, a statement left out, a letter of a
# text changed. What the compiler must know beforehand (constexpr, case labels, template arguments)
# is left alone, and so is what no result depends on: reserved memory, and the size of a buffer for printing.
#
# All of them are compiled into two builds of a copy of the tree, below build/mutate: for Windows, and the
# module's core for this machine, with sanitizers, whose tests are the quickest. The environment chooses
# (NV_MUTANT=17). A first run of all tests learns which of them reaches which change and how
# long each takes; then each change meets the tests that reach it, the quickest first, until one
# objects: by failing, by crashing, or by taking five times as long as usual (20 s at the least). An
# objection counts if it comes a second time and goes away without the change. Scripts take minutes, so they meet
# only changes that no program reaches.
#
# A run that was stopped goes on where it was. When the tests have changed, another run tries what
# was still alive; when the module, the seed or the count has changed, it begins anew. What lives
# stands in build/mutate/report.txt, and all results in build/mutate/results.jsonl, for programs.
# scripts/mutate/survivors.md says why some changes will always live.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

# Debian's own Python, which Debian's libclang belongs to.
check=(/usr/bin/python3 -B scripts/mutate/mutate.py "$@")
[[ " $* " != *" --report "* ]] || exec "${check[@]}"

mkdir -p "$build"
exec 7>"$build/mutate.lock"
if ! flock -n 7; then
    echo "mutate.sh: another run is under way in this tree" >&2
    exit 1
fi
scripts/setup.sh --mutation 7>&-
nice "${check[@]}" 7>&- # nothing that it starts holds the lock on
