# Semaphore, mutex, thread and reader-writer lock; and every public header by itself.
set(zor_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)

zor_add_test(SemaphoreTest
  SOURCES SemaphoreTest.cpp SemaphoreDeadlineTest.cpp
          ${zor_support}/AllocationSeam.cpp ${zor_support}/ConditionSeams.cpp
          ${zor_support}/ConsoleSeam.cpp)
zor_add_test(SemaphoreSingleProcessorTest
  SOURCES SemaphoreSingleProcessorTest.cpp
          ${zor_support}/ConditionSeams.cpp ${zor_support}/MutexSeams.cpp)
zor_add_test(SemaphoreSeveralProcessorsTest
  SOURCES SemaphoreSeveralProcessorsTest.cpp
          ${zor_support}/ConditionSeams.cpp ${zor_support}/MutexSeams.cpp
          ${zor_support}/TwoProcessors.cpp)
zor_add_test(SemaphoreWatchingTest
  SOURCES SemaphoreWatchingTest.cpp
          ${zor_support}/ConditionSeams.cpp ${zor_support}/TwoProcessors.cpp)
zor_add_test(PatienceTest
  SOURCES PatienceTest.cpp ${PROJECT_SOURCE_DIR}/src/Patience.cpp ${PROJECT_SOURCE_DIR}/src/Spin.cpp
          ${zor_support}/ConditionSeams.cpp ${zor_support}/YieldSeam.cpp)
zor_add_test(PatienceWatchTest
  SOURCES PatienceWatchTest.cpp ${PROJECT_SOURCE_DIR}/src/Patience.cpp
          ${zor_support}/YieldSeam.cpp)
zor_add_test(SpinTest SOURCES SpinTest.cpp ${PROJECT_SOURCE_DIR}/src/Spin.cpp)
zor_add_test(SpinTimeTest SOURCES SpinTimeTest.cpp ${PROJECT_SOURCE_DIR}/src/Spin.cpp)
# As in the library: tools that read the compile commands know one way to compile a source.
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/Patience.cpp ${PROJECT_SOURCE_DIR}/src/Spin.cpp
                            PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
foreach(version 2.36 2.41)
  set(test SemaphoreWakingTest)
  if(version STREQUAL 2.41)
    set(test SemaphoreWakingRepairedTest)
  endif()
  zor_add_test(${test} SOURCES SemaphoreWakingTest.cpp ${zor_support}/ConditionSeams.cpp)
  target_compile_definitions(${test} PRIVATE ZOR_TEST_LIBC_VERSION="${version}")
endforeach()
zor_add_test(SemaphoreCancelTest
  SOURCES SemaphoreCancelTest.cpp ${zor_support}/ConditionSeams.cpp)
zor_add_test(SemaphoreForkTest
  SOURCES SemaphoreForkTest.cpp
          ${zor_support}/ConditionSeams.cpp ${zor_support}/MutexSeams.cpp)
zor_add_test(MutexTest
  SOURCES MutexTest.cpp
          ${zor_support}/AllocationSeam.cpp ${zor_support}/ConditionSeams.cpp
          ${zor_support}/ConsoleSeam.cpp)
zor_add_test(ThreadTest
  SOURCES ThreadTest.cpp ThreadFailureTest.cpp ThreadPriorityTest.cpp
          ${zor_support}/AllocationSeam.cpp ${zor_support}/ConditionSeams.cpp
          ${zor_support}/ConsoleSeam.cpp ${zor_log_seam}
          ${zor_support}/ThreadSeams.cpp)
zor_add_test(ThreadUtilTest
  SOURCES ThreadUtilTest.cpp
          ${zor_support}/ConsoleSeam.cpp ${zor_log_seam} ${zor_support}/ThreadSeams.cpp
          ${zor_support}/TimesSeams.cpp)
zor_add_test(RWLockTest
  SOURCES RWLockTest.cpp RWLockFailureTest.cpp
          ${zor_support}/ConsoleSeam.cpp ${zor_log_seam} ${zor_support}/RWLockSeams.cpp)

# Every public header compiles by itself, and twice in a row.
file(GLOB zor_headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/inc
     ${PROJECT_SOURCE_DIR}/inc/*.h)
set(zor_header_sources)
foreach(header IN LISTS zor_headers)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/headers/${header}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
  list(APPEND zor_header_sources ${source})
endforeach()
add_library(HeadersTest OBJECT ${zor_header_sources})
zor_warnings(HeadersTest)
target_link_libraries(HeadersTest PRIVATE zor-core)
