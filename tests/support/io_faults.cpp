// The interposed file functions of the test programs: see io_faults.hpp.
// System calls are forwarded with syscall(2), so that nothing here needs the
// dynamic loader while it runs; stdio functions are forwarded to the
// definition they hide (the C library's, or a sanitizer's interceptor).

// The interposed definitions must be plain functions, whatever the build's
// hardening would make of the C library's declarations.
#undef _FORTIFY_SOURCE

#include "support/io_faults.hpp"
#include "support/fclose_fail.hpp"
#include "support/fs_calls.hpp"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using qx_test::io_fn;

constexpr int function_count = static_cast<int>(io_fn::fgetpos) + 1;

// ---- arming -----------------------------------------------------------------

std::atomic<bool> armed{false};
std::atomic<int> armed_function{-1};
std::atomic<long> counter{0};
std::atomic<long> fail_at{-1};
std::atomic<bool> fail_later{false};
std::atomic<int> fail_errno{0};
std::atomic<bool> short_write{false};
std::atomic<bool> failed{false};

// The filter: empty means every call counts. Set while nothing is armed.
char filter_prefix[PATH_MAX];
std::size_t filter_length = 0;

bool under_filter(const char *absolute) {
    return std::strncmp(absolute, filter_prefix, filter_length) == 0;
}

bool path_passes(const char *path) {
    if (filter_length == 0)
        return true;
    if (path == nullptr)
        return false;
    if (path[0] == '/')
        return under_filter(path);
    char absolute[2 * PATH_MAX];
    if (::getcwd(absolute, PATH_MAX) == nullptr)
        return false;
    const std::size_t length = std::strlen(absolute);
    std::snprintf(absolute + length, sizeof absolute - length, "/%s", path);
    return under_filter(absolute);
}

bool fd_passes(int fd) {
    if (filter_length == 0)
        return true;
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char target[PATH_MAX];
    const ssize_t n = ::readlink(link, target, sizeof target - 1);
    if (n <= 0)
        return false;
    target[n] = '\0';
    return under_filter(target);
}

bool stream_passes(FILE *stream) {
    return filter_length == 0 || (stream != nullptr && fd_passes(::fileno(stream)));
}

// Counts the call when its function is armed and it passes the filter (the
// filter is asked only then), and tells whether it is to fail.
template <typename Passes> bool call_fails(io_fn function, Passes passes) {
    if (!armed.load(std::memory_order_acquire) ||
        armed_function.load() != static_cast<int>(function) || !passes())
        return false;
    const long index = counter.fetch_add(1);
    const long target = fail_at.load();
    if (index == target || (fail_later.load() && index > target)) {
        failed.store(true);
        return true;
    }
    return false;
}

// ---- the action before a call -----------------------------------------------

std::mutex action_mutex;
std::atomic<int> action_function{-1};
std::function<void(FILE *)> pending_action;

void run_pending_action(io_fn function, FILE *stream = nullptr) {
    if (action_function.load(std::memory_order_acquire) != static_cast<int>(function))
        return;
    std::function<void(FILE *)> action;
    {
        std::lock_guard<std::mutex> lock(action_mutex);
        if (action_function.load() != static_cast<int>(function))
            return;
        action = std::move(pending_action);
        pending_action = nullptr;
        action_function.store(-1);
    }
    action(stream);
}

// ---- statistics ---------------------------------------------------------------

std::atomic<bool> counting{false};
std::atomic<long> stat_calls[function_count];
std::atomic<std::size_t> stat_bytes[function_count];
std::atomic<std::size_t> stat_largest[function_count];

template <typename Passes> void count_bytes(io_fn function, std::size_t bytes, Passes passes) {
    if (!counting.load(std::memory_order_relaxed) || !passes())
        return;
    const int i = static_cast<int>(function);
    stat_calls[i].fetch_add(1);
    stat_bytes[i].fetch_add(bytes);
    std::size_t largest = stat_largest[i].load();
    while (bytes > largest && !stat_largest[i].compare_exchange_weak(largest, bytes)) {
    }
}

// ---- the record of open, mkdir and fsync (fs_calls.hpp) ------------------------

constexpr int record_capacity = 64;

struct raw_call {
    const char *function;
    char path[PATH_MAX];
    int flags;
    mode_t mode;
    int fd;
};

bool recording = false;
int recorded = 0;
raw_call calls[record_capacity];

void note(const char *function, const char *path, int flags, mode_t mode, int fd) {
    if (!recording || recorded == record_capacity)
        return;
    raw_call &call = calls[recorded++];
    call.function = function;
    call.path[0] = '\0';
    if (path != nullptr) {
        std::strncpy(call.path, path, sizeof call.path - 1);
        call.path[sizeof call.path - 1] = '\0';
    }
    call.flags = flags;
    call.mode = mode;
    call.fd = fd;
}

