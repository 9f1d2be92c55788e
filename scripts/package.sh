#!/bin/bash
# Makes a release in build/package: builds the module and keywarden as they are shipped, and packs
# them.
#   keywarden-VERSION-setup.exe      the installer, 64-bit
#   keywarden-VERSION-win64.zip      the same files, for those who install by hand, and their debug symbols
#   keywarden-VERSION.spdx.json      what is in it, as SPDX
#   SHA256SUMS                       checksums of these files
# Programs are signed if one of these is given; a signing command that fails ends the run:
#   --sign-with CERT KEY             by osslsigncode, with a certificate and its key (PEM)
#   KEYWARDEN_SIGN_COMMAND           a command that signs, in place, the file given behind it
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

package=$build/package
stage=$package/stage     # the files as they are shipped
symbols=$package/symbols # their debug symbols
signCommand=${KEYWARDEN_SIGN_COMMAND:-}

buildAll()
{
    configure release && compile release --target nvksprovider keywarden
}

# makeStage: the tree as CMake installs it, and the symbols in a folder of their own.
makeStage()
{
    rm -rf "$package"
    cmake --install "$build/release" --prefix "$stage" --component release \
        >"$build/install-release.log" &&
        cmake --install "$build/release" --prefix "$symbols" --component symbols \
            >>"$build/install-release.log"
}

# sign FILE: in place; without a signing command, nothing.
sign()
{
    [ -z "$signCommand" ] || bash -c "$signCommand \"\$1\"" sign "$1"
}

signStage()
{
    sign "$stage/nvksprovider.dll" && sign "$stage/keywarden.exe"
}

# The archive is the same byte for byte when the files are: sorted, and all of the release's time.
makeZip()
{
    local folder=$package/$release-win64
    cp -r "$stage" "$folder" || return 1
    cp "$symbols"/* "$folder" || return 1
    cp packaging/INSTALL.txt "$folder" || return 1
    sed -i 's/$/\r/' "$folder/INSTALL.txt" # for Notepad
    find "$folder" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} + || return 1
    (cd "$package" && find "$release-win64" -type f | LC_ALL=C sort |
        TZ=UTC zip -q -X -@ "$release-win64.zip") || return 1
    rm -r "$folder"
}

# fileCommands: two lists for the installer, one that brings all files below $INSTDIR and one that
# takes the same files away. The module goes elsewhere.
fileCommands()
{
    local file folder
    while read -r file; do
        folder=$(dirname "$file")
        [ "$folder" != . ] && folder="\\${folder//\//\\}" || folder=
        printf 'SetOutPath "$INSTDIR%s"\nFile "%s"\n' "$folder" "$stage/$file" >&3
        printf 'Delete "$INSTDIR\\%s"\n' "${file//\//\\}" >&4
    done < <(cd "$stage" && find . -type f ! -name nvksprovider.dll -printf '%P\n' | LC_ALL=C sort)
    # The deepest folders first.
    while read -r folder; do
        printf 'RMDir "$INSTDIR\\%s"\n' "${folder//\//\\}" >&4
    done < <(cd "$stage" && find . -mindepth 1 -depth -type d -printf '%P\n')
}

makeInstaller()
{
    local setup=$package/$release-setup.exe signer=()
    fileCommands 3>"$package/install.nsh" 4>"$package/uninstall.nsh" || return 1
    if [ -n "$signCommand" ]; then
        # The uninstaller is made inside of makensis, which asks this script to sign it.
        signer=(-DSIGN="\"$root/scripts/package.sh\" --sign-file")
        export KEYWARDEN_SIGN_COMMAND=$signCommand
    fi
    makensis -V2 -WX -NOCD -DVERSION="$version" -DOUTPUT="$setup" \
        -DMODULE="$stage/nvksprovider.dll" -DICON="$root/provider/res/nvksprovider.ico" \
        -DINSTALL_FILES="$package/install.nsh" -DUNINSTALL_FILES="$package/uninstall.nsh" \
        -DSIZE_KB="$(du -sk --apparent-size "$stage" | cut -f1)" "${signer[@]}" \
        packaging/keywarden.nsi || return 1
    rm "$package/install.nsh" "$package/uninstall.nsh"
    sign "$setup"
}

makeChecksums()
{
    (cd "$package" && sha256sum "$release-setup.exe" "$release-win64.zip" "$release.spdx.json" >SHA256SUMS)
}

makeSbom()
{
    packaging/sbom.sh "$version" "$stage" "$SOURCE_DATE_EPOCH" >"$package/$release.spdx.json"
}

usage()
{
    echo "usage: scripts/package.sh [--sign-with CERT KEY]" >&2
    exit 2
}

case ${1:-} in
    "") ;;
    --sign-with)
        [ "$#" -eq 3 ] || usage
        certificate=$(realpath "$2")
        key=$(realpath "$3")
        signCommand="$(printf '%q ' "$root/packaging/sign.sh" "$certificate" "$key")"
        ;;
    --sign-file) # makensis calls this script so
        sign "$2"
        exit
        ;;
    *) usage ;;
esac

version=$(sed -n 's/^project(keywarden VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
release=keywarden-$version # stages run inside of timed, which has a name of its own
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
mkdir -p "$build"
timed "setup" scripts/setup.sh
timed "build" buildAll
timed "files" makeStage
[ -z "$signCommand" ] || timed "signing" signStage
timed "bill of materials" makeSbom
timed "ZIP" makeZip
timed "installer" makeInstaller
timed "checksums" makeChecksums
say "made in build/package:"
(cd "$package" && sed 's/^\(.\{16\}\).*  \(.*\)/    \1...  \2/' SHA256SUMS)
