#!/bin/bash
# Prints the bill of materials of a release as SPDX 2.3 (JSON): the product's files with their checksums,
# and the components that are linked into them, in the versions installed on this machine.
set -euo pipefail

if [ "$#" -ne 3 ]; then
    echo "usage: packaging/sbom.sh VERSION FOLDER SECONDS     (FOLDER: the files as shipped)" >&2
    exit 2
fi
version=$1
folder=$2
created=$(date -u -d "@$3" +%Y-%m-%dT%H:%M:%SZ)

runtimeLicence="GPL-3.0-or-later WITH GCC-exception-3.1"
# identifier | name | Debian package | licence | files that contain it
components=(
    "mingw-w64|MinGW-w64 runtime|mingw-w64-x86-64-dev|NOASSERTION|nvksprovider.dll keywarden.exe"
    "winpthreads|winpthreads|mingw-w64-x86-64-dev|NOASSERTION|nvksprovider.dll keywarden.exe"
    "libstdcxx|libstdc++|g++-mingw-w64-x86-64-posix|$runtimeLicence|nvksprovider.dll keywarden.exe"
    "libgcc|libgcc|gcc-mingw-w64-x86-64-posix|$runtimeLicence|nvksprovider.dll keywarden.exe"
    "cli11|CLI11|libcli11-dev|BSD-3-Clause|keywarden.exe"
    "nlohmann-json|nlohmann-json|nlohmann-json3-dev|MIT|keywarden.exe"
    "zlib|zlib|libz-mingw-w64-dev|Zlib|keywarden.exe"
    "nsis|NSIS|nsis-common|NOASSERTION|" # the code of the installer and the uninstaller
)

# fileId NAME: SPDX allows only letters, digits, dots and hyphens.
fileId()
{
    echo "SPDXRef-File-$(tr -c 'A-Za-z0-9.\n' '-' <<<"$1")"
}

files()
{
    local file
    for file in "${names[@]}"; do
        jq -n --arg name "./$file" --arg id "$(fileId "$file")" \
            --arg sha1 "$(sha1sum <"$folder/$file" | cut -d' ' -f1)" \
            --arg sha256 "$(sha256sum <"$folder/$file" | cut -d' ' -f1)" '{
                fileName: $name, SPDXID: $id,
                checksums: [{algorithm: "SHA1", checksumValue: $sha1},
                            {algorithm: "SHA256", checksumValue: $sha256}],
                licenseConcluded: "NOASSERTION", licenseInfoInFiles: ["NOASSERTION"],
                copyrightText: "NOASSERTION"}'
    done | jq -s .
}

# The SHA-1 over the sorted SHA-1 values of all files, as SPDX defines it.
verificationCode()
{
    local file
    for file in "${names[@]}"; do
        sha1sum <"$folder/$file" | cut -d' ' -f1
    done | LC_ALL=C sort | tr -d '\n' | sha1sum | cut -d' ' -f1
}

componentPackages()
{
    local row id name package licence parts installed
    for row in "${components[@]}"; do
        IFS='|' read -r id name package licence parts <<<"$row"
        installed=$(dpkg-query -W -f '${Version}' "$package")
        jq -n --arg name "$name" --arg id "SPDXRef-$id" --arg version "$installed" \
            --arg licence "$licence" --arg purl "pkg:deb/debian/$package@$installed" '{
                name: $name, SPDXID: $id, versionInfo: $version,
                supplier: "Organization: Debian", downloadLocation: "NOASSERTION",
                filesAnalyzed: false, licenseConcluded: "NOASSERTION",
                licenseDeclared: $licence, copyrightText: "NOASSERTION",
                externalRefs: [{referenceCategory: "PACKAGE-MANAGER", referenceType: "purl",
                                referenceLocator: ($purl | gsub("\\+"; "%2B"))}]}'
    done | jq -s .
}

# relation FROM TYPE TO
relation()
{
    jq -n --arg from "$1" --arg type "$2" --arg to "$3" \
        '{spdxElementId: $from, relationshipType: $type, relatedSpdxElement: $to}'
}

relations()
{
    local file row id name package licence parts part
    relation SPDXRef-DOCUMENT DESCRIBES SPDXRef-Product
    for file in "${names[@]}"; do
        relation SPDXRef-Product CONTAINS "$(fileId "$file")"
    done
    for row in "${components[@]}"; do
        IFS='|' read -r id name package licence parts <<<"$row"
        [ -n "$parts" ] || relation SPDXRef-Product CONTAINS "SPDXRef-$id"
        for part in $parts; do
            relation "$(fileId "$part")" STATIC_LINK "SPDXRef-$id"
        done
    done
}

mapfile -t names < <(cd "$folder" && find . -type f -printf '%P\n' | LC_ALL=C sort)
code=$(verificationCode)
jq -n --arg version "$version" --arg created "$created" --arg code "$code" \
    --slurpfile files <(files) --slurpfile components <(componentPackages) \
    --slurpfile relations <(relations | jq -s .) '{
        spdxVersion: "SPDX-2.3", dataLicense: "CC0-1.0", SPDXID: "SPDXRef-DOCUMENT",
        name: "keywarden-\($version)",
        documentNamespace: "https://spdx.org/spdxdocs/keywarden-\($version)-\($code)",
        creationInfo: {created: $created,
                       creators: ["Organization: Norvanta", "Tool: packaging-sbom.sh"]},
        packages: ([{
            name: "Norvanta KeyWarden", SPDXID: "SPDXRef-Product", versionInfo: $version,
            supplier: "Organization: Norvanta", downloadLocation: "NOASSERTION",
            filesAnalyzed: true, packageVerificationCode: {packageVerificationCodeValue: $code},
            licenseConcluded: "NOASSERTION", licenseDeclared: "NOASSERTION",
            licenseInfoFromFiles: ["NOASSERTION"], copyrightText: "NOASSERTION"
        }] + $components[0]),
        files: $files[0], relationships: $relations[0]}'
