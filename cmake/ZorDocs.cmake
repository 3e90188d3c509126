# The target `docs`: the site of the public headers and of docs/, in docs/html below the build
# directory. Whatever is undocumented or cannot be resolved makes it fail.
find_package(Doxygen 1.9 QUIET OPTIONAL_COMPONENTS dot)

if(DOXYGEN_FOUND AND TARGET Doxygen::dot)
  set(ZOR_DOCS_DIRECTORY ${CMAKE_BINARY_DIR}/docs)
  configure_file(${CMAKE_SOURCE_DIR}/Doxyfile.in ${ZOR_DOCS_DIRECTORY}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${ZOR_DOCS_DIRECTORY}/html
    COMMAND Doxygen::doxygen ${ZOR_DOCS_DIRECTORY}/Doxyfile
    COMMENT "Writing ${ZOR_DOCS_DIRECTORY}/html/index.html"
    VERBATIM)
else()
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo "docs: install doxygen and graphviz, and run cmake again"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
endif()
