# zel_folder_library(<target> DEPS <targets...>): a static library of every .cpp in the
# calling folder (a header-only interface while the folder has none). Include paths are by
# folder ("plat/Logger.h", "sdk/ErrorFrame.h").
function(zel_folder_library target)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(includes ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/libs ${PROJECT_SOURCE_DIR}/src)
  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC ${includes})
    target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${includes})
    target_link_libraries(${target} INTERFACE ${ARG_DEPS})
  endif()
endfunction()
