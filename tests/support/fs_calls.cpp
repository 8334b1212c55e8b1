// The interposed definitions must be plain functions, whatever the build's
// hardening would make of the C library's declarations.
#undef _FORTIFY_SOURCE

#include "support/fs_calls.hpp"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int capacity = 64;
constexpr std::size_t path_room = 4096;

struct raw_call {
    const char *function;
    char path[path_room];
    int flags;
    mode_t mode;
    int fd;
};

bool recording = false;
int recorded = 0;
raw_call calls[capacity];

void note(const char *function, const char *path, int flags, mode_t mode, int fd) {
    if (!recording || recorded == capacity)
        return;
    raw_call &call = calls[recorded++];
    call.function = function;
    call.path[0] = '\0';
    if (path != nullptr) {
        std::strncpy(call.path, path, path_room - 1);
        call.path[path_room - 1] = '\0';
    }
    call.flags = flags;
    call.mode = mode;
    call.fd = fd;
}

} // namespace

namespace qx_test {

void start_recording_fs_calls() {
    recorded = 0;
    recording = true;
}

void stop_recording_fs_calls() {
    recording = false;
}

std::vector<fs_call> recorded_fs_calls() {
    std::vector<fs_call> all;
    for (int i = 0; i < recorded; ++i)
        all.push_back(
            {calls[i].function, calls[i].path, calls[i].flags, calls[i].mode, calls[i].fd});
    return all;
}

} // namespace qx_test

extern "C" {

int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, unsigned int));
        va_end(ap);
    }
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    note("open", path, flags, mode, fd);
    return fd;
}

int mkdir(const char *path, mode_t mode) {
    const int result = static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
    note("mkdir", path, 0, mode, result);
    return result;
}

int fsync(int fd) {
    const int result = static_cast<int>(syscall(SYS_fsync, fd));
    note("fsync", nullptr, 0, 0, fd);
    return result;
}

} // extern "C"
