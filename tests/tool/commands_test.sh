#!/bin/bash
# Compares docs/commands.md with the help of keywarden: its commands, the options of each with their
# placeholders and defaults, and the exit codes. The examples in the help must use options that exist.
# Prints "ok NAME" or "FAIL NAME: reason" for each check, then the counts. The status is 1 if a check failed.
#   tests/tool/commands_test.sh [PAGE]
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
page=${1:-$root/docs/commands.md}
program=${KEYWARDEN_BUILD:-$root/build/windows}/bin/keywarden.exe
# shellcheck source=tests/support/checks.sh
. "$root/tests/support/checks.sh"

# help [COMMAND]: prints the help of the program or of the command.
help()
{
    "$root/cmake/run-under-wine" "$program" "$@" --help | tr -d '\r'
}

# commandsOfHelp: prints the names of the subcommands in a help text.
commandsOfHelp()
{
    sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'
}

# optionsOfHelp: prints a line for each option and argument in a help text: "--hash HASH = sha256". A
# default of several words is text for people and is omitted.
optionsOfHelp()
{
    # Descriptions go on in the next lines; that of a long option begins there.
    awk 'substr($0, 1, 30) ~ /^ +$/ && length > 30 {
             sub(/^ */, held ~ /^  [-A-Z][^ ]*( [^ ]+)?$/ ? "  " : " ")
             held = held $0
             next
         }
         { print held; held = $0 }
         END { print held }' | awk '
        /^Subcommands:/ { exit }
        /^  [-A-Z]/ {
            option = substr($0, 3)
            value = ""
            if (match(option, /\(default: [^ ]*\)$/))
                value = " = " substr(option, RSTART + 10, RLENGTH - 11)
            sub(/ ( .*|Excludes: .*|TEXT REQUIRED .*)$/, "", option)
            print option value
        }' | LC_ALL=C sort
}

# commandsOfPage: prints the names of the commands that have a section.
commandsOfPage()
{
    sed -n 's/^## keywarden \([a-z]*\)$/\1/p' "$page"
}

# optionsOfPage HEADING: prints the options in that section's table in the form of optionsOfHelp. A default
# that is not one word marked as code is text for people.
optionsOfPage()
{
    awk -v heading="## $1" '
        /^## / { inside = $0 == heading; table = 0 }
        inside && /^\| option \|/ { table = 1; next }
        !/^\|/ { table = 0 }
        inside && table && !/^\| ---/ {
            gsub(/\\\|/, "\a")
            split($0, cells, / *\| */)
            option = cells[2]
            gsub(/`, `/, ",", option)
            gsub(/[`]/, "", option)
            if (cells[3] ~ /^`[^` ]*`$/) {
                gsub(/`/, "", cells[3])
                option = option " = " cells[3]
            }
            gsub(/\a/, "|", option)
            print option
        }' "$page" | LC_ALL=C sort
}

# same HELP PAGE: prints what only one of the two texts has.
same()
{
    diff <(printf '%s\n' "$1") <(printf '%s\n' "$2") |
        sed -n 's/^< /only in the help: /p; s/^> /only on the page: /p'
}

checkCommands()
{
    same "$(help | commandsOfHelp | sort)" "$(commandsOfPage | sort)"
}

checkCommonOptions()
{
    same "$(help | optionsOfHelp)" "$(optionsOfPage "Options of all commands")"
}

# checkOptions COMMAND: --help is among the options of all commands.
checkOptions()
{
    local text
    text=$(help "$1") || return 1
    grep -q '^  -h,--help ' <<<"$text" || echo "it has no --help"
    same "$(optionsOfHelp <<<"$text" | sed '/^-h,--help$/d')" "$(optionsOfPage "keywarden $1")"
}

checkLinks()
{
    local command
    for command in $(commandsOfPage); do
        grep -q "^| .*\[$command\](#keywarden-$command)" "$page" || echo "no link to $command"
    done
}

checkExitCodes()
{
    same "$(help | sed -n '/^Exit codes:/,/^$/s/^  \([0-9]\)  .*/\1/p')" \
        "$(sed -n '/^## Exit codes/,/^## JSON/s/^| \([0-9]\) | .*/\1/p' "$page")"
}

# checkExamples COMMAND: its help has two examples of the command; their options are in the help.
checkExamples()
{
    local text examples option
    text=$(help "$1") || return 1
    examples=$(sed -n "/^Examples:/,/^$/s/^  keywarden $1\b//p" <<<"$text")
    [ "$(help "$1" | grep -c "^  keywarden $1")" = 2 ] || echo "not two examples"
    while read -r option; do
        [ "$option" = --json ] || grep -Eq "^  (-[a-z],)?${option}[ ,]|^  ${option},--" <<<"$text" ||
            echo "no option $option"
    done < <(grep -o -- ' --*[a-z][-a-z0-9]*' <<<"$examples" || true)
}

# The program's own DLLs come from the system's folder: the linker does not write this entry.
checkLoadConfig()
{
    x86_64-w64-mingw32-objdump -p "$program" |
        grep -E '^Entry a 0000000000[0-9a-f]{6} 00000070 Load Config' >/dev/null || echo "no load configuration"
    # LOAD_LIBRARY_SEARCH_SYSTEM32, 0x0800, at the offset 0x4E.
    x86_64-w64-mingw32-objdump -s -j .ldcfg "$program" |
        grep -E '40 [0-9a-f]{8} [0-9a-f]{8} [0-9a-f]{8} 00000008 ' >/dev/null ||
        echo "no DependentLoadFlags"
}

check "the page has all commands" checkCommands
check "the page has the options of all commands" checkCommonOptions
for command in $(commandsOfPage); do
    check "the page has the options of $command" checkOptions "$command"
    check "the help of $command has examples" checkExamples "$command"
done
check "the page has the exit codes" checkExitCodes
check "the program has a load configuration" checkLoadConfig
check "the page has a link to each command" checkLinks
echo "commands: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
