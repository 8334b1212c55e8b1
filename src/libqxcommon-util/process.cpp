// Child programs connected by pipes: start, talk line by line, reap.
#include "qxcommon-util/process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/guards.hpp"
#include "internal/spawn.hpp"

namespace qx::detail {

namespace {

using spawn::pipe_pair;

// Every pipe is close-on-exec, so that no program started meanwhile by
// another thread, or by a later call, holds the caller's ends (a child
// holding the write end of another child's input would keep that child from
// ever seeing end of input). The child's own ends become its standard
// descriptors, which are inherited.
// process_open and process_open_stderr ask for no other flag.
constexpr int plain_pipe_flags = O_CLOEXEC;

struct spawn_request {
    char **argv;
    bool want_read;
    bool want_write;
    bool use_stderr;
    bool null_other;
    int read_flags;
    int write_flags;
};

bool mode_has(const char *mode, char c) noexcept {
    return mode != nullptr && std::strchr(mode, c) != nullptr;
}

// The messages keep errno, so a caller still sees why the open failed.
void log_spawn_failure() noexcept {
    errno_keeper keep;
    syslog(LOG_ERR, "error spawning child process");
}

bool open_pipe(pipe_pair &ends, int flags) noexcept {
    if (!ends.open(flags)) {
        errno_keeper keep;
        const int error = errno;
        syslog(LOG_ERR, "error opening pipe (%d): %s", error, std::strerror(error));
        return false;
    }
    return true;
}

// A record that cannot be allocated leaves nobody to reap the child, so it
// is stopped and reaped here and the open fails as if it had not started.
void abandon_child(pid_t pid) noexcept {
    errno_keeper keep;
    ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

process *process_spawn(const spawn_request &req) noexcept {
    // Deliberate: SIGCHLD is blocked and never unblocked.
    // Callers of this family rely on it staying blocked after the call, and
    // the child inherits it.
    spawn::block_sigchld_for_good();

    pipe_pair out; // the child's output, read by the caller
    pipe_pair in;  // the child's standard input, written by the caller
    if (req.want_read && !open_pipe(out, req.read_flags)) {
        log_spawn_failure();
        return nullptr;
    }
    if (req.want_write && !open_pipe(in, req.write_flags)) {
        out.close_read();
        out.close_write();
        log_spawn_failure();
        return nullptr;
    }

    const spawn::piped_plan plan{req.argv, &out, &in, req.use_stderr, req.null_other};
    const pid_t pid = spawn::start_piped_child(plan);
    if (pid < 0) {
        errno_keeper keep;
        if (in.is_open()) {
            // Deliberate: the read end is closed twice, the write end stays open.
            // It has always been so when the start fails.
            const int read_end = in.release_read();
            ::close(read_end);
            ::close(read_end);
            in.release_write();
        }
        out.close_read();
        out.close_write();
        log_spawn_failure();
        return nullptr;
    }

    out.close_write();
    in.close_read();
    auto *proc = static_cast<process *>(std::malloc(sizeof(process)));
    if (proc == nullptr) {
        in.close_write();
        out.close_read();
        abandon_child(pid);
        log_spawn_failure();
        return nullptr;
    }
    proc->read_fd = out.is_open() ? out.release_read() : -1;
    proc->write_fd = in.write_end() >= 0 ? in.release_write() : -1;
    proc->pid = pid;
    return proc;
}

process *open_with(char **argv, const char *mode, bool use_stderr, bool null_other, int read_flags,
                   int write_flags) noexcept {
    const spawn_request req{argv,       mode_has(mode, 'r'), mode_has(mode, 'w'), use_stderr,
                            null_other, read_flags,          write_flags};
    return process_spawn(req);
}

void close_field(int &fd) noexcept {
    if (fd >= 0) {
        errno_keeper keep;
        ::close(fd);
        fd = -1;
    }
}

// Reads one byte; the result of read(2).
ssize_t read_byte(int fd, char *into) noexcept {
    return ::read(fd, into, 1);
}

// Reads and drops bytes up to and including the next line feed or end of
// input; returns how many came before it, or -1 on a read error.
int discard_line(int fd) noexcept {
    int count = 0;
    for (;;) {
        char c;
        const ssize_t n = read_byte(fd, &c);
        if (n < 0)
            return -1;
        if (n == 0 || c == '\n')
            return count;
        ++count;
    }
}

int gets_into(int fd, char *buf, int size) noexcept {
    const int room = size - 1;
    int stored = 0;
    while (stored < room) {
        const ssize_t n = read_byte(fd, buf + stored);
        // Deliberate: no NUL is written when nothing was stored.
        // An empty line leaves its line feed in buf[0] and end of input
        // leaves buf as it was, and callers tell the two apart by that.
        const bool stop = n <= 0 || buf[stored] == '\n';
        if (stop) {
            if (stored > 0)
                buf[stored] = '\0';
            return n < 0 ? -1 : stored;
        }
        ++stored;
    }
    const int dropped = discard_line(fd);
    buf[stored] = '\0';
    return dropped < 0 ? -1 : stored + dropped;
}

} // namespace

} // namespace qx::detail

using qx::detail::open_with;
using qx::detail::plain_pipe_flags;

extern "C" {

QX_API process *process_open(char **argv, const char *mode) {
    return open_with(argv, mode, false, false, plain_pipe_flags, plain_pipe_flags);
}

QX_API process *process_open_stderr(char **argv, const char *mode) {
    return open_with(argv, mode, true, false, plain_pipe_flags, plain_pipe_flags);
}

QX_API process *process_open_with_flags(char **argv, const char *mode, int use_stderr,
                                        int null_other, int read_nonblock, int write_nonblock) {
    const int read_flags = O_CLOEXEC | (read_nonblock != 0 ? O_NONBLOCK : 0);
    const int write_flags = O_CLOEXEC | (write_nonblock != 0 ? O_NONBLOCK : 0);
    return open_with(argv, mode, use_stderr != 0, null_other != 0, read_flags, write_flags);
}

QX_API int process_signal(process *proc, int sig) {
    return ::kill(proc->pid, sig);
}

QX_API int process_close(process *proc, int *exitcode, int wait) {
    // The write side goes first, so the child sees end of input before the
    // wait.
    qx::detail::close_field(proc->write_fd);
    int status = 0;
    const pid_t reaped = ::waitpid(proc->pid, &status, wait != 0 ? 0 : WNOHANG);
    qx::detail::close_field(proc->read_fd);
    if (reaped == 0 || reaped == -1)
        return reaped;
    if (exitcode != nullptr && WIFEXITED(status))
        *exitcode = WEXITSTATUS(status);
    std::free(proc);
    return reaped;
}

QX_API int process_read_fd(process *proc) {
    return proc->read_fd;
}

QX_API int process_write_fd(process *proc) {
    return proc->write_fd;
}

QX_API void process_close_read(process *proc) {
    qx::detail::close_field(proc->read_fd);
}

QX_API void process_close_write(process *proc) {
    qx::detail::close_field(proc->write_fd);
}

QX_API int process_gets(process *proc, char *buf, int size) {
    const int fd = proc->read_fd;
    if (size <= 0)
        return qx::detail::discard_line(fd);
    if (size == 1) {
        buf[0] = '\0';
        return qx::detail::discard_line(fd);
    }
    return qx::detail::gets_into(fd, buf, size);
}

QX_API int process_puts(process *proc, const char *buf, int len) {
    if (buf == nullptr || len == 0)
        return -1;
    // A negative length cannot be written; it fails like a refused write
    // instead of reaching write(2) as a huge size.
    const ssize_t sent =
        len < 0 ? (errno = EINVAL, -1) : ::write(proc->write_fd, buf, static_cast<size_t>(len));
    if (sent <= 0) {
        syslog(LOG_ERR, "error sending command");
        return -1;
    }
    if (::write(proc->write_fd, "\n", 1) <= 0) {
        syslog(LOG_ERR, "error sending line break");
        return -1;
    }
    return 0;
}

} // extern "C"
