# The debug symbols of what is shipped, in a file of their own.

# Of the sources that go into a shipped file. Neither the file nor its symbols have a path of the build
# machine: they are the same byte for byte wherever they are built.
add_library(keywarden_symbols INTERFACE)
target_compile_options(
  keywarden_symbols INTERFACE -g -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
                              -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)

# keep_symbols(TARGET): after the link, the symbols go from FILE to FILE.debug. A section of the file names
# FILE.debug, so that gdb finds it in the same folder.
function(keep_symbols target)
  set(file $<TARGET_FILE:${target}>)
  add_custom_command(
    TARGET ${target}
    POST_BUILD
    # Otherwise objcopy would write the time of day into both.
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0 ${CMAKE_OBJCOPY} --only-keep-debug ${file}
            ${file}.debug
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=0 ${CMAKE_OBJCOPY} --strip-all
            --add-gnu-debuglink=${file}.debug ${file}
    VERBATIM)
endfunction()
