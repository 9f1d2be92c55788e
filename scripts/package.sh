#!/bin/bash
# Makes a release in build/package: builds the module and keywarden as they are shipped, and packs
# them.
#   keywarden-VERSION-setup.exe      the installer, 64-bit
#   keywarden-VERSION-x64.msi        the Windows Installer package, for rollouts
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

makeInstaller()
{
    local setup=$package/$release-setup.exe
    # The uninstaller is made inside of makensis, which asks this script to sign it.
    [ -z "$signCommand" ] || export KEYWARDEN_SIGN_COMMAND=$signCommand
    packaging/setup.sh "$version" "$stage" "$setup" ${signCommand:+"\"$root/scripts/package.sh\" --sign-file"} &&
        sign "$setup"
}

makeMsi()
{
    local msi=$package/$release-x64.msi
    packaging/msi.sh "$version" "$stage" "$msi" && sign "$msi"
}

makeChecksums()
{
    (cd "$package" && sha256sum "$release-setup.exe" "$release-x64.msi" "$release-win64.zip" \
        "$release.spdx.json" >SHA256SUMS)
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
timed "Windows Installer package" makeMsi
timed "checksums" makeChecksums
say "made in build/package:"
(cd "$package" && sed 's/^\(.\{16\}\).*  \(.*\)/    \1...  \2/' SHA256SUMS)
