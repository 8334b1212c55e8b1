#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <latch>
#include <malloc.h>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "qxcommon-util/forkandexec.h"
#include "qxcommon-util/process.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/start_fail.hpp"
#include "support/heap_usage.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::read_file;
using qx_test::temp_dir;
using seconds_d = std::chrono::duration<double>;

const char *const missing_program = "/nonexistent/qx-no-such-program";

// An argument vector for qx_child (or another program), owning its words.
class command {
  public:
    explicit command(std::vector<std::string> actions, std::string program = QX_TEST_CHILD) {
        words_.push_back(std::move(program));
        for (auto &action : actions)
            words_.push_back(std::move(action));
        for (auto &word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }
    command(const command &) = delete;
    command &operator=(const command &) = delete;

    char **argv() { return pointers_.data(); }
    const std::string &program() const { return words_[0]; }

  private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

// The bytes `outn N` of qx_child writes: the alphabet, over and over.
std::string alphabet_pattern(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

sigset_t current_mask() {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

bool same_mask(const sigset_t &a, const sigset_t &b) {
    for (int signal = 1; signal < NSIG; ++signal)
        if (sigismember(&a, signal) != sigismember(&b, signal))
            return false;
    return true;
}

pid_t pid_from_file(const std::string &path) {
    return static_cast<pid_t>(std::stol(read_file(path)));
}

// The state letter of /proc/<pid>/stat, or '\0' when there is no such
// process.
char process_state(pid_t pid) {
    std::string stat;
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return '\0';
    char buffer[512];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    close(fd);
    if (n <= 0)
        return '\0';
    stat.assign(buffer, static_cast<std::size_t>(n));
    const auto paren = stat.rfind(')');
    if (paren == std::string::npos || paren + 2 >= stat.size())
        return '\0';
    return stat[paren + 2];
}

// A process that was killed is gone, or a zombie that init has not reaped
// yet; either way it runs no more. Waits up to five seconds for that.
bool no_longer_runs(pid_t pid) {
    for (int tries = 0; tries < 50; ++tries) {
        const char state = process_state(pid);
        if (state == '\0' || state == 'Z' || state == 'X')
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The n lowest descriptor numbers not open now: where the next open, pipe or
// dup lands.
std::vector<int> lowest_free_descriptors(int n) {
    std::vector<int> free;
    for (int fd = 0; static_cast<int>(free.size()) < n; ++fd)
        if (!is_open(fd))
            free.push_back(fd);
    return free;
}

// The descriptors a program started now would inherit (those without
// close-on-exec).
std::set<int> inheritable_descriptors() {
    std::set<int> inherited;
    for (const int fd : qx_test::open_descriptors()) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0)
            inherited.insert(fd);
    }
    return inherited;
}

std::string as_fds_line(const std::set<int> &fds) {
    std::ostringstream line;
    const char *separator = "";
    for (const int fd : fds) {
        line << separator << fd;
        separator = " ";
    }
    line << '\n';
    return line.str();
}

// Limits descriptor numbers for the life of the object.
class descriptor_limit {
  public:
    explicit descriptor_limit(int limit) {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit lowered = saved_;
        lowered.rlim_cur = static_cast<rlim_t>(limit);
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~descriptor_limit() { setrlimit(RLIMIT_NOFILE, &saved_); }
    descriptor_limit(const descriptor_limit &) = delete;
    descriptor_limit &operator=(const descriptor_limit &) = delete;

  private:
    rlimit saved_{};
};

// Lock-free, so safe to touch from the handler.
std::atomic<int> sigchld_handler_calls{0};
std::atomic<int> sigchld_handler_reaped{0};

void reaping_sigchld_handler(int) {
    const int saved_errno = errno;
    ++sigchld_handler_calls;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        ++sigchld_handler_reaped;
    errno = saved_errno;
}

// Sets a SIGCHLD disposition for the life of the object.
class sigchld_disposition {
  public:
    explicit sigchld_disposition(void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        sigaction(SIGCHLD, &action, &saved_);
    }
    ~sigchld_disposition() { sigaction(SIGCHLD, &saved_, nullptr); }
    sigchld_disposition(const sigchld_disposition &) = delete;
    sigchld_disposition &operator=(const sigchld_disposition &) = delete;

  private:
    struct sigaction saved_ {};
};

// Sets a disposition of one signal for the life of the object.
class signal_disposition {
  public:
    signal_disposition(int number, void (*handler)(int)) : number_(number) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        sigaction(number_, &action, &saved_);
    }
    ~signal_disposition() { sigaction(number_, &saved_, nullptr); }
    signal_disposition(const signal_disposition &) = delete;
    signal_disposition &operator=(const signal_disposition &) = delete;

  private:
    int number_;
    struct sigaction saved_ {};
};

void ignoring_handler(int) {}

// Turns a hang into a failure: unless it is destroyed within `seconds`, it
// runs `on_expiry`, which by default ends the test program with a message
// (a deadlock cannot be undone from outside).
class watchdog {
  public:
    explicit watchdog(int seconds, std::function<void()> on_expiry = abort_test)
        : on_expiry_(std::move(on_expiry)), thread_([this, seconds] { watch(seconds); }) {}
    ~watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        woken_.notify_all();
        thread_.join();
    }
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;

    bool expired() const { return expired_.load(); }

  private:
    static void abort_test() {
        std::fputs("watchdog: the test hung; ending it\n", stderr);
        std::abort();
    }

    void watch(int seconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (woken_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; }))
            return;
        expired_.store(true);
        on_expiry_();
    }

    std::function<void()> on_expiry_;
    std::mutex mutex_;
    std::condition_variable woken_;
    bool done_ = false;
    std::atomic<bool> expired_{false};
    std::thread thread_;
};

// Whether a child of this process has ended and waits to be reaped; it is
// left as it is.
bool a_zombie_child_is_left() {
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return false; // no child at all
    return info.si_pid != 0;
}

// Waits up to ten seconds for a file to have content.
bool wait_for_file(const std::string &path) {
    for (int tries = 0; tries < 100; ++tries) {
        std::ifstream in(path);
        std::string line;
        if (std::getline(in, line) && !line.empty())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool slow_tests_enabled() {
    return std::getenv("QX_SLOW_TESTS") != nullptr;
}

// Every test runs with a caller's mask that blocks SIGUSR2, and with a
// standard input of its own: a pipe holding "pending" whose write end stays
// open, so a read of it never blocks and tells whether it was replaced. The
// test process's real standard input is put back afterwards. Each test ends with
// the signal mask and the open descriptors as they were before its calls.
class ForkAndExec : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!is_open(STDIN_FILENO)) {
            ASSERT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
        }
        saved_stdin_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
        ASSERT_GE(saved_stdin_, 0);
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        ASSERT_EQ(write(ends[1], "pending", 7), 7);
        ASSERT_EQ(dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
        close(ends[0]);
        stdin_writer_ = ends[1];

        sigset_t usr2;
        sigemptyset(&usr2);
        sigaddset(&usr2, SIGUSR2);
        sigprocmask(SIG_BLOCK, &usr2, &original_mask_);
        mask_before_ = current_mask();

        qx_test::syslog_clear();
        snapshot_.emplace();
    }

    void TearDown() override {
        EXPECT_TRUE(same_mask(current_mask(), mask_before_))
            << "the caller's signal mask was not restored";
        if (check_descriptors_at_end_) {
            EXPECT_TRUE(descriptors_unchanged()) << "a descriptor was opened or closed";
        }
        sigprocmask(SIG_SETMASK, &original_mask_, nullptr);
        dup2(saved_stdin_, STDIN_FILENO);
        close(saved_stdin_);
        if (stdin_writer_ >= 0)
            close(stdin_writer_);
    }

    bool descriptors_unchanged() const { return snapshot_->unchanged(); }

    // For the tests that close a descriptor of the test process themselves.
    void skip_descriptor_check() { check_descriptors_at_end_ = false; }

    // After this the caller's standard input reads "pending" and then
    // end-of-file, so a command that wrongly read it would not block.
    void close_stdin_writer() {
        close(stdin_writer_);
        stdin_writer_ = -1;
        snapshot_.emplace(); // the descriptors of the calls to come
    }

    // What the caller's standard input gives now: "" for end-of-file.
    static std::string read_stdin() {
        char buffer[64];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
    }

    static bool stdin_is_a_pipe() {
        struct stat st {};
        return fstat(STDIN_FILENO, &st) == 0 && S_ISFIFO(st.st_mode);
    }

    // Reaps a child that a call left stopped or running.
    static void kill_and_reap(pid_t pid) {
        kill(pid, SIGKILL);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid) << "the child had already been reaped";
    }

