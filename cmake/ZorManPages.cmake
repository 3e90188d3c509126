# Manual pages: of every program that is installed, made by help2man of its --help, and of the library. The
# pages of the programs need help2man; without it they are left out.
find_program(HELP2MAN_PROGRAM help2man)
find_program(GZIP_PROGRAM gzip REQUIRED)
set(ZOR_MAN_DIRECTORY ${PROJECT_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${ZOR_MAN_DIRECTORY})

# An instrumented program, or one for another processor, is not what to ask.
set(zor_man_pages OFF)
if(HELP2MAN_PROGRAM AND NOT CMAKE_CROSSCOMPILING AND NOT ZOR_SANITIZE
   AND NOT ZOR_COVERAGE)
  set(zor_man_pages ON)
elseif(ZOR_BUILD_TOOLS AND NOT HELP2MAN_PROGRAM)
  message(STATUS "help2man is not there: the manual pages of the programs are left out")
endif()

# zor_man_page(PROGRAM SUMMARY [COMMAND command...] [DEPENDS...])
#
# The page of a program, if it is built. COMMAND prints its help (PROGRAM --help unless given).
function(zor_man_page program summary)
  cmake_parse_arguments(arg "" "" "COMMAND;DEPENDS" ${ARGN})
  if(NOT zor_man_pages OR NOT TARGET ${program})
    return()
  endif()
  if(NOT arg_COMMAND)
    set(arg_COMMAND ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${program} --help)
  endif()
  set(page ${ZOR_MAN_DIRECTORY}/${program}.1.gz)
  add_custom_command(
    OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${ZOR_SOURCE_DATE}
            sh ${PROJECT_SOURCE_DIR}/cmake/man/man-page.sh ${HELP2MAN_PROGRAM} ${page} ${program}
            ${PROJECT_VERSION} ${summary} ${arg_COMMAND}
    DEPENDS ${PROJECT_SOURCE_DIR}/cmake/man/man-page.sh ${program} ${arg_DEPENDS}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY ZOR_MAN_PAGES ${page})
  # Optional: whoever builds a few programs only can install these.
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools OPTIONAL)
endfunction()

zor_man_page(infobox "shows a daemon's message in a box on the terminal")
zor_man_page(zor-apart "runs a command with a /tmp of its own")
zor_man_page(zor-inspect "shows what a running, hung or dead daemon is doing")
zor_man_page(zor-record "shows the calls that a daemon has recorded")
zor_man_page(zor-sim "runs a program with threads by seed and in virtual time")
zor_man_page(zor-top "shows what the tasks of a running daemon do, again and again")
if(TARGET zor-tsmon-help)
  # A daemon makes its pid file before it reads its arguments, so another program says its help.
  zor_man_page(zor-tsmon "monitors the services of a transport stream"
               COMMAND ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/zor-tsmon-help DEPENDS zor-tsmon-help)
endif()

get_property(zor_pages GLOBAL PROPERTY ZOR_MAN_PAGES)
add_custom_target(man-pages ALL DEPENDS ${zor_pages})

execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${PROJECT_SOURCE_DIR}/docs/man/zor-core.7
                OUTPUT_FILE ${ZOR_MAN_DIRECTORY}/zor-core.7.gz COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/docs/man/zor-core.7)
install(FILES ${ZOR_MAN_DIRECTORY}/zor-core.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
        COMPONENT development)
