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

# cpack -G DEB into a scratch directory, inspected with dpkg-deb.
find_program(QX_DPKG_DEB dpkg-deb)
if(QX_DPKG_DEB)
    set(QX_EXPECT_MAN "")
    if(QX_SCDOC)
        set(QX_EXPECT_MAN 1)
    endif()
    add_test(NAME packaging.debian_packages
        COMMAND ${CMAKE_COMMAND} -E env QX_EXPECT_MAN=${QX_EXPECT_MAN}
            ${QX_DOCS_SCRIPTS}/check_packages.sh ${PROJECT_BINARY_DIR}
            ${CMAKE_CURRENT_BINARY_DIR}/packages ${PROJECT_VERSION})
    set_tests_properties(packaging.debian_packages PROPERTIES LABELS "packaging;no-valgrind" TIMEOUT 300)
else()
    message(STATUS "dpkg-deb not found: the packaging test is left out")
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
