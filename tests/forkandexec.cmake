# The command family's slow tests.
if(TARGET forkandexec_test)
    # The tests that need thirty seconds of silence, or many calls from
    # several threads, skip themselves unless QX_SLOW_TESTS is set; they run here on
    # their own, labelled slow, with room for the sanitizer build.
    function(qx_add_slow_forkandexec_test name gtest_name)
        add_test(NAME forkandexec.slow.${name}
            COMMAND forkandexec_test --gtest_filter=ForkAndExecSlow.${gtest_name})
        set_tests_properties(forkandexec.slow.${name}
            PROPERTIES LABELS slow TIMEOUT 600 ENVIRONMENT QX_SLOW_TESTS=1)
    endfunction()
    qx_add_slow_forkandexec_test(silent_command_gets_thirty_seconds_before_its_limit
        SilentCommandIsGivenThirtySecondsBeforeItsLimitStarts)
    qx_add_slow_forkandexec_test(command_writing_after_silence_is_not_left_blocked
        ACommandThatWritesAfterThirtySecondsOfSilenceIsNotLeftBlocked)
    qx_add_slow_forkandexec_test(four_threads_of_300_mixed_calls
        FourThreadsOf300MixedCallsNeitherHangNorLoseOutput)
endif()