    static bool syslog_is_empty() { return qx_test::syslog_entries().empty(); }

    static void expect_one_timeout_warning(const std::string &program, pid_t pid) {
        const auto entries = qx_test::syslog_entries();
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].priority, LOG_WARNING);
        EXPECT_EQ(entries[0].message, "process execution timeout: killing " + program +
                                          " with pid " + std::to_string(pid));
    }

    temp_dir dir_;

  private:
    int saved_stdin_ = -1;
    int stdin_writer_ = -1;
    sigset_t original_mask_{};
    sigset_t mask_before_{};
    std::optional<qx_test::fd_snapshot> snapshot_;
    bool check_descriptors_at_end_ = true;
};

using ForkAndExecEx = ForkAndExec;
using ForkAndExecSlow = ForkAndExec;

// ---- plain family: results ------------------------------------------------

TEST_F(ForkAndExec, ReturnsTheCommandsExitStatus) {
    command cmd({"exit", "3"});
    char *out = nullptr;
    std::size_t len = 99;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 3);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExec, ReturnsOneWhenTheProgramCannotBeExecuted) {
    command cmd({}, missing_program);
    char *out = nullptr;
    std::size_t len = 99;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, ReturnsZeroForACommandKilledByASignal) {
    command cmd({"out", "before", "signal", std::to_string(SIGTERM), "out", "after"});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "before");
    std::free(out);
}

TEST_F(ForkAndExec, ReturnsZeroForACommandKilledByASignalWithinItsTimeLimit) {
    command cmd({"signal", std::to_string(SIGKILL)});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 5, &out, &len), 0);
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExec, ReturnsTheExitStatusOfACommandThatEndsWithinItsTimeLimit) {
    command cmd({"out", "done", "exit", "42"});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 5, &out, &len), 42);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "done");
    std::free(out);
    EXPECT_TRUE(syslog_is_empty());
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, ReturnsTheStopSignalForAStoppedChildAndLeavesItUnreaped) {
    // The child closes every copy of the pipe's write end first, so that
    // collection ends at once and the wait sees the stop.
    const std::string pidfile = dir_.file("child.pid");
    command cmd(
        {"pidfile", pidfile, "close-stdout", "close-extra", "signal", std::to_string(SIGSTOP)});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), SIGSTOP);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_EQ(process_state(pid), 'T');
    kill_and_reap(pid);
}

TEST_F(ForkAndExec, NegativeTimeLimitWaitsWithoutLimitAndSeesAStop) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd(
        {"pidfile", pidfile, "close-stdout", "close-extra", "signal", std::to_string(SIGSTOP)});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), -1, &out, &len), SIGSTOP);
    kill_and_reap(pid_from_file(pidfile));
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExec, ZeroTimeLimitWaitsWithoutLimitAndSeesAStop) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd(
        {"pidfile", pidfile, "close-stdout", "close-extra", "signal", std::to_string(SIGSTOP)});
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 0, nullptr, nullptr), SIGSTOP);
    kill_and_reap(pid_from_file(pidfile));
}

TEST_F(ForkAndExec, Returns255ForAContinuedChildAndLeavesItUnreaped) {
    // The child is stopped and continued while it still holds its output
    // open; the wait then finds the continue.
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "stop-until-continued", "0.5", "close-stdout", "close-extra",
                 "sleep", "30"});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 255);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_NE(process_state(pid), '\0');
    kill_and_reap(pid);
}

// ---- plain family: output -------------------------------------------------

