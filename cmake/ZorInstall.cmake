# What `cmake --install` and cpack put where. Components: `runtime` (the library), `development` (its
# headers and package files), `platform` and `platform-development` (the same of the development
# machine's platform), `tools`.
include(CMakePackageConfigHelpers)

set(ZOR_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/zor-core)
set(ZOR_PLATFORM_HEADER_DIR ${ZOR_HEADER_DIR}/platform)
set(ZOR_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zor-core)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/inc/ DESTINATION ${ZOR_HEADER_DIR}
        COMPONENT development FILES_MATCHING PATTERN *.h)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/kit/inc/ DESTINATION ${ZOR_HEADER_DIR}
        COMPONENT development FILES_MATCHING PATTERN *.h)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/inc/ DESTINATION ${ZOR_PLATFORM_HEADER_DIR}
        COMPONENT platform-development FILES_MATCHING PATTERN *.h)

set(zor_targets zor-core zor-platform)
if(ZOR_PLATFORM STREQUAL "host")
  list(APPEND zor_targets zor-platform-host)
  install(TARGETS zor-platform-host EXPORT zor-core-targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform
                  NAMELINK_COMPONENT platform-development)
endif()
set_target_properties(zor-core PROPERTIES EXPORT_NAME core)
set_target_properties(zor-platform PROPERTIES EXPORT_NAME platform)
install(TARGETS zor-core zor-platform EXPORT zor-core-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
                NAMELINK_COMPONENT development)
target_include_directories(zor-core INTERFACE $<INSTALL_INTERFACE:${ZOR_HEADER_DIR}>)
target_include_directories(zor-platform INTERFACE
                           $<INSTALL_INTERFACE:${ZOR_PLATFORM_HEADER_DIR}>)

install(EXPORT zor-core-targets NAMESPACE zor:: DESTINATION ${ZOR_PACKAGE_DIR}
        COMPONENT development)
# The kit's headers lie with the runtime's, below zor/, and so are found with them. It is exported by
# itself, because it needs more than the runtime does.
install(TARGETS zor-kit EXPORT zor-kit-targets)
install(EXPORT zor-kit-targets NAMESPACE zor:: DESTINATION ${ZOR_PACKAGE_DIR}
        COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/package/zor-core-config.cmake.in
  ${PROJECT_BINARY_DIR}/package/zor-core-config.cmake INSTALL_DESTINATION ${ZOR_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/zor-core-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/zor-core-config.cmake
              ${PROJECT_BINARY_DIR}/package/zor-core-config-version.cmake
        DESTINATION ${ZOR_PACKAGE_DIR} COMPONENT development)

# For applications' tests, with an export of its own: only who asks for it needs GoogleTest.
if(TARGET zor-testing)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/testing/inc/ DESTINATION ${ZOR_HEADER_DIR}
          COMPONENT development FILES_MATCHING PATTERN *.h)
  install(TARGETS zor-testing zor-testing-program EXPORT zor-testing-targets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  target_include_directories(zor-testing INTERFACE $<INSTALL_INTERFACE:${ZOR_HEADER_DIR}>)
  install(EXPORT zor-testing-targets NAMESPACE zor:: DESTINATION ${ZOR_PACKAGE_DIR}
          COMPONENT development)
endif()

# The file finds its prefix from its own place, so that an installation may be moved.
file(RELATIVE_PATH ZOR_PREFIX_FROM_PC
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZOR_PREFIX_FROM_PC "${ZOR_PREFIX_FROM_PC}")
set(ZOR_PC_PLATFORM_LIBS ${ZOR_PLATFORM_LIBRARIES})
if(ZOR_PLATFORM STREQUAL "host")
  set(ZOR_PC_PLATFORM_LIBS -lzor-platform-host)
endif()
list(JOIN ZOR_PC_PLATFORM_LIBS " " ZOR_PC_PLATFORM_LIBS)
configure_file(${PROJECT_SOURCE_DIR}/cmake/package/zor-core.pc.in
               ${PROJECT_BINARY_DIR}/package/zor-core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/zor-core.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET qv-win-util)
  install(TARGETS qv-win-util LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/zor-core
          COMPONENT platform)
endif()
foreach(tool zor-record zor-top zor-tsmon infobox)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()
# The simulator: the library that it preloads is found from where the program is.
if(TARGET zor-sim)
  install(TARGETS zor-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(TARGETS zor-sim-library zor-sim-points
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/zor-core COMPONENT tools
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/zor-core COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/zor-sim/include/ZorSim.h
          DESTINATION ${ZOR_HEADER_DIR} COMPONENT development)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/ZorSim.cmake DESTINATION ${ZOR_PACKAGE_DIR}
          COMPONENT development)
endif()
if(TARGET zor-tsmon)
  install(FILES ${PROJECT_SOURCE_DIR}/examples/zor-tsmon/zor-tsmon.service
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/zor-core-tools/examples COMPONENT tools)
endif()
