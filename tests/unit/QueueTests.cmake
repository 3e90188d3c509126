# Event record, event queue and the table of synchronous calls.
set(zor_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)

zor_add_test(EventTest SOURCES EventTest.cpp)
zor_add_test(QueueTest
  SOURCES QueueTest.cpp QueueAttachmentTest.cpp QueueMisuseTest.cpp QueueSelectTest.cpp
          QueueStampTest.cpp QueueSyncTest.cpp QueueWaitTest.cpp
          ${zor_support}/AllocationSeam.cpp ${zor_support}/ConditionSeams.cpp
          ${zor_support}/ConsoleSeam.cpp)
zor_add_test(QueueAllocationTest SOURCES QueueAllocationTest.cpp)
zor_add_test(QueueSectionTest
  SOURCES QueueSectionTest.cpp
          ${zor_support}/MutexSeams.cpp ${zor_support}/TwoProcessors.cpp)
zor_add_test(QueuePageTest SOURCES QueuePageTest.cpp ${zor_support}/MutexSeams.cpp)
zor_add_test(QueueModelTest SOURCES QueueModelTest.cpp)
zor_add_test(QueueThreadTest SOURCES QueueThreadTest.cpp)
zor_add_test(SyncTest
  SOURCES SyncTest.cpp
          ${zor_support}/AllocationSeam.cpp ${zor_support}/ConsoleSeam.cpp
          ${zor_log_seam} ${zor_support}/TimesSeams.cpp)
