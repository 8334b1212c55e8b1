// What the suites of the forkandexec family share: the fixture every test
// runs in, the entry points as a test parameter, and helpers that look at
// processes, descriptors and signals.
#pragma once

#include <gtest/gtest.h>

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
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "qxcommon-util/forkandexec.h"
#include "support/child_command.hpp"
#include "support/fd_snapshot.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace forkandexec_test {

using command = qx_test::child_command;
using qx_test::read_all;
using qx_test::read_file;
using qx_test::temp_dir;
using seconds_d = std::chrono::duration<double>;

inline const char *const missing_program = "/nonexistent/qx-no-such-program";

// The bytes `outn N` of qx_child writes: the alphabet, over and over.
inline std::string alphabet_pattern(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

inline sigset_t current_mask() {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return mask;
}

inline bool same_mask(const sigset_t &a, const sigset_t &b) {
    for (int signal = 1; signal < NSIG; ++signal)
        if (sigismember(&a, signal) != sigismember(&b, signal))
            return false;
    return true;
}

inline pid_t pid_from_file(const std::string &path) {
    return static_cast<pid_t>(std::stol(read_file(path)));
}

// The state letter of /proc/<pid>/stat, or '\0' when there is no such
// process.
inline char process_state(pid_t pid) {
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
inline bool no_longer_runs(pid_t pid) {
    for (int tries = 0; tries < 50; ++tries) {
        const char state = process_state(pid);
        if (state == '\0' || state == 'Z' || state == 'X')
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

inline bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The n lowest descriptor numbers not open now: where the next open, pipe or
// dup lands.
inline std::vector<int> lowest_free_descriptors(int n) {
    std::vector<int> free;
    for (int fd = 0; static_cast<int>(free.size()) < n; ++fd)
        if (!is_open(fd))
            free.push_back(fd);
    return free;
}

// The descriptors a program started now would inherit (those without
// close-on-exec).
inline std::set<int> inheritable_descriptors() {
    std::set<int> inherited;
    for (const int fd : qx_test::open_descriptors()) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0)
            inherited.insert(fd);
    }
    return inherited;
}

inline std::string as_fds_line(const std::set<int> &fds) {
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
inline std::atomic<int> sigchld_handler_calls{0};
inline std::atomic<int> sigchld_handler_reaped{0};

inline void reaping_sigchld_handler(int) {
    const int saved_errno = errno;
    ++sigchld_handler_calls;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        ++sigchld_handler_reaped;
    errno = saved_errno;
}

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

// Sets the SIGCHLD disposition for the life of the object.
class sigchld_disposition : public signal_disposition {
  public:
    explicit sigchld_disposition(void (*handler)(int)) : signal_disposition(SIGCHLD, handler) {}
};

inline void ignoring_handler(int) {}

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
inline bool a_zombie_child_is_left() {
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return false; // no child at all
    return info.si_pid != 0;
}

// Waits up to ten seconds for a file to have content.
inline bool wait_for_file(const std::string &path) {
    for (int tries = 0; tries < 100; ++tries) {
        std::ifstream in(path);
        std::string line;
        if (std::getline(in, line) && !line.empty())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

inline bool slow_tests_enabled() {
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

// The four entry points as a test parameter. What sets the two families
// apart travels with it: the plain pair collects standard output into a
// malloc'ed block, sends standard error to /dev/null and replaces the
// caller's standard input; the strbuf pair collects standard output and
// standard error into strbufs and leaves standard input alone.
struct entry_point {
    const char *name;
    bool strbufs;    // forkandexec_ex, forkandexec_ex_with_to
    bool time_limit; // forkandexec_with_to, forkandexec_ex_with_to
};

inline const entry_point every_entry_point[] = {
    {"forkandexec", false, false},
    {"forkandexec_with_to", false, true},
    {"forkandexec_ex", true, false},
    {"forkandexec_ex_with_to", true, true},
};

inline const entry_point entry_points_with_a_time_limit[] = {
    {"forkandexec_with_to", false, true},
    {"forkandexec_ex_with_to", true, true},
};

// The two that wait without a time limit, and so also report a stop or a
// continue of the command.
inline const entry_point entry_points_without_a_time_limit[] = {
    {"forkandexec", false, false},
    {"forkandexec_ex", true, false},
};

// How a failing test names its parameter.
inline void PrintTo(const entry_point &entry, std::ostream *out) {
    *out << entry.name;
}

inline std::string entry_point_name(const ::testing::TestParamInfo<entry_point> &info) {
    return info.param.name;
}

// Calls the entry point with null for every output pointer; `limit` goes
// to the ones that take a time limit.
inline int run_discarding(const entry_point &entry, char **argv, int limit = 5) {
    if (entry.strbufs)
        return entry.time_limit ? forkandexec_ex_with_to(argv, limit, nullptr, nullptr)
                                : forkandexec_ex(argv, nullptr, nullptr);
    return entry.time_limit ? forkandexec_with_to(argv, limit, nullptr, nullptr)
                            : forkandexec(argv, nullptr, nullptr);
}

// One call of an entry point that collects what its family collects, and
// owns it: a malloc'ed block and its length, or two strbufs.
class collected {
  public:
    // `length` is what the caller's length holds before the call.
    explicit collected(const entry_point &entry, std::size_t length = 99)
        : entry_(entry), initial_length_(length), length_(length) {}
    ~collected() {
        std::free(block_);
        strbuf_free(&out_);
        strbuf_free(&err_);
    }
    collected(const collected &) = delete;
    collected &operator=(const collected &) = delete;

    int run(char **argv, int limit = 5) {
        if (entry_.strbufs)
            return entry_.time_limit ? forkandexec_ex_with_to(argv, limit, &out_, &err_)
                                     : forkandexec_ex(argv, &out_, &err_);
        return entry_.time_limit ? forkandexec_with_to(argv, limit, &block_, &length_)
                                 : forkandexec(argv, &block_, &length_);
    }

    // Standard output as collected ("" when nothing was).
    std::string out() const {
        if (entry_.strbufs)
            return out_.text != nullptr ? std::string(out_.text, out_.length) : std::string();
        return block_ != nullptr ? std::string(block_, length_) : std::string();
    }

    // Standard error as collected; the plain family never collects it.
    std::string err() const {
        return err_.text != nullptr ? std::string(err_.text, err_.length) : std::string();
    }

    // Nothing was collected: the plain family leaves a null block and sets
    // the length to zero, the strbuf family leaves both texts null.
    void expect_nothing_collected() const { expect_no_text_and_length(0); }

    // A call that failed before starting anything touched neither the
    // block nor the length, nor the strbufs.
    void expect_untouched() const { expect_no_text_and_length(initial_length_); }

  private:
    entry_point entry_;
    std::size_t initial_length_;
    char *block_ = nullptr;
    std::size_t length_;
    strbuf out_{};
    strbuf err_{};

    void expect_no_text_and_length(std::size_t length) const {
        if (entry_.strbufs) {
            EXPECT_EQ(out_.text, nullptr);
            EXPECT_EQ(err_.text, nullptr);
        } else {
            EXPECT_EQ(block_, nullptr);
            EXPECT_EQ(length_, length);
        }
    }
};

// The fixture, run once with each entry point.
class ForkAndExecEach : public ForkAndExec, public ::testing::WithParamInterface<entry_point> {
  protected:
    const entry_point &entry() const { return GetParam(); }
};

// The fixture, run with each entry point that takes a time limit, and
// with each that does not.
using ForkAndExecTimed = ForkAndExecEach;
using ForkAndExecUntimed = ForkAndExecEach;

} // namespace forkandexec_test
