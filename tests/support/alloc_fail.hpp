// Makes chosen allocations fail. The test program defines malloc, calloc,
// realloc, posix_memalign and free and forwards them to the real allocator;
// while armed, it counts the allocations and fails the chosen ones with
// ENOMEM.
//
// Under AddressSanitizer, strdup and a few other C library functions
// allocate inside the sanitizer and are not seen here.
#pragma once

namespace qx_test {

// Counts allocations from now on and fails the one with index n (0 is the
// next allocation); with `and_later`, every allocation from n on fails.
void fail_allocation(long n, bool and_later = false);
// Disarms; allocations succeed again.
void stop_failing_allocations();
// Allocations seen since the last fail_allocation.
long allocations_seen();
// Whether an allocation was failed since the last fail_allocation (still
// answered after disarming).
bool allocation_was_failed();

// Watches for free(block): when it comes, the first `bytes` bytes of the
// block are copied just before it is released, so a test can see what a
// function left in memory it freed. One block at a time.
void watch_free(const void *block, unsigned long bytes);
// Whether the watched block was freed, and its bytes at that moment.
bool watched_block_was_freed();
const unsigned char *watched_block_contents();

// Arms on construction, disarms on destruction.
class failing_allocation {
  public:
    explicit failing_allocation(long n, bool and_later = false) { fail_allocation(n, and_later); }
    ~failing_allocation() { stop_failing_allocations(); }
    failing_allocation(const failing_allocation &) = delete;
    failing_allocation &operator=(const failing_allocation &) = delete;
};

// Runs `call` with the n-th allocation inside it failing, disarms, and
// returns what `call` returned. Assertions belong after it, not inside.
template <typename Call> auto call_with_failing_allocation(long n, Call call) {
    failing_allocation arm(n);
    return call();
}

// Calls `run(n)` for n = 0, 1, ... until a run makes no allocation fail.
// `run` prepares its inputs, uses call_with_failing_allocation(n, ...) for
// the call under test and then asserts the failure result. Returns the n of
// the clean run (the number of allocations the call makes), or -1 when
// `limit` runs were not enough.
template <typename Run> long sweep_allocation_failures(Run run, long limit = 10000) {
    for (long n = 0; n < limit; ++n) {
        run(n);
        if (!allocation_was_failed())
            return n;
    }
    return -1;
}

} // namespace qx_test
