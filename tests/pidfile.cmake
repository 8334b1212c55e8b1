# The PID-file writers are tested with failing and short writes.
target_sources(pidfile_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/io_faults.cpp)
