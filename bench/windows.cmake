# The benchmarks of the module's own objects as they are shipped, under Wine.

# Uses the tests' sources for profiles and folders, but not their libraries, which link the checked
# objects of the module.
set(tests_folder ${PROJECT_SOURCE_DIR}/tests)
add_library(bench_module STATIC EXCLUDE_FROM_ALL ${tests_folder}/support/common/folder.cpp
                                                  ${tests_folder}/support/common/profile.cpp)
target_include_directories(bench_module PUBLIC windows ${tests_folder}/support/common)
target_compile_definitions(bench_module PUBLIC CERTIFICATES=L"Z:${CMAKE_BINARY_DIR}/fixtures")
target_link_libraries(
  bench_module
  PRIVATE keywarden_warnings
  PUBLIC keywarden_core scripted_token_client host_client)
add_dependencies(bench_module certificate_fixtures)

# The module's table without its DLL: the PIN is given at once, and certificates are published in a
# store in memory.
add_library(
  bench_linked_module OBJECT EXCLUDE_FROM_ALL
  windows/bare_token.cpp
  windows/linked_module.cpp
  ${PROJECT_SOURCE_DIR}/provider/src/dll/dll.cpp
  ${tests_folder}/support/objects/system_store.cpp)
target_link_libraries(
  bench_linked_module
  PRIVATE keywarden_warnings
  PUBLIC bench_module)
target_link_options(bench_linked_module INTERFACE -Wl,--wrap=__imp_CertOpenSystemStoreW)
add_dependencies(bench_linked_module p11bridge)

benchmark(softhsm_operations softhsm_operations.cpp windows/operations.cpp LIBRARIES
          bench_linked_module)
benchmark(scripted_operations scripted_operations.cpp windows/operations.cpp LIBRARIES
          bench_linked_module)
benchmark(threads threads.cpp LIBRARIES bench_linked_module)
benchmark(modes modes.cpp windows/operations.cpp LIBRARIES bench_linked_module)

# An empty DLL with the module's imports, to compare loading with.
set(imports ${CMAKE_CURRENT_BINARY_DIR}/imports)
add_custom_command(
  OUTPUT ${imports}.obj
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/empty_module/imports.sh ${CMAKE_OBJDUMP}
          $<TARGET_FILE:nvksprovider> ${imports}.s
  COMMAND ${CMAKE_CXX_COMPILER} -c ${imports}.s -o ${imports}.obj
  DEPENDS nvksprovider empty_module/imports.sh
  VERBATIM)
add_library(empty_module SHARED EXCLUDE_FROM_ALL empty_module/empty_module.cpp ${imports}.obj)
target_include_directories(empty_module PRIVATE ${PROJECT_SOURCE_DIR}/provider/src)
target_link_libraries(empty_module PRIVATE keywarden_warnings bcrypt crypt32 comctl32)
target_link_options(empty_module PRIVATE -static -s)
set_target_properties(empty_module PROPERTIES PREFIX "")

benchmark(loading loading.cpp LIBRARIES bench_module)
target_compile_definitions(
  bench_loading PRIVATE MODULE=L"Z:$<TARGET_FILE:nvksprovider>"
                        EMPTY_MODULE=L"Z:$<TARGET_FILE:empty_module>")
add_dependencies(bench_loading nvksprovider empty_module)

benchmark(call_counts call_counts.cpp LIBRARIES bench_linked_module)

# A second bridge, for a second native library in one process.
add_custom_command(
  OUTPUT ${KEYWARDEN_WINELIB}/p11bridge_second.dll ${KEYWARDEN_WINELIB}/p11bridge_second.dll.so
  COMMAND ${CMAKE_COMMAND} -E copy p11bridge.dll p11bridge_second.dll
  COMMAND ${CMAKE_COMMAND} -E copy p11bridge.dll.so p11bridge_second.dll.so
  DEPENDS p11bridge ${KEYWARDEN_WINELIB}/p11bridge.dll.so
  WORKING_DIRECTORY ${KEYWARDEN_WINELIB}
  VERBATIM)
add_custom_target(p11bridge_second DEPENDS ${KEYWARDEN_WINELIB}/p11bridge_second.dll)
benchmark(tracing tracing.cpp LIBRARIES bench_module)
target_compile_definitions(
  bench_tracing PRIVATE MAKE_TOKEN="${PROJECT_SOURCE_DIR}/tests/support/fixtures/make-token.sh")
add_dependencies(bench_tracing p11bridge_second)

# keywarden, and the least that programs with the same calls can do.
foreach(name empty_program bare_program)
  add_executable(bench_${name} EXCLUDE_FROM_ALL least/${name}.cpp)
  target_link_libraries(bench_${name} PRIVATE keywarden_warnings)
  target_link_options(bench_${name} PRIVATE -static)
endforeach()
target_sources(bench_bare_program PRIVATE windows/bare_token.cpp)
target_link_libraries(bench_bare_program PRIVATE bench_module)
benchmark(tool tool.cpp LIBRARIES bench_module)
target_compile_definitions(
  bench_tool
  PRIVATE KEYWARDEN=L"Z:$<TARGET_FILE:keywarden>"
          EMPTY_PROGRAM=L"Z:$<TARGET_FILE:bench_empty_program>"
          BARE_PROGRAM=L"Z:$<TARGET_FILE:bench_bare_program>")
add_dependencies(bench_tool keywarden nvksprovider p11bridge bench_empty_program bench_bare_program)

benchmark(logger logger.cpp LIBRARIES bench_module)

# Tokens with thousands of certificates.
add_library(bench_certificates STATIC EXCLUDE_FROM_ALL windows/certified_token.cpp)
target_link_libraries(
  bench_certificates
  PRIVATE keywarden_warnings
  PUBLIC bench_module)

# A program with these linker options can exclude the publication of certificates, or time it.
add_library(bench_system_store OBJECT EXCLUDE_FROM_ALL windows/system_store.cpp)
target_include_directories(bench_system_store PUBLIC windows)
target_link_libraries(
  bench_system_store
  PRIVATE keywarden_warnings
  PUBLIC crypt32)
target_link_options(
  bench_system_store
  PUBLIC
  -Wl,--wrap=__imp_CertOpenSystemStoreW
  -Wl,--wrap=__imp_CertAddCertificateContextToStore
  -Wl,--wrap=__imp_CertSetCertificateContextProperty
  -Wl,--wrap=__imp_CertCloseStore)

benchmark(opening opening.cpp windows/bare_opening.cpp windows/heap_use.cpp LIBRARIES
          bench_certificates bench_system_store)
benchmark(keys keys.cpp LIBRARIES bench_certificates bench_system_store)
