# Debian packages of the install components (ZelInstall), for the architecture of the build
# (amd64 natively, armhf from the arm32 preset):
#   libzelcdbsdk1      runtime   the shared object
#   libzelcdbsdk-dev   dev       header, CMake package, pkg-config file, API reference
#   zelcdb             zelcdb    the command-line tool and its man page
#   python3-zelcdb     python    the Python package (architecture all)
# tools/package.sh builds what they hold and runs cpack; the packages land in
# <build>/packages.
set(ZEL_DEB_MAINTAINER "libzelcdbsdk developers <libzelcdbsdk@example.com>"
    CACHE STRING "Maintainer field of the Debian packages")
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(zel_deb_arch armhf)
else()
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE zel_deb_arch
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

# Every package carries its copyright and changelog in /usr/share/doc/<package>, as Debian
# expects; only the packages do (a plain cmake --install leaves them out).
set(zel_deb_doc ${CMAKE_CURRENT_BINARY_DIR}/deb-doc)
file(CONFIGURE OUTPUT ${zel_deb_doc}/changelog CONTENT "\
zelcdbsdk (@PROJECT_VERSION@) stable; urgency=medium

  * Release @PROJECT_VERSION@, build @ZEL_BUILD_NUMBER@ (ABI version 1,
    libzelcdbsdk.so.1).

 -- @ZEL_DEB_MAINTAINER@  Wed, 25 Nov 2026 00:00:00 +0000
" @ONLY)
add_custom_command(OUTPUT ${zel_deb_doc}/changelog.gz
                   COMMAND gzip -9n -c ${zel_deb_doc}/changelog > ${zel_deb_doc}/changelog.gz
                   DEPENDS ${zel_deb_doc}/changelog)
add_custom_target(zel_deb_doc ALL DEPENDS ${zel_deb_doc}/changelog.gz)
foreach(pair runtime:libzelcdbsdk1 dev:libzelcdbsdk-dev zelcdb:zelcdb python:python3-zelcdb)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/copyright ${zel_deb_doc}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelcdbsdk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${ZEL_DEB_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev python)
if(TARGET zelcdb)
  list(APPEND CPACK_COMPONENTS_ALL zelcdb)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${zel_deb_arch})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzelcdbsdk1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shlibs file lets packages built against this one depend on it; the trigger has
# ldconfig see the new library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(CONFIGURE OUTPUT ${zel_deb_doc}/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${zel_deb_doc}/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Common Data Bus and Service Binary Protocol SDK
libzelcdbsdk lets an application offer and use services of the Common Data
Bus (CDB), numbered services over one TCP connection, and of the Service
Binary Protocol (SBP) inside them: Get, Set, Subscribe, Cancel and Alive on
typed elements.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzelcdbsdk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzelcdbsdk1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Common Data Bus and Service Binary Protocol SDK - development files
The C header of libzelcdbsdk, the CMake package (find_package(zelcdbsdk)),
the pkg-config file and the API reference.")

set(CPACK_DEBIAN_ZELCDB_PACKAGE_NAME zelcdb)
set(CPACK_DEBIAN_ZELCDB_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_ZELCDB_DESCRIPTION "Offer, list and use CDB and SBP services from a terminal
zelcdb serves an SBP service whose elements come from a JSON file, and reads,
writes and subscribes to the elements of any peer's services.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zelcdb)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, libzelcdbsdk1 (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Python package for CDB and SBP test benches
zelcdb for Python: CDB endpoints, SBP sinks and sources and SBP values as
Python objects, over libzelcdbsdk through ctypes, for test benches written
with pytest or unittest.")

# Dependencies on the system's libraries: dpkg-shlibdeps where it can read the binaries'
# architecture, the Debian 12 versions the libraries need otherwise (the armhf cross build).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34)")
  set(CPACK_DEBIAN_ZELCDB_PACKAGE_DEPENDS
      "libzelcdbsdk1 (= ${PROJECT_VERSION}), libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_ZELCDB_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_ZELCDB_PACKAGE_DEPENDS "libzelcdbsdk1 (= ${PROJECT_VERSION})")
  # zelcdb's own library comes from the runtime package, not from the system.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
endif()

include(CPack)
