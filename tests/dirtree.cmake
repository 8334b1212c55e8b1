# The dirtree suite watches the library's open, mkdir and fsync calls
# through its own definitions of them.
target_sources(dirtree_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/fs_calls.cpp)
