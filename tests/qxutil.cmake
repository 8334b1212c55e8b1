# The qxutil tool: each group of checks runs the built tool through a shell
# script and compares output, error output and exit status exactly.
if(TARGET qxutil)
    foreach(group general ini conf json run codec os_release rfc3339 pidfile)
        add_test(NAME qxutil.${group}
            COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/qxutil/run_tests.sh
                $<TARGET_FILE:qxutil> ${PROJECT_SOURCE_DIR}/examples/data ${group})
        # no-valgrind: memcheck would watch the shell that drives the tool
        # (and report the shell's own leaks), not the tool.
        set_tests_properties(qxutil.${group} PROPERTIES TIMEOUT 120 LABELS no-valgrind)
    endforeach()
    # Bounded memory is checked with a limit of address space, which the
    # sanitizers' own reservations would exceed.
    if(NOT QX_SANITIZE)
        add_test(NAME qxutil.codec_memory
            COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/qxutil/run_tests.sh
                $<TARGET_FILE:qxutil> ${PROJECT_SOURCE_DIR}/examples/data codec_memory)
        set_tests_properties(qxutil.codec_memory PROPERTIES TIMEOUT 120 LABELS no-valgrind)
    endif()
endif()

# The tool goes into the binary directory with the component "tools", and
# runs there against the library installed beside it.
if(TARGET qxutil)
    add_test(NAME qxutil.installs_with_the_tools_component
        COMMAND sh -c [=[
            set -e
            prefix=$(mktemp -d "${TMPDIR:-/tmp}/qxutil-install.XXXXXX")
            trap 'rm -rf "$prefix"' EXIT
            cmake --install "$1" --prefix "$prefix" --component tools >/dev/null
            cmake --install "$1" --prefix "$prefix" --component runtime >/dev/null
            test -x "$prefix/$2/qxutil"
            printf qx | LD_LIBRARY_PATH="$prefix/$3" "$prefix/$2/qxutil" encode hex | grep -qx 7178
        ]=] sh ${PROJECT_BINARY_DIR} ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
    set_tests_properties(qxutil.installs_with_the_tools_component PROPERTIES TIMEOUT 120
        LABELS no-valgrind)
endif()

# The manual page's source must stay valid scdoc where scdoc is installed.
find_program(QX_SCDOC scdoc)
if(QX_SCDOC)
    add_test(NAME qxutil.manual_page_is_valid_scdoc
        COMMAND sh -c [=[page=$("$1" <"$2") && printf '%s\n' "$page" | grep -qx '.SH COMMANDS']=]
            sh ${QX_SCDOC} ${PROJECT_SOURCE_DIR}/man/qxutil.1.scd)
    set_tests_properties(qxutil.manual_page_is_valid_scdoc PROPERTIES LABELS no-valgrind)
endif()