TEST_F(ForkAndExec, CollectsStandardOutputByteForByteKeepingNulBytes) {
    command cmd({"out", "hello\\0world\\n", "err", "to the void"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 12U);
    EXPECT_EQ(std::string(out, len), std::string("hello\0world\n", 12));
    EXPECT_EQ(out[len], '\0');
    std::free(out);
}

TEST_F(ForkAndExec, CollectsMoreThan64KiBOfOutput) {
    command cmd({"errn", "70000", "outn", "200000"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(len, 200000U);
    EXPECT_TRUE(std::string(out, len) == alphabet_pattern(200000));
    EXPECT_EQ(out[len], '\0');
    std::free(out);
}

// Runs `out TEXT` (one write into an empty pipe, so it is all there at the
// first read) and counts the allocations the call makes.
long allocations_to_collect(const std::string &text) {
    command cmd({"out", text});
    char *out = nullptr;
    std::size_t len = 0;
    long seen;
    int status;
    {
        qx_test::failing_allocation count_only(1000000);
        status = forkandexec(cmd.argv(), &out, &len);
        seen = qx_test::allocations_seen();
    }
    EXPECT_EQ(status, 0);
    EXPECT_NE(out, nullptr);
    if (out != nullptr) {
        EXPECT_TRUE(std::string(out, len) == text);
        // Only the sanitizer's allocator reports the exact size asked for.
        if (qx_test::heap_bytes_available()) {
            EXPECT_EQ(malloc_usable_size(out), text.size() + 1);
        } else {
            EXPECT_GE(malloc_usable_size(out), text.size() + 1);
        }
    }
    std::free(out);
    return seen;
}

TEST_F(ForkAndExec, ReadsAtMost8000BytesAtATimeAndGrowsTheBlockByEachChunkPlusOne) {
    // One realloc per read and no other allocation: 16000 bytes are two full
    // reads, one byte more takes a third.
    command warm_up({"exit", "0"});
    forkandexec(warm_up.argv(), nullptr, nullptr);
    EXPECT_EQ(allocations_to_collect(std::string(16000, 'q')), 2);
    EXPECT_EQ(allocations_to_collect(std::string(16001, 'r')), 3);
    EXPECT_EQ(allocations_to_collect(std::string(5, 's')), 1);
}

TEST_F(ForkAndExec, WritesFromTheStartOfTheCallersBlockAndResizesIt) {
    char *out = static_cast<char *>(std::malloc(4096));
    ASSERT_NE(out, nullptr);
    std::memset(out, 'Z', 4096);
    std::size_t len = 4095;
    command cmd({"out", "ab"});
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 2U);
    EXPECT_STREQ(out, "ab");
    if (qx_test::heap_bytes_available()) {
        EXPECT_EQ(malloc_usable_size(out), 3U);
    }
    std::free(out);
}

TEST_F(ForkAndExec, NoOutputLeavesANullBlockPointerNullAndSetsTheLengthToZero) {
    command cmd({"exit", "0"});
    char *out = nullptr;
    std::size_t len = 1234;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
}

TEST_F(ForkAndExec, NoOutputLeavesTheCallersBlockAsItWas) {
    char *block = static_cast<char *>(std::malloc(5));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "kept", 5);
    char *out = block;
    std::size_t len = 4;
    command cmd({"err", "only errors"});
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    EXPECT_EQ(out, block);
    EXPECT_EQ(len, 0U);
    EXPECT_STREQ(out, "kept");
    std::free(out);
}

TEST_F(ForkAndExec, NullOutDiscardsOutputAndLeavesTheLengthUntouched) {
    command cmd({"out", "unseen", "err", "unseen", "exit", "5"});
    std::size_t len = 77;
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, &len), 5);
    EXPECT_EQ(len, 77U);
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 5, nullptr, nullptr), 5);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, GivesTheCommandDevNullAsStandardInput) {
    // The caller's standard input holds "pending"; the command must not see it.
    close_stdin_writer();
    command cmd({"echo", "out", "|"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "|");
    std::free(out);
}

TEST_F(ForkAndExec, RunsTheCommandInAProcessGroupOfItsOwn) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "pgid"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_EQ(std::string(out, len), std::to_string(pid) + "\n");
    EXPECT_NE(pid, getpgrp());
    std::free(out);
}

TEST_F(ForkAndExec, TheCommandInheritsTheDevNullDescriptorAndThePipeWriteEnd) {
    // The pipe takes the two lowest free numbers; the child closes the read
    // end and /dev/null lands on its number.
    const std::vector<int> pipe_fds = lowest_free_descriptors(2);
    std::set<int> expected = inheritable_descriptors();
    expected.insert({0, 1, 2, pipe_fds[0], pipe_fds[1]});
    command cmd({"fds"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), as_fds_line(expected));
    std::free(out);
    EXPECT_TRUE(descriptors_unchanged());
}

// ---- plain family: the caller's standard input -----------------------------

TEST_F(ForkAndExec, ReplacesTheCallersStandardInputWithAFinishedPipe) {
    command cmd({"out", "x"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    std::free(out);
    EXPECT_TRUE(stdin_is_a_pipe());
    EXPECT_EQ(read_stdin(), "");
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, ReplacesTheCallersStandardInputAlsoWithATimeLimitAndNoOutput) {
    command cmd({"exit", "2"});
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 3, nullptr, nullptr), 2);
    EXPECT_TRUE(stdin_is_a_pipe());
    EXPECT_EQ(read_stdin(), "");
}

TEST_F(ForkAndExec, ReplacesTheCallersStandardInputEvenWhenExecFails) {
    command cmd({}, missing_program);
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), 1);
    EXPECT_EQ(read_stdin(), "");
}

TEST_F(ForkAndExec, ClosedStandardInputMakesTheChildEndWithStatusOne) {
    // With descriptor 0 free, the pipe's read end takes it; the child closes
    // it, /dev/null then opens as 0, which counts as a failed open.
    skip_descriptor_check();
    close(STDIN_FILENO);
    command cmd({"exit", "3"});
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), 1);
}

// ---- plain family: signals --------------------------------------------------

TEST_F(ForkAndExec, TheCommandKeepsIgnoredSignalsIgnoredAndCaughtOnesAtTheirDefault) {
    // execv keeps an ignored signal ignored and puts a caught one back to
    // its default; the start must not change either.
    signal_disposition ignored(SIGUSR1, SIG_IGN);
    signal_disposition caught(SIGHUP, ignoring_handler);
    command cmd({"disposition", std::to_string(SIGUSR1), "disposition", std::to_string(SIGHUP),
                 "disposition", std::to_string(SIGTERM)});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "ignore\ndefault\ndefault\n");
    std::free(out);
}

TEST_F(ForkAndExec, AChildWhoseExecFailsLeavesTheCallersErrnoAsItWas) {
    // Every call of the caller succeeds on this path; the child's failed
    // execv is the child's own affair.
    command cmd({}, missing_program);
    char *out = nullptr;
    std::size_t len = 0;
    errno = EDOM;
    EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
}

TEST_F(ForkAndExec, TheCommandStartsWithTheCallersSignalMask) {
    command cmd({"blocked", std::to_string(SIGUSR2), "blocked", std::to_string(SIGCHLD)});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "1\n0\n");
    std::free(out);
}

