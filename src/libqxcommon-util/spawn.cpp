// Starting child programs and waiting for them: the one core behind the
// forkandexec and process families.
#include "internal/spawn.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace qx::detail::spawn {

// ---- pipes and the signal mask ----------------------------------------------

bool pipe_pair::open(int flags) noexcept {
    int fds[2];
    if (::pipe2(fds, flags) != 0)
        return false;
    read_.reset(fds[0]);
    write_.reset(fds[1]);
    return true;
}

namespace {

sigset_t just_sigchld() noexcept {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

} // namespace

sigchld_blocked_scope::sigchld_blocked_scope() noexcept {
    const sigset_t blocked = just_sigchld();
    ::sigprocmask(SIG_BLOCK, &blocked, &caller_mask_);
}

sigchld_blocked_scope::~sigchld_blocked_scope() {
    ::sigprocmask(SIG_SETMASK, &caller_mask_, nullptr);
}

void block_sigchld_for_good() noexcept {
    const sigset_t blocked = just_sigchld();
    ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

// ---- set-up in the child ------------------------------------------------------
//
// The command of the forkandexec family runs these on its own stack but in
// the caller's address space, with every signal blocked: only
// async-signal-safe calls, no allocation, no stdio, no exit handlers. They
// are not instrumented by the address sanitizer, whose runtime would take
// the child's stack for a stray one of the caller's thread.

#define QX_CHILD_CODE __attribute__((no_sanitize_address))

namespace {

// Caught signals go back to their default, so that none of the caller's
// handlers can run in the child once the caller's mask is back. Ignored
// ones stay ignored, as execv keeps them.
QX_CHILD_CODE void reset_caught_signals() noexcept {
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal == SIGKILL || signal == SIGSTOP)
            continue;
        struct sigaction current {};
        if (::sigaction(signal, nullptr, &current) != 0)
            continue;
        if (current.sa_handler == SIG_DFL || current.sa_handler == SIG_IGN)
            continue;
        struct sigaction fallback {};
        fallback.sa_handler = SIG_DFL;
        ::sigaction(signal, &fallback, nullptr);
    }
}

// Lets the program inherit fd: the caller made every pipe close-on-exec.
QX_CHILD_CODE void keep_across_exec(int fd) noexcept {
    if (fd >= 0)
        ::fcntl(fd, F_SETFD, 0);
}

// dup2(fd, target), leaving target inheritable also when fd already is
// target (dup2 then does nothing, close-on-exec included).
QX_CHILD_CODE void place_descriptor(int fd, int target) noexcept {
    if (fd == target)
        keep_across_exec(fd);
    else
        ::dup2(fd, target);
}

QX_CHILD_CODE int become_command(void *raw) noexcept {
    const auto *plan = static_cast<const command_plan *>(raw);
    reset_caught_signals();
    ::sigprocmask(SIG_SETMASK, plan->caller_mask, nullptr);
    for (int i = 0; i < plan->read_end_count; ++i)
        ::close(plan->read_ends[i]);
    const int devnull = ::open("/dev/null", O_RDONLY | O_NOCTTY);
    // Deliberate: descriptor 0 counts as a failed open (callers get status
    // 1); -1 is not checked and simply makes the dup2 calls below fail.
    if (devnull == STDIN_FILENO)
        ::_exit(1);
    ::dup2(devnull, STDIN_FILENO);
    place_descriptor(plan->out >= 0 ? plan->out : devnull, STDOUT_FILENO);
    place_descriptor(plan->err >= 0 ? plan->err : devnull, STDERR_FILENO);
    // Deliberate: the program inherits the pipe write ends and /dev/null.
    // They are extra open descriptors (the /dev/null one opened without
    // close-on-exec), so collection ends only when it has closed them all.
    for (int i = 0; i < plan->write_end_count; ++i)
        keep_across_exec(plan->write_ends[i]);
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

// When no stack can be mapped (a tight address-space limit), vfork starts
// the child on the caller's own stack, below this frame, with the same
// borrowing of memory and the same suspension of the caller.
QX_CHILD_CODE __attribute__((noinline)) pid_t start_on_callers_stack(command_plan *plan) noexcept {
    const pid_t pid = ::vfork();
    if (pid == 0)
        become_command(plan); // ends in execv or _exit
    return pid;
}

} // namespace

// The child borrows our address space until its execv (or _exit) and we are
// suspended until then, which is what lets it read the plan from our stack
// and lets us unmap its stack as soon as this returns. Every signal is
// blocked around the start so that no handler runs in the child before it
// has reset them.
pid_t start_command(command_plan &plan) noexcept {
    // The child runs with our thread's errno; what its failing calls leave
    // there is not the caller's business, nor is a stack that could not be
    // mapped.
    const int caller_errno = errno;
    child_stack stack;
    sigset_t everything;
    sigset_t before;
    sigfillset(&everything);
    ::sigprocmask(SIG_SETMASK, &everything, &before);
    const pid_t pid =
        stack ? ::clone(become_command, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &plan)
              : start_on_callers_stack(&plan);
    const int start_errno = errno;
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = pid < 0 ? start_errno : caller_errno;
    return pid;
}

// ---- the child of the pipe family -------------------------------------------

namespace {

// A real fork: this child has a copy of the caller's memory and may call
// what a forked child of a single-threaded program may.
[[noreturn]] void become_piped_child(const piped_plan &plan) noexcept {
    const pipe_pair &output = *plan.output;
    const pipe_pair &input = *plan.input;
    if (output.is_open()) {
        // The open's result is not tested: when it fails, the stream not
        // read stays as the caller had it.
        const int devnull = ::open("/dev/null", O_WRONLY);
        const int piped = plan.use_stderr ? STDERR_FILENO : STDOUT_FILENO;
        const int other = plan.use_stderr ? STDOUT_FILENO : STDERR_FILENO;
        place_descriptor(output.write_end(), piped);
        if (plan.null_other)
            place_descriptor(devnull, other);
        ::close(devnull);
        ::close(output.read_end());
        ::close(output.write_end());
    }
    if (input.is_open()) {
        place_descriptor(input.read_end(), STDIN_FILENO);
        ::close(input.read_end());
        ::close(input.write_end());
    }
    // Every other descriptor (standard input without a write pipe, the
    // standard streams not redirected) is inherited unchanged.
    ::execv(plan.argv[0], plan.argv);
    const int error = errno;
    // Deliberate: after a failed execv the child logs and calls exit().
    // Documented as risky in a threaded caller: the caller's exit handlers
    // and stdio flushing run in the child.
    ::syslog(LOG_ERR, "execv failure: %d (%s)", error, std::strerror(error));
    std::exit(255);
}

} // namespace

pid_t start_piped_child(const piped_plan &plan) noexcept {
    const pid_t pid = ::fork();
    if (pid == 0)
        become_piped_child(plan);
    return pid;
}

// ---- waits that signals do not cut short --------------------------------------

namespace {

constexpr long long nanoseconds_per_millisecond = 1000 * 1000;
constexpr long long nanoseconds_per_second = 1000 * nanoseconds_per_millisecond;

long long monotonic_now() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * nanoseconds_per_second + now.tv_nsec;
}

// Whole milliseconds left until deadline, rounded up so that a resumed wait
// never ends before it.
int milliseconds_until(long long deadline) noexcept {
    const long long left = deadline - monotonic_now();
    if (left <= 0)
        return 0;
    return static_cast<int>((left + nanoseconds_per_millisecond - 1) / nanoseconds_per_millisecond);
}

void sleep_until(long long deadline) noexcept {
    const timespec until{static_cast<time_t>(deadline / nanoseconds_per_second),
                         static_cast<long>(deadline % nanoseconds_per_second)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace

int poll_resumed(pollfd *fds, nfds_t count, int timeout_ms) noexcept {
    const int caller_errno = errno;
    const long long deadline =
        monotonic_now() + static_cast<long long>(timeout_ms) * nanoseconds_per_millisecond;
    int wait_ms = timeout_ms;
    for (;;) {
        const int ready = ::poll(fds, count, wait_ms);
        if (ready >= 0 || errno != EINTR)
            return ready;
        errno = caller_errno;
        if (timeout_ms >= 0)
            wait_ms = milliseconds_until(deadline);
    }
}

ssize_t read_resumed(int fd, void *buffer, std::size_t size) noexcept {
    const int caller_errno = errno;
    for (;;) {
        const ssize_t n = ::read(fd, buffer, size);
        if (n >= 0 || errno != EINTR)
            return n;
        errno = caller_errno;
    }
}

pid_t waitpid_resumed(pid_t pid, int *status, int options) noexcept {
    const int caller_errno = errno;
    for (;;) {
        const pid_t result = ::waitpid(pid, status, options);
        if (result >= 0 || errno != EINTR)
            return result;
        errno = caller_errno;
    }
}

exit_watch::exit_watch(pid_t pid) noexcept : pid_(pid) {
#ifdef SYS_pidfd_open
    // A kernel without pidfds (before 5.3, or one emulated by valgrind) is
    // no failure of the call: the pauses then look at the child between
    // short sleeps instead.
    errno_keeper keep;
    pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
#endif
}

bool exit_watch::pause_peeking(long long deadline) noexcept {
    // Slices of 1, 2, 4, ... up to 32 ms: a quick command is seen at once,
    // and one that runs on costs a few dozen wake-ups a second.
    long long slice = nanoseconds_per_millisecond;
    for (;;) {
        siginfo_t info{};
        const int seen =
            ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
        if (seen == 0 && info.si_pid == pid_)
            return true;
        if (seen != 0 && errno != EINTR) {
            // Nothing to look at (already reaped, or not our child): the
            // rest of the second is a plain pause.
            peek_ = false;
            sleep_until(deadline);
            return false;
        }
        const long long now = monotonic_now();
        if (now >= deadline)
            return false;
        sleep_until(std::min(deadline, now + slice));
        slice = std::min(slice * 2, 32 * nanoseconds_per_millisecond);
    }
}

bool exit_watch::pause_one_second() noexcept {
    errno_keeper keep;
    const long long deadline = monotonic_now() + nanoseconds_per_second;
    if (pidfd_) {
        // A pidfd turns readable when its process has ended.
        pollfd ended{pidfd_.get(), POLLIN, 0};
        const int ready = poll_resumed(&ended, 1, 1000);
        if (ready > 0)
            return true;
        if (ready == 0)
            return false;
        pidfd_.reset();
    }
    if (peek_)
        return pause_peeking(deadline);
    sleep_until(deadline);
    return false;
}

// ---- the caller's standard input of the plain forkandexec ----------------------

void replace_stdin_with_finished_pipe(int output_read_end) noexcept {
    errno_keeper keep;
    int finished[2];
    if (::pipe2(finished, O_CLOEXEC) != 0) {
        // No room for another pipe: free the output pipe's number and
        // descriptor 0 itself and try once more. Should even that fail,
        // descriptor 0 is left closed rather than holding the output pipe.
        if (output_read_end != STDIN_FILENO)
            ::close(output_read_end);
        output_read_end = -1;
        ::close(STDIN_FILENO);
        if (::pipe2(finished, O_CLOEXEC) != 0)
            return;
    }
    // Without a writer the new pipe is finished: it reads end-of-file.
    ::close(finished[1]);
    // Standard input stays inheritable, as a standard input is; the dup2
    // also closes the output pipe's read end when it sat at descriptor 0.
    if (finished[0] == STDIN_FILENO) {
        ::fcntl(STDIN_FILENO, F_SETFD, 0);
    } else {
        ::dup2(finished[0], STDIN_FILENO);
        ::close(finished[0]);
    }
    if (output_read_end > STDIN_FILENO)
        ::close(output_read_end);
}

} // namespace qx::detail::spawn
