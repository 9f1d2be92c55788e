#!/bin/bash
# Measures keywarden as a program, on a SoftHSM2 token with 35 certificates:
#   bench/tool.sh RESULTS.json [--quick]
# Needs the program bench_tool of the preset "bench-windows". It has a screen and a Wine prefix of its own,
# because "sign" shows the PIN dialog. The figures of --quick only show that it works.
set -euo pipefail
area=bench-tool
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../tests/support/keywarden.sh"
onOwnScreen "$@"

case "$#:${2:-}" in
    1: | 2:--quick) ;;
    *)
        echo "usage: bench/tool.sh RESULTS.json [--quick]" >&2
        exit 2
        ;;
esac

makeOwnPrefix
makeToken --small
# Two are on it already.
for number in {10..42}; do
    addKey "key$number" "0E$number" 3650 yes -algorithm EC -pkeyopt ec_paramgen_curve:P-256
done
"$root/cmake/run-under-wine" "$windows/bin/bench_tool.exe" "$@"