TEST_F(ForkAndExec, ACallersSigchldHandlerCannotReapTheChildDuringTheCall) {
    sigchld_handler_calls = 0;
    sigchld_handler_reaped = 0;
    {
        sigchld_disposition handler(reaping_sigchld_handler);
        command cmd({"exit", "3"});
        EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), 3);
    }
    // The SIGCHLD of the child was held back and arrives once the mask is
    // restored, when there is nothing left to reap.
    EXPECT_GE(sigchld_handler_calls, 1);
    EXPECT_EQ(sigchld_handler_reaped, 0);
}

TEST_F(ForkAndExec, AFailedWaitWithoutTimeLimitGivesTheZeroedStatus) {
    // With SIGCHLD ignored the kernel reaps the child itself and waitpid
    // fails; the status word keeps its initial 0.
    sigchld_disposition ignored(SIG_IGN);
    command cmd({"exit", "3"});
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), 0);
}

TEST_F(ForkAndExec, AChildThatCannotBeWaitedForWithATimeLimitGivesMinusOne) {
    sigchld_disposition ignored(SIG_IGN);
    command cmd({"exit", "3"});
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 1, nullptr, nullptr), -1);
    EXPECT_TRUE(syslog_is_empty());
}

// ---- plain family: time limit -------------------------------------------------

TEST_F(ForkAndExec, TimeLimitStartsOnceTheCommandHasClosedEveryDescriptorOfItsPipe) {
    // Collection ends once the command has closed every descriptor of the
    // pipe that it holds: standard output and the inherited copy of the
    // write end. Then the limit starts although the command keeps running.
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "out", "early", "close-stdout", "close-extra", "sleep", "60"});
    char *out = nullptr;
    std::size_t len = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 1, &out, &len), -1);
    const seconds_d elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed.count(), 15.0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "early");
    std::free(out);
    const pid_t pid = pid_from_file(pidfile);
    expect_one_timeout_warning(cmd.program(), pid);
    EXPECT_EQ(process_state(pid), '\0') << "the killed child was not reaped";
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, ClosingStandardOutputAloneDoesNotEndCollection) {
    // The command still holds the pipe's write end as an extra descriptor,
    // so collection goes on until it ends, and its limit never starts.
    command cmd({"out", "early", "close-stdout", "sleep", "2", "exit", "7"});
    char *out = nullptr;
    std::size_t len = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 1, &out, &len), 7);
    const seconds_d elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed.count(), 2.0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "early");
    std::free(out);
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExec, TimeLimitKillsTheWholeProcessGroup) {
    const std::string child_pidfile = dir_.file("child.pid");
    const std::string grandchild_pidfile = dir_.file("grandchild.pid");
    command cmd({"close-extra", "detached-grandchild", "60", grandchild_pidfile, "pidfile",
                 child_pidfile, "close-stdout", "sleep", "60"});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 1, &out, &len), -1);
    const pid_t child = pid_from_file(child_pidfile);
    const pid_t grandchild = pid_from_file(grandchild_pidfile);
    expect_one_timeout_warning(cmd.program(), child);
    EXPECT_EQ(process_state(child), '\0');
    EXPECT_TRUE(no_longer_runs(grandchild));
}

TEST_F(ForkAndExec, TimeLimitCountsFromTheEndOfCollection) {
    // The command writes for longer than its limit and then ends by itself.
    command cmd({"out", "a", "sleep", "1.2", "out", "b", "sleep", "1.2", "out", "c", "exit", "6"});
    char *out = nullptr;
    std::size_t len = 0;
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 1, &out, &len), 6);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out, len), "abc");
    std::free(out);
    EXPECT_TRUE(syslog_is_empty());
}

// ---- plain family: failures -------------------------------------------------

TEST_F(ForkAndExec, PipeFailureReturnsMinusOneAndTouchesNothing) {
    const std::vector<int> lowest = lowest_free_descriptors(1);
    char *out = nullptr;
    std::size_t len = 42;
    command cmd({"exit", "3"});
    int status;
    {
        descriptor_limit no_room(lowest[0]);
        status = forkandexec(cmd.argv(), &out, &len);
    }
    EXPECT_EQ(status, -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 42U);
    EXPECT_EQ(read_stdin(), "pending");
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExec, ForkFailureRestoresTheMaskAndReturnsMinusOne) {
    char *out = nullptr;
    std::size_t len = 42;
    command cmd({"exit", "3"});
    qx_test::fail_next_child_start();
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 2, &out, &len), -1);
    EXPECT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 42U);
    EXPECT_EQ(read_stdin(), "pending");
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExec, AFailedStartLeavesItsReasonInErrno) {
    command cmd({"exit", "3"});
    errno = 0;
    qx_test::fail_next_child_start();
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), -1);
    ASSERT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(errno, EAGAIN);
    strbuf out{};
    errno = 0;
    qx_test::fail_next_child_start();
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 2, &out, nullptr), -1);
    ASSERT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(out.text, nullptr);
}

TEST_F(ForkAndExec, AFailedReallocEndsCollectionAndKeepsWhatWasRead) {
    command warm_up({"exit", "0"});
    forkandexec(warm_up.argv(), nullptr, nullptr);
    command cmd({"out", "first", "sleep", "1", "out", "second", "exit", "4"});
    char *out = nullptr;
    std::size_t len = 0;
    const int status = qx_test::call_with_failing_allocation(
        1, [&] { return forkandexec(cmd.argv(), &out, &len); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(status, 4);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 5U);
    EXPECT_STREQ(out, "first");
    std::free(out);
}

// ---- the strbuf family ----------------------------------------------------------

TEST_F(ForkAndExecEx, CollectsStandardOutputAndStandardErrorSeparately) {
    command cmd({"out", "to out", "err", "to err", "out", "!", "exit", "3"});
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 3);
    EXPECT_STREQ(out.text, "to out!");
    EXPECT_EQ(out.length, 7U);
    EXPECT_STREQ(err.text, "to err");
    EXPECT_EQ(err.length, 6U);
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecEx, AppendsWithoutTruncatingTheBuffers) {
    command cmd({"out", "new", "err", "news"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(strbuf_append(&out, "old "), 0);
    ASSERT_EQ(strbuf_append(&err, "bad "), 0);
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    EXPECT_STREQ(out.text, "old new");
    EXPECT_STREQ(err.text, "bad news");
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, ReturnsOneWhenTheProgramCannotBeExecuted) {
    command cmd({}, missing_program);
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 1);
    EXPECT_EQ(out.text, nullptr);
    EXPECT_EQ(err.text, nullptr);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExecEx, ReturnsZeroForACommandKilledByASignal) {
    command cmd({"signal", std::to_string(SIGTERM)});
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 0);
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 5, nullptr, nullptr), 0);
}

