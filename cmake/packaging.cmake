# Debian packages through CPack: `cpack -G DEB` in a build tree (the
# `package` preset builds the tree they are meant to come from).
#
# One package per install component, named the way Debian names a library's
# packages: the runtime under its soname, the development files as -dev, and
# the command-line tool under its own name. A component without install
# rules (the tool, when it is not built) simply yields no package.
#
# What CPack cannot say itself is finished by cmake/deb-finish.cmake after
# the packages are made: the Multi-Arch fields, and the library's ldconfig
# trigger in place of the maintainer scripts CPack writes for it.

set(QX_DEB_MAINTAINER
    "libqxcommon-util maintainers <maintainers@users.noreply.c-seed-6e41a0ad.example>")
set(QX_DEB_RUNTIME libqxcommon-util${PROJECT_VERSION_MAJOR})
set(QX_DEB_VERSION ${PROJECT_VERSION})

set(CPACK_PACKAGE_NAME qxcommon-util)
set(CPACK_PACKAGE_VENDOR "libqxcommon-util maintainers")
set(CPACK_PACKAGE_CONTACT "${QX_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Installed for the packages with DESTDIR and the prefix /usr, so that
# what is written at installation (the pkg-config file) sees /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QX_DEB_MAINTAINER}")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Directories in the packages are 0755 whatever the umask of the build.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# dpkg-shlibdeps computes the dependencies of every binary. The tool needs
# the library of this very build, which no installed package describes yet:
# it is found here, and the dependency on its package is written out below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src/libqxcommon-util)
# A program built against this version runs with any later one of the same
# soname: the shlibs file asks for >=, not =.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# With debugging information in the build, the binaries are stripped and
# their debugging symbols go into -dbgsym packages; without, they are
# stripped at installation.
if(CMAKE_BUILD_TYPE MATCHES "^(Debug|RelWithDebInfo)$")
    set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
    set(CPACK_STRIP_FILES OFF)
else()
    set(CPACK_STRIP_FILES ON)
endif()

# Every package carries the copyright file and the changelog, gzipped
# without name or time stamp.
set(QX_DEB_DOCS ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${QX_DEB_DOCS})
set(QX_DEB_CHANGELOG ${QX_DEB_DOCS}/changelog.gz)
add_custom_command(OUTPUT ${QX_DEB_CHANGELOG}
    COMMAND sh -c "gzip -9n < \"$0\" > \"$1\"" ${PROJECT_SOURCE_DIR}/packaging/changelog
        ${QX_DEB_CHANGELOG}
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog
    VERBATIM)
add_custom_target(deb-changelog ALL DEPENDS ${QX_DEB_CHANGELOG})

function(qx_deb_docs component package)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${QX_DEB_CHANGELOG}
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endfunction()

# Runtime: libqxcommon-util.so.0 and the real name it points to.
set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "shared library")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QX_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "utility library for Linux services with a C interface\n\
Growable string buffers, text codecs and escapes, plain containers, INI\n\
and key=value configuration files, JSON lookups, whole-file I/O, OS release\n\
information and supervised child processes, for programs written in C.\n\
\n\
This package holds the shared library.")
# The symbols file says which version brought each exported name, so that a
# program depends on the oldest version that has what it uses; the trigger
# has ldconfig run once for all libraries installed together.
set(QX_DEB_TRIGGERS ${QX_DEB_DOCS}/triggers)
file(WRITE ${QX_DEB_TRIGGERS} "activate-noawait ldconfig\n")
configure_file(${PROJECT_SOURCE_DIR}/abi/${QX_DEB_RUNTIME}.symbols ${QX_DEB_DOCS}/symbols COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${QX_DEB_DOCS}/symbols ${QX_DEB_TRIGGERS})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
qx_deb_docs(runtime ${QX_DEB_RUNTIME})

# Development: headers, the .so link, pkg-config file, CMake package and the
# section 3 and 7 manual pages.
set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "development files")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqxcommon-util-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${QX_DEB_RUNTIME} (= ${QX_DEB_VERSION}), libjsonparser-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "utility library for Linux services with a C interface - development files\n\
Headers, pkg-config file, CMake package and manual pages for building C\n\
programs with libqxcommon-util.")
qx_deb_docs(development libqxcommon-util-dev)

# The command-line tool.
set(CPACK_COMPONENT_TOOLS_DISPLAY_NAME "command-line tool")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qxutil)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${QX_DEB_RUNTIME} (>= ${QX_DEB_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "command-line tool of libqxcommon-util\n\
qxutil gives the library's functions to shell scripts and operators: INI\n\
and key=value files, JSON patterns, text codecs, OS release information and\n\
running programs with a time limit.")
if(QX_BUILD_TOOLS)
    qx_deb_docs(tools qxutil)
endif()

# Multi-Arch per package (a -dbgsym package follows its own), and the
# package whose ldconfig calls become a trigger, for the finishing step.
set(CPACK_QX_DEB_MULTIARCH
    "${QX_DEB_RUNTIME}=same;${QX_DEB_RUNTIME}-dbgsym=same;libqxcommon-util-dev=same;qxutil=foreign")
set(CPACK_QX_DEB_TRIGGER_PACKAGE ${QX_DEB_RUNTIME})
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/deb-finish.cmake)

include(CPack)
