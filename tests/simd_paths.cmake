# The codec and escape suites once more, on the scalar path: the environment
# variable makes the library leave its vector kernels aside. The registration
# of the main loop is the run on the vector path, which the suites report as
# skipped on a machine without one (tests/support/simd_path.hpp).
foreach(suite codec_test escape_test)
    gtest_discover_tests(${suite} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        TEST_PREFIX "scalar_path."
        PROPERTIES TIMEOUT 120 ENVIRONMENT QXCOMMON_UTIL_SIMD=scalar)
endforeach()
