// Starting child programs and waiting for them, for both process families
// (forkandexec.cpp and process.cpp): pipes held by descriptor guards, the
// SIGCHLD mask, the child's set-up between its start and execv, and waits
// that a caller's signal handler cannot cut short.
//
// Every pipe is made close-on-exec, so that a program started meanwhile by
// another thread (or by a later call) never holds the caller's ends; the
// child makes inheritable again exactly the descriptors its program is meant
// to see.
#pragma once

#include <csignal>
#include <cstddef>
#include <poll.h>
#include <sys/types.h>

#include "internal/guards.hpp"

namespace qx::detail::spawn {

// The two ends of one pipe, each closed on scope exit unless given up.
class pipe_pair {
  public:
    // pipe2(2); the flags apply to both ends. False (errno set) on failure.
    bool open(int flags) noexcept;

    bool is_open() const noexcept { return static_cast<bool>(read_); }
    int read_end() const noexcept { return read_.get(); }
    int write_end() const noexcept { return write_.get(); }
    void close_read() noexcept { read_.reset(); }
    void close_write() noexcept { write_.reset(); }
    int release_read() noexcept { return read_.release(); }
    int release_write() noexcept { return write_.release(); }

  private:
    fd_guard read_;
    fd_guard write_;
};

// Blocks SIGCHLD in the calling thread, so that a SIGCHLD handler of the
// caller cannot reap the child before it is waited for; the caller's mask
// comes back when the scope ends.
class sigchld_blocked_scope {
  public:
    sigchld_blocked_scope() noexcept;
    ~sigchld_blocked_scope();
    sigchld_blocked_scope(const sigchld_blocked_scope &) = delete;
    sigchld_blocked_scope &operator=(const sigchld_blocked_scope &) = delete;

    const sigset_t &caller_mask() const noexcept { return caller_mask_; }

  private:
    sigset_t caller_mask_{};
};

// Blocks SIGCHLD and never unblocks it: the pipe family leaves it blocked in
// the caller on purpose, and its child inherits it across execv.
void block_sigchld_for_good() noexcept;

// ---- the command of the forkandexec family ------------------------------

// What the child of a forkandexec call does before execv. It lives on the
// caller's stack: the child borrows the caller's memory until its execv.
struct command_plan {
    char **argv;
    const sigset_t *caller_mask; // put back in the child
    int read_ends[2];            // the caller's ends: closed in the child
    int read_end_count;
    int write_ends[2]; // inherited by the program as extra descriptors
    int write_end_count;
    int out; // standard output: a pipe's write end, or -1 for /dev/null
    int err; // standard error: the same
};

// Starts the command without copying the caller's page tables. Returns its
// pid, or -1 with errno set when it could not be started.
pid_t start_command(command_plan &plan) noexcept;

// ---- the child of the pipe family ----------------------------------------

struct piped_plan {
    char **argv;
    const pipe_pair *output; // the child's output, read by the caller
    const pipe_pair *input;  // the child's standard input, fed by the caller
    bool use_stderr;         // the output pipe carries standard error
    bool null_other;         // the stream not piped goes to /dev/null
};

// fork(2): the child sets itself up and runs the program; the caller gets
// the pid, or -1 with errno set.
pid_t start_piped_child(const piped_plan &plan) noexcept;

// ---- waits that signals do not cut short ---------------------------------

// poll(2), resumed on EINTR with the time that remains of timeout_ms.
int poll_resumed(pollfd *fds, nfds_t count, int timeout_ms) noexcept;

// read(2), resumed on EINTR.
ssize_t read_resumed(int fd, void *buffer, std::size_t size) noexcept;

// waitpid(2), resumed on EINTR.
pid_t waitpid_resumed(pid_t pid, int *status, int options) noexcept;

// One-second pauses that end early once the child has ended, through a
// pidfd where the kernel has them; elsewhere a plain one-second pause.
class exit_watch {
  public:
    explicit exit_watch(pid_t pid) noexcept;
    ~exit_watch() = default;
    exit_watch(const exit_watch &) = delete;
    exit_watch &operator=(const exit_watch &) = delete;

    // Pauses for one second, or less when the child ends first. True when
    // it ended early because the child has ended.
    bool pause_one_second() noexcept;
    // From now on every pause lasts its whole second.
    void plain_pauses_only() noexcept {
        pidfd_.reset();
        peek_ = false;
    }

  private:
    // Without a pidfd: sleeps in short slices, looking between them whether
    // the child has ended (without reaping it).
    bool pause_peeking(long long deadline) noexcept;

    pid_t pid_;
    bool peek_ = true;
    fd_guard pidfd_;
};

// ---- the caller's standard input of the plain forkandexec ----------------

// Once collection has ended, the caller's
// descriptor 0 becomes the read end of a finished, empty pipe (it reads
// end-of-file), replacing whatever it was. The output pipe's read end,
// handed over here, is closed: no descriptor of the caller keeps it open,
// so a command still writing is never left blocked on a full pipe.
void replace_stdin_with_finished_pipe(int output_read_end) noexcept;

} // namespace qx::detail::spawn
