# zel_fuzzer(<name> SOURCES <files...> DEPS <targets...>)
# Under ZEL_FUZZ (clang) the target is a libFuzzer fuzzer, run as
#   build/fuzz/fuzz/<name>_fuzzer fuzz/corpus/<name>
# In every other build it is a program that replays fuzz/corpus/<name> through the same
# entry point, registered with ctest.
function(zel_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  set(target ${name}_fuzzer)
  set(corpus ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  if(ZEL_FUZZ)
    add_executable(${target} ${ARG_SOURCES})
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer)
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${target} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/ReplayMain.cpp)
    if(ZEL_BUILD_TESTS)
      add_test(NAME fuzz_replay_${name} COMMAND ${target} ${corpus})
      set_tests_properties(fuzz_replay_${name} PROPERTIES LABELS fuzz)
    endif()
  endif()
  target_link_libraries(${target} PRIVATE ${ARG_DEPS})
endfunction()
