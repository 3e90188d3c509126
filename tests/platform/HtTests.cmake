# The trap-point and call-recording library.
zor_add_test(platform-ht-test SOURCES HtTrapPatternTest.cpp PlatformLog.cpp)

add_subdirectory(${PROJECT_SOURCE_DIR}/tests/tools ${PROJECT_BINARY_DIR}/tests/tools)
