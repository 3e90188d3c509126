# A program that links zor-core and GoogleTest's gtest_main has two libraries with a main(). If the
# runtime's is taken no test runs, and the program ends well: with an empty Main() nothing would tell.
# Which one is taken is a matter of order, so such a program does not link; the symbol that the linker
# misses says what to do.
set(zor_linked $<TARGET_PROPERTY:LINK_LIBRARIES>)
set(zor_has_gtest_main)
foreach(name GTest::gtest_main GTest::gmock_main GTest::Main gtest_main gmock_main)
  list(APPEND zor_has_gtest_main $<IN_LIST:${name},${zor_linked}>)
endforeach()
list(JOIN zor_has_gtest_main "," zor_has_gtest_main)
set(zor_has_testing
    $<OR:$<IN_LIST:zor::testing,${zor_linked}>,$<IN_LIST:zor-testing-program,${zor_linked}>>)
target_link_options(zor-core INTERFACE
  $<$<AND:$<OR:${zor_has_gtest_main}>,$<NOT:${zor_has_testing}>>:LINKER:--require-defined=link_zor_testing_instead_of_gtest_main>)
