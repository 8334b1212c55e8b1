# Manual pages, Debian packages and the ABI baseline. These checks are shell
# scripts around compilers and packaging tools: they are labelled
# no-valgrind, since memcheck would watch the shell, not the library.

set(QX_DOCS_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/docs)

# Every exported name is described by some manual page.
add_test(NAME docs.every_export_is_in_a_manual_page
    COMMAND ${QX_DOCS_SCRIPTS}/check_documented.sh
        ${PROJECT_SOURCE_DIR}/abi/exported-symbols.txt ${PROJECT_SOURCE_DIR}/man)

# The EXAMPLE of every section 3 page compiles as C11 and links.
# Examples that call json-parser themselves link it directly.
pkg_check_modules(QX_DOCS_JSONPARSER REQUIRED json-parser)
set(QX_EXAMPLE_FLAGS ${QX_DOCS_JSONPARSER_CFLAGS})
if(QX_SANITIZE)
    list(APPEND QX_EXAMPLE_FLAGS -fsanitize=${QX_SANITIZE})
endif()
add_test(NAME docs.manual_page_examples_compile
    COMMAND ${QX_DOCS_SCRIPTS}/check_examples.sh ${CMAKE_C_COMPILER}
        ${PROJECT_SOURCE_DIR}/include $<TARGET_FILE:qxcommon-util>
        ${PROJECT_SOURCE_DIR}/man ${CMAKE_CURRENT_BINARY_DIR}/man-examples
        ${QX_EXAMPLE_FLAGS} ${QX_DOCS_JSONPARSER_LDFLAGS})
set_tests_properties(docs.manual_page_examples_compile PROPERTIES TIMEOUT 300)
set_tests_properties(docs.every_export_is_in_a_manual_page docs.manual_page_examples_compile
    PROPERTIES LABELS no-valgrind)

# The manual pages carry the date of the last commit, not of the build.
if(QX_SCDOC)
    add_test(NAME docs.manual_pages_are_dated_from_the_last_commit
        COMMAND ${QX_DOCS_SCRIPTS}/check_manual_page_dates.sh ${PROJECT_SOURCE_DIR}
            ${PROJECT_BINARY_DIR}/man)
    set_tests_properties(docs.manual_pages_are_dated_from_the_last_commit PROPERTIES
        SKIP_RETURN_CODE 77 LABELS no-valgrind)
endif()

