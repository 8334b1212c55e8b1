# Which suites link which fault interposer of tests/support/. An interposer
# defines C library functions itself (forwarding them to the real ones until
# a test arms it), so it goes only into the suites that make those calls
# fail.

# open, read, write, fsync, rename, the stdio calls and the rest of the file
# calls: the writers and readers of files are tested with failing and short
# calls (and dirtree's suite watches open, mkdir and fsync through it).
foreach(suite IN ITEMS dirtree_test fileio_test pidfile_test splitter_test config_test)
    if(TARGET ${suite})
        target_sources(${suite} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/io_faults.cpp)
    endif()
endforeach()

# clone: the start of a command of the forkandexec family.
if(TARGET forkandexec_test)
    target_sources(forkandexec_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/start_fail.cpp)
endif()

# pipe2 and fork: the pipe family of process calls.
if(TARGET process_test)
    target_sources(process_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/pipe_fork_fail.cpp)
endif()
