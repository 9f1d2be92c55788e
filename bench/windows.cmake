# Of the module's own objects as they are shipped, under Wine.

# Profiles and folders are the tests' own; their libraries are not, since those bring the checked
# objects of the module.
set(test_support_folder ${PROJECT_SOURCE_DIR}/tests/support)
add_library(bench_module STATIC EXCLUDE_FROM_ALL ${test_support_folder}/common/folder.cpp
                                                  ${test_support_folder}/common/profile.cpp)
target_include_directories(bench_module PUBLIC ${test_support_folder}/common)
target_link_libraries(
  bench_module
  PRIVATE keywarden_warnings
  PUBLIC keywarden_core scripted_token_client host_client)
