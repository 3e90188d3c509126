# The wrapper around sends and handler calls: with the trap-point library taken over, and with the
# real one, recording off and on.
set(trap_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)
set(trap_platform ${CMAKE_CURRENT_SOURCE_DIR}/../platform)

zor_add_test(TrapPointTest
  SOURCES TaskSupport.cpp TrapPointFakes.cpp TrapPointPatternTest.cpp TrapPointSendTest.cpp
          TrapPointTest.cpp ${zor_log_seam})

zor_add_test(TrapPointBehaviourTest
  SOURCES TaskSupport.cpp TrapPointBehaviourTest.cpp ${zor_log_seam}
          ${trap_platform}/AllocationCount.cpp)
target_include_directories(TrapPointBehaviourTest PRIVATE ${trap_platform})
if(ZOR_PLATFORM STREQUAL "host")
  zor_register_tests(TrapPointBehaviourTest PREFIX Recorded.
    PROPERTIES ENVIRONMENT "ZOR_RECORD=${CMAKE_CURRENT_BINARY_DIR}/%p.zor;ZOR_RECORD_SIZE=64K")
endif()
