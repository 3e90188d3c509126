# Debug print, assertions, logging front and loggers.
set(zor_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)

zor_add_test(AssertTest
  SOURCES AssertTest.cpp FailedAssertionTest.cpp ${zor_support}/ConsoleSeam.cpp ${zor_log_seam})
zor_add_test(CallstackTest
  SOURCES CallstackTest.cpp DiagnosticSeams.cpp ${zor_support}/ConsoleSeam.cpp)
zor_add_test(DebugTest
  SOURCES DebugTest.cpp DiagnosticSeams.cpp
          ${zor_support}/ConsoleSeam.cpp ${zor_log_seam})
zor_add_test(FunctionIndicesTest SOURCES FunctionIndicesTest.cpp)
zor_add_test(LogTextTest SOURCES LogTextTest.cpp ${PROJECT_SOURCE_DIR}/src/LogText.cpp)
target_include_directories(LogTextTest PRIVATE ${PROJECT_SOURCE_DIR}/src)
# clang-tidy finds the source here as well and cannot read g++'s compiled headers.
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/LogText.cpp
                            PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
zor_add_test(LogMacroTest SOURCES LogMacroTest.cpp ${zor_log_seam})
zor_add_test(LoggersTest SOURCES LoggersTest.cpp ${zor_log_seam})
zor_add_test(DlogLoggersTest SOURCES DlogLoggersTest.cpp ${zor_log_seam})
zor_add_test(LegacyLoggerTest SOURCES LegacyLoggerTest.cpp ${zor_log_seam})
zor_add_test(LoggingFrontTest
  SOURCES LoggingFrontTest.cpp
          ${zor_support}/ConsoleSeam.cpp ${zor_log_seam}
          ${zor_support}/RWLockSeams.cpp)
zor_add_test(LoggingAllocationTest SOURCES LoggingAllocationTest.cpp)