# The Debian packages, made as they are meant to be made: from a tree of
# their own, optimised and hardened (build_packages.sh), whatever this tree
# is. An instrumented tree (sanitizers, coverage) would make the very same
# packages again, so only an uninstrumented one checks them. The checks need
# dpkg-deb, file and dpkg-shlibdeps for cpack, lintian and readelf, which
# scripts/install-deps test installs: a missing one fails, rather than skips,
# the checks.
if(NOT QX_SANITIZE AND NOT QX_COVERAGE)
    set(QX_PACKAGES ${CMAKE_CURRENT_BINARY_DIR}/packages)
    add_test(NAME packaging.build
        COMMAND ${QX_DOCS_SCRIPTS}/build_packages.sh ${PROJECT_SOURCE_DIR} ${QX_PACKAGES}
            ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
    set_tests_properties(packaging.build PROPERTIES FIXTURES_SETUP qx_packages TIMEOUT 900)

    set(QX_MAN_BUILD "")
    if(QX_SCDOC)
        set(QX_MAN_BUILD ${PROJECT_BINARY_DIR}/man)
    endif()
    add_test(NAME packaging.debian_packages
        COMMAND ${QX_DOCS_SCRIPTS}/check_packages.sh ${QX_PACKAGES}/packages ${PROJECT_VERSION}
            ${CMAKE_LIBRARY_ARCHITECTURE} ${PROJECT_SOURCE_DIR}/abi/libqxcommon-util0.symbols
            ${QX_MAN_BUILD})
    add_test(NAME packaging.lintian_accepts_the_packages
        COMMAND ${QX_DOCS_SCRIPTS}/check_lintian.sh ${QX_PACKAGES}/packages)
    # error_test's Syslog tests log through qx_syslog, which the fortified
    # library sends to __vsyslog_chk; configfile_load logs running out of
    # memory with syslog, which becomes __syslog_chk.
    add_test(NAME packaging.binaries_are_hardened
        COMMAND ${QX_DOCS_SCRIPTS}/check_hardening.sh ${QX_PACKAGES}/packages
            $<TARGET_FILE:error_test> "Syslog.*"
            $<TARGET_FILE:config_test> "ConfigfileLoad.LogsOutOfMemoryAndReturnsTheLinesReadSoFar")
    set_tests_properties(packaging.debian_packages packaging.lintian_accepts_the_packages
        packaging.binaries_are_hardened PROPERTIES FIXTURES_REQUIRED qx_packages TIMEOUT 300)
    set_tests_properties(packaging.build packaging.debian_packages
        packaging.lintian_accepts_the_packages packaging.binaries_are_hardened
        PROPERTIES LABELS "packaging;no-valgrind")
endif()

# The exported interface matches the checked-in baseline.
find_program(QX_ABIDIFF abidiff)
if(QX_ABIDIFF)
    add_test(NAME abi.matches_the_baseline
        COMMAND ${QX_DOCS_SCRIPTS}/check_abi.sh
            ${PROJECT_SOURCE_DIR}/abi/libqxcommon-util.abi $<TARGET_FILE:qxcommon-util>)
    set_tests_properties(abi.matches_the_baseline PROPERTIES TIMEOUT 300 LABELS no-valgrind)
    # ... and that check does fail for a removed function or a changed record.
    add_test(NAME abi.check_rejects_removed_and_changed_interfaces
        COMMAND ${QX_DOCS_SCRIPTS}/check_abi_detects_changes.sh ${QX_DOCS_SCRIPTS}/check_abi.sh
            ${PROJECT_SOURCE_DIR}/abi/libqxcommon-util.abi $<TARGET_FILE:qxcommon-util>
            ${CMAKE_CURRENT_BINARY_DIR}/abi-doctored)
    set_tests_properties(abi.check_rejects_removed_and_changed_interfaces PROPERTIES TIMEOUT 300
        LABELS no-valgrind)
else()
    message(STATUS "abidiff not found: the ABI baseline test is left out")
endif()

# The README's first program compiles as shown and prints what it says.
add_test(NAME docs.readme_first_program_runs_as_shown
    COMMAND ${QX_DOCS_SCRIPTS}/check_readme_example.sh ${CMAKE_C_COMPILER}
        ${PROJECT_SOURCE_DIR}/include $<TARGET_FILE:qxcommon-util>
        ${PROJECT_SOURCE_DIR}/README.md ${CMAKE_CURRENT_BINARY_DIR}/readme-example
        ${QX_EXAMPLE_FLAGS})
set_tests_properties(docs.readme_first_program_runs_as_shown PROPERTIES LABELS no-valgrind)

# docs/deliberate.md lists every "Deliberate:" comment of src/ with a test
# that exists, and every safety rule with its place and test ...
add_test(NAME docs.deliberate_list_matches_the_sources
    COMMAND sh ${PROJECT_SOURCE_DIR}/scripts/deliberate check ${PROJECT_SOURCE_DIR})
# ... and that check does fail for each kind of drift.
add_test(NAME docs.deliberate_check_rejects_drift
    COMMAND sh ${QX_DOCS_SCRIPTS}/check_deliberate_detects_drift.sh
        ${PROJECT_SOURCE_DIR}/scripts/deliberate ${PROJECT_SOURCE_DIR}
        ${CMAKE_CURRENT_BINARY_DIR}/deliberate-drift)
set_tests_properties(docs.deliberate_list_matches_the_sources docs.deliberate_check_rejects_drift
    PROPERTIES LABELS no-valgrind)
