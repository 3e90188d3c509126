# zor_warnings(target): the warnings that all of our own code is built with.
function(zor_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(ZOR_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
    target_link_options(${target} PRIVATE -Werror) # the optimiser warns when it links, too
  endif()
endfunction()