// ---- forwarding ---------------------------------------------------------------

template <typename F> F next_definition(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// What a failed stdio call leaves on its stream.
void mark_stream_failed(FILE *stream) {
#ifdef _IO_ERR_SEEN
    stream->_flags |= _IO_ERR_SEEN;
#else
    (void)stream;
#endif
}

} // namespace

namespace qx_test {

const char *io_fn_name(io_fn function) {
    static const char *const names[function_count] = {
        "open",  "read",  "write",  "close",  "fsync",  "rename", "unlink",  "mkdir",  "fgets",
        "fputs", "fputc", "fwrite", "fflush", "fclose", "fseek",  "fsetpos", "fgetpos"};
    return names[static_cast<int>(function)];
}

void restrict_io_faults_to(const std::string &prefix) {
    const std::size_t length =
        prefix.size() < sizeof filter_prefix - 1 ? prefix.size() : sizeof filter_prefix - 1;
    std::memcpy(filter_prefix, prefix.data(), length);
    filter_prefix[length] = '\0';
    filter_length = length;
}

void fail_io(io_fn function, long n, int error, bool and_later) {
    armed.store(false);
    armed_function.store(static_cast<int>(function));
    counter.store(0);
    fail_at.store(n);
    fail_later.store(and_later);
    fail_errno.store(error);
    short_write.store(false);
    failed.store(false);
    armed.store(true, std::memory_order_release);
}

void shorten_write(io_fn function, long n) {
    fail_io(function, n, 0);
    short_write.store(true);
}

void stop_failing_io() {
    armed.store(false);
}

long io_calls_seen() {
    return counter.load();
}

bool io_call_was_failed() {
    return failed.load();
}

void before_next_io(io_fn function, std::function<void(FILE *)> action) {
    std::lock_guard<std::mutex> lock(action_mutex);
    pending_action = std::move(action);
    action_function.store(static_cast<int>(function), std::memory_order_release);
}

void start_io_stats() {
    for (int i = 0; i < function_count; ++i) {
        stat_calls[i].store(0);
        stat_bytes[i].store(0);
        stat_largest[i].store(0);
    }
    counting.store(true);
}

void stop_io_stats() {
    counting.store(false);
}

io_stats io_stats_of(io_fn function) {
    const int i = static_cast<int>(function);
    io_stats stats;
    stats.calls = stat_calls[i].load();
    stats.bytes = stat_bytes[i].load();
    stats.largest = stat_largest[i].load();
    return stats;
}

// fclose_fail.hpp: the next fclose, wherever its stream is open, fails with
// EIO after closing.
void fail_next_fclose() {
    restrict_io_faults_to("");
    fail_io(io_fn::fclose, 0, EIO);
}

bool fclose_failure_delivered() {
    return io_call_was_failed();
}

// fs_calls.hpp
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

// ---- the interposed functions ---------------------------------------------------

extern "C" {

int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, unsigned int));
        va_end(ap);
    }
    run_pending_action(io_fn::open);
    if (call_fails(io_fn::open, [&] { return path_passes(path); })) {
        errno = fail_errno.load();
        note("open", path, flags, mode, -1);
        return -1;
    }
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    note("open", path, flags, mode, fd);
    return fd;
}

ssize_t read(int fd, void *buffer, size_t count) {
    run_pending_action(io_fn::read);
    if (call_fails(io_fn::read, [&] { return fd_passes(fd); })) {
        errno = fail_errno.load();
        return -1;
    }
    return syscall(SYS_read, fd, buffer, count);
}

// The fortified read: the size check it adds is of no use to these tests.
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t room) {
    (void)room;
    return read(fd, buffer, count);
}

ssize_t write(int fd, const void *buffer, size_t count) {
    run_pending_action(io_fn::write);
    if (call_fails(io_fn::write, [&] { return fd_passes(fd); })) {
        if (short_write.load())
            return syscall(SYS_write, fd, buffer, count / 2);
        errno = fail_errno.load();
        return -1;
    }
    const ssize_t written = syscall(SYS_write, fd, buffer, count);
    if (written > 0)
        count_bytes(io_fn::write, static_cast<std::size_t>(written), [&] { return fd_passes(fd); });
    return written;
}

int close(int fd) {
    run_pending_action(io_fn::close);
    const bool fails = call_fails(io_fn::close, [&] { return fd_passes(fd); });
    const int result = static_cast<int>(syscall(SYS_close, fd));
    if (fails) {
        errno = fail_errno.load();
        return -1;
    }
    return result;
}

int fsync(int fd) {
    run_pending_action(io_fn::fsync);
    if (call_fails(io_fn::fsync, [&] { return fd_passes(fd); })) {
        errno = fail_errno.load();
        note("fsync", nullptr, 0, 0, fd);
        return -1;
    }
    const int result = static_cast<int>(syscall(SYS_fsync, fd));
    note("fsync", nullptr, 0, 0, fd);
    return result;
}