TEST_F(ForkAndExecEx, ReturnsTheStopSignalForAStoppedChildAndLeavesItUnreaped) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "close-stdout", "close-stderr", "close-extra", "signal",
                 std::to_string(SIGSTOP)});
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), SIGSTOP);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_EQ(process_state(pid), 'T');
    kill_and_reap(pid);
}

TEST_F(ForkAndExecEx, Returns255ForAContinuedChildAndLeavesItUnreaped) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "stop-until-continued", "0.5", "close-stdout", "close-stderr",
                 "close-extra", "sleep", "30"});
    strbuf out{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 255);
    kill_and_reap(pid_from_file(pidfile));
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, ANulByteCutsItsChunkShort) {
    command cmd({"out", "ab\\0cd", "err", "e\\0f"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    EXPECT_EQ(out.length, 2U);
    EXPECT_STREQ(out.text, "ab");
    EXPECT_EQ(err.length, 1U);
    EXPECT_STREQ(err.text, "e");
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, ReadsChunksOf7999BytesSoANulCutsOnlyItsOwnChunk) {
    // One write: 7998 x, a NUL, "yz". The first chunk (7999 bytes) ends with
    // the NUL, the second is "yz".
    command cmd({"out", std::string(7998, 'x') + "\\0yz"});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length), std::string(7998, 'x') + "yz");
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, CollectsMoreThan64KiBOnBothStreamsPollingThemTogether) {
    // Standard error is written first and fills its pipe while standard
    // output stays silent: only reading both pipes together gets through.
    command cmd({"errn", "100000", "outn", "150000", "errn", "30000"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    ASSERT_EQ(out.length, 150000U);
    EXPECT_TRUE(std::string(out.text, out.length) == alphabet_pattern(150000));
    ASSERT_EQ(err.length, 130000U);
    EXPECT_TRUE(std::string(err.text, err.length) ==
                alphabet_pattern(100000) + alphabet_pattern(30000));
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, NullBuffersSendTheirStreamsToDevNull) {
    command cmd({"out", "visible out", "err", "visible err"});
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    EXPECT_STREQ(out.text, "visible out");
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, &err), 0);
    EXPECT_STREQ(err.text, "visible err");
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 0);
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExecEx, LeavesTheCallersStandardInputAlone) {
    close_stdin_writer();
    command cmd({"echo", "out", "|"});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    EXPECT_STREQ(out.text, "|");
    EXPECT_EQ(read_stdin(), "pending");
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, TheCommandInheritsTheDevNullDescriptorAndBothPipeWriteEnds) {
    // Standard output's pipe takes the two lowest free numbers, standard
    // error's the next two; the child closes both read ends and /dev/null
    // lands on the lower one.
    const std::vector<int> pipe_fds = lowest_free_descriptors(4);
    std::set<int> expected = inheritable_descriptors();
    expected.insert({0, 1, 2, pipe_fds[0], pipe_fds[1], pipe_fds[3]});
    command cmd({"fds"});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length), as_fds_line(expected));
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, TheCommandKeepsIgnoredSignalsIgnoredAndCaughtOnesAtTheirDefault) {
    signal_disposition ignored(SIGUSR1, SIG_IGN);
    signal_disposition caught(SIGHUP, ignoring_handler);
    command cmd({"disposition", std::to_string(SIGUSR1), "disposition", std::to_string(SIGHUP)});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_STREQ(out.text, "ignore\ndefault\n");
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, AChildWhoseExecFailsLeavesTheCallersErrnoAsItWas) {
    command cmd({}, missing_program);
    strbuf out{};
    strbuf err{};
    errno = EDOM;
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 5, &out, &err), 1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(out.text, nullptr);
    EXPECT_EQ(err.text, nullptr);
}

TEST_F(ForkAndExecEx, RunsTheCommandInAProcessGroupOfItsOwnWithTheCallersMask) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "pgid", "blocked", std::to_string(SIGUSR2), "blocked",
                 std::to_string(SIGCHLD)});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length),
              std::to_string(pid_from_file(pidfile)) + "\n1\n0\n");
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, ClosedStandardInputMakesTheChildEndWithStatusOne) {
    skip_descriptor_check();
    close(STDIN_FILENO);
    command cmd({"exit", "3"});
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 1);
    EXPECT_FALSE(is_open(STDIN_FILENO));
}

TEST_F(ForkAndExecEx, ACallersSigchldHandlerCannotReapTheChildDuringTheCall) {
    sigchld_handler_calls = 0;
    sigchld_handler_reaped = 0;
    {
        sigchld_disposition handler(reaping_sigchld_handler);
        command cmd({"exit", "7"});
        EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 3, nullptr, nullptr), 7);
    }
    EXPECT_GE(sigchld_handler_calls, 1);
    EXPECT_EQ(sigchld_handler_reaped, 0);
}

