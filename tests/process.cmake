# The pipe family of process calls is tested with failing pipe2 and fork.
if(TARGET process_test)
    target_sources(process_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/pipe_fork_fail.cpp)
endif()
