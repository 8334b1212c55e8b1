// PID files and the single-instance check, observed through
// <qxcommon-util/pidfile.h>.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <limits.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <qxcommon-util/pidfile.h>

#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/io_faults.hpp"
#include "support/scratch_fs.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::fd_snapshot;
using qx_test::file_exists;
using qx_test::read_file;
using qx_test::temp_dir;
using qx_test::write_file;

constexpr uid_t nobody = 65534;
constexpr const char *indexer_done = "Indexer done\n";

std::string link_target(const std::string &link) {
    char buffer[PATH_MAX + 1] = {};
    const ssize_t n = readlink(link.c_str(), buffer, PATH_MAX);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

std::string own_exe() {
    return link_target("/proc/self/exe");
}

std::string own_name() {
    const std::string exe = own_exe();
    return exe.substr(exe.rfind('/') + 1);
}

std::string pid_text(pid_t pid) {
    return std::to_string(static_cast<long>(pid));
}

std::string own_pid() {
    return pid_text(getpid());
}

mode_t mode_of(const std::string &path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return st.st_mode & 07777;
}

void copy_executable(const std::string &from, const std::string &to) {
    write_file(to, read_file(from));
    ASSERT_EQ(chmod(to.c_str(), 0755), 0);
}

std::vector<qx_test::syslog_entry> logged() {
    return qx_test::syslog_entries();
}

// A child process killed and reaped when the test ends.
class child_process {
  public:
    // Runs `program` with the given arguments (argv[0] is the program).
    explicit child_process(const std::vector<std::string> &argv) {
        std::vector<char *> args;
        for (const std::string &arg : argv)
            args.push_back(const_cast<char *>(arg.c_str()));
        args.push_back(nullptr);
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            execv(args[0], args.data());
            _exit(127);
        }
    }
    // A forked copy of this very program that sleeps until killed.
    child_process() {
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            for (;;)
                pause();
        }
    }
    ~child_process() { stop(); }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    pid_t pid() const { return pid_; }
    // Kills (when still running) and reaps; the PID then names no process.
    void stop() {
        if (pid_ <= 0 || reaped_)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }
    int wait_for_exit() {
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        return status;
    }

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// Waits (a few seconds at most) until the child has written its PID and a
// line feed to path.
bool wait_for_pid_line(const std::string &path) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (file_exists(path)) {
            const std::string text = read_file(path);
            if (!text.empty() && text.back() == '\n')
                return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// A qx_child that records its PID at pid_path and sleeps.
std::vector<std::string> sleeping_child(const std::string &program, const std::string &pid_path) {
    return {program, "pidfile", pid_path, "sleep", "30"};
}

// What a function run in a forked child did: how it ended, what it wrote to
// standard output and standard error, and what it logged.
struct child_outcome {
    int status = 0;
    std::string out;
    std::string err;
    std::vector<std::string> log; // "<priority> <message>"

    bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

std::string log_line(int priority, const std::string &message) {
    return std::to_string(priority) + " " + message;
}

// Opened before the child's body runs, so that it is still reachable after
// a chroot.
int child_log_fd = -1;

// Runs at exit in the child, also when the library calls exit(1).
void write_child_log() {
    if (child_log_fd < 0)
        return;
    for (const auto &entry : qx_test::syslog_entries())
        dprintf(child_log_fd, "%d %s\n", entry.priority, entry.message.c_str());
    close(child_log_fd);
    child_log_fd = -1;
}

std::vector<std::string> read_lines(const std::string &path) {
    std::vector<std::string> lines;
    if (!file_exists(path))
        return lines;
    const std::string text = read_file(path);
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// Runs `body` in a forked child whose standard output and error go to files
// in `scratch`; its result is the child's exit status.
child_outcome run_in_child(const temp_dir &scratch, const std::function<int()> &body) {
    const std::string out = scratch.file("child.out");
    const std::string err = scratch.file("child.err");
    const std::string log = scratch.file("child.log");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out_fd < 0 || err_fd < 0)
            _exit(120);
        dup2(out_fd, STDOUT_FILENO);
        dup2(err_fd, STDERR_FILENO);
        close(out_fd);
        close(err_fd);
        child_log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        qx_test::syslog_clear();
        std::atexit(write_child_log);
        const int code = body();
        qx_test::stop_failing_allocations();
        std::fflush(nullptr);
        write_child_log();
        _exit(code);
    }
    child_outcome outcome;
    waitpid(pid, &outcome.status, 0);
    outcome.out = file_exists(out) ? read_file(out) : "";
    outcome.err = file_exists(err) ? read_file(err) : "";
    outcome.log = read_lines(log);
    return outcome;
}

// For n = 0, 1, ... runs `call` in a child with the n-th allocation failing,
// until a run fails no allocation (the child then exits with 0). Every run
// that ends the process must have printed "Indexer done" and logged one
// LOG_ERR message; the messages seen are returned. Runs where the call
// returned instead (the C library's own allocation failing) must exit 2.
std::set<std::string> sweep_fatal_allocations(const temp_dir &scratch,
                                              const std::function<void()> &prepare,
                                              const std::function<void()> &call) {
    std::set<std::string> messages;
    for (long n = 0; n < 64; ++n) {
        prepare();
        const child_outcome outcome = run_in_child(scratch, [&] {
            {
                qx_test::failing_allocation arm(n);
                call();
            }
            return qx_test::allocation_was_failed() ? 2 : 0;
        });
        if (outcome.exited_with(0))
            return messages;
        if (outcome.exited_with(2))
            continue;
        EXPECT_TRUE(outcome.exited_with(1)) << "allocation " << n << " status " << outcome.status;
        EXPECT_EQ(outcome.out, indexer_done) << "allocation " << n;
        EXPECT_EQ(outcome.log.size(), 1U) << "allocation " << n;
        if (!outcome.log.empty()) {
            EXPECT_EQ(outcome.log.back().rfind(std::to_string(LOG_ERR) + " ", 0), 0U);
            messages.insert(outcome.log.back().substr(2));
        }
    }
    ADD_FAILURE() << "the call never ran without a failed allocation";
    return messages;
}

class PidfileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        old_umask_ = umask(022);
        qx_test::syslog_clear();
    }
    void TearDown() override { umask(old_umask_); }

    temp_dir dir_;
    fd_snapshot snap_;

  private:
    mode_t old_umask_ = 0;
};

