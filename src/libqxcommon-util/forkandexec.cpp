// Running a command to completion with an optional time limit.
#include "qxcommon-util/forkandexec.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/spawn.hpp"

namespace qx::detail {

namespace {

// A pass of output collection gives up after this long without output.
constexpr int silence_limit_ms = 30000;
// One stack buffer serves every read.
constexpr std::size_t read_buffer_size = 8000;
// The strbuf family leaves room for the NUL that makes a chunk a string.
constexpr std::size_t text_chunk_size = read_buffer_size - 1;
// Reaping attempts after the process group has been killed.
constexpr int reap_attempts = 3;

// The caller's ends stay out of every program started meanwhile; the child
// makes its own ends inheritable again.
constexpr int pipe_flags = O_CLOEXEC;

// Without a limit the wait also ends on a stop or continue; its status word
// is reported as it stands and the child stays unreaped.
int wait_without_limit(pid_t pid, int &status) noexcept {
    spawn::waitpid_resumed(pid, &status, WUNTRACED | WCONTINUED);
    return WEXITSTATUS(status);
}

void kill_process_group(const char *name, pid_t pid, int &status,
                        spawn::exit_watch &watch) noexcept {
    ::syslog(LOG_WARNING, "process execution timeout: killing %s with pid %d", name,
             static_cast<int>(pid));
    ::kill(-pid, SIGKILL);
    for (int attempt = 0; attempt < reap_attempts; ++attempt) {
        if (spawn::waitpid_resumed(pid, &status, WNOHANG) == pid)
            break;
        watch.pause_one_second();
    }
}

// At most seconds + 1 checks with a one-second pause between them; a failed
// check does not end the loop early, only the last one counts. A pause ends
// early when the child ends, so a quick command is returned at once, while
// one that runs on gets its whole seconds.
int wait_with_limit(const char *name, pid_t pid, int seconds, int &status) noexcept {
    spawn::exit_watch watch(pid);
    int remaining = seconds;
    bool ended_early = false;
    pid_t checked;
    for (;;) {
        checked = spawn::waitpid_resumed(pid, &status, WNOHANG);
        if (checked == pid || remaining == 0)
            break;
        // Should the watch ever report an end that the check does not see,
        // it is no longer trusted to shorten a second.
        if (ended_early && checked == 0)
            watch.plain_pauses_only();
        --remaining;
        ended_early = watch.pause_one_second();
    }
    if (checked == pid)
        return WEXITSTATUS(status);
    if (checked == -1)
        return -1;
    kill_process_group(name, pid, status, watch);
    return -1;
}

int wait_for_command(char **argv, pid_t pid, int timeout, int &status) noexcept {
    if (timeout <= 0)
        return wait_without_limit(pid, status);
    return wait_with_limit(argv[0], pid, timeout, status);
}

// Appends one read of fd to *block, growing it by exactly the chunk and its
// NUL. Returns false when collection should stop.
bool collect_chunk_into_block(int fd, char *buffer, char **out, std::size_t *outlen) noexcept {
    const ssize_t n = spawn::read_resumed(fd, buffer, read_buffer_size);
    if (n <= 0)
        return false;
    if (out == nullptr)
        return true; // nothing to keep; the pipe is still drained
    const auto count = static_cast<std::size_t>(n);
    auto *grown = static_cast<char *>(std::realloc(*out, *outlen + count + 1));
    if (grown == nullptr)
        return false; // what was read before stays in the caller's block
    *out = grown;
    std::memcpy(grown + *outlen, buffer, count);
    *outlen += count;
    grown[*outlen] = '\0';
    return true;
}

void collect_into_block(int fd, char **out, std::size_t *outlen) noexcept {
    char buffer[read_buffer_size];
    pollfd readable{fd, POLLIN, 0};
    for (;;) {
        if (spawn::poll_resumed(&readable, 1, silence_limit_ms) == -1)
            return;
        if ((readable.revents & POLLIN) == 0)
            return; // closed and drained, or silent for too long
        if (!collect_chunk_into_block(fd, buffer, out, outlen))
            return;
    }
}

// Reads one chunk and appends it as a string, so a NUL byte cuts it short.
// Returns the count read, or -1 when the read failed or the chunk could not
// be appended: a chunk that cannot be kept ends collection, as a failed
// growth does, so that the output never has a hole in the middle.
ssize_t collect_text_chunk(int fd, char *buffer, strbuf *destination) noexcept {
    const ssize_t n = spawn::read_resumed(fd, buffer, text_chunk_size);
    if (n < 0)
        return n;
    buffer[n] = '\0';
    if (destination != nullptr && strbuf_append(destination, buffer) != 0)
        return -1;
    return n;
}

void collect_into_strbufs(int out_fd, int err_fd, strbuf *out, strbuf *err) noexcept {
    char buffer[read_buffer_size];
    pollfd ends[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    for (;;) {
        if (spawn::poll_resumed(ends, 2, silence_limit_ms) == -1)
            return;
        const bool out_ready = (ends[0].revents & POLLIN) != 0;
        const bool err_ready = (ends[1].revents & POLLIN) != 0;
        if (!out_ready && !err_ready)
            return;
        ssize_t last = 0;
        if (out_ready) {
            last = collect_text_chunk(out_fd, buffer, out);
            if (last < 0)
                return;
        }
        if (err_ready) {
            last = collect_text_chunk(err_fd, buffer, err);
            if (last < 0)
                return;
        }
        // Only the pass's last read decides whether another pass follows.
        if (last == 0)
            return;
    }
}

// The plain family: standard output into a malloc'ed block, standard error
// to /dev/null.
int forkandexec_common(char **argv, int timeout, char **out, std::size_t *outlen) noexcept {
    spawn::pipe_pair output;
    if (!output.open(pipe_flags))
        return -1;
    int status = 0;
    spawn::sigchld_blocked_scope blocked;
    spawn::command_plan plan{argv,
                             &blocked.caller_mask(),
                             {output.read_end(), -1},
                             1,
                             {output.write_end(), -1},
                             1,
                             out != nullptr ? output.write_end() : -1,
                             -1};
    const pid_t pid = spawn::start_command(plan);
    if (pid < 0)
        return -1;
    output.close_write();
    if (out != nullptr)
        *outlen = 0;
    collect_into_block(output.read_end(), out, outlen);
    // Deliberate: the caller's standard input is replaced, never restored.
    // Callers may depend on it: from now on it reads end-of-file.
    spawn::replace_stdin_with_finished_pipe(output.release_read());
    return wait_for_command(argv, pid, timeout, status);
}

// The strbuf family: standard output and standard error, each into a buffer.
int forkandexec_ex_common(char **argv, int timeout, strbuf *out, strbuf *err) noexcept {
    spawn::pipe_pair output;
    spawn::pipe_pair errors;
    if (!output.open(pipe_flags))
        return -1;
    if (!errors.open(pipe_flags)) {
        // Deliberate: the first pipe's two descriptors stay open here.
        // It has always been so on this path, and callers count descriptors.
        output.release_read();
        output.release_write();
        return -1;
    }
    int status = 0;
    spawn::sigchld_blocked_scope blocked;
    spawn::command_plan plan{argv,
                             &blocked.caller_mask(),
                             {output.read_end(), errors.read_end()},
                             2,
                             {output.write_end(), errors.write_end()},
                             2,
                             out != nullptr ? output.write_end() : -1,
                             err != nullptr ? errors.write_end() : -1};
    const pid_t pid = spawn::start_command(plan);
    if (pid < 0)
        return -1;
    output.close_write();
    errors.close_write();
    collect_into_strbufs(output.read_end(), errors.read_end(), out, err);
    output.close_read();
    errors.close_read();
    return wait_for_command(argv, pid, timeout, status);
}

} // namespace

} // namespace qx::detail

extern "C" {

QX_API int forkandexec(char **argv, char **out, size_t *outlen) {
    return qx::detail::forkandexec_common(argv, 0, out, outlen);
}

QX_API int forkandexec_with_to(char **argv, int timeout, char **out, size_t *outlen) {
    return qx::detail::forkandexec_common(argv, timeout, out, outlen);
}

QX_API int forkandexec_ex(char **argv, strbuf *out, strbuf *err) {
    return forkandexec_ex_with_to(argv, 0, out, err);
}

QX_API int forkandexec_ex_with_to(char **argv, int timeout, strbuf *out, strbuf *err) {
    return qx::detail::forkandexec_ex_common(argv, timeout, out, err);
}

} // extern "C"