TEST_F(ForkAndExecEx, TimeLimitKillsTheWholeProcessGroup) {
    const std::string child_pidfile = dir_.file("child.pid");
    const std::string grandchild_pidfile = dir_.file("grandchild.pid");
    command cmd({"close-extra", "detached-grandchild", "60", grandchild_pidfile, "pidfile",
                 child_pidfile, "out", "partial", "close-stdout", "close-stderr", "sleep", "60"});
    strbuf out{};
    strbuf err{};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 1, &out, &err), -1);
    const seconds_d elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed.count(), 15.0);
    EXPECT_STREQ(out.text, "partial");
    const pid_t child = pid_from_file(child_pidfile);
    expect_one_timeout_warning(cmd.program(), child);
    EXPECT_EQ(process_state(child), '\0');
    EXPECT_TRUE(no_longer_runs(pid_from_file(grandchild_pidfile)));
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExecEx, TimeLimitCountsFromTheEndOfCollection) {
    command cmd({"err", "a", "sleep", "1.2", "out", "b", "sleep", "1.2", "err", "c"});
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 1, &out, &err), 0);
    EXPECT_STREQ(out.text, "b");
    EXPECT_STREQ(err.text, "ac");
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecEx, AChildThatCannotBeWaitedForWithATimeLimitGivesMinusOne) {
    sigchld_disposition ignored(SIG_IGN);
    command cmd({"exit", "3"});
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 1, nullptr, nullptr), -1);
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 0);
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecEx, FirstPipeFailureReturnsMinusOneAndOpensNothing) {
    const std::vector<int> lowest = lowest_free_descriptors(1);
    command cmd({"exit", "3"});
    int status;
    {
        descriptor_limit no_room(lowest[0]);
        status = forkandexec_ex(cmd.argv(), nullptr, nullptr);
    }
    EXPECT_EQ(status, -1);
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_F(ForkAndExecEx, SecondPipeFailureLeavesTheFirstPipesDescriptorsOpen) {
    // Room for exactly one pipe: standard output's gets it, standard error's
    // fails. The two descriptors of the first pipe are the deliberate leak.
    const std::vector<int> lowest = lowest_free_descriptors(2);
    command cmd({"exit", "3"});
    strbuf out{};
    int status;
    {
        descriptor_limit room_for_one_pipe(lowest[1] + 1);
        status = forkandexec_ex_with_to(cmd.argv(), 2, &out, nullptr);
    }
    EXPECT_EQ(status, -1);
    EXPECT_EQ(out.text, nullptr);
    ASSERT_TRUE(is_open(lowest[0]));
    ASSERT_TRUE(is_open(lowest[1]));
    struct stat read_end {};
    struct stat write_end {};
    ASSERT_EQ(fstat(lowest[0], &read_end), 0);
    ASSERT_EQ(fstat(lowest[1], &write_end), 0);
    EXPECT_TRUE(S_ISFIFO(read_end.st_mode));
    EXPECT_EQ(read_end.st_ino, write_end.st_ino);
    EXPECT_EQ(fcntl(lowest[0], F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(lowest[1], F_GETFL) & O_ACCMODE, O_WRONLY);
    close(lowest[0]);
    close(lowest[1]);
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecEx, ForkFailureRestoresTheMaskAndReturnsMinusOne) {
    command cmd({"exit", "3"});
    strbuf out{};
    qx_test::fail_next_child_start();
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), -1);
    EXPECT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(out.text, nullptr);
    EXPECT_TRUE(descriptors_unchanged());
}

// ---- a started child whose execv fails ----------------------------------------

int exit_log_fd = -1;

void log_exit() {
    const std::string line = std::to_string(getpid()) + "\n";
    (void)!write(exit_log_fd, line.data(), line.size());
}

TEST(ForkAndExecDeathTest, AChildWhoseExecFailsEndsItselfWithoutTheCallersExitHandlers) {
    // The caller registers an exit handler and ends with what the call gave.
    // Had the started child returned into the caller or ended with exit(3),
    // the handler would have run twice.
    temp_dir dir;
    const std::string log = dir.file("exits");
    exit_log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ASSERT_GE(exit_log_fd, 0);
    EXPECT_EXIT(
        {
            std::atexit(log_exit);
            command cmd({}, missing_program);
            std::exit(forkandexec(cmd.argv(), nullptr, nullptr) == 1 ? 42 : 43);
        },
        ::testing::ExitedWithCode(42), "");
    EXPECT_EXIT(
        {
            std::atexit(log_exit);
            command cmd({}, missing_program);
            strbuf out{};
            std::exit(forkandexec_ex(cmd.argv(), &out, nullptr) == 1 && out.text == nullptr ? 42
                                                                                            : 43);
        },
        ::testing::ExitedWithCode(42), "");
    close(exit_log_fd);
    const std::string exits = read_file(log);
    EXPECT_EQ(std::count(exits.begin(), exits.end(), '\n'), 2) << exits;
}

// ---- descriptors and threads ----------------------------------------------------

// Everything a pipe-family child sends, until it closes its output.
std::string read_all_of(int fd) {
    std::string all;
    char piece[4096];
    for (;;) {
        const ssize_t n = read(fd, piece, sizeof piece);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return all;
        all.append(piece, static_cast<std::size_t>(n));
    }
}

// The descriptors of a program that another thread starts (through the pipe
// family) while the command runs: a line as the `fds` action writes it.
std::string descriptors_of_a_program_started_meanwhile(const std::string &pidfile) {
    if (!wait_for_file(pidfile))
        return "the command did not start";
    command list({"fds"});
    process *proc = process_open(list.argv(), "r");
    if (proc == nullptr)
        return "process_open failed";
    std::string line = read_all_of(process_read_fd(proc));
    process_close(proc, nullptr, 1);
    return line;
}

TEST_F(ForkAndExec, AProgramStartedByAnotherThreadMeanwhileInheritsNoPipeEndOfTheCall) {
    // What a program started now would hold: the test's own descriptors
    // without close-on-exec, the pipe's write end as its standard output.
    std::set<int> expected_meanwhile = inheritable_descriptors();
    expected_meanwhile.insert({0, 1, 2});
    watchdog guard(100);
    for (const bool plain : {true, false}) {
        SCOPED_TRACE(plain ? "forkandexec" : "forkandexec_ex");
        const std::string pidfile = dir_.file(plain ? "plain.pid" : "ex.pid");
        // The call's own command still sees exactly what it always inherits:
        // the /dev/null descriptor and every pipe write end.
        const std::vector<int> pipe_fds = lowest_free_descriptors(plain ? 2 : 4);
        std::set<int> expected_in_command = inheritable_descriptors();
        expected_in_command.insert({0, 1, 2, pipe_fds[0], pipe_fds[1]});
        if (!plain)
            expected_in_command.insert(pipe_fds[3]);
        command cmd({"fds", "pidfile", pidfile, "sleep", "2"});
        std::string meanwhile;
        std::thread other([&] { meanwhile = descriptors_of_a_program_started_meanwhile(pidfile); });
        std::string own;
        if (plain) {
            char *out = nullptr;
            std::size_t len = 0;
            EXPECT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
            own = out != nullptr ? std::string(out, len) : "";
            std::free(out);
        } else {
            strbuf out{};
            EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 5, &out, nullptr), 0);
            own = out.text != nullptr ? std::string(out.text, out.length) : "";
            strbuf_free(&out);
        }
        other.join();
        EXPECT_EQ(meanwhile, as_fds_line(expected_meanwhile));
        EXPECT_EQ(own, as_fds_line(expected_in_command));
    }
}

// Counts what went wrong in the mixed load of several threads.
struct mixed_load_faults {
    std::atomic<int> wrong_status{0};
    std::atomic<int> incomplete_output{0};
    std::atomic<int> failed_round_trips{0};
};

