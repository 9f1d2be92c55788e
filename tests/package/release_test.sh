#!/bin/bash
# Makes a signed release in build/package, for the other tests here, and looks at its files. Run by
# scripts/test.sh --full and by people who change what is shipped.
# Prints "ok NAME" or "FAIL NAME: reason" a check, then the counts; the status is 1 if any failed.
set -euo pipefail
area="package-files"
. "$(dirname "$0")/machine.sh"
zip=$package/keywarden-$version-win64.zip

makeRelease()
{
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=KeyWarden packaging test" \
        -addext extendedKeyUsage=codeSigning -keyout "$signing/sign.key" -out "$signing/sign.pem" \
        2>"$signing/openssl.log" || return 1
    "$root/scripts/package.sh" --sign-with "$signing/sign.pem" "$signing/sign.key" \
        >"$work/package.log" 2>&1 || tail -n 5 "$work/package.log"
}

checkSums()
{
    (cd "$package" && sha256sum --check --strict --quiet SHA256SUMS)
    same "the number of checksums" 4 "$(wc -l <"$package/SHA256SUMS")"
}

checkZip()
{
    unzip -q "$zip" -d "$work/zip" || return 1
    diff -rq "$package/stage" "$work/zip/keywarden-$version-win64" |
        grep -vE '^Only in .*: (INSTALL.txt|nvksprovider.dll.debug|keywarden.exe.debug)$' || true
    [ -s "$work/zip/keywarden-$version-win64/INSTALL.txt" ] || echo "no INSTALL.txt"
}

# checkSymbols FILE: gdb finds the symbols by the name in the file's section, and they name the sources
# without a path of the build machine.
checkSymbols()
{
    local folder=$work/zip/keywarden-$version-win64
    x86_64-w64-mingw32-objdump -s -j .gnu_debuglink "$folder/$1" >/dev/null 2>&1 ||
        echo "$1 does not name its symbols"
    x86_64-w64-mingw32-objdump -h "$folder/$1.debug" | grep -q ' .debug_info ' ||
        echo "$1.debug has no symbols"
    if grep -aqF -e "$root/provider/" -e "$root/tools/" -e "$root/build/" "$folder/$1.debug"; then
        echo "$1.debug has the path $root"
    fi
}

sbom()
{
    jq -er "$@" "$package/keywarden-$version.spdx.json"
}

checkSbomShape()
{
    sbom '.spdxVersion == "SPDX-2.3" and .dataLicense == "CC0-1.0" and .SPDXID == "SPDXRef-DOCUMENT"
        and (.documentNamespace | test("^https://[^#]+$")) and (.creationInfo.creators | length > 0)
        and (.creationInfo.created | test("^[0-9-]{10}T[0-9:]{8}Z$"))
        and all(.packages[]; .name and .versionInfo and .downloadLocation)
        and ([.packages[], .files[]] | map(.SPDXID) | (unique | length) == length)
        and all([.packages[], .files[]][]; .SPDXID | test("^SPDXRef-[A-Za-z0-9.-]+$"))' >/dev/null ||
        echo "not the shape of SPDX 2.3"
    # No relation leads nowhere.
    sbom '(([.packages[], .files[]] | map(.SPDXID)) + ["SPDXRef-DOCUMENT"]) as $known
        | [.relationships[] | .spdxElementId, .relatedSpdxElement] - $known | length == 0' \
        >/dev/null || echo "a relation to something that is not there"
}

checkSbomVersions()
{
    local name debian installed
    while read -r name debian; do
        installed=$(dpkg-query -W -f '${Version}' "$debian")
        same "the version of $name" "$installed" \
            "$(sbom --arg name "$name" '.packages[] | select(.name == $name) | .versionInfo')"
    done <<'COMPONENTS'
libstdc++ g++-mingw-w64-x86-64-posix
libgcc gcc-mingw-w64-x86-64-posix
winpthreads mingw-w64-x86-64-dev
CLI11 libcli11-dev
nlohmann-json nlohmann-json3-dev
zlib libz-mingw-w64-dev
COMPONENTS
    same "the product's version" "$version" \
        "$(sbom '.packages[] | select(.SPDXID == "SPDXRef-Product") | .versionInfo')"
}

checkSbomFiles()
{
    sbom '.files[] | (.checksums[] | select(.algorithm == "SHA256") | .checksumValue) + "  " +
        .fileName' >"$work/sbom.sums" || return 1
    (cd "$package/stage" && sha256sum --check --strict --quiet "$work/sbom.sums")
    same "the number of files" "$(find "$package/stage" -type f | wc -l)" \
        "$(wc -l <"$work/sbom.sums")"
}

checkTamperedSignature()
{
    cp "$1" "$work/tampered.exe"
    printf 'X' | dd of="$work/tampered.exe" bs=1 seek=4096 conv=notrunc status=none
    [ -n "$(checkSignature "$work/tampered.exe")" ] || echo "a changed byte is not noticed"
}

# What the system's own tools see in the package, and that no component changes its identity.
checkMsiTables()
{
    local table=$work/tables
    msiinfo suminfo "$msi" | grep -q '^Template: x64;1033' || echo "not for 64-bit Windows"
    msiinfo export "$msi" Property | tr -d '\r' >"$table"
    grep -qx "ProductVersion	$version" "$table" || echo "another version"
    grep -q "^SecureCustomProperties	.*;P11FILE;MODE;LOGTYPES;LOGSTORE;LOGROTATE" "$table" ||
        echo "properties are not passed on"
    msiinfo export "$msi" File | tr -d '\r' >"$table"
    same "files with a version" 2 "$(grep -c "	$version.0	1033	" "$table")"
    same "the number of files" "$(find "$package/stage" -type f | wc -l)" "$(sed 1,3d "$table" | wc -l)"
    msiinfo export "$msi" Component | sed 1,3d | cut -f 2 | sort | uniq -d
}

rm -rf "$work" "$signing"
mkdir -p "$work" "$signing"
check "a signed release is made" makeRelease
if [ "$failed" -ne 0 ]; then
    echo "release: $passed passed, $failed failed; nothing to test"
    exit 1
fi
check "checksums are right" checkSums
check "the ZIP has the files as shipped" checkZip
check "the ZIP has the symbols of the module" checkSymbols nvksprovider.dll
check "the ZIP has the symbols of keywarden.exe" checkSymbols keywarden.exe
check "the bill of materials is SPDX 2.3" checkSbomShape
check "the bill of materials has the installed versions" checkSbomVersions
check "the bill of materials has the files' checksums" checkSbomFiles
check "the tables of the Windows Installer package" checkMsiTables
check "the installer is signed" checkSignature "$setup"
check "the Windows Installer package is signed" checkSignature "$msi"
check "the module is signed" checkSignature "$package/stage/nvksprovider.dll"
check "keywarden.exe is signed" checkSignature "$package/stage/keywarden.exe"
check "a changed byte breaks the signature" checkTamperedSignature "$setup"
echo "release: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
