# Debian packages of the library and the tool, made by CPack's DEB generator
# (scripts/package.sh configures a tree for them and runs cpack). The
# packages follow Debian's conventions for a shared library with a SONAME:
#   libgplibrary1  the support library (libGPLibrary.so.1*)
#   libqv-wm1      the library (libQV_wm.so.1*)
#   libqv-wm-dev   headers, the .so links, QV_wm.pc and the CMake package
#   wmctl          the operator's tool and its manual page
# The runtime package names carry the SONAME's version, so a library with a
# new major version installs beside the old one; they are Multi-Arch: same
# (their libraries lie in the architecture's directory), so the amd64 and
# i386 libraries install side by side. Dependencies on the system's
# libraries come from dpkg-shlibdeps; those between the four packages are
# written here, on the exact version (dpkg-shlibdeps finds the project's own
# libraries in the other packages' staging trees but cannot name their
# packages, which are not installed).
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL support runtime dev tool)
set(CPACK_PACKAGE_NAME qv-wm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(QV_WM_MAINTAINER "WorkMsg developers <workmsg@example.org>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QV_WM_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps runs in a component's staging tree, beside the others.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ../support${CMAKE_INSTALL_FULL_LIBDIR} ../runtime${CMAKE_INSTALL_FULL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
# The two library packages refresh the linker's cache through the ldconfig
# trigger, as Debian's policy asks; the scripts given with it only keep CPack
# from writing maintainer scripts that call ldconfig themselves.
set(QV_WM_DEB_LIBRARY_CONTROL ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/triggers
  ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/postinst ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_SUPPORT_PACKAGE_CONTROL_EXTRA ${QV_WM_DEB_LIBRARY_CONTROL})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${QV_WM_DEB_LIBRARY_CONTROL})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4) # the i386 toolchain (scripts/package.sh --m32)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()

set(QV_WM_DEB_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_SUPPORT_PACKAGE_NAME libgplibrary1)
set(CPACK_DEBIAN_SUPPORT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SUPPORT_PACKAGE_MULTIARCH same)
string(CONCAT CPACK_COMPONENT_SUPPORT_DESCRIPTION
  "support library of the WorkMsg queues\n"
  "The configuration store, logging, the advisory file lock and the tokenizer\n"
  "that the WorkMsg library (libqv-wm1) is built on.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqv-wm1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libgplibrary1 (= ${QV_WM_DEB_VERSION})")
string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "persistent work messages between the processes of one host\n"
  "WorkMsg lets the processes of one Linux host exchange persistent work\n"
  "messages through shared memory guarded by one process-shared lock; every\n"
  "change is written through to two files, so the queues survive a reboot.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqv-wm-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libqv-wm1 (= ${QV_WM_DEB_VERSION}), libgplibrary1 (= ${QV_WM_DEB_VERSION})")
string(CONCAT CPACK_COMPONENT_DEV_DESCRIPTION
  "persistent work messages between the processes of one host (development)\n"
  "The headers, the .so links, the pkg-config file QV_wm.pc and the CMake\n"
  "package (find_package(QV_wm)) of the WorkMsg library and its support\n"
  "library.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME wmctl)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
  "libqv-wm1 (= ${QV_WM_DEB_VERSION}), libgplibrary1 (= ${QV_WM_DEB_VERSION})")
string(CONCAT CPACK_COMPONENT_TOOL_DESCRIPTION
  "operator's tool for the WorkMsg queues of a host\n"
  "wmctl sends, receives and deletes messages, registers receivers, shows the\n"
  "live shared state (also as metrics for a monitoring system), removes\n"
  "leftover segments and checks the database files offline.")

# Every package carries its copyright file and changelog where Debian expects
# them; only a tree configured for packages installs them.
option(QV_WM_DEB "Install the files the Debian packages carry (scripts/package.sh)" OFF)
if(QV_WM_DEB)
  set(QV_WM_DEB_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
  execute_process(COMMAND gzip -9n -c ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog
    OUTPUT_FILE ${QV_WM_DEB_CHANGELOG} COMMAND_ERROR_IS_FATAL ANY)
  foreach(comp support runtime dev tool)
    string(TOUPPER ${comp} COMP)
    install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/copyright ${QV_WM_DEB_CHANGELOG}
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${COMP}_PACKAGE_NAME}
      COMPONENT ${comp})
  endforeach()
endif()
include(CPack)