// ---- write_pidfile ---------------------------------------------------------

using WritePidfile = PidfileTest;

TEST_F(WritePidfile, WritesTheOwnPidAndALineFeedToAMissingFileAndReturnsItsLength) {
    const std::string path = dir_.file("service.pid");
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
    EXPECT_EQ(mode_of(path), 0644U);
    EXPECT_TRUE(snap_.unchanged());
    EXPECT_TRUE(logged().empty());
}

TEST_F(WritePidfile, CreatesTheFileWithMode0644WhateverTheUmaskAllows) {
    umask(0);
    const std::string path = dir_.file("service.pid");
    ASSERT_GT(write_pidfile(path.c_str()), 0);
    EXPECT_EQ(mode_of(path), 0644U);
}

TEST_F(WritePidfile, RefusesWithEexistAndLeavesTheFileWhileItsProcessLives) {
    const std::string path = dir_.file("service.pid");
    child_process child(sleeping_child(QX_TEST_CHILD, path));
    ASSERT_TRUE(wait_for_pid_line(path));
    const std::string before = read_file(path);
    ASSERT_EQ(before, pid_text(child.pid()) + "\n");
    fd_snapshot snap;
    errno = 0;
    EXPECT_EQ(write_pidfile(path.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path), before);
    EXPECT_TRUE(snap.unchanged());
}

TEST_F(WritePidfile, RefusesWhenTheFileNamesThisVeryProcess) {
    const std::string path = dir_.file("service.pid");
    write_file(path, own_pid());
    errno = 0;
    EXPECT_EQ(write_pidfile(path.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path), own_pid());
}

TEST_F(WritePidfile, ReadsThePidAfterLeadingBlanksAndStopsAtTheFirstNonDigit) {
    const std::string path = dir_.file("service.pid");
    write_file(path, " \t" + own_pid() + "junk");
    errno = 0;
    EXPECT_EQ(write_pidfile(path.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path), " \t" + own_pid() + "junk");
}

TEST_F(WritePidfile, RemovesAndRewritesAFileHoldingZero) {
    const std::string path = dir_.file("service.pid");
    write_file(path, "0\n");
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(WritePidfile, RemovesAndRewritesAFileHoldingGarbage) {
    const std::string path = dir_.file("service.pid");
    write_file(path, "not a pid at all, and longer than the new content\n");
    // The stale file is removed, not rewritten in place: a new inode, and
    // the mode of the new file, not the old one's.
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    struct stat old_st {};
    ASSERT_EQ(stat(path.c_str(), &old_st), 0);
    const int keep_inode = open(path.c_str(), O_RDONLY); // keeps the old inode number in use
    ASSERT_GE(keep_inode, 0);
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
    struct stat new_st {};
    ASSERT_EQ(stat(path.c_str(), &new_st), 0);
    EXPECT_NE(new_st.st_ino, old_st.st_ino);
    EXPECT_EQ(new_st.st_mode & 07777, 0644U);
    close(keep_inode);
}

TEST_F(WritePidfile, ANumberBeyondAnyPidNamesNoProcess) {
    // As a pid_t these would be -1 and -2, which kill(2) reads as "every
    // process" and a process group: such a file is stale, not a live owner.
    for (const char *text : {"4294967295\n", "-2\n", "99999999999999999999\n"}) {
        const std::string path = dir_.file("service.pid");
        write_file(path, text);
        const std::string expected = own_pid() + "\n";
        EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size())) << text;
        EXPECT_EQ(read_file(path), expected) << text;
    }
}

TEST_F(WritePidfile, RewritesAnEmptyFile) {
    const std::string path = dir_.file("service.pid");
    write_file(path, "");
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
}

TEST_F(WritePidfile, RewritesAFileNamingAProcessThatHasEnded) {
    const std::string path = dir_.file("service.pid");
    child_process child(std::vector<std::string>{QX_TEST_CHILD, "exit", "0"});
    ASSERT_TRUE(WIFEXITED(child.wait_for_exit()));
    write_file(path, pid_text(child.pid()) + "\n");
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
}

