#!/bin/bash
# Makes the installer from packaging/keywarden.nsi.
# usage: setup.sh VERSION STAGE OUTPUT [SIGN]; STAGE has the files as they are shipped, SIGN is a command that
# signs the file given as its last argument, for the uninstaller
set -euo pipefail
version=$1
stage=$(realpath "$2")
output=$(realpath "$3")
sign=${4:-}
packaging=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Two lists for the installer, one that brings all files below $INSTDIR and one that takes the same files
# away. The module goes elsewhere.
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

fileCommands 3>"$work/install.nsh" 4>"$work/uninstall.nsh"
makensis -V2 -WX -NOCD -DVERSION="$version" -DOUTPUT="$output" -DMODULE="$stage/nvksprovider.dll" \
    -DICON="$packaging/../provider/res/nvksprovider.ico" -DINSTALL_FILES="$work/install.nsh" \
    -DUNINSTALL_FILES="$work/uninstall.nsh" -DSIZE_KB="$(du -sk --apparent-size "$stage" | cut -f1)" \
    ${sign:+-DSIGN="$sign"} "$packaging/keywarden.nsi"
