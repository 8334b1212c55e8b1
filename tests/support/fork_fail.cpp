#include "support/fork_fail.hpp"

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <unistd.h>

namespace {

std::atomic<bool> armed{false};
std::atomic<bool> delivered{false};

using fork_function = pid_t (*)();

// The definition that this one hides: the C library's, or the sanitizer's
// interceptor in front of it.
fork_function next_fork() {
    static fork_function next = reinterpret_cast<fork_function>(dlsym(RTLD_NEXT, "fork"));
    return next;
}

} // namespace

namespace qx_test {

void fail_next_fork() {
    delivered.store(false);
    armed.store(true);
}

bool fork_failure_delivered() {
    return delivered.load();
}

} // namespace qx_test

extern "C" pid_t fork() {
    if (armed.exchange(false)) {
        delivered.store(true);
        errno = EAGAIN;
        return -1;
    }
    return next_fork()();
}