TEST_F(WritePidfile, ReadsOnlyTheFirst21Bytes) {
    // 21 zeros and then a live PID: within 21 bytes the number is 0, so the
    // file counts as stale although the whole text names this process.
    const std::string path = dir_.file("service.pid");
    write_file(path, std::string(21, '0') + own_pid());
    const std::string expected = own_pid() + "\n";
    EXPECT_EQ(write_pidfile(path.c_str()), static_cast<int>(expected.size()));
    EXPECT_EQ(read_file(path), expected);
}

TEST_F(WritePidfile, TwentyOneBytesAreEnoughForALivePidBehindBlanks) {
    const std::string path = dir_.file("service.pid");
    const std::string pid = own_pid();
    const std::string text = std::string(21 - pid.size(), ' ') + pid;
    write_file(path, text);
    errno = 0;
    EXPECT_EQ(write_pidfile(path.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path), text);
}

TEST_F(WritePidfile, ALiveProcessThatMayNotBeSignalledCountsAsStale) {
    // kill(pid, 0) fails with EPERM for another user's process: the file is
    // then replaced although that process lives.
    const std::string path = dir_.file("service.pid");
    child_process owner(sleeping_child(QX_TEST_CHILD, path));
    ASSERT_TRUE(wait_for_pid_line(path));
    if (getuid() != 0)
        GTEST_SKIP() << "needs to switch to another user";
    ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
    const child_outcome outcome = run_in_child(dir_, [&] {
        if (setuid(nobody) != 0)
            return 10;
        if (kill(owner.pid(), 0) == 0 || errno != EPERM)
            return 11;
        const std::string expected = own_pid() + "\n";
        if (write_pidfile(path.c_str()) != static_cast<int>(expected.size()))
            return 12;
        return read_file(path) == expected ? 0 : 13;
    });
    EXPECT_TRUE(outcome.exited_with(0)) << outcome.status;
}

TEST_F(WritePidfile, FailsWithTheErrnoOfUnlinkWhenTheStaleFileCannotBeRemoved) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs to switch to another user";
    const std::string path = dir_.file("service.pid");
    write_file(path, "0\n");
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    const child_outcome outcome = run_in_child(dir_, [&] {
        if (setuid(nobody) != 0)
            return 10;
        errno = 0;
        if (write_pidfile(path.c_str()) != -1)
            return 11;
        return errno == EACCES ? 0 : 12;
    });
    EXPECT_TRUE(outcome.exited_with(0)) << outcome.status;
    EXPECT_EQ(read_file(path), "0\n");
}

TEST_F(WritePidfile, FailsWithErrnoWhenTheFileCannotBeCreated) {
    const std::string path = dir_.file("missing/service.pid");
    errno = 0;
    EXPECT_EQ(write_pidfile(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file_exists(path));
    EXPECT_TRUE(snap_.unchanged());
}

// ---- get_process_name --------------------------------------------------------

using GetProcessName = PidfileTest;

TEST_F(GetProcessName, NullPidTextIsLoggedAtInfoAndFails) {
    char sentinel = 0;
    char *exe = &sentinel;
    EXPECT_EQ(get_process_name(nullptr, &exe), -1);
    EXPECT_EQ(exe, &sentinel);
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_INFO);
    EXPECT_EQ(entries[0].message, "Unexpected Error. Procinfo is emtpy");
}

TEST_F(GetProcessName, GivesTheExecutableOfThisProcess) {
    char *exe = nullptr;
    EXPECT_EQ(get_process_name(own_pid().c_str(), &exe), 0);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(std::string(exe), own_exe());
    std::free(exe);
    EXPECT_TRUE(snap_.unchanged());
    EXPECT_TRUE(logged().empty());
}

TEST_F(GetProcessName, GivesTheExecutableOfAnotherProgram) {
    const std::string pid_path = dir_.file("child.pid");
    child_process child(sleeping_child(QX_TEST_CHILD, pid_path));
    ASSERT_TRUE(wait_for_pid_line(pid_path));
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(QX_TEST_CHILD, resolved), nullptr);
    char *exe = nullptr;
    EXPECT_EQ(get_process_name(pid_text(child.pid()).c_str(), &exe), 0);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(std::string(exe), resolved);
    std::free(exe);
}

TEST_F(GetProcessName, TakesThePidTextAsAPathComponent) {
    char *exe = nullptr;
    EXPECT_EQ(get_process_name("self", &exe), 0);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(std::string(exe), own_exe());
    std::free(exe);
}

