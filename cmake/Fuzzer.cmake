# What the fuzz targets and the module's objects in them are built with: libFuzzer's coverage counters,
# and checks that stop at the first bad access, overflow or conversion. Clang only.
set(fuzzSanitizers -fsanitize=address,undefined,float-cast-overflow -fno-sanitize-recover=all)

# Of everything that a target runs.
add_library(keywarden_fuzzer_objects INTERFACE)
target_compile_options(keywarden_fuzzer_objects
                       INTERFACE ${fuzzSanitizers} -fsanitize=fuzzer-no-link -fno-omit-frame-pointer)

# Of the programs: their main function is libFuzzer's.
add_library(keywarden_fuzzer INTERFACE)
target_compile_definitions(keywarden_fuzzer INTERFACE _GLIBCXX_ASSERTIONS)
target_link_options(keywarden_fuzzer INTERFACE ${fuzzSanitizers} -fsanitize=fuzzer)
