#!/bin/bash
# Checks the sources: the layers, the format, spelling and scripts, cppcheck over all files, clang over those
# of the module that no other build of clang has, and clang-tidy over the files that changed. Run by people
# before they commit and by test.sh.
#   --full  clang-tidy over all files
#   --fix   only formats the files, by clang-format
# A file has changed if the last commit or what is not committed changes it. KEYWARDEN_LINT_BASE names
# another commit to compare with, for a branch of several.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

folders=(provider tools tests bench)

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

# textFiles: what the project's people write, without seeds, pictures and recorded logs.
textFiles()
{
    git ls-files --cached --others --exclude-standard |
        grep -vE -e '^tests/fuzz/seeds/' -e '\.(png|svg|ico|log)$' |
        while read -r file; do [ ! -f "$file" ] || echo "$file"; done
}

# shellScripts: the scripts, which may have no suffix.
shellScripts()
{
    local file
    textFiles | while read -r file; do
        if [[ $file == *.sh ]] || head -n 1 "$file" | grep -qE '^#!.*[/ ](ba)?sh$'; then
            echo "$file"
        fi
    done
}

checkScripts()
{
    local files
    mapfile -t files < <(shellScripts)
    say "shellcheck: ${#files[@]} scripts"
    shellcheck "${files[@]}"
}

checkSpelling()
{
    local files
    mapfile -t files < <(textFiles)
    say "codespell: ${#files[@]} files"
    codespell --ignore-words .codespell-ignore "${files[@]}"
}

checkWorkflows()
{
    local files
    mapfile -t files < <(git ls-files '*.yml')
    say "yamllint: ${#files[@]} files"
    yamllint --strict "${files[@]}"
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
        echo "scripts/lint.sh --fix formats the files" >&2
        return 1
    }
}

checkGo()
{
    local files
    files=$(gofmt -l tests) || return 1
    [ -z "$files" ] || {
        echo "gofmt -w formats: $files" >&2
        return 1
    }
}

# mirrorForCppcheck: cppcheck 2.10 does not know __VA_OPT__ and would give up on every file that
# traces. It reads a copy of the sources that has the older spelling instead.
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
            -Iprovider/src -Itests/support/common -Itests/support/objects \
            -j"$(nproc)" --quiet --template=gcc "${files[@]}")
}

# changedFiles: what clang-tidy looks at when not asked for everything; "*" if that is not known.
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

# readersOf HEADER...: the sources that include one of the headers; of a header that only other headers
# include, the sources that include those.
readersOf()
{
    local header including sources next=() seen=" $* "
    while [ "$#" -gt 0 ]; do
        next=()
        for header in "$@"; do
            including=$(filesNamed '*.cpp' '*.h' |
                xargs -r grep -l "#include \"\(.*/\)\?${header##*/}\"" || true)
            sources=$(grep '\.cpp$' <<<"$including" || true)
            if [ -n "$sources" ]; then
                echo "$sources"
                continue
            fi
            for including in $(grep '\.h$' <<<"$including" || true); do
                [[ $seen == *" $including "* ]] || next+=("$including")
                seen+="$including "
            done
        done
        set -- "${next[@]}"
    done
}

# sourcesToTidy: the sources among the changed files, and those that include a changed header.
sourcesToTidy()
{
    local changed headers
    changed=$(changedFiles) || return 1
    if [ "$changed" = '*' ] || grep -qx -e '\(.*/\)\?\.clang-tidy' -e 'scripts/lint\.sh' <<<"$changed"; then
        filesNamed '*.cpp'
        return 0
    fi
    mapfile -t headers < <(grep '\.h$' <<<"$changed" | grep -xF -f <(filesNamed '*.h') || true)
    {
        grep '\.cpp$' <<<"$changed" | grep -xF -f <(filesNamed '*.cpp') || true
        readersOf "${headers[@]}"
    } | LC_ALL=C sort -u
}

