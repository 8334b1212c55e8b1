// Makes chosen I/O calls fail, the way the allocation interposer makes
// allocations fail. The test program defines the file functions that the
// library's writers and readers call (below) and forwards them to the C
// library; while armed, it counts the calls of one function and fails the
// chosen one (or every one from there on) with a chosen errno, as a full
// disk or a failing device would.
//
// A failed call does nothing else: a failed write writes nothing, a failed
// seek does not move, a failed stdio call also sets the stream's error
// indicator as a real failure does. Two calls are the exception, because a
// real failure of them is like that too: a failed close or fclose still
// releases the descriptor or stream (nothing leaks), and a short write
// writes the first half of its bytes and reports that count without errno.
//
// A filter keeps the test harness's own I/O out of it: when set, only calls
// on paths under a prefix (and on descriptors and streams open on such paths,
// found through /proc/self/fd) are counted and failed.
//
// The same definitions serve two older interfaces of this directory:
// fclose_fail.hpp and fs_calls.hpp.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

namespace qx_test {

enum class io_fn {
    open,
    read,
    write,
    close,
    fsync,
    rename,
    unlink,
    mkdir,
    fgets,
    fputs,
    fputc,
    fwrite,
    fflush,
    fclose,
    fseek,
    fsetpos,
    fgetpos,
};

const char *io_fn_name(io_fn function);

// Only calls on paths that start with `prefix` count (an empty prefix lets
// every call count). Relative paths are taken from the working directory.
void restrict_io_faults_to(const std::string &prefix);

// Counts the calls of `function` from now on and fails the one with index n
// (0 is the next call) with `error`; with `and_later`, every call from n on.
void fail_io(io_fn function, long n, int error, bool and_later = false);
// The n-th write (or fwrite) writes half of its bytes and reports that.
void shorten_write(io_fn function, long n);
// Disarms; calls succeed again (the filter stays until changed).
void stop_failing_io();
// Calls of the armed function counted since it was armed.
long io_calls_seen();
// Whether a call was failed since arming (still answered after disarming).
bool io_call_was_failed();

// Runs `action` once, just before the next call of `function` (whatever the
// filter says) goes to the C library. It is given the call's stream, or
// nullptr when the function takes none.
void before_next_io(io_fn function, std::function<void(FILE *)> action);

// Statistics of write-like calls (write, fwrite, fputs, fputc) that pass
// the filter, from start_io_stats on.
struct io_stats {
    long calls = 0;
    std::size_t bytes = 0;
    std::size_t largest = 0;
};
void start_io_stats();
void stop_io_stats();
io_stats io_stats_of(io_fn function);

// Arms on construction, disarms on destruction.
class failing_io {
  public:
    failing_io(io_fn function, long n, int error, bool and_later = false) {
        fail_io(function, n, error, and_later);
    }
    ~failing_io() { stop_failing_io(); }
    failing_io(const failing_io &) = delete;
    failing_io &operator=(const failing_io &) = delete;
};

// Calls `run(n)` for n = 0, 1, ... until a run makes no call fail. `run`
// prepares its inputs, arms failing_io(function, n, error) around the call
// under test and then asserts what the failure must leave. Returns the n of
// the clean run (the number of calls of `function`), or -1 when `limit` runs
// were not enough.
template <typename Run> long sweep_io_failures(Run run, long limit = 2000) {
    for (long n = 0; n < limit; ++n) {
        run(n);
        if (!io_call_was_failed())
            return n;
    }
    return -1;
}

} // namespace qx_test
