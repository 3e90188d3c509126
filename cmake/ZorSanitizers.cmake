# Sanitizers and coverage apply to everything that is built, so that no object is left blind.
if(ZOR_SANITIZE)
  list(JOIN ZOR_SANITIZE "," zor_sanitizers)
  add_compile_options(-fsanitize=${zor_sanitizers} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${zor_sanitizers})
endif()
if(ZOR_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
