# The INI engine's contract checks. Its assertions guard states that no file
# and no call through the C interface can produce, so this suite compiles the
# engine's source itself (with its test seam) and calls the internal
# functions directly. The assertion messages then still name ini_engine.cpp.
add_executable(ini_engine_contract_test
    ${CMAKE_CURRENT_SOURCE_DIR}/internal/ini_engine_contract_test.cpp
    ${PROJECT_SOURCE_DIR}/src/libqxcommon-util/ini_engine.cpp)
target_include_directories(ini_engine_contract_test PRIVATE
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src/libqxcommon-util
    ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(ini_engine_contract_test PRIVATE
    _GNU_SOURCE QX_INI_ENGINE_TEST_SEAMS
    QX_TEST_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}")
target_compile_options(ini_engine_contract_test PRIVATE -Wall -Wextra -UNDEBUG)
target_link_libraries(ini_engine_contract_test PRIVATE
    GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
gtest_discover_tests(ini_engine_contract_test DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120)