TEST_F(GetProcessName, AnEndedProcessFailsAndStillHandsOutAZeroedBlock) {
    child_process child(std::vector<std::string>{QX_TEST_CHILD, "exit", "0"});
    child.wait_for_exit();
    char *exe = nullptr;
    EXPECT_EQ(get_process_name(pid_text(child.pid()).c_str(), &exe), -1);
    ASSERT_NE(exe, nullptr);
    const std::string zeros(1024, '\0');
    EXPECT_EQ(std::memcmp(exe, zeros.data(), zeros.size()), 0);
    std::free(exe);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(GetProcessName, AnOverlongPidTextFailsCleanly) {
    const std::string text(300, '7');
    char *exe = nullptr;
    EXPECT_EQ(get_process_name(text.c_str(), &exe), -1);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(exe[0], '\0');
    std::free(exe);
}

TEST_F(GetProcessName, OutOfMemoryPrintsIndexerDoneAndExitsWithStatusOne) {
    const std::string pid = own_pid();
    const auto messages = sweep_fatal_allocations(
        dir_, [] {},
        [&] {
            char *exe = nullptr;
            get_process_name(pid.c_str(), &exe);
            std::free(exe);
        });
    EXPECT_EQ(messages,
              std::set<std::string>{"unable to open allocate memory buf(get_process_name)"});
}

// ---- look_for_pid ----------------------------------------------------------

using LookForPid = PidfileTest;

TEST_F(LookForPid, NullNameFailsAtOnceWithoutAMessage) {
    char *content = nullptr;
    EXPECT_EQ(look_for_pid(&content, nullptr, "/"), -1);
    EXPECT_EQ(content, nullptr);
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookForPid, NullDirectoryIsLoggedAtInfoAndFails) {
    char *content = nullptr;
    EXPECT_EQ(look_for_pid(&content, "svc", nullptr), -1);
    EXPECT_EQ(content, nullptr);
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_INFO);
    EXPECT_EQ(entries[0].message, "pid file path cannot be null");
}

TEST_F(LookForPid, AMissingFileFailsAndLeavesThePointerAlone) {
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), -1);
    EXPECT_EQ(content, nullptr);
    EXPECT_TRUE(snap_.unchanged());
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookForPid, ReadsTheFileAndStripsEveryTrailingCarriageReturnAndLineFeed) {
    write_file(dir_.file("svc.pid"), "4242\r\n\n\r\r\n");
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "4242");
    // The rest of the 1024-byte block is zero.
    const std::string zeros(1024 - 4, '\0');
    EXPECT_EQ(std::memcmp(content + 4, zeros.data(), zeros.size()), 0);
    std::free(content);
    EXPECT_TRUE(snap_.unchanged());
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookForPid, ReadsThePidFileThroughASymbolicLink) {
    write_file(dir_.file("elsewhere"), "4242\n");
    ASSERT_EQ(symlink(dir_.file("elsewhere").c_str(), dir_.file("svc.pid").c_str()), 0);
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "4242");
    std::free(content);
    EXPECT_TRUE(snap_.unchanged());
    EXPECT_TRUE(logged().empty());
}

TEST_F(LookForPid, KeepsLineEndsInsideTheText) {
    write_file(dir_.file("svc.pid"), "12\r\n34\n");
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "12\r\n34");
    std::free(content);
}

TEST_F(LookForPid, AFileOfLineEndsOnlyGivesAnEmptyText) {
    write_file(dir_.file("svc.pid"), "\r\n");
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "");
    std::free(content);
}

TEST_F(LookForPid, ReadsAtMost256Bytes) {
    write_file(dir_.file("svc.pid"), std::string(300, '9'));
    char *content = nullptr;
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(&content, "svc", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(content), std::string(256, '9'));
    std::free(content);
}

