# GoogleTest: the system's for native builds; built from Debian's googletest sources for
# cross builds (no ARM binaries of it are packaged).
if(CMAKE_CROSSCOMPILING OR ZEL_GTEST_FROM_SOURCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  set(ZEL_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources")
  add_subdirectory(${ZEL_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(t gtest gtest_main gmock gmock_main)
    target_compile_options(${t} PRIVATE -w)
    if(NOT TARGET GTest::${t})
      add_library(GTest::${t} ALIAS ${t})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()

# zel_test_suite(<name> DEPS <targets...> [LABELS <labels...>]): one test program of every
# .cpp in the calling folder, run by ctest as one test. Every suite links zel_test_support
# and the failing allocator (tests/support) and has tests/ on its include path.
function(zel_test_suite name)
  cmake_parse_arguments(ARG "" "" "DEPS;LABELS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name}_tests ${sources})
  target_include_directories(${name}_tests PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name}_tests PRIVATE ${ARG_DEPS} zel_test_support zel_failing_allocator
                                               GTest::gmock GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name}_tests --gtest_brief=1)
  if(ARG_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()
