#include "support/start_fail.hpp"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <sched.h>
#include <sys/types.h>

namespace {

std::atomic<bool> armed{false};
std::atomic<bool> delivered{false};

using clone_function = int (*)(int (*)(void *), void *, int, void *, ...);

// The definition that this one hides: the C library's, or a sanitizer's
// interceptor in front of it.
clone_function next_clone() {
    static clone_function next = reinterpret_cast<clone_function>(dlsym(RTLD_NEXT, "clone"));
    return next;
}

} // namespace

namespace qx_test {

void fail_next_child_start() {
    delivered.store(false);
    armed.store(true);
}

bool child_start_failure_delivered() {
    return delivered.load();
}

} // namespace qx_test

extern "C" int clone(int (*fn)(void *), void *stack, int flags, void *arg, ...) noexcept {
    if (armed.exchange(false)) {
        delivered.store(true);
        errno = EAGAIN;
        return -1;
    }
    // The optional arguments exist only when the flags ask for them.
    pid_t *parent_tid = nullptr;
    void *tls = nullptr;
    pid_t *child_tid = nullptr;
    if ((flags &
         (CLONE_PARENT_SETTID | CLONE_SETTLS | CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID)) != 0) {
        va_list more;
        va_start(more, arg);
        parent_tid = va_arg(more, pid_t *);
        tls = va_arg(more, void *);
        child_tid = va_arg(more, pid_t *);
        va_end(more);
    }
    return next_clone()(fn, stack, flags, arg, parent_tid, tls, child_tid);
}
