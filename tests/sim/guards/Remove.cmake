# cmake -DSOURCE=a.cpp -DGUARD=guard.cmake -DOUTPUT=b.cpp -P Remove.cmake
#
# Writes SOURCE without the guard: GUARD sets REMOVE, which must stand there exactly once, and PUT, which
# stands there instead.
include(${GUARD})
file(READ ${SOURCE} text)
string(FIND "${text}" "${REMOVE}" first)
string(FIND "${text}" "${REMOVE}" last REVERSE)
if(first EQUAL -1)
  message(FATAL_ERROR "${SOURCE} does not contain the guard any more:\n${REMOVE}\n"
                      "Say in tests/sim/guards/CMakeLists.txt what it is now.")
elseif(NOT first EQUAL last)
  message(FATAL_ERROR "${SOURCE} contains this more than once:\n${REMOVE}")
endif()
string(REPLACE "${REMOVE}" "${PUT}" text "${text}")
file(WRITE ${OUTPUT} "${text}")
