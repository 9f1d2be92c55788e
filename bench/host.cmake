# The benchmarks of the portable parts, optimized, for this machine.

# A token behind a network; bench/fleet.sh makes the network and runs these.
benchmark(remote_calls remote_calls.cpp support/native_token.cpp)
target_include_directories(bench_remote_calls SYSTEM PRIVATE /usr/include/p11-kit-1)
benchmark(remote_clients remote_clients.cpp support/native_token.cpp)
target_include_directories(bench_remote_clients SYSTEM PRIVATE /usr/include/p11-kit-1)
benchmark(delay_relay delay_relay.cpp)

# Compared with OpenSSL's codecs. Linked into one program, as the module is with the standard library,
# so that neither of them calls through the dynamic linker's tables.
benchmark(codecs codecs.cpp LIBRARIES keywarden_portable crypto)
target_link_options(bench_codecs PRIVATE -static)

# Not a benchmark: scripts/instructions.sh counts the instructions of this program.
add_executable(bench_hot_paths EXCLUDE_FROM_ALL hot_paths.cpp)
target_include_directories(bench_hot_paths PRIVATE support)
target_link_libraries(bench_hot_paths PRIVATE keywarden_portable keywarden_warnings)
