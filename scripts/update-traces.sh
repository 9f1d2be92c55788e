#!/bin/bash
# Shows how logs differ from the trace files in tests/traces, and takes differences over. A test run
# with KEYWARDEN_WRITE_TRACES=1 in its environment writes the logs that differ to the build folder:
#     KEYWARDEN_WRITE_TRACES=1 scripts/test.sh -R '^keys$'
#     scripts/update-traces.sh                    shows all differences
#     scripts/update-traces.sh --apply [NAME...]  takes all, or those of the named files, over
# A file with @include or ${NAME} is left to you: only you know whether the change belongs there or in
# a file that it includes. Read the difference before you take it over.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

traces=tests/traces

# seenNames FOLDER: the traces that a run has written. Those below support are the ones with which
# the reader's own tests fail on purpose.
seenNames()
{
    (cd "$1" && find . -name '*.expected' ! -path './support/*' | sed 's|^\./||; s|\.expected$||' | sort)
}

# takeOver NAME SEEN: replaces the trace file's lines and leaves the comments at its beginning.
takeOver()
{
    local name=$1 seen=$2 file=$traces/$1.trace
    if [ -f "$file" ] && grep -qE '^@include|\$\{' <(sed 's/\${SPACE}//g' "$file"); then
        echo "$file: has @include or \${NAME}; edit it or what it includes"
        return
    fi
    mkdir -p "$(dirname "$file")"
    {
        [ ! -f "$file" ] || sed -n '/^#/!q;p' "$file"
        cat "$seen"
    } >"$file.new"
    mv "$file.new" "$file"
    echo "$file: taken over"
}

apply=no
if [ "${1:-}" = --apply ]; then
    apply=yes
    shift
fi
found=no
for folder in "$build"/*/traces; do
    [ -d "$folder" ] || continue
    for name in $(seenNames "$folder"); do
        [ "$#" -eq 0 ] || [[ " $* " == *" $name "* ]] || continue
        found=yes
        if [ "$apply" = yes ]; then
            takeOver "$name" "$folder/$name.trace"
            rm "$folder/$name.trace" "$folder/$name.expected"
        else
            diff -u --label "$traces/$name.trace" --label "log" \
                "$folder/$name.expected" "$folder/$name.trace" || true
        fi
    done
done
[ "$found" = yes ] || echo "no differences; run tests with KEYWARDEN_WRITE_TRACES=1 first"
