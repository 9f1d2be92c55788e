# Of the portable parts, optimised, on this machine.

# A token behind a network; bench/fleet.sh runs these with a network of its own.
benchmark(remote_calls remote_calls.cpp support/native_token.cpp)
target_include_directories(bench_remote_calls SYSTEM PRIVATE /usr/include/p11-kit-1)
benchmark(remote_clients remote_clients.cpp support/native_token.cpp)
target_include_directories(bench_remote_clients SYSTEM PRIVATE /usr/include/p11-kit-1)
benchmark(delay_relay delay_relay.cpp)

# Against OpenSSL's. Linked into one program, as the module is with the standard library: neither side
# calls anything through the dynamic linker's tables.
benchmark(codecs codecs.cpp LIBRARIES keywarden_portable crypto)
target_link_options(bench_codecs PRIVATE -static)

# No benchmark of its own: scripts/instructions.sh counts what it does.
add_executable(bench_hot_paths EXCLUDE_FROM_ALL hot_paths.cpp)
target_include_directories(bench_hot_paths PRIVATE support)
target_link_libraries(bench_hot_paths PRIVATE keywarden_portable keywarden_warnings)
