# What a project needs to test its programs under the simulator. Outside of zor-core's own build,
# find_package(zor-core) includes it; ZOR_SIM_TOOL and ZOR_SIM_POINTS are where the tools are.

# zor_add_sim_test(TARGET [SEEDS n] [NAME name] [ARGUMENTS...] [OPTIONS...])
#
# A test that runs the program with so many seeds (200 unless given) under zor-sim: it fails if anything
# is found, and prints the line that repeats it. OPTIONS are zor-sim's.
function(zor_add_sim_test target)
  cmake_parse_arguments(arg "" "SEEDS;NAME" "ARGUMENTS;OPTIONS" ${ARGN})
  if(NOT arg_SEEDS)
    set(arg_SEEDS 200)
  endif()
  if(NOT arg_NAME)
    set(arg_NAME ${target}.Sim)
  endif()
  if(TARGET zor-sim)
    set(tool $<TARGET_FILE:zor-sim>)
  else()
    find_program(ZOR_SIM_TOOL zor-sim REQUIRED)
    set(tool ${ZOR_SIM_TOOL})
  endif()
  add_test(NAME ${arg_NAME} COMMAND ${tool} --seeds 1..${arg_SEEDS} ${arg_OPTIONS} --
                                    $<TARGET_FILE:${target}> ${arg_ARGUMENTS})
  set_tests_properties(${arg_NAME} PROPERTIES TIMEOUT 600)
endfunction()

# zor_sim_memory_points(TARGET)
#
# Compiles the program as for a thread sanitizer but links it with zor-sim's memory points: under zor-sim
# every access to memory is a place where another thread may go first.
function(zor_sim_memory_points target)
  target_compile_options(${target} PRIVATE -fsanitize=thread)
  if(TARGET zor-sim-points)
    target_link_libraries(${target} PRIVATE zor-sim-points)
  else()
    find_library(ZOR_SIM_POINTS zor-sim-points REQUIRED)
    target_link_libraries(${target} PRIVATE ${ZOR_SIM_POINTS})
  endif()
endfunction()
