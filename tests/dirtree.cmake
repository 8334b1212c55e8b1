# The dirtree suite watches the library's open, mkdir and fsync calls, and
# makes its reads and writes fail, through the I/O interposer.
target_sources(dirtree_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/io_faults.cpp)
