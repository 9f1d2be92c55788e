#!/bin/sh
# Writes an assembler source that refers to each function that a DLL imports, so that a program linked
# with it has the same imports:
#   imports.sh OBJDUMP DLL SOURCE
set -eu
"$1" -p "$2" | awk '
    /^\tDLL Name:/ { inside = 1; next }
    inside && /^\t[0-9a-f]+[ \t]+[0-9]+ / { print "\t.quad __imp_" $3 }
    inside && /^$/ { inside = 0 }
    BEGIN { print "\t.section .rdata,\"dr\"\n\t.globl importedByTheModule\nimportedByTheModule:" }
' >"$3.new"
# Without imports, the comparison would mean nothing.
grep -q __imp_ "$3.new"
mv "$3.new" "$3"
