# Saves the compiler from reading the same headers again and again. With KEYWARDEN_ONE_BY_ONE nothing
# of this is done, so every source must include what it uses.

if(KEYWARDEN_ONE_BY_ONE)
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()

# compile_together(TARGET OPTION...): the target's sources several at a time, as the options of CMake's
# unity builds say. What is in an unnamed namespace must then have a name of its own in the target.
function(compile_together target)
  if(NOT KEYWARDEN_ONE_BY_ONE)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON ${ARGN})
  endif()
endfunction()