TEST_F(LookForPid, TakesTheDirectoryVerbatim) {
    write_file(dir_.file("run-svc.pid"), "77\n");
    char *content = nullptr;
    const std::string prefix = dir_.path() + "/run-";
    EXPECT_EQ(look_for_pid(&content, "svc", prefix.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "77");
    std::free(content);

    // Without the closing slash the name is glued to the directory's.
    write_file(dir_.file("svc.pid"), "78\n");
    content = nullptr;
    EXPECT_EQ(look_for_pid(&content, "svc", dir_.path().c_str()), -1);
    EXPECT_EQ(content, nullptr);
}

TEST_F(LookForPid, ADirectoryLongerThanTheNameAllowanceIsStillRead) {
    std::string dir = dir_.path() + "/";
    for (int i = 0; i < 4; ++i) {
        dir += std::string(60, static_cast<char>('a' + i)) + "/";
        ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    }
    ASSERT_GT(dir.size(), 128U + 3U);
    write_file(dir + "s.pid", "5\n");
    char *content = nullptr;
    EXPECT_EQ(look_for_pid(&content, "s", dir.c_str()), 0);
    ASSERT_NE(content, nullptr);
    EXPECT_STREQ(content, "5");
    std::free(content);
}

TEST_F(LookForPid, AnEmptyFileReleasesTheCallersPointerVariableAndLeavesTheBlock) {
    write_file(dir_.file("svc.pid"), "");
    // The variable itself is handed to free, so it has to be a heap slot.
    auto slot = static_cast<char **>(std::malloc(sizeof(char *)));
    ASSERT_NE(slot, nullptr);
    *slot = nullptr;
    qx_test::watch_free(slot, sizeof(char *));
    const std::string dir = dir_.path() + "/";
    EXPECT_EQ(look_for_pid(slot, "svc", dir.c_str()), -1);
    ASSERT_TRUE(qx_test::watched_block_was_freed());
    // The slot held the new block when it was released; the block itself is
    // left behind, all zeros.
    char *block = nullptr;
    std::memcpy(&block, qx_test::watched_block_contents(), sizeof block);
    ASSERT_NE(block, nullptr);
    const std::string zeros(1024, '\0');
    EXPECT_EQ(std::memcmp(block, zeros.data(), zeros.size()), 0);
    std::free(block);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(LookForPid, OutOfMemoryPrintsIndexerDoneAndExitsWithStatusOne) {
    write_file(dir_.file("svc.pid"), "4242\n");
    const std::string dir = dir_.path() + "/";
    const auto messages = sweep_fatal_allocations(
        dir_, [] {},
        [&] {
            char *content = nullptr;
            if (look_for_pid(&content, "svc", dir.c_str()) == 0)
                std::free(content);
        });
    EXPECT_EQ(messages,
              (std::set<std::string>{"unable to allocate memory.. filepath(is_alreardy_running)",
                                     "unable to allocate memory buf(main)"}));
}

// ---- check_for_instance ----------------------------------------------------

class CheckForInstance : public PidfileTest {
  protected:
    std::string dir() const { return dir_.path() + "/"; }
    std::string pid_file() const { return dir() + own_name() + ".pid"; }
};

constexpr const char *untouched = "untouched";

TEST_F(CheckForInstance, WithoutAPidFileWritesTheOwnPidWithoutALineFeed) {
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), 0);
    EXPECT_EQ(read_file(pid_file()), own_pid());
    EXPECT_EQ(errmsg, untouched);
    EXPECT_TRUE(logged().empty());
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, AFileHoldingTheOwnPidAndCrLfIsRewrittenWithoutThem) {
    write_file(pid_file(), own_pid() + "\r\n");
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), 0);
    EXPECT_EQ(read_file(pid_file()), own_pid());
    EXPECT_EQ(errmsg, untouched);
    EXPECT_TRUE(logged().empty());
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, APidThatIsNoLongerAliveIsReplaced) {
    child_process child(std::vector<std::string>{QX_TEST_CHILD, "exit", "0"});
    child.wait_for_exit();
    write_file(pid_file(), pid_text(child.pid()));
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), 0);
    EXPECT_EQ(read_file(pid_file()), own_pid());
    EXPECT_EQ(errmsg, untouched);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, ALiveProcessOfAnotherProgramIsReplaced) {
    const std::string child_pid_file = dir_.file("child.pid");
    child_process child(sleeping_child(QX_TEST_CHILD, child_pid_file));
    ASSERT_TRUE(wait_for_pid_line(child_pid_file));
    write_file(pid_file(), pid_text(child.pid()) + "\n");
    fd_snapshot snap;
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), 0);
    EXPECT_EQ(read_file(pid_file()), own_pid());
    EXPECT_EQ(errmsg, untouched);
    EXPECT_TRUE(snap.unchanged());
}

TEST_F(CheckForInstance, ALiveProcessOfTheSameProgramIsAnotherInstance) {
    child_process twin; // a fork: the same executable
    write_file(pid_file(), pid_text(twin.pid()) + "\n");
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), -1);
    EXPECT_STREQ(errmsg, "Another Instance Running");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_ERR);
    EXPECT_EQ(entries[0].message, "Another instance running");
    EXPECT_EQ(read_file(pid_file()), pid_text(twin.pid()) + "\n");
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, TheSameBaseNameInOtherCapitalsIsAnotherInstance) {
    std::string upper = own_name();
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ASSERT_NE(upper, own_name());
    ASSERT_EQ(mkdir(dir_.file("bin").c_str(), 0755), 0);
    const std::string program = dir_.file("bin/" + upper);
    copy_executable(QX_TEST_CHILD, program);
    const std::string child_pid_file = dir_.file("child.pid");
    child_process other(sleeping_child(program, child_pid_file));
    ASSERT_TRUE(wait_for_pid_line(child_pid_file));
    write_file(pid_file(), pid_text(other.pid()));
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), -1);
    EXPECT_STREQ(errmsg, "Another Instance Running");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_ERR);
    EXPECT_EQ(entries[0].message, "Another instance running");
    EXPECT_EQ(read_file(pid_file()), pid_text(other.pid()));
}

TEST_F(CheckForInstance, AnotherInstanceIsReportedWithoutAMessagePointer) {
    child_process twin;
    write_file(pid_file(), pid_text(twin.pid()));
    EXPECT_EQ(check_for_instance(dir().c_str(), nullptr), -1);
    ASSERT_EQ(logged().size(), 1U);
    EXPECT_EQ(read_file(pid_file()), pid_text(twin.pid()));
}

TEST_F(CheckForInstance, AnEmptyPidFileIsRewritten) {
    write_file(pid_file(), "");
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), 0);
    EXPECT_EQ(read_file(pid_file()), own_pid());
    EXPECT_EQ(errmsg, untouched);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, APidFileThatCannotBeOpenedForWritingGivesMinusTwo) {
    // A directory in the PID file's place: readable as an empty file, but
    // not writable.
    ASSERT_EQ(mkdir(pid_file().c_str(), 0755), 0);
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), -2);
    EXPECT_STREQ(errmsg, "unable to open file for pid write");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_ERR);
    EXPECT_EQ(entries[0].message, "unable to open file " + pid_file() + " for pid write");
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(CheckForInstance, AMissingDirectoryGivesMinusTwo) {
    const std::string missing = dir_.file("missing/");
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(missing.c_str(), &errmsg), -2);
    EXPECT_STREQ(errmsg, "unable to open file for pid write");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].message,
              "unable to open file " + missing + own_name() + ".pid for pid write");
}

