# Alarms, timers and service values.
set(time_support ${PROJECT_SOURCE_DIR}/tests/support)

# zor_add_time_test(NAME SOURCES...): a test program with what every one of them needs.
function(zor_add_time_test name)
  zor_add_test(${name}
    SOURCES ${ARGN} TaskSeams.cpp TaskSupport.cpp ${time_support}/ConsoleSeam.cpp
            ${zor_log_seam})
endfunction()

zor_add_time_test(AlarmTest AlarmTest.cpp)
zor_add_time_test(AlarmWaitTest
  AlarmWaitTest.cpp CallbackNameSeam.cpp ${time_support}/ConditionSeams.cpp
  ${time_support}/ThreadSeams.cpp)
zor_add_test(ServiceDebugTest SOURCES ServiceDebugTest.cpp)
target_compile_definitions(ServiceDebugTest
  PRIVATE SERVICE_DEBUG_TEXTS="${CMAKE_CURRENT_SOURCE_DIR}/ServiceDebugTexts.txt")
zor_add_time_test(TimersSchedulerTest CallbackNameSeam.cpp TimersSchedulerTest.cpp)
zor_add_time_test(TimerTest TimerTest.cpp)
zor_add_time_test(LateUseTest LateUseTest.cpp)
zor_add_time_test(TimersSchedulerClockTest
  SchedulerClock.cpp TimersSchedulerClockTest.cpp ${time_support}/ConditionSeams.cpp)
zor_add_time_test(TimersSchedulerModelTest
  SchedulerClock.cpp TimersSchedulerModelTest.cpp ${time_support}/ConditionSeams.cpp)
zor_add_test(TimersSchedulerLoadTest
  SOURCES TaskSeams.cpp TaskSupport.cpp TimersSchedulerLoadTest.cpp
  PROPERTIES RUN_SERIAL TRUE)
zor_add_time_test(TimersSchedulerLockTest
  TimersSchedulerLockTest.cpp ${time_support}/MutexSeams.cpp)
