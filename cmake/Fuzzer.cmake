# What makes a program a fuzz target: its main function is libFuzzer's. The preset "sanitized" compiles
# everything with libFuzzer's counters and with checks that stop at the first bad access, overflow or
# conversion. Clang only.
add_library(keywarden_fuzzer INTERFACE)
target_link_options(keywarden_fuzzer INTERFACE -fsanitize=fuzzer)
