# Key combinations, helpers of debug menus, info boxes. The libraries that are loaded at run time are
# real ones, which report to the test program.
set(tool_support ${CMAKE_CURRENT_SOURCE_DIR}/../support)

function(zor_add_key_library name)
  add_library(${name} MODULE KeyLibrary.cpp)
  zor_warnings(${name})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/platform/inc)
  target_compile_definitions(${name} PRIVATE ${ARGN})
endfunction()

zor_add_key_library(zor-test-keys)
zor_add_key_library(zor-test-no-keys WITHOUT_FUNCTIONS)

foreach(test KeyCombinationTest DebugMenuUtilityTest)
  zor_add_test(${test}
    SOURCES ${test}.cpp LoaderSeams.cpp ${tool_support}/ConsoleSeam.cpp ${zor_log_seam})
  add_dependencies(${test} zor-test-keys zor-test-no-keys)
  target_compile_definitions(${test} PRIVATE
    KEY_LIBRARY="$<TARGET_FILE:zor-test-keys>" EMPTY_LIBRARY="$<TARGET_FILE:zor-test-no-keys>")
endforeach()
target_sources(KeyCombinationTest PRIVATE ChildSeams.cpp)

zor_add_test(TVInfoBoxTest SOURCES TVInfoBoxTest.cpp ChildSeams.cpp ${zor_log_seam})