int rename(const char *from, const char *to) noexcept {
    run_pending_action(io_fn::rename);
    if (call_fails(io_fn::rename, [&] { return path_passes(from) || path_passes(to); })) {
        errno = fail_errno.load();
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

int unlink(const char *path) noexcept {
    run_pending_action(io_fn::unlink);
    if (call_fails(io_fn::unlink, [&] { return path_passes(path); })) {
        errno = fail_errno.load();
        return -1;
    }
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int mkdir(const char *path, mode_t mode) noexcept {
    run_pending_action(io_fn::mkdir);
    if (call_fails(io_fn::mkdir, [&] { return path_passes(path); })) {
        errno = fail_errno.load();
        note("mkdir", path, 0, mode, -1);
        return -1;
    }
    const int result = static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
    note("mkdir", path, 0, mode, result);
    return result;
}

char *fgets(char *buffer, int size, FILE *stream) {
    static const auto next = next_definition<char *(*)(char *, int, FILE *)>("fgets");
    run_pending_action(io_fn::fgets, stream);
    if (call_fails(io_fn::fgets, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return nullptr;
    }
    return next(buffer, size, stream);
}

// What a fortified build calls where the buffer's size is known.
char *__fgets_chk(char *buffer, size_t room, int size, FILE *stream) {
    static const auto next = next_definition<char *(*)(char *, size_t, int, FILE *)>("__fgets_chk");
    run_pending_action(io_fn::fgets, stream);
    if (call_fails(io_fn::fgets, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return nullptr;
    }
    return next(buffer, room, size, stream);
}

int fputs(const char *text, FILE *stream) {
    static const auto next = next_definition<int (*)(const char *, FILE *)>("fputs");
    run_pending_action(io_fn::fputs, stream);
    if (call_fails(io_fn::fputs, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return EOF;
    }
    const int result = next(text, stream);
    if (result != EOF)
        count_bytes(io_fn::fputs, std::strlen(text), [&] { return stream_passes(stream); });
    return result;
}

int fputc(int c, FILE *stream) {
    static const auto next = next_definition<int (*)(int, FILE *)>("fputc");
    run_pending_action(io_fn::fputc, stream);
    if (call_fails(io_fn::fputc, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return EOF;
    }
    const int result = next(c, stream);
    if (result != EOF)
        count_bytes(io_fn::fputc, 1, [&] { return stream_passes(stream); });
    return result;
}

size_t fwrite(const void *data, size_t size, size_t count, FILE *stream) {
    static const auto next =
        next_definition<size_t (*)(const void *, size_t, size_t, FILE *)>("fwrite");
    run_pending_action(io_fn::fwrite, stream);
    if (call_fails(io_fn::fwrite, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return 0;
    }
    const size_t written = next(data, size, count, stream);
    count_bytes(io_fn::fwrite, written * size, [&] { return stream_passes(stream); });
    return written;
}

int fflush(FILE *stream) {
    static const auto next = next_definition<int (*)(FILE *)>("fflush");
    run_pending_action(io_fn::fflush, stream);
    if (stream != nullptr && call_fails(io_fn::fflush, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        mark_stream_failed(stream);
        return EOF;
    }
    return next(stream);
}

int fclose(FILE *stream) {
    static const auto next = next_definition<int (*)(FILE *)>("fclose");
    run_pending_action(io_fn::fclose, stream);
    const bool fails = call_fails(io_fn::fclose, [&] { return stream_passes(stream); });
    const int result = next(stream);
    if (fails) {
        errno = fail_errno.load();
        return EOF;
    }
    return result;
}

int fseek(FILE *stream, long offset, int whence) {
    static const auto next = next_definition<int (*)(FILE *, long, int)>("fseek");
    run_pending_action(io_fn::fseek, stream);
    if (call_fails(io_fn::fseek, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        return -1;
    }
    return next(stream, offset, whence);
}

int fsetpos(FILE *stream, const fpos_t *pos) {
    static const auto next = next_definition<int (*)(FILE *, const fpos_t *)>("fsetpos");
    run_pending_action(io_fn::fsetpos, stream);
    if (call_fails(io_fn::fsetpos, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        return -1;
    }
    return next(stream, pos);
}

int fgetpos(FILE *stream, fpos_t *pos) {
    static const auto next = next_definition<int (*)(FILE *, fpos_t *)>("fgetpos");
    run_pending_action(io_fn::fgetpos, stream);
    if (call_fails(io_fn::fgetpos, [&] { return stream_passes(stream); })) {
        errno = fail_errno.load();
        return -1;
    }
    return next(stream, pos);
}

} // extern "C"
