# Run by CPack after it made the Debian packages (CPACK_POST_BUILD_SCRIPTS):
# says what its DEB generator cannot.
#
# - Multi-Arch: the library and its development files can be installed for
#   several architectures at once; the tool serves any architecture.
# - A -dbgsym package: its documentation link and md5sums (see below).
# - Permissions that do not depend on the umask of the build.
# - The library's ldconfig: CPack writes a postinst and a postrm that call
#   ldconfig for any package with a shared library in /usr/lib. The package
#   activates the ldconfig trigger instead (its control file "triggers"), so
#   those scripts are dropped.
#
# Each package is unpacked with dpkg-deb, its control data changed, and
# built again under the same name; the files it installs stay as they are.

find_program(QX_DPKG_DEB dpkg-deb REQUIRED)

foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
    if(NOT package_file MATCHES "\\.d?deb$")
        continue()
    endif()
    execute_process(COMMAND ${QX_DPKG_DEB} -f ${package_file} Package
        OUTPUT_VARIABLE name OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    set(work ${package_file}.finish)
    file(REMOVE_RECURSE ${work})
    execute_process(COMMAND ${QX_DPKG_DEB} -R ${package_file} ${work} COMMAND_ERROR_IS_FATAL ANY)

    set(multiarch "")
    foreach(entry IN LISTS CPACK_QX_DEB_MULTIARCH)
        if(entry MATCHES "^${name}=(.*)$")
            set(multiarch ${CMAKE_MATCH_1})
        endif()
    endforeach()
    if(multiarch)
        file(READ ${work}/DEBIAN/control control)
        string(REGEX REPLACE "(\nArchitecture: [^\n]*\n)" "\\1Multi-Arch: ${multiarch}\n"
            control "\n${control}")
        string(SUBSTRING "${control}" 1 -1 control)
        file(WRITE ${work}/DEBIAN/control "${control}")
    endif()
    if(name STREQUAL CPACK_QX_DEB_TRIGGER_PACKAGE)
        file(REMOVE ${work}/DEBIAN/postinst ${work}/DEBIAN/postrm)
    endif()
    if(package_file MATCHES "\\.ddeb$" AND name MATCHES "^(.*)-dbgsym$")
        # A -dbgsym package shares the documentation of the package it
        # belongs to, as Debian's own do; and its md5sums, which CPack
        # writes with the paths of its scratch directory, are written again.
        file(MAKE_DIRECTORY ${work}/usr/share/doc)
        file(CREATE_LINK ${CMAKE_MATCH_1} ${work}/usr/share/doc/${name} SYMBOLIC)
        file(GLOB_RECURSE files RELATIVE ${work} LIST_DIRECTORIES false ${work}/usr/*)
        list(SORT files)
        set(md5sums "")
        foreach(path IN LISTS files)
            if(NOT IS_SYMLINK ${work}/${path})
                file(MD5 ${work}/${path} sum)
                string(APPEND md5sums "${sum}  ${path}\n")
            endif()
        endforeach()
        file(WRITE ${work}/DEBIAN/md5sums "${md5sums}")
    endif()

    # Nothing in a package is writable by group or others, whatever the
    # umask of the build (CPack and the installation create some directories
    # and files with it).
    execute_process(COMMAND chmod -R go-w ${work} COMMAND_ERROR_IS_FATAL ANY)

    execute_process(COMMAND ${QX_DPKG_DEB} --root-owner-group -Zxz -b ${work} ${package_file}
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${work})
endforeach()
