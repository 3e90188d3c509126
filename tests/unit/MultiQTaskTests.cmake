# The task with several queues and its notify threads.
zor_add_test(MultiQTaskTest
  SOURCES MultiQTaskTest.cpp NotifyThreadEndTest.cpp TaskScopeTraceSeam.cpp
          TaskSeams.cpp TaskSupport.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/ConditionSeams.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/ConsoleSeam.cpp
          ${zor_log_seam})
zor_add_test(MultiQTakeDownTest
  SOURCES MultiQTakeDownTest.cpp TaskSupport.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/ConsoleSeam.cpp
          ${PROJECT_SOURCE_DIR}/tests/support/RWLockSeams.cpp)
