#!/bin/bash
# Fuzzes every parser of bytes that come from outside, and the calls of the module: builds the targets in
# tests/fuzz, which are part of the preset "sanitized", and runs them by CTest, as many at a time as there are
# processors. Run by people and by test.sh.
#   SECONDS  how long each target runs (default 60); the one of the calls five times as long
#   TARGET   only the targets whose names contain this
# Prints a line for each target, "ok NAME ..." with executions, coverage and corpus, or
# "FAIL NAME: reason"; then the counts. The status is 1 if any failed. The input of a finding is kept in
# build/sanitized/fuzz/findings; build/sanitized/bin/fuzz_NAME FILE runs it again. Its stack shows functions where
# llvm-symbolizer (package llvm) is installed. CTest's results are in build/tests-fuzz.xml.
set -euo pipefail
. "$(dirname "$0")/lib.sh"
cd "$root"

# checkCompiler: says what is missing, before CMake says it in its own words.
checkCompiler()
{
    local runtime
    if ! command -v clang++ >/dev/null; then
        echo "fuzz.sh: clang++ is missing; scripts/setup.sh installs it" >&2
        return 1
    fi
    runtime=$(clang++ -print-resource-dir)/lib/linux
    for library in fuzzer asan; do
        if [ ! -e "$runtime/libclang_rt.$library-$(uname -m).a" ]; then
            echo "fuzz.sh: clang's $library library is missing in $runtime;" \
                "scripts/setup.sh installs it" >&2
            return 1
        fi
    done
}

runTargets()
{
    KEYWARDEN_FUZZ_SECONDS=$seconds ctest --preset fuzz -j"$(nproc)" --no-tests=error \
        --output-junit "$build/tests-fuzz.xml" --verbose "$@" >"$build/tests-fuzz.log" 2>&1
}

seconds=${1:-60}
if [ "$#" -gt 2 ] || ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: scripts/fuzz.sh [SECONDS] [TARGET]" >&2
    exit 2
fi
mkdir -p "$build"
rm -f "$build/tests-fuzz.xml"
checkCompiler
timed "configure sanitized" configure sanitized
timed "build fuzz targets" compile sanitized --target fuzz_targets
status=0
timed "fuzzing, $seconds s each" runTargets -R "^fuzz_.*${2:-}" || status=$?
sed -n 's/^[0-9]*: \(ok\|FAIL\) /\1 /p' "$build/tests-fuzz.log"
if [ "$status" -ne 0 ]; then
    grep -v -e '^[0-9]*: ok ' "$build/tests-fuzz.log" | tail -n 60 >&2
fi
echo "fuzz: $(grep -c '^[0-9]*: ok ' "$build/tests-fuzz.log" || true) passed," \
    "$(grep -c '^[0-9]*: FAIL ' "$build/tests-fuzz.log" || true) failed"
exit "$status"
