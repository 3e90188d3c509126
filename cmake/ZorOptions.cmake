# Every switch of the build, in one place.
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

set(ZOR_PLATFORM host CACHE STRING
    "'host' builds the development machine's platform library; 'device' links the libraries named \
in ZOR_PLATFORM_LIBRARIES")
set_property(CACHE ZOR_PLATFORM PROPERTY STRINGS host device)
# What is for engineers, or shows how the library is used, needs libraries besides the platform's, which a
# device rarely has.
set(zor_built_here ${PROJECT_IS_TOP_LEVEL})
if(ZOR_PLATFORM STREQUAL "device")
  set(zor_built_here OFF)
endif()

option(ZOR_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(ZOR_COVERAGE "Instrument for line and branch coverage" OFF)
option(ZOR_BUILD_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(ZOR_TESTS_WHOLE "Register each test program with ctest as one test, not test by test" OFF)
option(ZOR_BUILD_TESTING_LIBRARY "Build zor::testing, for applications' tests (needs GoogleTest)" ON)
option(ZOR_BUILD_EXAMPLES "Build the example daemons" ${zor_built_here})
option(ZOR_BUILD_BENCHMARKS "Build the benchmarks" OFF)
option(ZOR_BUILD_FUZZERS "Build the fuzzers (clang, with ZOR_SANITIZE)" OFF)
option(ZOR_BUILD_TOOLS "Build the tools for engineers" ${zor_built_here})

set(ZOR_SANITIZE "" CACHE STRING
    "Sanitizers to build with: empty, 'address;undefined' or 'thread'")

set(ZOR_PLATFORM_LIBRARIES "" CACHE STRING
    "With ZOR_PLATFORM=device: the libraries that implement the headers of platform/inc")

if(NOT ZOR_PLATFORM MATCHES "^(host|device)$")
  message(FATAL_ERROR "ZOR_PLATFORM is '${ZOR_PLATFORM}'; it must be 'host' or 'device'.")
endif()
if(ZOR_PLATFORM STREQUAL "device" AND NOT ZOR_PLATFORM_LIBRARIES)
  message(FATAL_ERROR "ZOR_PLATFORM=device needs ZOR_PLATFORM_LIBRARIES: the libraries that "
                      "implement the headers of platform/inc.")
endif()