TEST_F(CheckForInstance, ANullDirectoryIsLoggedAndGivesMinusTwo) {
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(nullptr, &errmsg), -2);
    EXPECT_STREQ(errmsg, "unable to open file for pid write");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].priority, LOG_INFO);
    EXPECT_EQ(entries[0].message, "pid file path cannot be null");
    EXPECT_EQ(entries[1].priority, LOG_ERR);
}

TEST_F(CheckForInstance, AnUnknownOwnExecutableGivesOne) {
    // Without /proc (a root directory that lacks it) the own executable
    // cannot be read.
    if (getuid() != 0)
        GTEST_SKIP() << "needs chroot";
    const child_outcome outcome = run_in_child(dir_, [&] {
        if (chroot(dir_.path().c_str()) != 0 || chdir("/") != 0)
            return 10;
        const char *errmsg = untouched;
        const int rc = check_for_instance("/", &errmsg);
        if (rc != 1)
            return 11;
        if (std::strcmp(errmsg, "cannot check the program ID") != 0)
            return 12;
        return file_exists("/" + own_name() + ".pid") ? 13 : 0;
    });
    EXPECT_TRUE(outcome.exited_with(0)) << outcome.status;
    EXPECT_EQ(outcome.log,
              std::vector<std::string>{log_line(LOG_ERR, "cannot check the program ID")});
}

TEST_F(CheckForInstance, AnUnknownOwnExecutableWithoutAMessagePointerGivesOne) {
    if (getuid() != 0)
        GTEST_SKIP() << "needs chroot";
    const child_outcome outcome = run_in_child(dir_, [&] {
        if (chroot(dir_.path().c_str()) != 0 || chdir("/") != 0)
            return 10;
        return check_for_instance("/", nullptr) == 1 ? 0 : 11;
    });
    EXPECT_TRUE(outcome.exited_with(0)) << outcome.status;
}

// Makes a directory path (ending in '/') whose PID file path is exactly
// `length` bytes long.
std::string directory_for_pid_path_of(const temp_dir &base, std::size_t length) {
    const std::size_t suffix = own_name().size() + 4;
    std::string dir = base.path() + "/";
    while (dir.size() + suffix + 1 < length) {
        const std::size_t room = length - suffix - dir.size() - 1;
        const std::size_t part = std::min<std::size_t>(room, 100);
        dir += std::string(part, 'd') + "/";
        mkdir(dir.c_str(), 0700);
    }
    return dir;
}

TEST_F(CheckForInstance, APidFilePathOf255BytesIsWritten) {
    const std::string dir = directory_for_pid_path_of(dir_, 255);
    const std::string path = dir + own_name() + ".pid";
    ASSERT_EQ(path.size(), 255U);
    EXPECT_EQ(check_for_instance(dir.c_str(), nullptr), 0);
    EXPECT_EQ(read_file(path), own_pid());
}

TEST_F(CheckForInstance, APidFilePathLongerThan255BytesEndsTheProcess) {
    const std::string dir = directory_for_pid_path_of(dir_, 256);
    ASSERT_EQ((dir + own_name() + ".pid").size(), 256U);
    EXPECT_DEATH(check_for_instance(dir.c_str(), nullptr), "buffer overflow detected");
}

TEST_F(CheckForInstance, OutOfMemoryPrintsIndexerDoneAndExitsWithStatusOne) {
    // A PID file naming a live process of another program: every step runs.
    const std::string child_pid_file = dir_.file("child.pid");
    child_process child(sleeping_child(QX_TEST_CHILD, child_pid_file));
    ASSERT_TRUE(wait_for_pid_line(child_pid_file));
    const std::string recorded = pid_text(child.pid()) + "\n";
    const std::string dir = this->dir();
    const std::string path = pid_file();
    const auto messages = sweep_fatal_allocations(
        dir_, [&] { write_file(path, recorded); },
        [&] { check_for_instance(dir.c_str(), nullptr); });
    EXPECT_EQ(messages,
              (std::set<std::string>{"unable to open allocate memory buf(get_process_name)",
                                     "unable to allocate memory.. filepath(is_alreardy_running)",
                                     "unable to allocate memory buf(main)",
                                     "unable to open allocate memory filepath(main)"}));
}

// ---- get_process_name: executable paths of 1024 bytes and more -----------

using GetProcessNameOfALongPath = PidfileTest;

// A copy of the helper program under nested directories, so that its path
// is longer than 1024 bytes.
std::string copy_under_a_long_path(const temp_dir &dir, std::size_t at_least) {
    std::string path = dir.path();
    char component = 'a';
    while (path.size() + 1 + 200 + 1 + 16 < at_least) {
        path += "/" + std::string(200, component++);
        EXPECT_EQ(mkdir(path.c_str(), 0700), 0) << path;
    }
    path += "/" + std::string(at_least - path.size() - 1, 'x');
    copy_executable(QX_TEST_CHILD, path);
    return path;
}

