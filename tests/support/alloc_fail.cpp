#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

#include <atomic>
#include <cerrno>
#include <cstddef>

// This file is compiled without instrumentation even in a sanitizer build,
// so the build says (QX_TEST_UNDER_ASAN) whether the program has ASan.

// The allocator the interposers forward to: the sanitizer's when the test is
// built with AddressSanitizer, otherwise the C library's own entry points.
extern "C" {
#ifdef QX_TEST_UNDER_ASAN
void *__interceptor_malloc(std::size_t);
void *__interceptor_calloc(std::size_t, std::size_t);
void *__interceptor_realloc(void *, std::size_t);
int __interceptor_posix_memalign(void **, std::size_t, std::size_t);
void __interceptor_free(void *);
#else
void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
void *__libc_memalign(std::size_t, std::size_t);
void __libc_free(void *);
#endif
}

namespace {

std::atomic<bool> armed{false};
std::atomic<long> counter{0};
std::atomic<long> fail_at{-1};
std::atomic<bool> fail_later{false};
std::atomic<bool> failed{false};

constexpr unsigned long watch_capacity = 4096;
std::atomic<const void *> watched_block{nullptr};
unsigned long watched_bytes = 0;
bool watched_freed = false;
unsigned char watched_copy[watch_capacity];

constexpr long free_log_capacity = 4096;
std::atomic<bool> logging_frees{false};
std::atomic<long> frees_logged{0};
const void *freed_pointers[free_log_capacity];

// Counts one allocation and tells whether it is to fail.
bool next_allocation_fails() {
    if (!armed.load(std::memory_order_relaxed))
        return false;
    const long index = counter.fetch_add(1);
    const long target = fail_at.load();
    if (index == target || (fail_later.load() && index > target)) {
        failed.store(true);
        return true;
    }
    return false;
}

void *real_malloc(std::size_t n) {
#ifdef QX_TEST_UNDER_ASAN
    return __interceptor_malloc(n);
#else
    return __libc_malloc(n);
#endif
}

void *real_calloc(std::size_t count, std::size_t n) {
#ifdef QX_TEST_UNDER_ASAN
    return __interceptor_calloc(count, n);
#else
    return __libc_calloc(count, n);
#endif
}

void *real_realloc(void *p, std::size_t n) {
#ifdef QX_TEST_UNDER_ASAN
    return __interceptor_realloc(p, n);
#else
    return __libc_realloc(p, n);
#endif
}

void real_free(void *p) {
#ifdef QX_TEST_UNDER_ASAN
    __interceptor_free(p);
#else
    __libc_free(p);
#endif
}

int real_posix_memalign(void **out, std::size_t alignment, std::size_t n) {
#ifdef QX_TEST_UNDER_ASAN
    return __interceptor_posix_memalign(out, alignment, n);
#else
    if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void *block = __libc_memalign(alignment, n);
    if (block == nullptr)
        return ENOMEM;
    *out = block;
    return 0;
#endif
}

} // namespace

namespace qx_test {

void fail_allocation(long n, bool and_later) {
    armed.store(false);
    counter.store(0);
    fail_at.store(n);
    fail_later.store(and_later);
    failed.store(false);
    armed.store(true);
}

void stop_failing_allocations() {
    armed.store(false);
}

long allocations_seen() {
    return counter.load();
}

bool allocation_was_failed() {
    return failed.load();
}

void watch_free(const void *block, unsigned long bytes) {
    watched_bytes = bytes < watch_capacity ? bytes : watch_capacity;
    watched_freed = false;
    watched_block.store(block);
}

bool watched_block_was_freed() {
    return watched_freed;
}

const unsigned char *watched_block_contents() {
    return watched_copy;
}

void start_logging_frees() {
    frees_logged.store(0);
    logging_frees.store(true);
}

void stop_logging_frees() {
    logging_frees.store(false);
}

bool was_freed(const void *p) {
    const long logged = frees_logged.load();
    const long n = logged < free_log_capacity ? logged : free_log_capacity;
    for (long i = 0; i < n; ++i)
        if (freed_pointers[i] == p)
            return true;
    return false;
}

long frees_seen() {
    return frees_logged.load();
}

} // namespace qx_test

extern "C" {

void *malloc(std::size_t n) noexcept {
    if (next_allocation_fails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return real_malloc(n);
}

void *calloc(std::size_t count, std::size_t n) noexcept {
    if (next_allocation_fails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return real_calloc(count, n);
}

void *realloc(void *p, std::size_t n) noexcept {
    if (next_allocation_fails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return real_realloc(p, n);
}

void free(void *p) noexcept {
    if (p != nullptr && logging_frees.load(std::memory_order_relaxed)) {
        const long slot = frees_logged.fetch_add(1);
        if (slot < free_log_capacity)
            freed_pointers[slot] = p;
    }
    if (p != nullptr && p == watched_block.load()) {
        const auto *bytes = static_cast<const unsigned char *>(p);
        for (unsigned long i = 0; i < watched_bytes; ++i)
            watched_copy[i] = bytes[i];
        watched_freed = true;
        watched_block.store(nullptr);
    }
    real_free(p);
}

int posix_memalign(void **out, std::size_t alignment, std::size_t n) noexcept {
    if (next_allocation_fails())
        return ENOMEM;
    return real_posix_memalign(out, alignment, n);
}

} // extern "C"
