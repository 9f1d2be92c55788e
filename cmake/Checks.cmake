# What the tests' own build of the module carries besides: it stops at undefined behaviour, at a
# library call or an index out of bounds, at a smashed stack, and at locks taken out of order. The
# build that is shipped has none of it.
add_library(keywarden_checks INTERFACE)
# Seen by test programs too, because the standard library's containers cross the border.
target_compile_definitions(keywarden_checks INTERFACE _GLIBCXX_ASSERTIONS)

# Of the module's own objects alone.
add_library(keywarden_sanitizers INTERFACE)
if(WIN32)
  # MinGW has no runtime library to report with, so the process ends with an illegal instruction.
  set(sanitizers -fsanitize=undefined -fsanitize-undefined-trap-on-error -fstack-protector-strong)
  target_compile_definitions(keywarden_sanitizers INTERFACE _FORTIFY_SOURCE=2)
  target_link_options(keywarden_checks INTERFACE -fstack-protector-strong)
elseif(NOT KEYWARDEN_STAND_IN)
  # With the stand-in, the preset says which sanitizers everything is built with.
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_link_options(keywarden_checks INTERFACE ${sanitizers})
endif()
target_compile_options(keywarden_sanitizers INTERFACE ${sanitizers})
if(WIN32 OR KEYWARDEN_STAND_IN)
  # Makes a lock larger, so that all who see one must agree.
  target_compile_definitions(keywarden_checks INTERFACE KEYWARDEN_CHECK_LOCK_ORDER)
endif()