TEST_F(GetProcessNameOfALongPath, KeepsTheFirst1024BytesOfTheLink) {
    const std::string program = copy_under_a_long_path(dir_, 1100);
    ASSERT_EQ(program.size(), 1100U);
    const std::string pid_path = dir_.file("child.pid");
    child_process child(sleeping_child(program, pid_path));
    ASSERT_TRUE(wait_for_pid_line(pid_path));
    ASSERT_EQ(link_target("/proc/" + pid_text(child.pid()) + "/exe"), program);

    char *exe = nullptr;
    EXPECT_EQ(get_process_name(pid_text(child.pid()).c_str(), &exe), 0);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(std::string(exe, 1024), program.substr(0, 1024));
    // The block holds a NUL after those bytes, so the text still ends.
    EXPECT_EQ(std::strlen(exe), 1024U);
    std::free(exe);
}

TEST_F(GetProcessNameOfALongPath, APathOfExactly1024BytesIsWhole) {
    const std::string program = copy_under_a_long_path(dir_, 1024);
    ASSERT_EQ(program.size(), 1024U);
    const std::string pid_path = dir_.file("child.pid");
    child_process child(sleeping_child(program, pid_path));
    ASSERT_TRUE(wait_for_pid_line(pid_path));

    char *exe = nullptr;
    EXPECT_EQ(get_process_name(pid_text(child.pid()).c_str(), &exe), 0);
    ASSERT_NE(exe, nullptr);
    EXPECT_EQ(std::string(exe), program);
    std::free(exe);
}

// ---- failed writes and hostile PID paths -----------------------------------------

using qx_test::io_fn;

class PidfileFaults : public CheckForInstance {
  protected:
    void TearDown() override {
        qx_test::stop_failing_io();
        qx_test::restrict_io_faults_to("");
        CheckForInstance::TearDown();
    }
    std::string path_ = dir_.file("service.pid");
};

TEST_F(PidfileFaults, WritePidfileFailsOnEveryFailedWriteOrCloseAndLeavesNoPidFile) {
    const std::string expected = own_pid() + "\n";
    for (const io_fn function : {io_fn::read, io_fn::write, io_fn::close}) {
        for (const int error : {ENOSPC, EIO}) {
            const long calls = qx_test::sweep_io_failures([&](long n) {
                SCOPED_TRACE(std::string(qx_test::io_fn_name(function)) + " #" + std::to_string(n) +
                             " fails with " + std::to_string(error));
                write_file(path_, "0\n"); // stale: read, removed, written anew
                qx_test::restrict_io_faults_to(path_);
                int result = 0, errno_after = 0;
                {
                    qx_test::failing_io arm(function, n, error);
                    errno = 0;
                    result = write_pidfile(path_.c_str());
                    errno_after = errno;
                }
                qx_test::restrict_io_faults_to("");
                EXPECT_TRUE(snap_.unchanged());
                // A file that cannot be read is replaced as a stale one is,
                // and the close of the file just read is of no account.
                if (!qx_test::io_call_was_failed() || function == io_fn::read ||
                    (function == io_fn::close && n == 0)) {
                    EXPECT_EQ(result, static_cast<int>(expected.size()));
                    EXPECT_EQ(read_file(path_), expected);
                    return;
                }
                EXPECT_EQ(result, -1);
                EXPECT_EQ(errno_after, error);
                EXPECT_FALSE(file_exists(path_));
            });
            EXPECT_EQ(calls, function == io_fn::close ? 2 : 1) << qx_test::io_fn_name(function);
        }
    }
}

TEST_F(PidfileFaults, WritePidfileFailsWithEnospcOnAShortWrite) {
    qx_test::restrict_io_faults_to(path_);
    qx_test::shorten_write(io_fn::write, 0);
    errno = 0;
    const int result = write_pidfile(path_.c_str());
    const int error = errno;
    qx_test::stop_failing_io();
    EXPECT_TRUE(qx_test::io_call_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOSPC);
    // Half a PID could name another process: nothing is left.
    EXPECT_FALSE(file_exists(path_));
}

TEST_F(PidfileFaults, CheckForInstanceGivesMinusTwoOnEveryFailedWriteOrClose) {
    for (const io_fn function : {io_fn::write, io_fn::close}) {
        for (const int error : {ENOSPC, EIO}) {
            const long calls = qx_test::sweep_io_failures([&](long n) {
                SCOPED_TRACE(std::string(qx_test::io_fn_name(function)) + " #" + std::to_string(n) +
                             " fails with " + std::to_string(error));
                std::remove(pid_file().c_str());
                qx_test::syslog_clear();
                qx_test::restrict_io_faults_to(pid_file());
                const char *errmsg = untouched;
                int result = 0;
                {
                    qx_test::failing_io arm(function, n, error);
                    result = check_for_instance(dir().c_str(), &errmsg);
                }
                qx_test::restrict_io_faults_to("");
                EXPECT_TRUE(snap_.unchanged());
                if (!qx_test::io_call_was_failed()) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(read_file(pid_file()), own_pid());
                    return;
                }
                EXPECT_EQ(result, -2);
                EXPECT_STREQ(errmsg, "unable to open file for pid write");
                const auto entries = logged();
                ASSERT_EQ(entries.size(), 1U);
                EXPECT_EQ(entries[0].priority, LOG_ERR);
                EXPECT_EQ(entries[0].message,
                          "unable to open file " + pid_file() + " for pid write");
                EXPECT_FALSE(file_exists(pid_file()));
            });
            EXPECT_EQ(calls, 1) << qx_test::io_fn_name(function);
        }
    }
}

