# Alarms, timers and service values.
zor_add_test(AlarmTest
  SOURCES AlarmTest.cpp TaskSeams.cpp TaskSupport.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/ConsoleSeam.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/LogSeam.cpp)
zor_add_test(ServiceDebugTest SOURCES ServiceDebugTest.cpp)
zor_add_test(TimersSchedulerTest
  SOURCES TimersSchedulerTest.cpp TaskSeams.cpp TaskSupport.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/ConsoleSeam.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/LogSeam.cpp)
