#include "support/fclose_fail.hpp"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>

namespace {

std::atomic<bool> armed{false};
std::atomic<bool> delivered{false};

using fclose_function = int (*)(FILE *);

// The definition that this one hides: the C library's, or the sanitizer's
// interceptor in front of it.
fclose_function next_fclose() {
    static fclose_function next = reinterpret_cast<fclose_function>(dlsym(RTLD_NEXT, "fclose"));
    return next;
}

} // namespace

namespace qx_test {

void fail_next_fclose() {
    delivered.store(false);
    armed.store(true);
}

bool fclose_failure_delivered() {
    return delivered.load();
}

} // namespace qx_test

extern "C" int fclose(FILE *stream) {
    const int result = next_fclose()(stream);
    if (armed.exchange(false)) {
        delivered.store(true);
        errno = EIO;
        return EOF;
    }
    return result;
}
