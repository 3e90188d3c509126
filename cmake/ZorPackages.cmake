# Debian packages: `cpack -G DEB` in a build directory makes libzor-core1, libzor-core-dev and
# zor-core-tools, and libzor-core1-dbgsym and zor-core-tools-dbgsym with their debug information.
set(CPACK_PACKAGE_NAME zor-core)
set(CPACK_PACKAGE_VENDOR "zor-core")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "actor runtime for television service daemons")
set(CPACK_PACKAGE_CONTACT "zor-core maintainers <maintainers@zor-core.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime runtime_debug development platform platform-development)
if(ZOR_BUILD_TOOLS OR ZOR_BUILD_EXAMPLES)
  list(APPEND CPACK_COMPONENTS_ALL tools tools_debug)
endif()
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)

# Of the processor that the compiler is for, which need not be that of this machine. Where dpkg cannot be
# asked, cpack finds one itself.
find_program(DPKG_ARCHITECTURE_PROGRAM dpkg-architecture)
mark_as_advanced(DPKG_ARCHITECTURE_PROGRAM)
if(DPKG_ARCHITECTURE_PROGRAM AND CMAKE_LIBRARY_ARCHITECTURE)
  execute_process(COMMAND ${DPKG_ARCHITECTURE_PROGRAM} -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(CMAKE_CROSSCOMPILING AND NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  message(STATUS "dpkg does not say of which architecture the packages are: tell cpack, with "
                 "-D CPACK_DEBIAN_PACKAGE_ARCHITECTURE=...")
endif()
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})

# The same from every build of these sources: the times, and the folders' permissions.
configure_file(${PROJECT_SOURCE_DIR}/cmake/package/cpack-config.cmake.in
               ${PROJECT_BINARY_DIR}/package/cpack-config.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/package/cpack-config.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package/split-debug.cmake
                            ${PROJECT_SOURCE_DIR}/cmake/package/folder-permissions.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzor-core${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Process entry, tasks with event queues, timers, watchdog pings and logging
for service daemons")
if(ZOR_PLATFORM STREQUAL "host")
  string(APPEND CPACK_DEBIAN_RUNTIME_DESCRIPTION ", with the platform library of a development machine")
endif()
string(APPEND CPACK_DEBIAN_RUNTIME_DESCRIPTION ".")
# The loader's cache is brought up to date once, after all packages of an installation.
file(WRITE ${PROJECT_BINARY_DIR}/package/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/package/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzor-core-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}-1), libexpected-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libgtest-dev (>= 1.12)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "Headers of the runtime, typed messages over it, headers of its platform, the
files that CMake and pkg-config need to find them, and a library for
applications' tests.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zor-core-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION}), gdb, mount, python3")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "Tools for engineers: zor-record prints what a daemon has recorded and shows it
in a browser, zor-inspect shows what a running, hung or dead daemon is
doing, zor-top shows what its tasks do, again and again, zor-sim runs
programs by seed and in virtual time, and zor-apart gives each daemon a /tmp
of its own. infobox shows a daemon's messages on a terminal, and zor-tsmon is
an example daemon that monitors a transport stream.")
# zor-inspect reads the library by it.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}-dbgsym")
# zor_debug_package(GROUP): the package that split-debug.cmake fills with the debug information of GROUP's.
macro(zor_debug_package group)
  set(zor_stripped ${CPACK_DEBIAN_${group}_PACKAGE_NAME})
  set(CPACK_DEBIAN_${group}_DEBUG_PACKAGE_NAME ${zor_stripped}-dbgsym)
  set(CPACK_DEBIAN_${group}_DEBUG_PACKAGE_SECTION debug)
  set(CPACK_DEBIAN_${group}_DEBUG_PACKAGE_DEPENDS "${zor_stripped} (= ${PROJECT_VERSION}-1)")
  set(CPACK_DEBIAN_${group}_DEBUG_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_${group}_DEBUG_DESCRIPTION
      "Debug information of what is in ${zor_stripped}, which debuggers find by
themselves.")
endmacro()
zor_debug_package(RUNTIME)
zor_debug_package(TOOLS)

# The words of LICENSE in the form of Debian's copyright file: every line behind a blank, empty ones a dot.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE ZOR_LICENSE)
string(STRIP "${ZOR_LICENSE}" ZOR_LICENSE)
string(REPLACE "\n\n" "\n.\n" ZOR_LICENSE " ${ZOR_LICENSE}")
string(REPLACE "\n" "\n " ZOR_LICENSE "${ZOR_LICENSE}")
# And those of what the tools hand on.
set(zor_d3_license ${PROJECT_SOURCE_DIR}/tools/zor-record/page/LICENSE.d3)
file(READ ${zor_d3_license} ZOR_D3_LICENSE)
string(STRIP "${ZOR_D3_LICENSE}" ZOR_D3_LICENSE)
string(REPLACE "\n\n" "\n.\n" ZOR_D3_LICENSE " ${ZOR_D3_LICENSE}")
string(REPLACE "\n" "\n " ZOR_D3_LICENSE "${ZOR_D3_LICENSE}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/package/copyright.in ${PROJECT_BINARY_DIR}/package/copyright @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/LICENSE
             ${zor_d3_license})

# Every package has its own folder of documents; Debian wants the change log compressed.
find_program(GZIP_PROGRAM gzip REQUIRED)
foreach(package
    "runtime|${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}"
    "development|${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME}"
    "tools|${CPACK_DEBIAN_TOOLS_PACKAGE_NAME}"
    "runtime_debug|${CPACK_DEBIAN_RUNTIME_DEBUG_PACKAGE_NAME}"
    "tools_debug|${CPACK_DEBIAN_TOOLS_DEBUG_PACKAGE_NAME}")
  string(REPLACE "|" ";" package ${package})
  list(GET package 0 zor_component)
  list(GET package 1 ZOR_PACKAGE_NAME)
  set(zor_documents ${PROJECT_BINARY_DIR}/package/${ZOR_PACKAGE_NAME})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/package/changelog.Debian.in
                 ${zor_documents}/changelog.Debian @ONLY)
  execute_process(COMMAND ${GZIP_PROGRAM} -9nf ${zor_documents}/changelog.Debian
                  COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${zor_documents}/changelog.Debian.gz
                ${PROJECT_BINARY_DIR}/package/copyright
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZOR_PACKAGE_NAME}
          COMPONENT ${zor_component})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/package/${ZOR_PACKAGE_NAME}.lintian-overrides
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${ZOR_PACKAGE_NAME}
          COMPONENT ${zor_component})
endforeach()

include(CPack)
foreach(group runtime runtime_debug development tools tools_debug)
  cpack_add_component_group(${group})
endforeach()
cpack_add_component(runtime GROUP runtime)
cpack_add_component(platform GROUP runtime)
cpack_add_component(development GROUP development)
cpack_add_component(platform-development GROUP development)
cpack_add_component(tools GROUP tools)
cpack_add_component(runtime_debug GROUP runtime_debug)
cpack_add_component(tools_debug GROUP tools_debug)
