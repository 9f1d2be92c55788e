# The warnings that all of the project's own code is compiled with. Warnings are errors.
add_library(keywarden_warnings INTERFACE)
target_compile_options(
  keywarden_warnings
  INTERFACE -Wall
            -Wextra
            -Werror
            -Wconversion
            -Wsign-conversion
            -Wshadow
            -Wold-style-cast
            -Wcast-qual
            -Wformat=2
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wnull-dereference)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  target_compile_options(keywarden_warnings INTERFACE -Wduplicated-cond -Wlogical-op)
endif()
