# The OS release suite loads a second copy of the library to watch its
# finaliser run on unloading; it needs the built library's path.
target_compile_definitions(os_info_test PRIVATE QX_LIBRARY_FILE="$<TARGET_FILE:qxcommon-util>")
