# The trap-point and call-recording library.
zor_add_test(platform-ht-test SOURCES HtTrapPatternTest.cpp PlatformLog.cpp)

