# The process suite can make the start of a child process fail.
if(TARGET forkandexec_test)
    target_sources(forkandexec_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/start_fail.cpp)
    # The one test that needs thirty seconds of silence skips itself unless
    # QX_SLOW_TESTS is set; it runs here on its own, labelled slow, with room
    # for the sanitizer build.
    add_test(NAME forkandexec.slow.silent_command_gets_thirty_seconds_before_its_limit
        COMMAND forkandexec_test
            --gtest_filter=ForkAndExecSlow.SilentCommandIsGivenThirtySecondsBeforeItsLimitStarts)
    set_tests_properties(forkandexec.slow.silent_command_gets_thirty_seconds_before_its_limit
        PROPERTIES LABELS slow TIMEOUT 300 ENVIRONMENT QX_SLOW_TESTS=1)
endif()
