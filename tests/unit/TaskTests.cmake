# Handlers, tasks, sending, registry, pause, ping and clear-queue, watchdog notifier.
set(task_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)

# zor_add_task_test(NAME SOURCES...): a test program with what every one of them needs.
function(zor_add_task_test name)
  zor_add_test(${name}
    SOURCES ${ARGN} TaskSeams.cpp TaskSupport.cpp ${task_support}/ConsoleSeam.cpp
            ${zor_log_seam})
endfunction()

zor_add_task_test(TaskTest
  HandlerTest.cpp TaskDispatchTest.cpp TaskLayoutTest.cpp TaskLoopTest.cpp TaskTest.cpp
  ${task_support}/ConditionSeams.cpp ${task_support}/ThreadSeams.cpp)
zor_add_task_test(SendTest SendSyncTest.cpp SendTest.cpp TaskScopeTraceSeam.cpp)
zor_add_test(SendCancelTest
  SOURCES SendCancelTest.cpp TaskSupport.cpp
          ${task_support}/ConditionSeams.cpp)
zor_add_task_test(TaskListTest TaskListTest.cpp)
zor_add_task_test(PauseTest
  PauseTest.cpp PauseWaitTest.cpp
  ${task_support}/ConditionSeams.cpp)
zor_add_task_test(DestroyRaceTest DestroyRaceTest.cpp)
zor_add_task_test(PingTest ClearQueueTest.cpp PingTest.cpp TaskAppDataSeam.cpp)
zor_add_task_test(WatchdogNotifierTest
  WatchdogNotifierTest.cpp TaskAppDataSeam.cpp
  ${task_support}/ConditionSeams.cpp)
zor_add_task_test(TaskStressTest TaskStressTest.cpp)
zor_add_task_test(NumbersTest NumbersTest.cpp)
zor_add_task_test(LayoutTableTest LayoutTableTest.cpp)
target_compile_definitions(LayoutTableTest PRIVATE ZOR_CORE_VERSION="${PROJECT_VERSION}")
