#!/bin/bash
# Runs the commands in the pages, in their order: each line that begins with "> keywarden" in a block
# marked "console". Fails for a command that does not work. Blocks marked "windows" contain commands that
# need a real Windows; these are not run, but those of keywarden must be among the few that are known to
# need it, and the page of examples must have one of each program.
# Prints "ok NAME" or "FAIL NAME: reason" for each command, then the counts.
#   tests/tool/pages_test.sh
set -euo pipefail
area=pages
# shellcheck source=tests/support/keywarden.sh
. "$(dirname "$0")/../support/keywarden.sh"
onOwnScreen "$@"

needWindows='^(register|unregister|status|prove|keys --cng)'
programs="CngKey signtool certreq curl openvpn git"

pages()
{
    (cd "$root" && ls README.md SECURITY.md CONTRIBUTING.md docs/*.md)
}

# commandsIn PAGE KIND: prints the commands in the page's blocks of that kind, without "> keywarden ".
commandsIn()
{
    awk -v kind="$2" '
        /^```/ { inside = !inside && $0 == "```" kind; next }
        inside && /^> keywarden / { sub(/^> keywarden /, ""); print }
    ' "$root/$1"
}

# hasExample PROGRAM: whether a block of the page of examples that is marked "windows" has the program.
hasExample()
{
    awk '/^```/ { inside = !inside && $0 == "```windows"; next } inside' "$root/docs/examples.md" |
        grep -Eq "^(> $1 |PS> .*$1)"
}

# run COMMAND: runs the command in a folder with the files that the pages mention. Replaces the library
# of the examples with the bridge to SoftHSM2.
run()
{
    local arguments library
    library=$(windowsPath "$windows/winelib/p11bridge.dll")
    rm -f letter.txt.* # keywarden replaces no file
    eval "arguments=(${1//\\/\\\\})"
    for ((i = 1; i < ${#arguments[@]}; i++)); do
        [ "${arguments[i - 1]}" != --p11 ] || arguments[i]=$library
    done
    case ${arguments[0]} in
        sign | decrypt | derive) withPin "${arguments[@]}" ;;
        *) keywarden "${arguments[@]}" ;;
    esac
}

prepare()
{
    makeOwnPrefix && makeToken --small || return 1
    rm -rf "$profile" "$work/files"
    mkdir -p "$profile" "$work/files"
    cd "$work/files"
    echo "Dear reader" >letter.txt
}

prepare || {
    bad "prepare" "see the files in $work"
    finish
    exit 1
}
for page in $(pages); do
    while read -r command; do
        succeeds "$page: keywarden $command" run "$command" </dev/null
    done < <(commandsIn "$page" console)
    while read -r command; do
        holds "$page: keywarden $command (needs Windows)" grep -Eq "$needWindows" <<<"$command"
    done < <(commandsIn "$page" windows)
done
for one in $programs; do
    holds "docs/examples.md: $one" hasExample "$one"
done
finish
