# Debian packages through CPack: `cpack -G DEB` in a build tree.
#
# One package per install component, named the way Debian names a library's
# packages: the runtime under its soname, the development files as -dev, and
# the command-line tool under its own name. A component without install
# rules (the tool, until it is built here) simply yields no package.

set(CPACK_PACKAGE_NAME qxcommon-util)
set(CPACK_PACKAGE_VENDOR "libqxcommon-util developers")
set(CPACK_PACKAGE_CONTACT "libqxcommon-util developers <qxcommon-util@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES OFF)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/qxcommon-util")

set(QX_DEB_RUNTIME libqxcommon-util${PROJECT_VERSION_MAJOR})
set(QX_DEB_VERSION ${PROJECT_VERSION})

# Runtime: libqxcommon-util.so.0 and the real name it points to.
set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "shared library")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QX_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libjsonparser1.1 (>= 1.1.0)")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "utility library for Linux services with a C interface\n\
Growable string buffers, text codecs and escapes, plain containers, INI\n\
and key=value configuration files, JSON lookups, whole-file I/O, OS release\n\
information and supervised child processes, for programs written in C.\n\
\n\
This package holds the shared library.")
# A shlibs file, and the ldconfig trigger that comes with it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

# Development: headers, the .so link, pkg-config file, CMake package and the
# section 3 manual pages.
set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "development files")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqxcommon-util-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${QX_DEB_RUNTIME} (= ${QX_DEB_VERSION}), libjsonparser-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "utility library for Linux services with a C interface - development files\n\
Headers, pkg-config file, CMake package and manual pages for building C\n\
programs with libqxcommon-util.")

# The command-line tool.
set(CPACK_COMPONENT_TOOLS_DISPLAY_NAME "command-line tool")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qxutil)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${QX_DEB_RUNTIME} (>= ${QX_DEB_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "command-line tool of libqxcommon-util\n\
qxutil gives the library's functions to shell scripts and operators.")

include(CPack)
