#!/bin/bash
# Holds the sources to the house rules: clang-format and cppcheck over all files, clang-tidy over the
# files that changed. Run by people before they commit and by test.sh.
#   --full  clang-tidy over all files
#   --fix   only lays the files out anew, by clang-format
# What counts as changed: the last commit, and what is not committed. KEYWARDEN_LINT_BASE names another
# commit to compare with, for a branch of several.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

folders=(provider tools tests bench)

# Sources that no compile database lists, so that clang-tidy cannot know their flags.
outsideDatabases=(
    'tests/support/bridge/*' # Winelib code: compiled by winegcc, which CMake has no language for
    'tests/support/host/*'   # the same
)

# filesNamed PATTERN...: the project's files with such names, sorted, relative to the tree.
filesNamed()
{
    local pattern tests=() existing=()
    for pattern in "$@"; do
        tests+=(-o -name "$pattern")
    done
    for pattern in "${folders[@]}"; do
        [ ! -d "$pattern" ] || existing+=("$pattern")
    done
    find "${existing[@]}" -type f \( "${tests[@]:1}" \) | LC_ALL=C sort
}

checkFormat()
{
    local files
    mapfile -t files < <(filesNamed '*.cpp' '*.c' '*.h')
    if [ "${#files[@]}" -eq 0 ]; then
        echo "no source found" >&2
        return 1
    fi
    say "clang-format: ${#files[@]} files"
    clang-format --dry-run --Werror --ferror-limit=5 "${files[@]}" || {
        echo "scripts/lint.sh --fix lays the files out as .clang-format says" >&2
        return 1
    }
}

# mirrorForCppcheck: cppcheck 2.10 does not know __VA_OPT__ and would give up on every file that
# traces. It reads a copy of the sources in which the older spelling stands in that place.
mirrorForCppcheck()
{
    local tree=$build/cppcheck/tree
    rm -rf "$tree"
    mkdir -p "$tree"
    filesNamed '*.cpp' '*.c' '*.h' | xargs -r cp --parents -t "$tree"
    find "$tree" -type f -exec \
        sed -i 's/__VA_OPT__(, *) *__VA_ARGS__/, ##__VA_ARGS__/' {} +
}

checkCppcheck()
{
    local files
    mapfile -t files < <(filesNamed '*.cpp' '*.c')
    if [ "${#files[@]}" -eq 0 ]; then
        echo "no source found" >&2
        return 1
    fi
    mirrorForCppcheck || return 1
    mkdir -p "$build/cppcheck/cache"
    # The definitions are the compiler's own; without them every #ifdef is tried both ways.
    (cd "$build/cppcheck/tree" &&
        cppcheck --enable=warning,performance,portability --inline-suppr --error-exitcode=1 \
            --suppressions-list="$root/.cppcheck-suppressions" \
            --cppcheck-build-dir="$build/cppcheck/cache" \
            --std=c++20 --platform=win64 --library=windows --library=googletest \
            -D_WIN32 -D_WIN64 -D__MINGW32__ -D__MINGW64__ -D__x86_64__ -D__GNUC__=12 -DNDEBUG \
            -Iprovider/src -Itests/support/common -j"$(nproc)" --quiet --template=gcc "${files[@]}")
}

# changedFiles: what clang-tidy looks at when not asked for everything; "*" if that cannot be told.
changedFiles()
{
    local base=${KEYWARDEN_LINT_BASE:-}
    [ -n "$base" ] || base=$(git rev-parse -q --verify HEAD~1 2>/dev/null || true)
    if [ -z "$base" ]; then
        echo '*'
        return 0
    fi
    git diff --name-only --diff-filter=d "$base" -- || return 1
    git ls-files --others --exclude-standard
}

# sourcesToTidy: the sources among the changed files, and those that include a changed header.
sourcesToTidy()
{
    local changed file
    changed=$(changedFiles) || return 1
    if [ "$changed" = '*' ] || grep -qx -e '\.clang-tidy' -e 'scripts/lint\.sh' <<<"$changed"; then
        filesNamed '*.cpp'
        return 0
    fi
    {
        grep -x '.*\.cpp' <<<"$changed" | grep -xF -f <(filesNamed '*.cpp') || true
        for file in $(grep -x '.*\.h' <<<"$changed" || true); do
            filesNamed '*.cpp' | xargs -r grep -l "#include \"\(.*/\)\?${file##*/}\"" || true
        done
    } | LC_ALL=C sort -u
}

