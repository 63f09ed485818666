# Install rules, in three components that become three of the Debian packages (ZelPackage;
# the Python package's rule, component python, is in python/CMakeLists.txt):
#   runtime  libzelcdbsdk.so.1 and its file
#   dev      the header, the unversioned .so link, the CMake package, zelcdbsdk.pc, the API
#            reference when it was built
#   zelcdb   the tool, its example element file and its man page
# The CMake package and the .pc file find their prefix from where they are installed, so an
# installed tree can be moved, or unpacked from the .debs anywhere, and still be used.
include(CMakePackageConfigHelpers)

set(ZEL_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelcdbsdk)

install(TARGETS zelcdbsdk EXPORT zelcdbsdkTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES include/zelcdbsdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT zelcdbsdkTargets NAMESPACE zelcdbsdk:: DESTINATION ${ZEL_CMAKE_PACKAGE_DIR}
        COMPONENT dev)
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdkConfig.cmake
     CONTENT "# find_package(zelcdbsdk): the imported target zelcdbsdk::zelcdbsdk.\n\
include(\"\${CMAKE_CURRENT_LIST_DIR}/zelcdbsdkTargets.cmake\")\n" @ONLY)
# Any 2.x library serves an application built for an older 2.x: the table only grows.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdkConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdkConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdkConfigVersion.cmake
        DESTINATION ${ZEL_CMAKE_PACKAGE_DIR} COMPONENT dev)

file(RELATIVE_PATH zel_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" zel_pc_to_prefix "${zel_pc_to_prefix}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/zelcdbsdk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdk.pc
               @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelcdbsdk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The reference goes along when `--target docs` has been built.
install(DIRECTORY ${ZEL_DOCS_OUTPUT}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev
        OPTIONAL)

# zelcdb's man page, compressed as man expects it (gzip -n: the same bytes at every build).
function(zel_install_zelcdb_extras)
  if(NOT TARGET zelcdb)
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/zelcdb.1.gz)
  configure_file(${PROJECT_SOURCE_DIR}/docs/zelcdb.1.in ${CMAKE_CURRENT_BINARY_DIR}/zelcdb.1 @ONLY)
  add_custom_command(OUTPUT ${page}
                     COMMAND gzip -9n -c ${CMAKE_CURRENT_BINARY_DIR}/zelcdb.1 > ${page}
                     DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/zelcdb.1)
  add_custom_target(zelcdb_man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT zelcdb)
endfunction()
