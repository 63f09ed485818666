# The API reference, generated from the public header by Doxygen into <build>/docs/html:
#   cmake --build --preset release --target docs
# Not part of the default build; without doxygen (tools/install-deps.sh docs) the target
# only says so and fails.
find_program(ZEL_DOXYGEN doxygen)
set(ZEL_DOCS_OUTPUT ${CMAKE_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${ZEL_DOCS_OUTPUT}/Doxyfile @ONLY)
if(ZEL_DOXYGEN)
  add_custom_command(
    OUTPUT ${ZEL_DOCS_OUTPUT}/html/index.html
    COMMAND ${ZEL_DOXYGEN} ${ZEL_DOCS_OUTPUT}/Doxyfile
    DEPENDS ${ZEL_DOCS_OUTPUT}/Doxyfile ${PROJECT_SOURCE_DIR}/include/zelcdbsdk.h
            ${PROJECT_SOURCE_DIR}/docs/mainpage.md
    COMMENT "API reference (doxygen, warnings are errors)"
    VERBATIM)
else()
  add_custom_command(
    OUTPUT ${ZEL_DOCS_OUTPUT}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E echo "doxygen is missing: tools/install-deps.sh docs"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
endif()
add_custom_target(docs DEPENDS ${ZEL_DOCS_OUTPUT}/html/index.html)