TEST_F(PidfileFaults, CheckForInstanceGivesMinusTwoOnAShortWrite) {
    qx_test::restrict_io_faults_to(pid_file());
    qx_test::shorten_write(io_fn::write, 0);
    const char *errmsg = untouched;
    const int result = check_for_instance(dir().c_str(), &errmsg);
    qx_test::stop_failing_io();
    EXPECT_TRUE(qx_test::io_call_was_failed());
    EXPECT_EQ(result, -2);
    EXPECT_STREQ(errmsg, "unable to open file for pid write");
    EXPECT_FALSE(file_exists(pid_file()));
}

TEST_F(PidfileFaults, OnAFullDiskNeitherFunctionReportsSuccess) {
    const qx_test::scratch_outcome outcome =
        qx_test::run_on_scratch_fs(32 * 1024, [](const std::string &mount, std::string &report) {
            qx_test::fill_file_system(mount);
            const std::string path = mount + "/service.pid";
            errno = 0;
            const int written = write_pidfile(path.c_str());
            const int error = errno;
            if (written != -1 || error != ENOSPC || file_exists(path)) {
                report = "write_pidfile: " + std::to_string(written) + ", errno " +
                         std::to_string(error);
                return 1;
            }
            const std::string dir = mount + "/";
            const char *errmsg = nullptr;
            const int checked = check_for_instance(dir.c_str(), &errmsg);
            if (checked != -2 || file_exists(dir + own_name() + ".pid")) {
                report = "check_for_instance: " + std::to_string(checked);
                return 2;
            }
            return 0;
        });
    if (!outcome.ran)
        GTEST_SKIP() << "cannot mount a scratch file system here";
    EXPECT_EQ(outcome.result, 0) << outcome.details;
}

TEST_F(PidfileFaults, WritePidfileRefusesALinkAtThePidPathWithEloop) {
    const std::string victim = dir_.file("victim");
    write_file(victim, "0\n");
    ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
    errno = 0;
    EXPECT_EQ(write_pidfile(path_.c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(read_file(victim), "0\n");
    EXPECT_EQ(link_target(path_), victim);

    // A dangling link creates nothing where it points.
    const std::string nowhere = dir_.file("nowhere");
    ASSERT_EQ(unlink(path_.c_str()), 0);
    ASSERT_EQ(symlink(nowhere.c_str(), path_.c_str()), 0);
    errno = 0;
    EXPECT_EQ(write_pidfile(path_.c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(file_exists(nowhere));
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(PidfileFaults, WritePidfileRefusesADirectoryAtThePidPathWithEinval) {
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    errno = 0;
    EXPECT_EQ(write_pidfile(path_.c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(PidfileFaults, WritePidfileRefusesAFifoAtOnce) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0644), 0);
    // In a child with an alarm, so that a call that blocks fails the test
    // instead of hanging it.
    EXPECT_EXIT(
        {
            alarm(10);
            errno = 0;
            const int result = write_pidfile(path_.c_str());
            _exit(result == -1 && errno == EINVAL ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    struct stat st {};
    ASSERT_EQ(lstat(path_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(PidfileFaults, CheckForInstanceRefusesALinkAtThePidFile) {
    const std::string victim = dir_.file("victim");
    write_file(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), pid_file().c_str()), 0);
    const char *errmsg = untouched;
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), -2);
    EXPECT_STREQ(errmsg, "unable to open file for pid write");
    const auto entries = logged();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].message, "unable to open file " + pid_file() + " for pid write");
    EXPECT_EQ(read_file(victim), "precious");
    EXPECT_EQ(link_target(pid_file()), victim);

    const std::string nowhere = dir_.file("nowhere");
    ASSERT_EQ(unlink(pid_file().c_str()), 0);
    ASSERT_EQ(symlink(nowhere.c_str(), pid_file().c_str()), 0);
    EXPECT_EQ(check_for_instance(dir().c_str(), &errmsg), -2);
    EXPECT_FALSE(file_exists(nowhere));
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(PidfileFaults, CheckForInstanceRefusesAFifoAtOnce) {
    ASSERT_EQ(mkfifo(pid_file().c_str(), 0644), 0);
    EXPECT_EXIT(
        {
            alarm(10);
            const char *errmsg = nullptr;
            const int result = check_for_instance(dir().c_str(), &errmsg);
            _exit(result == -2 && errmsg != nullptr &&
                          std::strcmp(errmsg, "unable to open file for pid write") == 0
                      ? 0
                      : 1);
        },
        ::testing::ExitedWithCode(0), "");
    struct stat st {};
    ASSERT_EQ(lstat(pid_file().c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

} // namespace
