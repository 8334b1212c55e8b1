// Proves that a call freed (or did not free) exactly what it should.
//
// heap_bytes_in_use(): bytes currently allocated. Only the sanitizer's
// allocator counts them exactly (the C library's arena keeps freed chunks
// in per-thread caches that still count as used), so the figure is offered
// only under AddressSanitizer; heap_bytes_available() says whether it is.
//
// free_log: records the pointers handed to free(3) while it lives. The test
// program's own free (support/alloc_fail.cpp) keeps the log.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define QX_TEST_HEAP_FROM_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QX_TEST_HEAP_FROM_SANITIZER 1
#endif
#endif

#ifdef QX_TEST_HEAP_FROM_SANITIZER
// Provided by the sanitizer runtime (declared here: not every compiler ships
// the sanitizer headers).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace qx_test {

constexpr bool heap_bytes_available() {
#ifdef QX_TEST_HEAP_FROM_SANITIZER
    return true;
#else
    return false;
#endif
}

inline std::size_t heap_bytes_in_use() {
#ifdef QX_TEST_HEAP_FROM_SANITIZER
    return __sanitizer_get_current_allocated_bytes();
#else
    return 0;
#endif
}

void start_logging_frees();
void stop_logging_frees();
// Whether p was passed to free since the last start_logging_frees.
bool was_freed(const void *p);
// How many non-NULL pointers were passed to free since then.
long frees_seen();

// Logs on construction until destruction.
class free_log {
  public:
    free_log() { start_logging_frees(); }
    ~free_log() { stop_logging_frees(); }
    free_log(const free_log &) = delete;
    free_log &operator=(const free_log &) = delete;
    bool freed(const void *p) const { return was_freed(p); }
    long count() const { return frees_seen(); }
};

} // namespace qx_test

// Asserts that the bytes in use are back at `before` where they can be counted.
#define QX_EXPECT_HEAP_AT(before)                                                                  \
    do {                                                                                           \
        if (qx_test::heap_bytes_available()) {                                                     \
            EXPECT_EQ(qx_test::heap_bytes_in_use(), (before));                                     \
        }                                                                                          \
    } while (0)
