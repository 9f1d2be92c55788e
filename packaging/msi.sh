#!/bin/bash
# Makes the Windows Installer package from packaging/keywarden.wxs: wixl compiles it, and msibuild adds what
# wixl has no element for.
# usage: msi.sh VERSION STAGE OUTPUT; STAGE has the files as they are shipped
set -euo pipefail
version=$1
stage=$(realpath "$2")
output=$(realpath "$3")
packaging=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# guidOf NAME: the same one each time, in the layout of version 5 (RFC 9562).
guidOf()
{
    local hash
    hash=$(sha1sum <<<"Norvanta KeyWarden: $1" | tr a-f A-F)
    echo "${hash:0:8}-${hash:8:4}-5${hash:13:3}-A${hash:17:3}-${hash:20:12}"
}

# idOf PATH: different for files of the same name in two folders.
idOf()
{
    echo "${1//[^A-Za-z0-9.]/_}"
}

# addFolder PATH: its files and folders as components, and a reference to each. The module and the program
# are in keywarden.wxs.
addFolder()
{
    local name path id
    while read -r name; do
        path=${1:+$1/}$name
        id=$(idOf "$path")
        printf '<Component Id="c_%s" Guid="%s" Win64="yes">' "$id" "$(guidOf "$path")"
        printf '<File Id="%s" Name="%s" Source="stage/%s" KeyPath="yes"/></Component>\n' "$id" "$name" \
            "$path"
        printf '<ComponentRef Id="c_%s"/>\n' "$id" >&3
    done < <(find "$stage/$1" -mindepth 1 -maxdepth 1 -type f ! -name '*.exe' ! -name '*.dll' \
        -printf '%f\n' | LC_ALL=C sort)
    while read -r name; do
        path=${1:+$1/}$name
        printf '<Directory Id="d_%s" Name="%s">\n' "$(idOf "$path")" "$name"
        addFolder "$path"
        echo "</Directory>"
    done < <(find "$stage/$1" -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | LC_ALL=C sort)
}

makeIncludes()
{
    {
        echo "<Include>"
        echo "<Include>" >&3
        addFolder ""
        echo "</Include>"
        echo "</Include>" >&3
    } >"$work/documents.wxi" 3>"$work/references.wxi"
}

# wixl takes sources from below the folder that it runs in.
compile()
{
    ln -s "$stage" "$work/stage"
    cp "$packaging/../provider/res/nvksprovider.ico" "$work/product.ico"
    (cd "$work" && G_DEBUG=fatal-warnings wixl --arch x64 -I . -D "Version=$version" \
        -D "ProductCode=$(guidOf "product $version")" -o keywarden.msi "$packaging/keywarden.wxs")
}

# All statements of packaging/msi-tables.sql.
addTables()
{
    local statements
    mapfile -t statements < <(sed -e '/^#/d' -e '/^$/d' -e "s/VERSION'/$version.0'/" "$packaging/msi-tables.sql")
    msibuild "$work/keywarden.msi" -q "${statements[@]}"
}

makeIncludes
compile
addTables
mv "$work/keywarden.msi" "$output"
