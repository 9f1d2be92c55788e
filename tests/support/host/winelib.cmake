# Host code for the tests, built with the cross build: Winelib DLLs, which contain Linux code and which
# Windows programs load under Wine, and plain Linux libraries. All of it goes to
# ${CMAKE_BINARY_DIR}/winelib, which cmake/run-under-wine passes to Wine.
include_guard(GLOBAL)

find_program(KEYWARDEN_HOST_CXX g++ REQUIRED)
find_program(KEYWARDEN_WINEGXX wineg++ REQUIRED)
find_program(KEYWARDEN_WINEBUILD winebuild REQUIRED)
# In the cache, because the guard above stops other folders from running this line.
set(KEYWARDEN_WINELIB ${CMAKE_BINARY_DIR}/winelib CACHE INTERNAL "Folder of the host's code")
file(MAKE_DIRECTORY ${KEYWARDEN_WINELIB})

# Compiles host sources and stores the list of objects in the variable that result names.
function(_host_objects result name)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "SOURCES;INCLUDES;SYSTEM_INCLUDES")
  get_target_property(warnings keywarden_warnings INTERFACE_COMPILE_OPTIONS)
  set(flags -std=c++20 -O2 -g -fPIC -fvisibility=hidden ${warnings})
  foreach(folder IN LISTS arg_INCLUDES)
    list(APPEND flags -I${folder})
  endforeach()
  foreach(folder IN LISTS arg_SYSTEM_INCLUDES)
    list(APPEND flags -isystem ${folder})
  endforeach()

  set(objects "")
  foreach(source IN LISTS arg_SOURCES)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}.dir/${source}.o)
    add_custom_command(
      OUTPUT ${object}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/${name}.dir
      COMMAND ${KEYWARDEN_HOST_CXX} ${flags} -MD -MF ${object}.d -c
              ${CMAKE_CURRENT_SOURCE_DIR}/${source} -o ${object}
      DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${source}
      DEPFILE ${object}.d
      COMMENT "Compiling ${name}/${source} for the host"
      VERBATIM)
    list(APPEND objects ${object})
    # For clang-tidy: CMake lists only the commands of its own languages.
    list(JOIN flags " " command)
    set_property(
      GLOBAL APPEND PROPERTY KEYWARDEN_HOST_COMMANDS
      "{\"directory\": \"${CMAKE_BINARY_DIR}\", \"file\": \"${CMAKE_CURRENT_SOURCE_DIR}/${source}\",\n \"command\": \"${KEYWARDEN_HOST_CXX} ${command} -c ${CMAKE_CURRENT_SOURCE_DIR}/${source}\"}")
  endforeach()
  get_property(commands GLOBAL PROPERTY KEYWARDEN_HOST_COMMANDS)
  list(JOIN commands ",\n" commands)
  file(WRITE ${KEYWARDEN_WINELIB}/compile_commands.json "[\n${commands}\n]\n")
  set(${result} ${objects} PARENT_SCOPE)
endfunction()

# Target name: name.dll, the placeholder that Windows programs load, and name.dll.so, its code.
#   SPEC: list of exports   SOURCES, INCLUDES, SYSTEM_INCLUDES: as their names say
function(add_winelib_dll name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "SPEC" "")
  _host_objects(objects ${name} ${arg_UNPARSED_ARGUMENTS})
  set(library ${KEYWARDEN_WINELIB}/${name}.dll.so)
  set(placeholder ${KEYWARDEN_WINELIB}/${name}.dll)
  add_custom_command(
    OUTPUT ${library} ${placeholder}
    COMMAND ${KEYWARDEN_WINEGXX} -m64 -shared -o ${library} ${objects} ${arg_SPEC} -ldl
    COMMAND ${KEYWARDEN_WINEBUILD} -m64 --dll --fake-module -E ${arg_SPEC} -F ${name}.dll -o
            ${placeholder}
    DEPENDS ${objects} ${arg_SPEC}
    COMMENT "Linking Winelib DLL ${name}.dll"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${library} ${placeholder})
endfunction()

# Target name: the Linux library name.so.
function(add_host_library name)
  _host_objects(objects ${name} ${ARGN})
  set(library ${KEYWARDEN_WINELIB}/${name}.so)
  add_custom_command(
    OUTPUT ${library}
    COMMAND ${KEYWARDEN_HOST_CXX} -shared -o ${library} ${objects}
    DEPENDS ${objects}
    COMMENT "Linking host library ${name}.so"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${library})
endfunction()