# crossFlags: what the cross compiler knows and clang does not: the target, and where the headers of
# the system and the standard library are. The compiler's intrinsics come from clang itself.
crossFlags()
{
    local folder
    printf '%s\n' --extra-arg=--target=x86_64-w64-mingw32 --extra-arg=-nostdlibinc
    x86_64-w64-mingw32-g++-posix -x c++ -E -v /dev/null 2>&1 |
        sed -n '/^#include <\.\.\.>/,/^End of search list/s/^ //p' |
        while read -r folder; do
            folder=$(readlink -f "$folder")
            case $folder in
                */gcc/*/include | */gcc/*/include-fixed) ;;
                *) printf '%s\n' "--extra-arg=-isystem$folder" ;;
            esac
        done
}

# tidyOne DATABASE SOURCE FLAGS...: silent when there is nothing to say.
tidyOne()
{
    local database=$1 source=$2 output
    shift 2
    # The warning flags of GCC that clang lacks are not its concern.
    if ! output=$(clang-tidy --quiet -p "$database" --extra-arg=-Wno-unknown-warning-option \
        "$@" "$source" 2>&1); then
        printf '%s\n' "clang-tidy: $source" "$output" |
            grep -v -e '^[0-9]* warnings\? .*generated\.$' -e ' warnings treated as errors$' || true
        return 1
    fi
}
export -f tidyOne

# makeDatabase PRESET: a build that is never built, in build/lint, in which every source stands alone;
# clang-tidy can use neither GCC's precompiled headers nor sources that are compiled together.
makeDatabase()
{
    local preset=$1 log=$build/lint/configure-$1.log
    mkdir -p "$build/lint"
    cmake --preset "$preset" -B "$build/lint/$preset" -DKEYWARDEN_ONE_BY_ONE=ON >"$log" 2>&1 || {
        cat "$log" >&2
        return 1
    }
}

# listed PRESET SOURCE: true if the build of that name compiles the source.
listed()
{
    grep -qF "\"file\": \"$root/$2\"" "$build/lint/$1/compile_commands.json"
}

# tidyAll PRESET SOURCE...: two at a time, or as many as there are processors.
tidyAll()
{
    local database=$build/lint/$1 flags=()
    [ "$1" != windows ] || mapfile -t flags < <(crossFlags)
    shift
    [ "$#" -gt 0 ] || return 0
    printf '%s\0' "$@" |
        xargs -0 -P "$(nproc)" -I{} bash -c 'tidyOne "$@"' tidyOne "$database" {} "${flags[@]}"
}

checkTidy()
{
    local sources source pattern preset windows=() host=() fuzz=() bench=() known status=0
    if [ "$full" = yes ]; then
        mapfile -t sources < <(filesNamed '*.cpp')
    else
        sources=$(sourcesToTidy) || return 1
        mapfile -t sources < <(printf '%s' "$sources")
    fi
    for preset in windows host fuzz bench; do
        makeDatabase "$preset" || return 1
    done
    for source in "${sources[@]}"; do
        known=no
        if listed windows "$source"; then
            windows+=("$source")
            known=yes
        elif listed host "$source"; then
            host+=("$source")
            known=yes
        elif listed fuzz "$source"; then
            fuzz+=("$source")
            known=yes
        elif listed bench "$source"; then
            bench+=("$source")
            known=yes
        fi
        for pattern in "${outsideDatabases[@]}"; do
            # shellcheck disable=SC2053 # it is a pattern
            [[ $source != $pattern ]] || known=yes
        done
        if [ "$known" = no ]; then
            echo "$source: no build compiles it" >&2
            status=1
        fi
    done
    say "clang-tidy: files of the builds: ${#windows[@]} windows, ${#host[@]} host, ${#fuzz[@]} fuzz, ${#bench[@]} bench"
    # Benchmarks include what nothing else needs.
    [ "${#bench[@]}" -eq 0 ] || scripts/setup.sh --bench || return 1
    tidyAll windows "${windows[@]}" || status=1
    tidyAll host "${host[@]}" || status=1
    tidyAll fuzz "${fuzz[@]}" || status=1
    tidyAll bench "${bench[@]}" || status=1
    return "$status"
}

full=no
fix=no
for argument in "$@"; do
    case $argument in
        --full) full=yes ;;
        --fix) fix=yes ;;
        *)
            echo "usage: scripts/lint.sh [--full] [--fix]" >&2
            exit 2
            ;;
    esac
done
mkdir -p "$build"
if [ "$fix" = yes ]; then
    filesNamed '*.cpp' '*.c' '*.h' | xargs -r clang-format -i
    exit 0
fi
status=0
timed "clang-format" checkFormat || status=1
timed "cppcheck" checkCppcheck || status=1
timed "clang-tidy" checkTidy || status=1
exit "$status"
