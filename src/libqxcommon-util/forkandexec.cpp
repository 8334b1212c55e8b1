// Running a command to completion with an optional time limit.
#include "qxcommon-util/forkandexec.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/guards.hpp"

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

struct pipe_ends {
    int read = -1;
    int write = -1;
};

bool make_pipe(pipe_ends &ends) noexcept {
    int fds[2];
    if (::pipe(fds) != 0)
        return false;
    ends.read = fds[0];
    ends.write = fds[1];
    return true;
}

void close_pipe(const pipe_ends &ends) noexcept {
    errno_keeper keep;
    ::close(ends.read);
    ::close(ends.write);
}

// Blocks SIGCHLD so that a SIGCHLD handler of the caller cannot reap the
// child before we wait for it; the destructor puts the caller's mask back.
class sigchld_block {
  public:
    sigchld_block() noexcept {
        sigset_t just_sigchld;
        sigemptyset(&just_sigchld);
        sigaddset(&just_sigchld, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &just_sigchld, &old_mask_);
    }
    ~sigchld_block() { ::sigprocmask(SIG_SETMASK, &old_mask_, nullptr); }
    sigchld_block(const sigchld_block &) = delete;
    sigchld_block &operator=(const sigchld_block &) = delete;

    const sigset_t &old_mask() const noexcept { return old_mask_; }

  private:
    sigset_t old_mask_{};
};

// Where the child's standard output and error go: a pipe's write end, or -1
// for /dev/null.
struct child_outputs {
    int out = -1;
    int err = -1;
};

// Everything the child needs, kept on the caller's stack: the child shares
// our memory and we stay suspended until it has exec'd or ended.
struct child_plan {
    char **argv;
    const sigset_t *caller_mask;
    int read_ends[2];
    int read_end_count;
    child_outputs outputs;
};

// Runs in the child, on its own stack but in the caller's address space, with
// every signal blocked. Only async-signal-safe calls: no allocation, no stdio,
// no exit handlers. Not instrumented by the address sanitizer, whose runtime
// would take the child's stack for a stray one of the caller's thread.
// Caught signals go back to their default first, so that none of the
// caller's handlers can run here once the caller's mask is back. Neither the
// /dev/null descriptor nor the pipe write ends are closed after being
// duplicated; the program inherits them as extra descriptors.
__attribute__((no_sanitize_address)) int become_command(void *raw) noexcept {
    const auto *plan = static_cast<const child_plan *>(raw);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal == SIGKILL || signal == SIGSTOP)
            continue;
        struct sigaction current {};
        current.sa_handler = SIG_DFL;
        if (::sigaction(signal, nullptr, &current) != 0)
            continue;
        if (current.sa_handler == SIG_DFL || current.sa_handler == SIG_IGN)
            continue;
        struct sigaction fallback {};
        fallback.sa_handler = SIG_DFL;
        ::sigaction(signal, &fallback, nullptr);
    }
    ::sigprocmask(SIG_SETMASK, plan->caller_mask, nullptr);
    for (int i = 0; i < plan->read_end_count; ++i)
        ::close(plan->read_ends[i]);
    const int devnull = ::open("/dev/null", O_RDONLY | O_NOCTTY);
    // Deliberate: descriptor 0 counts as a failed open (callers get status
    // 1); -1 is not checked and simply makes the dup2 calls below fail.
    if (devnull == 0)
        ::_exit(1);
    ::dup2(devnull, STDIN_FILENO);
    ::dup2(plan->outputs.out >= 0 ? plan->outputs.out : devnull, STDOUT_FILENO);
    ::dup2(plan->outputs.err >= 0 ? plan->outputs.err : devnull, STDERR_FILENO);
    ::setpgid(0, 0);
    ::execv(plan->argv[0], plan->argv);
    ::_exit(1);
}

// The child's stack: mapped for one start and unmapped after it, with an
// inaccessible page below it so that an overflow faults instead of writing
// into whatever lies beneath.
constexpr std::size_t child_stack_size = 64 * 1024;