// A round trip through a pipe-family child that echoes a line.
bool round_trip(char **echo, int number) {
    process *proc = process_open(echo, "rw");
    if (proc == nullptr)
        return false;
    const std::string question = "question " + std::to_string(number);
    char answer[64] = {};
    bool answered =
        process_puts(proc, question.c_str(), static_cast<int>(question.size())) == 0 &&
        process_gets(proc, answer, sizeof answer) == static_cast<int>(question.size()) &&
        question == answer;
    int code = -1;
    if (process_close(proc, &code, 1) <= 0 || code != 0)
        answered = false;
    return answered;
}

// Round trips follow each other closely enough that two threads' opens
// overlap now and then.
constexpr int round_trips_per_call = 3;

// One thread's share: `calls` times forkandexec_ex_with_to of a command
// that writes 20 lines, each after three pipe round trips.
void run_mixed_load(int calls, mixed_load_faults &faults, std::latch &start) {
    std::vector<std::string> actions;
    std::string expected;
    for (int line = 0; line < 20; ++line) {
        actions.push_back("out");
        actions.push_back("line " + std::to_string(line) + "\\n");
        expected += "line " + std::to_string(line) + "\n";
    }
    command lines(actions);
    command echo({"echo"});
    start.arrive_and_wait(); // all threads begin together
    for (int i = 0; i < calls; ++i) {
        for (int trip = 0; trip < round_trips_per_call; ++trip)
            if (!round_trip(echo.argv(), i))
                ++faults.failed_round_trips;
        strbuf out{};
        strbuf err{};
        if (forkandexec_ex_with_to(lines.argv(), 5, &out, &err) != 0)
            ++faults.wrong_status;
        if (out.text == nullptr || std::string(out.text, out.length) != expected)
            ++faults.incomplete_output;
        strbuf_free(&out);
        strbuf_free(&err);
    }
}

void expect_four_threads_of_mixed_load_to_run_cleanly(int calls_per_thread, int seconds) {
    mixed_load_faults faults;
    {
        watchdog guard(seconds);
        std::latch start(4);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back(run_mixed_load, calls_per_thread, std::ref(faults),
                                 std::ref(start));
        for (auto &thread : threads)
            thread.join();
    }
    EXPECT_EQ(faults.wrong_status.load(), 0);
    EXPECT_EQ(faults.incomplete_output.load(), 0);
    EXPECT_EQ(faults.failed_round_trips.load(), 0);
    EXPECT_FALSE(a_zombie_child_is_left());
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is still running";
    EXPECT_EQ(errno, ECHILD);
}

using ForkAndExecThreads = ForkAndExec;

TEST_F(ForkAndExecThreads, FourThreadsOf30MixedCallsNeitherHangNorLoseOutput) {
    expect_four_threads_of_mixed_load_to_run_cleanly(30, 100);
}

TEST_F(ForkAndExecSlow, FourThreadsOf300MixedCallsNeitherHangNorLoseOutput) {
    if (!slow_tests_enabled())
        GTEST_SKIP() << "runs as its own CTest test, labelled slow";
    expect_four_threads_of_mixed_load_to_run_cleanly(300, 550);
}

// ---- a caller's signal handler --------------------------------------------------

std::atomic<long> alarms_caught{0};

void count_alarm(int) {
    ++alarms_caught;
}

// SIGALRM every millisecond, caught by a handler installed without
// SA_RESTART, for the whole test: every wait of a call is interrupted again
// and again.
class ForkAndExecSignals : public ForkAndExec {
  protected:
    void SetUp() override {
        ForkAndExec::SetUp();
        struct sigaction action {};
        action.sa_handler = count_alarm;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGALRM, &action, &saved_action_);
        alarms_caught = 0;
        const itimerval every_millisecond{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &every_millisecond, nullptr);
    }

    void TearDown() override {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &saved_action_, nullptr);
        EXPECT_GT(alarms_caught.load(), 10) << "the calls were hardly interrupted";
        ForkAndExec::TearDown();
    }

  private:
    struct sigaction saved_action_ {};
};

TEST_F(ForkAndExecSignals, EveryCallCollectsTheWholeOutput) {
    watchdog guard(100);
    command cmd({"outn", "2000000", "exit", "4"});
    const std::string expected = alphabet_pattern(2000000);
    for (const int limit : {0, 30}) {
        SCOPED_TRACE(limit);
        char *out = nullptr;
        std::size_t len = 0;
        EXPECT_EQ(limit == 0 ? forkandexec(cmd.argv(), &out, &len)
                             : forkandexec_with_to(cmd.argv(), limit, &out, &len),
                  4);
        EXPECT_EQ(len, expected.size());
        EXPECT_TRUE(out != nullptr && std::string(out, len) == expected);
        std::free(out);
        strbuf text{};
        EXPECT_EQ(limit == 0 ? forkandexec_ex(cmd.argv(), &text, nullptr)
                             : forkandexec_ex_with_to(cmd.argv(), limit, &text, nullptr),
                  4);
        EXPECT_EQ(text.length, expected.size());
        EXPECT_TRUE(text.text != nullptr && std::string(text.text, text.length) == expected);
        strbuf_free(&text);
    }
    EXPECT_FALSE(a_zombie_child_is_left());
}

TEST_F(ForkAndExecSignals, EveryCallReportsTheExitStatusAndLeavesNoZombie) {
    // Collection ends at once; the waits are what the signals interrupt.
    watchdog guard(100);
    command cmd({"close-stdout", "close-stderr", "close-extra", "sleep", "0.5", "exit", "3"});
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, nullptr), 3);
    EXPECT_FALSE(a_zombie_child_is_left());
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 5, nullptr, nullptr), 3);
    EXPECT_FALSE(a_zombie_child_is_left());
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 3);
    EXPECT_FALSE(a_zombie_child_is_left());
    EXPECT_EQ(forkandexec_ex_with_to(cmd.argv(), 5, nullptr, nullptr), 3);
    EXPECT_FALSE(a_zombie_child_is_left());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecSignals, ATimeLimitIsNeitherCutShortNorStretched) {
    watchdog guard(100);
    command finishing({"close-stdout", "close-stderr", "close-extra", "sleep", "2", "exit", "0"});
    for (const bool plain : {true, false}) {
        SCOPED_TRACE(plain ? "forkandexec_with_to" : "forkandexec_ex_with_to");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(plain ? forkandexec_with_to(finishing.argv(), 6, nullptr, nullptr)
                        : forkandexec_ex_with_to(finishing.argv(), 6, nullptr, nullptr),
                  0);
        const seconds_d elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(elapsed.count(), 2.0);
        EXPECT_LT(elapsed.count(), 4.0);
    }
    EXPECT_TRUE(syslog_is_empty());
    for (const bool plain : {true, false}) {
        SCOPED_TRACE(plain ? "forkandexec_with_to" : "forkandexec_ex_with_to");
        qx_test::syslog_clear();
        const std::string pidfile = dir_.file(plain ? "plain.pid" : "ex.pid");
        command endless(
            {"pidfile", pidfile, "close-stdout", "close-stderr", "close-extra", "sleep", "60"});
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(plain ? forkandexec_with_to(endless.argv(), 1, nullptr, nullptr)
                        : forkandexec_ex_with_to(endless.argv(), 1, nullptr, nullptr),
                  -1);
        const seconds_d elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(elapsed.count(), 1.0);
        EXPECT_LT(elapsed.count(), 5.0);
        const pid_t pid = pid_from_file(pidfile);
        expect_one_timeout_warning(endless.program(), pid);
        EXPECT_EQ(process_state(pid), '\0');
    }
}

