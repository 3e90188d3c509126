# Run by cpack on what it is about to pack: takes the debug information out of a package's programs and
# libraries, and puts it into the package beside it, where debuggers look for it by the build id.
foreach(group runtime tools)
  file(GLOB_RECURSE files LIST_DIRECTORIES false ${CPACK_TEMPORARY_DIRECTORY}/${group}/*)
  foreach(file IN LISTS files)
    file(READ ${file} magic LIMIT 4 HEX)
    if(IS_SYMLINK ${file} OR NOT magic STREQUAL "7f454c46") # ELF
      continue()
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${CPACK_READELF_EXECUTABLE} -n ${file}
                    OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
    if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
      message(FATAL_ERROR "${file} has no build id, by which its debug information would be found")
    endif()
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/${group}_debug/usr/lib/debug/.build-id/${CMAKE_MATCH_1})
    set(debug ${folder}/${CMAKE_MATCH_2}.debug)
    file(MAKE_DIRECTORY ${folder})
    execute_process(COMMAND ${CPACK_OBJCOPY_EXECUTABLE} --only-keep-debug --compress-debug-sections
                            ${file} ${debug}
                    COMMAND_ERROR_IS_FATAL ANY)
    file(CHMOD ${debug} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND ${CPACK_OBJCOPY_EXECUTABLE} --strip-unneeded ${file}
                    COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endforeach()