# crossFlags: what the cross compiler knows and clang does not: the target, and where the headers of
# the system and the standard library are. The compiler's intrinsics come from clang itself.
crossFlags()
{
    local folder
    printf '%s\n' --target=x86_64-w64-mingw32 -nostdlibinc
    x86_64-w64-mingw32-g++-posix -x c++ -E -v /dev/null 2>&1 |
        sed -n '/^#include <\.\.\.>/,/^End of search list/s/^ //p' |
        while read -r folder; do
            folder=$(readlink -f "$folder")
            case $folder in
                */gcc/*/include | */gcc/*/include-fixed) ;;
                *) printf '%s\n' "-isystem$folder" ;;
            esac
        done
}

# makeDatabase PRESET: a build that is never built, in build/lint, in which every source is compiled alone;
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

# checkClang: clang reads the module's sources that the build with sanitizers does not compile, its analysis
# of the locks included (base/thread_annotations.h).
checkClang()
{
    local flags files
    makeDatabase windows || return 1 # it has the header with the version
    mapfile -t flags < <(crossFlags)
    flags+=("-I$build/lint/windows/provider")
    mapfile -t files < <(find provider/src/dll provider/src/pindialog -name '*.cpp')
    printf '%s\n' "${files[@]}" | xargs -P "$(nproc)" -I{} bash -c '
        clang++ -fsyntax-only -std=c++20 -Wall -Wextra -Wthread-safety -Werror -Iprovider/src \
            "${@:2}" "$1"' clang {} "${flags[@]}"
}

# tidyAll DATABASE SOURCE...: by run-clang-tidy, as many at a time as there are processors. What it says is
# shown only if there are findings.
tidyAll()
{
    local database=$1 log=$build/lint/tidy-${1//\//-}.log source flags=() expressions=()
    shift
    [ "$#" -gt 0 ] || return 0
    if [ "$database" = windows ]; then
        mapfile -t flags < <(crossFlags)
    fi
    # The warning flags of GCC that clang lacks are not its concern.
    flags+=(-Wno-unknown-warning-option)
    for source in "$@"; do
        expressions+=("^$root/${source//./\\.}\$")
    done
    run-clang-tidy -quiet -j "$(nproc)" -p "$build/lint/$database" \
        -header-filter="^$root/(provider/src|tools|tests|bench)/" "${flags[@]/#/-extra-arg=}" \
        "${expressions[@]}" >"$log" 2>&1 && return 0
    sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -v -e '^[0-9]* warnings\? ' -e '^clang-tidy-[0-9]* ' >&2
    return 1
}

# listed DATABASE SOURCE: true if that database has the source.
listed()
{
    grep -qF "\"file\": \"$root/$2\"" "$build/lint/$1/compile_commands.json"
}

checkTidy()
{
    local sources=() source database known status=0
    # Of a source that several builds compile, the first one says how. The second database has the Winelib
    # sources, which CMake's own does not list.
    local databases=(windows windows/winelib host sanitized bench)
    local -A of=()
    if [ "$full" = yes ]; then
        mapfile -t sources < <(filesNamed '*.cpp')
    else
        mapfile -t sources < <(sourcesToTidy)
    fi
    for database in host sanitized bench; do
        makeDatabase "$database" || return 1
    done
    for source in "${sources[@]}"; do
        known=no
        for database in "${databases[@]}"; do
            if listed "$database" "$source"; then
                of[$database]+="$source"$'\n'
                known=yes
                break
            fi
        done
        if [ "$known" = no ]; then
            echo "$source: no build compiles it" >&2
            status=1
        fi
    done
    say "clang-tidy: ${#sources[@]} sources"
    # Benchmarks include what nothing else needs.
    [ -z "${of[bench]:-}" ] || scripts/setup.sh --bench || return 1
    for database in "${databases[@]}"; do
        mapfile -t sources < <(printf '%s' "${of[$database]:-}")
        tidyAll "$database" "${sources[@]}" || status=1
    done
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
timed "layers" scripts/layers.py || status=1
timed "clang-format" checkFormat || status=1
timed "gofmt" checkGo || status=1
timed "shellcheck" checkScripts || status=1
timed "codespell" checkSpelling || status=1
timed "yamllint" checkWorkflows || status=1
timed "cppcheck" checkCppcheck || status=1
timed "clang" checkClang || status=1
timed "clang-tidy" checkTidy || status=1
exit "$status"