// ---- waiting with a time limit --------------------------------------------------

TEST_F(ForkAndExecEx, QuickCommandsUnderATimeLimitAreReturnedAtOnce) {
    // A command that ends at once with status 0.
    command quick({});
    double slowest = 0;
    for (int call = 0; call < 50; ++call) {
        strbuf out{};
        strbuf err{};
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(forkandexec_ex_with_to(quick.argv(), 5, &out, &err), 0);
        const seconds_d elapsed = std::chrono::steady_clock::now() - start;
        slowest = std::max(slowest, elapsed.count());
        strbuf_free(&out);
        strbuf_free(&err);
    }
    EXPECT_LT(slowest, 0.5);
}

// ---- failures while collecting and starting ---------------------------------------

TEST_F(ForkAndExecEx, AFailedAppendEndsCollectionSoTheOutputHasNoHole) {
    command warm_up({"out", "x"});
    strbuf warm{};
    forkandexec_ex(warm_up.argv(), &warm, nullptr);
    strbuf_free(&warm);
    // "first" takes the buffer's first block; the 3000 bytes after it need
    // it to grow, and that growth fails; "third" would fit again.
    command cmd({"out", "first", "sleep", "1", "outn", "3000", "sleep", "1", "out", "third"});
    strbuf out{};
    const int status = qx_test::call_with_failing_allocation(
        1, [&] { return forkandexec_ex(cmd.argv(), &out, nullptr); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    // The command, writing into a pipe nobody reads any more, ends by
    // SIGPIPE, and a command ended by a signal gives 0.
    EXPECT_EQ(status, 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length), "first");
    strbuf_free(&out);
}

// The address space in use now (VmSize), in bytes.
unsigned long address_space_in_use() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmSize:", 0) == 0)
            return std::stoul(line.substr(7)) * 1024;
    return 0;
}

TEST_F(ForkAndExec, StartsTheCommandUnderATightAddressSpaceLimit) {
    if (qx_test::heap_bytes_available())
        GTEST_SKIP() << "the sanitizer's runtime maps memory of its own at any time";
    // In a child of the test, so that the limit binds nothing else: with
    // room for 16 KiB more, a plain fork and exec still works.
    command succeeds({"exit", "0"});
    command fails({"exit", "1"});
    int results[2];
    ASSERT_EQ(pipe2(results, O_CLOEXEC), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(results[0]);
        const unsigned long in_use = address_space_in_use();
        rlimit tight{};
        getrlimit(RLIMIT_AS, &tight);
        tight.rlim_cur = static_cast<rlim_t>(in_use + 16 * 1024);
        if (in_use == 0 || setrlimit(RLIMIT_AS, &tight) != 0)
            _exit(2);
        // errno as the caller left it survives the calls that succeed.
        errno = EDOM;
        const int plain_succeeds = forkandexec(succeeds.argv(), nullptr, nullptr);
        const int plain_fails = forkandexec(fails.argv(), nullptr, nullptr);
        const int ex_succeeds = forkandexec_ex_with_to(succeeds.argv(), 5, nullptr, nullptr);
        const int ex_fails = forkandexec_ex(fails.argv(), nullptr, nullptr);
        const bool errno_kept = errno == EDOM;
        char line[64];
        const int length =
            std::snprintf(line, sizeof line, "%d %d %d %d %s", plain_succeeds, plain_fails,
                          ex_succeeds, ex_fails, errno_kept ? "errno kept" : "errno changed");
        (void)!write(results[1], line, static_cast<std::size_t>(length));
        _exit(0);
    }
    close(results[1]);
    const std::string line = read_all_of(results[0]);
    close(results[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(line, "0 1 0 1 errno kept");
}

// ---- thirty seconds of silence ------------------------------------------------

TEST_F(ForkAndExecSlow, SilentCommandIsGivenThirtySecondsBeforeItsLimitStarts) {
    if (std::getenv("QX_SLOW_TESTS") == nullptr)
        GTEST_SKIP() << "runs as its own CTest test, labelled slow";
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "sleep", "60"});
    char *out = nullptr;
    std::size_t len = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 2, &out, &len), -1);
    const seconds_d elapsed = std::chrono::steady_clock::now() - start;
    // 30 seconds of collection, then two one-second sleeps before the kill
    // (and up to three more while reaping).
    EXPECT_GE(elapsed.count(), 31.5);
    EXPECT_LT(elapsed.count(), 40.0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
    const pid_t pid = pid_from_file(pidfile);
    expect_one_timeout_warning(cmd.program(), pid);
    EXPECT_EQ(process_state(pid), '\0');
    EXPECT_EQ(read_stdin(), "");
}

// ---- output after thirty seconds of silence ------------------------------------

TEST_F(ForkAndExecSlow, ACommandThatWritesAfterThirtySecondsOfSilenceIsNotLeftBlocked) {
    if (!slow_tests_enabled())
        GTEST_SKIP() << "runs as its own CTest test, labelled slow";
    // Collection gives up after 30 seconds of silence; the megabyte that
    // follows must not block the command for ever on a pipe nobody reads.
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "sleep", "31", "outn", "1000000", "exit", "5"});
    char *out = nullptr;
    std::size_t len = 0;
    int status;
    bool hung;
    {
        watchdog guard(90, [&] { kill(pid_from_file(pidfile), SIGKILL); });
        status = forkandexec(cmd.argv(), &out, &len);
        hung = guard.expired();
    }
    EXPECT_FALSE(hung) << "the call returned only once the command was killed";
    // Writing into a pipe without reader ends the command by SIGPIPE, and a
    // command ended by a signal gives 0.
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(read_stdin(), "");
}

} // namespace