class child_stack {
  public:
    child_stack() noexcept {
        guard_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        void *base = ::mmap(nullptr, guard_ + child_stack_size, PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (base == MAP_FAILED)
            return;
        auto *bytes = static_cast<char *>(base);
        if (::mprotect(bytes + guard_, child_stack_size, PROT_READ | PROT_WRITE) != 0) {
            ::munmap(base, guard_ + child_stack_size);
            return;
        }
        base_ = bytes;
    }
    ~child_stack() {
        if (base_ != nullptr) {
            errno_keeper keep;
            ::munmap(base_, guard_ + child_stack_size);
        }
    }
    child_stack(const child_stack &) = delete;
    child_stack &operator=(const child_stack &) = delete;

    explicit operator bool() const noexcept { return base_ != nullptr; }
    // Stacks grow down: the child starts at the high end.
    void *top() const noexcept { return base_ + guard_ + child_stack_size; }

  private:
    char *base_ = nullptr;
    std::size_t guard_ = 0;
};

// Starts the child without copying the caller's page tables: it borrows our
// address space until its execv (or _exit), and we are suspended until then,
// which is what lets it read the plan from our stack and lets us unmap its
// stack as soon as this returns. Every signal is blocked around the start so
// that no handler runs on the child's stack before it has reset them. Returns
// the child's pid, or -1 with errno set when it could not be started.
pid_t start_command(child_plan &plan) noexcept {
    child_stack stack;
    if (!stack)
        return -1;
    sigset_t everything;
    sigset_t before;
    sigfillset(&everything);
    ::sigprocmask(SIG_SETMASK, &everything, &before);
    // The child runs with our thread's errno; what its failing calls leave
    // there is not the caller's business.
    const int caller_errno = errno;
    const pid_t pid = ::clone(become_command, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &plan);
    const int start_errno = errno;
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = pid < 0 ? start_errno : caller_errno;
    return pid;
}

// Without a limit the wait also ends on a stop or continue; its status word
// is reported as it stands and the child stays unreaped.
int wait_without_limit(pid_t pid, int &status) noexcept {
    ::waitpid(pid, &status, WUNTRACED | WCONTINUED);
    return WEXITSTATUS(status);
}

void kill_process_group(const char *name, pid_t pid, int &status) noexcept {
    ::syslog(LOG_WARNING, "process execution timeout: killing %s with pid %d", name,
             static_cast<int>(pid));
    ::kill(-pid, SIGKILL);
    for (int attempt = 0; attempt < reap_attempts; ++attempt) {
        if (::waitpid(pid, &status, WNOHANG) == pid)
            break;
        ::sleep(1);
    }
}

// At most seconds + 1 checks with a one-second sleep between them; a failed
// check does not end the loop early, only the last one counts.
int wait_with_limit(const char *name, pid_t pid, int seconds, int &status) noexcept {
    int remaining = seconds;
    pid_t checked;
    for (;;) {
        checked = ::waitpid(pid, &status, WNOHANG);
        if (checked == pid || remaining == 0)
            break;
        --remaining;
        ::sleep(1);
    }
    if (checked == pid)
        return WEXITSTATUS(status);
    if (checked == -1)
        return -1;
    kill_process_group(name, pid, status);
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
    const ssize_t n = ::read(fd, buffer, read_buffer_size);
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
        if (::poll(&readable, 1, silence_limit_ms) == -1)
            return;
        if ((readable.revents & POLLIN) == 0)
            return; // closed and drained, or silent for too long
        if (!collect_chunk_into_block(fd, buffer, out, outlen))
            return;
    }
}

// Reads one chunk and appends it as a string, so a NUL byte cuts it short.
ssize_t collect_text_chunk(int fd, char *buffer, strbuf *destination) noexcept {
    const ssize_t n = ::read(fd, buffer, text_chunk_size);
    if (n < 0)
        return n;
    buffer[n] = '\0';
    if (destination != nullptr)
        strbuf_append(destination, buffer);
    return n;
}

void collect_into_strbufs(int out_fd, int err_fd, strbuf *out, strbuf *err) noexcept {
    char buffer[read_buffer_size];
    pollfd ends[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    for (;;) {
        if (::poll(ends, 2, silence_limit_ms) == -1)
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
    pipe_ends output;
    if (!make_pipe(output))
        return -1;
    int status = 0;
    sigchld_block blocked;
    child_plan plan{
        argv, &blocked.old_mask(), {output.read, -1}, 1, {out != nullptr ? output.write : -1, -1}};
    const pid_t pid = start_command(plan);
    if (pid < 0) {
        close_pipe(output);
        return -1;
    }
    ::close(output.write);
    // Deliberate, long-standing behaviour that callers may depend on: the
    // caller's standard input becomes the pipe's read end and is not restored.
    ::dup2(output.read, STDIN_FILENO);
    if (out != nullptr)
        *outlen = 0;
    collect_into_block(output.read, out, outlen);
    ::close(output.read);
    return wait_for_command(argv, pid, timeout, status);
}

// The strbuf family: standard output and standard error, each into a buffer.
int forkandexec_ex_common(char **argv, int timeout, strbuf *out, strbuf *err) noexcept {
    pipe_ends output;
    pipe_ends errors;
    if (!make_pipe(output))
        return -1;
    // Deliberately kept as it always was: on this path the first pipe's two
    // descriptors stay open.
    if (!make_pipe(errors))
        return -1;
    int status = 0;
    sigchld_block blocked;
    child_plan plan{argv,
                    &blocked.old_mask(),
                    {output.read, errors.read},
                    2,
                    {out != nullptr ? output.write : -1, err != nullptr ? errors.write : -1}};
    const pid_t pid = start_command(plan);
    if (pid < 0) {
        close_pipe(output);
        close_pipe(errors);
        return -1;
    }
    ::close(output.write);
    ::close(errors.write);
    collect_into_strbufs(output.read, errors.read, out, err);
    ::close(output.read);
    ::close(errors.read);
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
