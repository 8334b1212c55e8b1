# The qxutil tool: each group of checks runs the built tool through a shell
# script and compares output, error output and exit status exactly.
if(TARGET qxutil)
    foreach(group general ini conf json run codec os_release rfc3339 pidfile)
        add_test(NAME qxutil.${group}
            COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/qxutil/run_tests.sh
                $<TARGET_FILE:qxutil> ${PROJECT_SOURCE_DIR}/examples/data ${group})
        set_tests_properties(qxutil.${group} PROPERTIES TIMEOUT 120)
    endforeach()
endif()
