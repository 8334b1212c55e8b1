// Makes pipe2 or fork fail, for the pipe family of process calls. The test
// program defines both and forwards them to the C library; while armed,
// the chosen pipe2 call creates nothing and fails with the chosen errno,
// and fork creates no process: it fails with EAGAIN, or answers 0 as the
// child would (for death tests, which then take the child's path in the
// test process itself).
#pragma once

#include <cerrno>

namespace qx_test {

// Counts pipe2 calls from now on and fails the one with index n (0 is the
// next call) with `error`.
void fail_pipe2(long n, int error = EMFILE);

enum class fork_fault { fail, pretend_child };
// Every fork from now on fails (or pretends to be the child) until disarmed.
void fail_fork(fork_fault how = fork_fault::fail);

// Disarms both; the calls reach the C library again.
void stop_failing_pipe2_and_fork();
// Whether a call was failed since arming (still answered after disarming).
bool pipe2_or_fork_was_failed();

// Looks up the C library's definitions now, so that the look-up's own
// allocations are not counted by a test that counts them.
void resolve_pipe2_and_fork();

// Arms fork on construction, disarms on destruction.
class failing_fork {
  public:
    explicit failing_fork(fork_fault how = fork_fault::fail) { fail_fork(how); }
    ~failing_fork() { stop_failing_pipe2_and_fork(); }
    failing_fork(const failing_fork &) = delete;
    failing_fork &operator=(const failing_fork &) = delete;
};

} // namespace qx_test
