# qx_child: the scripted child process of the process suites (see its
# source for the actions). Every suite knows its path as QX_TEST_CHILD.
add_executable(qx_child ${CMAKE_CURRENT_SOURCE_DIR}/helpers/qx_child.c)
set_target_properties(qx_child PROPERTIES C_STANDARD 11 C_EXTENSIONS OFF LINKER_LANGUAGE C)
target_compile_options(qx_child PRIVATE -Wall -Wextra)
foreach(suite IN LISTS QX_TEST_SUITE_TARGETS)
    target_compile_definitions(${suite} PRIVATE QX_TEST_CHILD="$<TARGET_FILE:qx_child>")
    add_dependencies(${suite} qx_child)
endforeach()
