#include "support/pipe_fork_fail.hpp"

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

enum class fork_mode { real, fail, pretend_child };

std::atomic<fork_mode> fork_armed{fork_mode::real};
std::atomic<long> pipe2_calls{0};
std::atomic<long> failing_pipe2_call{-1}; // index among pipe2_calls, -1: none fails
std::atomic<int> pipe2_error{EMFILE};
std::atomic<bool> failed{false};

using pipe2_function = int (*)(int *, int);
using fork_function = pid_t (*)();

// The definitions that these hide: the C library's, or a sanitizer's
// interceptor in front of them.
pipe2_function next_pipe2() {
    static const auto next = reinterpret_cast<pipe2_function>(dlsym(RTLD_NEXT, "pipe2"));
    return next;
}

fork_function next_fork() {
    static const auto next = reinterpret_cast<fork_function>(dlsym(RTLD_NEXT, "fork"));
    return next;
}

} // namespace

namespace qx_test {

void fail_pipe2(long n, int error) {
    failed.store(false);
    pipe2_calls.store(0);
    pipe2_error.store(error);
    failing_pipe2_call.store(n);
}

void fail_fork(fork_fault how) {
    failed.store(false);
    fork_armed.store(how == fork_fault::fail ? fork_mode::fail : fork_mode::pretend_child);
}

void stop_failing_pipe2_and_fork() {
    fork_armed.store(fork_mode::real);
    failing_pipe2_call.store(-1);
    pipe2_calls.store(0);
}

bool pipe2_or_fork_was_failed() {
    return failed.load();
}

void resolve_pipe2_and_fork() {
    (void)next_pipe2();
    (void)next_fork();
}

} // namespace qx_test

extern "C" int pipe2(int fds[2], int flags) noexcept {
    const long chosen = failing_pipe2_call.load();
    if (chosen >= 0 && pipe2_calls.fetch_add(1) == chosen) {
        failed.store(true);
        errno = pipe2_error.load();
        return -1;
    }
    return next_pipe2()(fds, flags);
}

extern "C" pid_t fork() noexcept {
    switch (fork_armed.load()) {
    case fork_mode::fail:
        failed.store(true);
        errno = EAGAIN;
        return -1;
    case fork_mode::pretend_child:
        return 0;
    case fork_mode::real:
        break;
    }
    return next_fork()();
}
