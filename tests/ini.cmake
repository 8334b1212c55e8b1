# The INI engine's contract checks. Its assertions guard states that no file
# and no call through the C interface can produce, so this suite compiles the
# engine's source itself (with its test seam) and calls the internal
# functions directly. The assertion messages then still name ini_engine.cpp.
#
# The suite is built twice: once as a debug build would compile the engine,
# and once with NDEBUG defined, as the Release and RelWithDebInfo
# configurations do, because the assertions must end the process in both.
function(qx_add_ini_engine_contract_test target ndebug_flag prefix)
    add_executable(${target}
        ${CMAKE_CURRENT_SOURCE_DIR}/internal/ini_engine_contract_test.cpp
        ${PROJECT_SOURCE_DIR}/src/libqxcommon-util/ini_engine.cpp
        ${PROJECT_SOURCE_DIR}/src/libqxcommon-util/internal/replacement_file.cpp)
    target_include_directories(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src/libqxcommon-util
        ${CMAKE_CURRENT_SOURCE_DIR})
    target_compile_definitions(${target} PRIVATE
        _GNU_SOURCE QX_INI_ENGINE_TEST_SEAMS
        QX_TEST_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}"
        QX_INI_ENGINE_SOURCE="${PROJECT_SOURCE_DIR}/src/libqxcommon-util/ini_engine.cpp")
    target_compile_options(${target} PRIVATE -Wall -Wextra ${ndebug_flag})
    target_link_libraries(${target} PRIVATE
        GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
    gtest_discover_tests(${target} TEST_PREFIX "${prefix}"
        DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

qx_add_ini_engine_contract_test(ini_engine_contract_test -UNDEBUG "")
qx_add_ini_engine_contract_test(ini_engine_contract_ndebug_test -DNDEBUG "NDEBUG.")

# The writer's tests make its reads, seeks, writes, syncs and renames fail.
target_sources(ini_writer_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support/io_faults.cpp)

# The long run of the crash test: 200 writers killed at random moments. The
# test skips itself unless QX_SLOW_TESTS is set; it runs here on its own,
# labelled slow, with room for the sanitizer build.
add_test(NAME ini_writer.slow.writer_killed_200_times_leaves_old_or_new_file
    COMMAND ini_writer_test
        --gtest_filter=IniWriter.SlowAWriterKilled200TimesAlwaysLeavesTheOldOrTheNewFile)
set_tests_properties(ini_writer.slow.writer_killed_200_times_leaves_old_or_new_file
    PROPERTIES LABELS slow TIMEOUT 300 ENVIRONMENT QX_SLOW_TESTS=1)
