# Of the module's own objects as they are shipped, under Wine.

# Profiles and folders are the tests' own; the tests' libraries are not used, since they bring the
# checked objects of the module. The system's certificate store is replaced by one in memory.
set(tests_folder ${PROJECT_SOURCE_DIR}/tests)
add_library(
  bench_module OBJECT EXCLUDE_FROM_ALL
  support/bare_token.cpp
  support/linked_module.cpp
  ${PROJECT_SOURCE_DIR}/provider/src/dll.cpp
  ${tests_folder}/support/common/folder.cpp
  ${tests_folder}/support/common/profile.cpp
  ${tests_folder}/unit_faults/system_store.cpp)
target_include_directories(bench_module PUBLIC support ${tests_folder}/support/common)
target_compile_definitions(bench_module
                           PUBLIC CERTIFICATES=L"Z:${CMAKE_BINARY_DIR}/fixtures")
target_link_libraries(
  bench_module
  PRIVATE keywarden_warnings
  PUBLIC keywarden_core scripted_token_client host_client)
target_link_options(bench_module INTERFACE -Wl,--wrap=__imp_CertOpenSystemStoreW)
add_dependencies(bench_module certificate_fixtures p11bridge)

benchmark(softhsm_operations softhsm_operations.cpp operations.cpp LIBRARIES bench_module)
benchmark(scripted_operations scripted_operations.cpp operations.cpp LIBRARIES bench_module)
benchmark(threads threads.cpp LIBRARIES bench_module)

# A DLL without content that imports what the module imports, as the reference of loading.
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
target_link_libraries(empty_module PRIVATE keywarden_warnings crypt32 comctl32)
target_link_options(empty_module PRIVATE -static -s)
set_target_properties(empty_module PROPERTIES PREFIX "")

benchmark(loading loading.cpp LIBRARIES bench_module)
target_compile_definitions(
  bench_loading PRIVATE MODULE=L"Z:$<TARGET_FILE:nvksprovider>"
                        EMPTY_MODULE=L"Z:$<TARGET_FILE:empty_module>")
add_dependencies(bench_loading nvksprovider empty_module)
