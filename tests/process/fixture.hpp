// What the suites of the pipe family of process calls share: the fixture
// every test runs in and helpers that look at descriptors, the signal mask
// and the messages logged.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "qxcommon-util/process.h"
#include "support/alloc_fail.hpp"
#include "support/child_command.hpp"
#include "support/fd_snapshot.hpp"
#include "support/pipe_fork_fail.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace process_test {

using qx_test::child_command;
using qx_test::fd_snapshot;
using qx_test::read_all;
using qx_test::syslog_entries;
using qx_test::temp_dir;

inline bool sigchld_blocked() {
    sigset_t current;
    sigprocmask(SIG_SETMASK, nullptr, &current);
    return sigismember(&current, SIGCHLD) == 1;
}

// Blocks until fd has something to read (or its writer has gone).
inline void wait_readable(int fd) {
    pollfd one{fd, POLLIN, 0};
    ASSERT_EQ(poll(&one, 1, -1), 1);
}

inline std::set<int> numbers_in(const std::string &line) {
    std::set<int> numbers;
    std::istringstream in(line);
    int n;
    while (in >> n)
        numbers.insert(n);
    return numbers;
}

inline std::vector<std::string> messages() {
    std::vector<std::string> all;
    for (const auto &entry : syslog_entries()) {
        EXPECT_EQ(entry.priority, LOG_ERR) << entry.message;
        all.push_back(entry.message);
    }
    return all;
}

using strings = std::vector<std::string>;

// Points one of the test's own descriptors (0, 1 or 2) somewhere else while
// it lives, so that what a child inherits can be seen.
class redirected {
  public:
    redirected(int target, int replacement) : target_(target) {
        std::fflush(nullptr);
        saved_ = dup(target);
        dup2(replacement, target);
    }
    ~redirected() { restore(); }
    redirected(const redirected &) = delete;
    redirected &operator=(const redirected &) = delete;
    void restore() {
        if (saved_ < 0)
            return;
        std::fflush(nullptr);
        dup2(saved_, target_);
        close(saved_);
        saved_ = -1;
    }

  private:
    int target_;
    int saved_ = -1;
};

inline int open_for_writing(const std::string &path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

// Runs `open` (an opener of a child) while the test's descriptor `target`
// points to a new file at `path`, so that what the child writes to the
// descriptor it inherits there can be read back from the file.
template <typename Open> process *open_redirected(int target, const std::string &path, Open open) {
    const int file = open_for_writing(path);
    if (file < 0) {
        ADD_FAILURE() << "cannot create " << path;
        return nullptr;
    }
    process *proc;
    {
        redirected to_file(target, file);
        proc = open();
    }
    close(file);
    return proc;
}

// Every test starts with SIGCHLD unblocked, so that blocking it is seen,
// and ends with the test program's own mask back in place.
class Process : public ::testing::Test {
  protected:
    void SetUp() override {
        sigprocmask(SIG_SETMASK, nullptr, &saved_mask_);
        sigset_t just_sigchld;
        sigemptyset(&just_sigchld);
        sigaddset(&just_sigchld, SIGCHLD);
        sigprocmask(SIG_UNBLOCK, &just_sigchld, nullptr);
        // Resolve the real functions now, so that the look-up's own work is
        // not counted by the allocation tests.
        qx_test::resolve_pipe2_and_fork();
        qx_test::syslog_clear();
    }
    void TearDown() override {
        qx_test::stop_failing_pipe2_and_fork();
        sigprocmask(SIG_SETMASK, &saved_mask_, nullptr);
    }

    // Unblocks SIGCHLD again after a call that left it blocked.
    void unblock_sigchld() {
        sigset_t just_sigchld;
        sigemptyset(&just_sigchld);
        sigaddset(&just_sigchld, SIGCHLD);
        sigprocmask(SIG_UNBLOCK, &just_sigchld, nullptr);
    }

    // Closes and reaps, expecting a normal exit with `code`.
    void close_expecting(process *proc, int code) {
        const pid_t pid = proc->pid;
        int exitcode = -12345;
        EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
        EXPECT_EQ(exitcode, code);
    }

    // Kills a running child and closes it: the record goes, and the exit
    // code is left as it was, as for any child ended by a signal.
    void kill_and_close(process *proc) {
        const pid_t pid = proc->pid;
        EXPECT_EQ(process_signal(proc, SIGKILL), 0);
        int exitcode = 77;
        EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
        EXPECT_EQ(exitcode, 77);
    }

    fd_snapshot fds_;

  private:
    sigset_t saved_mask_{};
};

} // namespace process_test
