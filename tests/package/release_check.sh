#!/bin/bash
# Checks on the module's DLL as a file: what it exports and imports, how it is hardened, which
# resources it carries, and that a second build in another folder gives the same bytes. Run by
# scripts/test.sh on the DLL that the tests have loaded, and by people on one that is to be shipped.
# Prints "ok NAME" or "FAIL NAME: reason" a check, then the counts; the status is 1 if any failed.
set -euo pipefail

usage="usage: tests/package/release_check.sh DLL..."
root=$(cd "$(dirname "$0")/../.." && pwd)
repro=$root/build/repro # of its own, made afresh by each run
objdump=x86_64-w64-mingw32-objdump
. "$root/tests/support/checks.sh"

# Everything that the module may ask of a machine. ncrypt.dll is not here: it exports a
# GetKeyStorageInterface too, and linking with it would hide ours.
allowedImports="advapi32.dll bcrypt.dll comctl32.dll crypt32.dll gdi32.dll kernel32.dll msvcrt.dll user32.dll"

# oneLine: joins the lines of its input, for reasons.
oneLine()
{
    paste -sd ' '
}

checkFormat()
{
    local format
    format=$($objdump -f "$1" 2>&1 | sed -n 's/.*file format //p' || true)
    [ "$format" = pei-x86-64 ] || echo "not a 64-bit Windows image (${format:-not recognised})"
}

checkIsDll()
{
    grep -q '^	DLL$' <<<"$headers" || echo "the image is not marked as a DLL"
}

checkExports()
{
    local names entries
    names=$(sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^	\[ *[0-9]*\] \(.*\)$/\1/p' <<<"$headers")
    # Entries without a name count as well.
    entries=$(sed -n 's/^	Export Address Table 		\([0-9a-f]\{8\}\)$/\1/p' <<<"$headers")
    if [ "$names" != GetKeyStorageInterface ] || [ "$((16#${entries:-0}))" -ne 1 ]; then
        echo "expected GetKeyStorageInterface alone, found $((16#${entries:-0})) exports:" \
            "$(head -n 5 <<<"$names" | oneLine)"
    fi
}

imports()
{
    sed -n 's/^	DLL Name: \(.*\)$/\1/p' <<<"$headers" | tr '[:upper:]' '[:lower:]'
}

# Without one, the listing was not understood and nothing can be said.
checkAnyImport()
{
    [ -n "$(imports)" ] || echo "no import found at all"
}

checkImports()
{
    local name others=
    checkAnyImport
    for name in $(imports); do
        [[ " $allowedImports " == *" $name "* ]] || others+=" $name"
    done
    [ -z "$others" ] || echo "imports$others"
}

# Said on its own, since it is the slip that works on the build machine and nowhere else.
checkStaticRuntime()
{
    local found
    checkAnyImport
    found=$(imports | grep -E '^lib(stdc\+\+|gcc|winpthread|ssp)' | oneLine || true)
    [ -z "$found" ] || echo "needs the compiler's runtime: $found"
}

checkHardening()
{
    local flag missing=
    for flag in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
        grep -q "^					$flag\$" <<<"$headers" || missing+=" $flag"
    done
    [ -z "$missing" ] || echo "DllCharacteristics lack$missing"
}

# An image without relocations stays where it is, no matter what its flags say.
checkRelocations()
{
    local size
    size=$(sed -n 's/^Entry 5 [0-9a-f]* \([0-9a-f]*\) Base Relocation.*/\1/p' <<<"$headers")
    [ "$((16#${size:-0}))" -gt 8 ] || echo "no base relocations"
}

# resourceNames TYPE: the identifiers of the resources of that type, in hexadecimal. The listing is a
# tree: types are indented by 2 behind the offset, names by 4, languages by 6.
resourceNames()
{
    awk -v wanted="$1" '
        /^The \.rsrc Resource Directory section/ { inside = 1 }
        inside && /^[0-9a-f]+   Entry: ID: / { type = $4; sub(/,.*/, "", type) }
        inside && /^[0-9a-f]+     Entry: ID: / && type == wanted { sub(/,.*/, "", $4); print $4 }
    ' <<<"$headers"
}

# checkResource TYPE NAME WHAT: both numbers as objdump prints them.
checkResource()
{
    resourceNames "$1" | grep -qx "$2" || echo "no $3"
}

# Builds the module a second time: other folder, later time, no help from the environment.
buildAgain()
{
    rm -rf "$repro"
    (cd "$root" && unset SOURCE_DATE_EPOCH &&
        cmake --preset release -B "$repro" && cmake --build "$repro" --target nvksprovider) \
        >"$root/build/repro.log" 2>&1
}

checkSameBytes()
{
    local second=$repro/bin/nvksprovider.dll differing
    if [ "$built" != yes ]; then
        tail -n 20 "$root/build/repro.log" >&2
        echo "the second build failed, see build/repro.log"
    elif [ "$1" -ef "$second" ]; then
        echo "this is the second build itself"
    elif ! cmp -s "$1" "$second"; then
        differing=$(cmp -l "$1" "$second" 2>/dev/null | wc -l || true)
        echo "$differing bytes differ from $second (sizes $(stat -c %s "$1"), $(stat -c %s "$second"))"
    fi
}

checkDll()
{
    local dll=$1
    if [ ! -f "$dll" ]; then
        check "exists" echo "there is no $dll"
        return 0
    fi
    headers=$($objdump -p "$dll" 2>&1 || true)
    check "64-bit Windows image" checkFormat "$dll"
    check "is a DLL" checkIsDll
    check "exports GetKeyStorageInterface alone" checkExports
    check "imports system DLLs alone" checkImports
    check "carries its own runtime" checkStaticRuntime
    check "hardened: ASLR, high entropy, no execution of data" checkHardening
    check "can be relocated" checkRelocations
    check "has dialog 101" checkResource 0x000005 0x000065 'dialog 101'
    check "has dialog 103" checkResource 0x000005 0x000067 'dialog 103'
    check "has icon 102" checkResource 0x00000e 0x000066 'icon group 102'
    check "has version information" checkResource 0x000010 0x000001 'version information'
    check "a second build gives the same bytes" checkSameBytes "$dll"
}

if [ "$#" -eq 0 ]; then
    echo "$usage" >&2
    exit 2
fi
mkdir -p "$root/build"
built=no
if buildAgain; then
    built=yes
fi
for dll in "$@"; do
    echo "release checks on $dll"
    checkDll "$dll"
done
echo "release checks: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
