// The codec and escape suites run twice: once as they are registered, on the
// vector path the library takes where the machine has AVX2, and once with
// QXCOMMON_UTIL_SIMD=scalar (see tests/simd_paths.cmake). Including this
// header into a suite registers an environment that skips every test of the
// program, saying why, when the run is the vector one and the machine has no
// vector path: the scalar path is then not tested twice under two names.
#ifndef QX_TEST_SIMD_PATH_HPP
#define QX_TEST_SIMD_PATH_HPP

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

namespace qx_test {

inline bool scalar_path_requested() {
    const char *wanted = std::getenv("QXCOMMON_UTIL_SIMD");
    return wanted != nullptr && std::strcmp(wanted, "scalar") == 0;
}

inline bool machine_has_vector_path() {
#if defined(__x86_64__) || defined(__i386__)
    // Checks the operating system's support for the vector registers too.
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

class vector_path_environment : public ::testing::Environment {
  public:
    void SetUp() override {
        if (scalar_path_requested() || machine_has_vector_path())
            return;
        // A skip in the environment runs no test but prints no per-test
        // marker, so the line CTest looks for to report a skipped test is
        // written here.
        std::printf("[  SKIPPED ] vector path not available on this machine (no AVX2); the "
                    "scalar run of this suite covers the code\n");
        GTEST_SKIP() << "vector path not available on this machine";
    }
};

inline ::testing::Environment *const vector_path_environment_registered =
    ::testing::AddGlobalTestEnvironment(new vector_path_environment);

} // namespace qx_test

#endif
