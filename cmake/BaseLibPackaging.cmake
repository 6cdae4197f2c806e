# Packages (cpack; scripts/package.sh builds them).
#
# Linux: three Debian packages, split as Debian splits a library, built
# from a tree configured with the prefix /usr:
#   libbaselib<SOVERSION>  the shared library (its name follows the SONAME,
#                          so a new SONAME installs beside the old one)
#   libbaselib-dev         headers, the CMake package, the pkg-config file
#                          and the libBaseLib.so link
#   vektool                the program, its manual page, its bash completion
# Windows: one zip with BaseLib.dll, its import library, the headers (and
# the CMake and pkg-config files) and vektool.exe.
set(BASELIB_PACKAGE_CONTACT
    "BaseLib maintainers <maintainers@users.noreply.c-seed-20150abb.example>"
    CACHE STRING "Maintainer named in the packages")

set(CPACK_PACKAGE_NAME BaseLib)
set(CPACK_PACKAGE_VENDOR BaseLib)
set(CPACK_PACKAGE_CONTACT "${BASELIB_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each Debian package's description starts with its own one-line summary.
set(_summary "base runtime for mobile-network device programs")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL lib dev tool)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
  set(CPACK_PACKAGE_FILE_NAME BaseLib-${PROJECT_VERSION}-win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # dpkg-shlibdeps names the C and C++ runtimes each file needs.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

  set(_lib libbaselib${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_LIB_PACKAGE_NAME ${_lib})
  set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
  # The shlibs file tells the packages built against this one which
  # version of it they need.
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  set(CPACK_COMPONENT_LIB_DESCRIPTION
"${_summary} (shared library)
BaseLib is the runtime of a family of desktop programs for mobile-network
devices: tracked memory with leak reports, copy-on-write UTF-8/UTF-16
strings, byte streams, containers, INI files that keep every line, codecs,
time and ISO 8601, cancellable threads and events, behind a flat C
interface.
.
This package holds the shared library.")

  set(CPACK_DEBIAN_DEV_PACKAGE_NAME libbaselib-dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${_lib} (= ${PROJECT_VERSION})")
  set(CPACK_COMPONENT_DEV_DESCRIPTION
"${_summary} (development files)
BaseLib is the runtime of a family of desktop programs for mobile-network
devices, behind a flat C interface.
.
This package holds the C headers, the CMake package (find_package(BaseLib))
and the pkg-config file (pkg-config BaseLib).")

  set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vektool)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
  # dpkg-shlibdeps finds the library vektool links in the build tree but
  # knows no package of it yet: that dependency is named here.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${_lib} (>= ${PROJECT_VERSION})")
  set(CPACK_COMPONENT_TOOL_DESCRIPTION
"command-line program of BaseLib
vektool runs BaseLib's codecs, digests, INI, time and SMS calls from the
shell: every command reads files or standard input and exits 0, 1 or 2.")
endif()

include(CPack)
