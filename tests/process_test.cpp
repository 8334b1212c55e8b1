#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <initializer_list>
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
#include "support/fd_snapshot.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

// ---- pipe2 and fork, interposed ------------------------------------------
//
// The test program defines pipe2 and fork, so the library's calls land here
// first. Unarmed they forward to the C library; armed they make one chosen
// pipe2 fail or make fork fail (or answer as the child would, without
// forking, for the death tests).

namespace {

enum class fork_behaviour { real, fail, pretend_child };

fork_behaviour fork_mode = fork_behaviour::real;
int pipe2_calls = 0;
int failing_pipe2_call = -1; // index among pipe2_calls, -1: none fails

using pipe2_fn = int (*)(int *, int);
using fork_fn = pid_t (*)();

pipe2_fn real_pipe2() {
    static const auto real = reinterpret_cast<pipe2_fn>(dlsym(RTLD_NEXT, "pipe2"));
    return real;
}

fork_fn real_fork() {
    static const auto real = reinterpret_cast<fork_fn>(dlsym(RTLD_NEXT, "fork"));
    return real;
}

void fail_pipe2_call(int index) {
    pipe2_calls = 0;
    failing_pipe2_call = index;
}

void reset_interposers() {
    fork_mode = fork_behaviour::real;
    failing_pipe2_call = -1;
    pipe2_calls = 0;
}

} // namespace

extern "C" int pipe2(int fds[2], int flags) {
    if (failing_pipe2_call >= 0 && pipe2_calls++ == failing_pipe2_call) {
        errno = EMFILE;
        return -1;
    }
    return real_pipe2()(fds, flags);
}

extern "C" pid_t fork() {
    switch (fork_mode) {
    case fork_behaviour::fail:
        errno = EAGAIN;
        return -1;
    case fork_behaviour::pretend_child:
        return 0;
    case fork_behaviour::real:
        break;
    }
    return real_fork()();
}

namespace {

using qx_test::fd_snapshot;
using qx_test::syslog_entries;
using qx_test::temp_dir;

// An argument vector for the helper child: its path, then the actions.
class child_argv {
  public:
    child_argv(std::initializer_list<std::string> actions) : words_{QX_TEST_CHILD} {
        words_.insert(words_.end(), actions.begin(), actions.end());
        for (auto &word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }
    child_argv(const child_argv &) = delete;
    child_argv &operator=(const child_argv &) = delete;
    char **get() { return pointers_.data(); }

  private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

bool sigchld_blocked() {
    sigset_t current;
    sigprocmask(SIG_SETMASK, nullptr, &current);
    return sigismember(&current, SIGCHLD) == 1;
}

std::string read_to_end(int fd) {
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

// Blocks until fd has something to read (or its writer has gone).
void wait_readable(int fd) {
    pollfd one{fd, POLLIN, 0};
    ASSERT_EQ(poll(&one, 1, -1), 1);
}

std::set<int> numbers_in(const std::string &line) {
    std::set<int> numbers;
    std::istringstream in(line);
    int n;
    while (in >> n)
        numbers.insert(n);
    return numbers;
}

std::vector<std::string> messages() {
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

int open_for_writing(const std::string &path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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
        (void)real_pipe2();
        (void)real_fork();
        qx_test::syslog_clear();
    }
    void TearDown() override {
        reset_interposers();
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

    fd_snapshot fds_;

  private:
    sigset_t saved_mask_{};
};

// ---- opening: modes and pipes --------------------------------------------

TEST_F(Process, ReadWriteModeDrivesAnEchoingChildLineByLine) {
    child_argv argv{"echo"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    EXPECT_GE(process_read_fd(proc), 0);
    EXPECT_GE(process_write_fd(proc), 0);
    EXPECT_GT(proc->pid, 0);

    char buf[10];
    ASSERT_EQ(process_puts(proc, "abc", 3), 0);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 3);
    EXPECT_STREQ(buf, "abc");
    ASSERT_EQ(process_puts(proc, "defgh", 5), 0);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "defgh");

    close_expecting(proc, 0);
    EXPECT_TRUE(messages().empty());
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, WriteOnlyModeLeavesTheChildOutputWhereTheCallersGoes) {
    temp_dir dir;
    const int file = open_for_writing(dir.file("stdout"));
    ASSERT_GE(file, 0);
    child_argv argv{"echoline", "out", "done"};
    process *proc;
    {
        redirected out(STDOUT_FILENO, file);
        proc = process_open(argv.get(), "w");
    }
    close(file);
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_read_fd(proc), -1);
    EXPECT_GE(process_write_fd(proc), 0);

    char buf[10];
    std::memset(buf, 'Z', sizeof buf);
    errno = 0;
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), -1); // a read of descriptor -1
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(buf[0], 'Z');

    ASSERT_EQ(process_puts(proc, "hi", 2), 0);
    close_expecting(proc, 0);
    EXPECT_EQ(qx_test::read_file(dir.file("stdout")), "hi\ndone");
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ReadOnlyModeHasNoWritePipe) {
    child_argv argv{"out", "only output\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    EXPECT_GE(process_read_fd(proc), 0);
    EXPECT_EQ(process_write_fd(proc), -1);
    char buf[32];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 11);
    EXPECT_STREQ(buf, "only output");
    close_expecting(proc, 0);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ModeCountsOnlyTheLettersRAndWAnywhereInIt) {
    struct expectation {
        const char *mode;
        bool read;
        bool write;
    };
    for (const expectation &e : {expectation{"xwyrz", true, true}, expectation{"wr", true, true},
                                 expectation{"rb", true, false}, expectation{"aw+", false, true},
                                 expectation{"a+", false, false}, expectation{"", false, false},
                                 expectation{nullptr, false, false}}) {
        SCOPED_TRACE(e.mode == nullptr ? "NULL" : e.mode);
        child_argv argv{"exit", "4"};
        process *proc = process_open(argv.get(), e.mode);
        ASSERT_NE(proc, nullptr);
        EXPECT_EQ(process_read_fd(proc) >= 0, e.read);
        EXPECT_EQ(process_write_fd(proc) >= 0, e.write);
        close_expecting(proc, 4);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, OutputArrivesByteForByteIncludingNulAndHighBytes) {
    child_argv argv{"out", "a\\0b\\xff\\r\\n", "outn", "70000", "out", "\\0"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    std::string expected("a\0b\xff\r\n", 6);
    for (int i = 0; i < 70000; ++i)
        expected.push_back(static_cast<char>('a' + i % 26));
    expected.push_back('\0');
    EXPECT_EQ(read_to_end(process_read_fd(proc)), expected);
    close_expecting(proc, 0);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ProgramNameIsUsedAsGivenWithoutSearchingPath) {
    temp_dir dir;
    const std::string child_path = QX_TEST_CHILD;
    const std::string child_dir = child_path.substr(0, child_path.rfind('/'));
    const std::string child_name = child_path.substr(child_path.rfind('/') + 1);
    const char *old_path = std::getenv("PATH");
    const std::string saved_path = old_path != nullptr ? old_path : "";
    char old_cwd[4096];
    ASSERT_NE(getcwd(old_cwd, sizeof old_cwd), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    setenv("PATH", child_dir.c_str(), 1);

    std::string name = child_name;
    std::string exit_word = "exit";
    std::string code = "3";
    char *words[] = {name.data(), exit_word.data(), code.data(), nullptr};
    process *proc = process_open(words, nullptr);

    setenv("PATH", saved_path.c_str(), 1);
    ASSERT_EQ(chdir(old_cwd), 0);
    ASSERT_NE(proc, nullptr);
    close_expecting(proc, 255); // found on PATH it would have exited with 3
}

TEST_F(Process, ChildWhoseProgramCannotBeStartedExitsWith255) {
    char missing[] = "/nonexistent/qx-no-such-program";
    char *argv[] = {missing, nullptr};
    process *proc = process_open(argv, "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 0); // nothing reached the pipe
    EXPECT_EQ(buf[0], 'Z');
    close_expecting(proc, 255);
    EXPECT_TRUE(messages().empty()); // the message is logged by the child
    EXPECT_TRUE(fds_.unchanged());
}

// ---- descriptor flags ------------------------------------------------------

bool close_on_exec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

bool non_blocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

TEST_F(Process, PlainOpenersMakeTheCallersEndsCloseOnExecButNotNonBlocking) {
    child_argv argv{"echo"};
    for (bool on_stderr : {false, true}) {
        process *proc =
            on_stderr ? process_open_stderr(argv.get(), "rw") : process_open(argv.get(), "rw");
        ASSERT_NE(proc, nullptr);
        EXPECT_TRUE(close_on_exec(process_read_fd(proc)));
        EXPECT_TRUE(close_on_exec(process_write_fd(proc)));
        EXPECT_FALSE(non_blocking(process_read_fd(proc)));
        EXPECT_FALSE(non_blocking(process_write_fd(proc)));
        close_expecting(proc, 0);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, OpenWithFlagsAlwaysSetsCloseOnExecAndNonBlockingPerPipe) {
    child_argv argv{"echo"};
    for (int read_nb : {0, 1})
        for (int write_nb : {0, 1}) {
            SCOPED_TRACE(std::to_string(read_nb) + std::to_string(write_nb));
            process *proc = process_open_with_flags(argv.get(), "rw", 0, 0, read_nb, write_nb);
            ASSERT_NE(proc, nullptr);
            EXPECT_TRUE(close_on_exec(process_read_fd(proc)));
            EXPECT_TRUE(close_on_exec(process_write_fd(proc)));
            EXPECT_EQ(non_blocking(process_read_fd(proc)), read_nb != 0);
            EXPECT_EQ(non_blocking(process_write_fd(proc)), write_nb != 0);
            close_expecting(proc, 0);
        }
    EXPECT_TRUE(fds_.unchanged());
}

// Reads the child's one-line answer from a pipe that may be non-blocking.
std::string answer_of(process *proc) {
    wait_readable(process_read_fd(proc));
    char buf[64];
    const int n = process_gets(proc, buf, sizeof buf);
    return n < 0 ? "read error" : std::string(buf, static_cast<std::size_t>(n));
}

TEST_F(Process, NonBlockingAppliesToTheChildsEndOfThePipeToo) {
    child_argv stdout_flag{"nonblocking", "1"};
    child_argv stdin_flag{"nonblocking", "0"};
    struct expectation {
        char **argv;
        int read_nb;
        int write_nb;
        const char *answer;
    };
    for (const expectation &e :
         {expectation{stdout_flag.get(), 1, 0, "1"}, expectation{stdout_flag.get(), 0, 1, "0"},
          expectation{stdin_flag.get(), 0, 1, "1"}, expectation{stdin_flag.get(), 1, 0, "0"}}) {
        process *proc = process_open_with_flags(e.argv, "rw", 0, 0, e.read_nb, e.write_nb);
        ASSERT_NE(proc, nullptr);
        EXPECT_EQ(answer_of(proc), e.answer);
        close_expecting(proc, 0);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, NoOpenersDescriptorsReachALaterChild) {
    child_argv quiet_echo{"echo"};
    child_argv list{"fds"};
    char buf[4096];

    // A child started later must not hold the earlier child's input open,
    // or that child would never see end of input.
    process *plain = process_open(quiet_echo.get(), "w");
    ASSERT_NE(plain, nullptr);
    process *lister = process_open(list.get(), "r");
    ASSERT_NE(lister, nullptr);
    ASSERT_GT(process_gets(lister, buf, sizeof buf), 0);
    EXPECT_EQ(numbers_in(buf).count(process_write_fd(plain)), 0U) << buf;
    EXPECT_EQ(numbers_in(buf).count(process_read_fd(lister)), 0U) << buf;
    close_expecting(lister, 0);
    close_expecting(plain, 0);

    process *flagged = process_open_with_flags(quiet_echo.get(), "w", 0, 0, 0, 0);
    ASSERT_NE(flagged, nullptr);
    lister = process_open_with_flags(list.get(), "r", 0, 0, 0, 0);
    ASSERT_NE(lister, nullptr);
    ASSERT_GT(process_gets(lister, buf, sizeof buf), 0);
    EXPECT_EQ(numbers_in(buf).count(process_write_fd(flagged)), 0U) << buf;
    close_expecting(lister, 0);
    close_expecting(flagged, 0);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ChildHoldsItsStandardDescriptorsAndNoPipeEndBeyondThem) {
    // What the child may inherit: the test's descriptors without close-on-exec.
    std::set<int> expected{0, 1, 2};
    for (int fd : qx_test::open_descriptors())
        if (!close_on_exec(fd))
            expected.insert(fd);
    child_argv list{"fds"};
    for (const char *mode : {"r", "rw"}) {
        SCOPED_TRACE(mode);
        process *proc = process_open(list.get(), mode);
        ASSERT_NE(proc, nullptr);
        char buf[4096];
        ASSERT_GT(process_gets(proc, buf, sizeof buf), 0);
        EXPECT_EQ(numbers_in(buf), expected) << buf;
        close_expecting(proc, 0);
    }
    EXPECT_TRUE(fds_.unchanged());
}

// ---- which stream the read pipe carries ------------------------------------

TEST_F(Process, OpenStderrReadsStandardErrorAndLeavesStandardOutputInherited) {
    temp_dir dir;
    const int file = open_for_writing(dir.file("stdout"));
    ASSERT_GE(file, 0);
    child_argv argv{"out", "to stdout", "err", "to stderr\\n"};
    process *proc;
    {
        redirected out(STDOUT_FILENO, file);
        proc = process_open_stderr(argv.get(), "r");
    }
    close(file);
    ASSERT_NE(proc, nullptr);
    char buf[32];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 9);
    EXPECT_STREQ(buf, "to stderr");
    close_expecting(proc, 0);
    EXPECT_EQ(qx_test::read_file(dir.file("stdout")), "to stdout");
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, OpenLeavesStandardErrorInherited) {
    temp_dir dir;
    const int file = open_for_writing(dir.file("stderr"));
    ASSERT_GE(file, 0);
    child_argv argv{"out", "to stdout\\n", "err", "to stderr"};
    process *proc;
    {
        redirected err(STDERR_FILENO, file);
        proc = process_open(argv.get(), "r");
    }
    close(file);
    ASSERT_NE(proc, nullptr);
    char buf[32];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 9);
    EXPECT_STREQ(buf, "to stdout");
    close_expecting(proc, 0);
    EXPECT_EQ(qx_test::read_file(dir.file("stderr")), "to stderr");
}

TEST_F(Process, NullOtherSendsTheStreamNotReadToDevNull) {
    temp_dir dir;
    for (int use_stderr : {0, 1})
        for (int null_other : {0, 1}) {
            SCOPED_TRACE(std::to_string(use_stderr) + std::to_string(null_other));
            const int file = open_for_writing(dir.file("other"));
            ASSERT_GE(file, 0);
            child_argv argv{"out", "O\\n", "err", "E\\n"};
            process *proc;
            {
                // The stream that is not read goes where the test's own goes.
                redirected other(use_stderr != 0 ? STDOUT_FILENO : STDERR_FILENO, file);
                proc = process_open_with_flags(argv.get(), "r", use_stderr, null_other, 0, 0);
            }
            close(file);
            ASSERT_NE(proc, nullptr);
            char buf[8];
            EXPECT_EQ(process_gets(proc, buf, sizeof buf), 1);
            EXPECT_STREQ(buf, use_stderr != 0 ? "E" : "O");
            close_expecting(proc, 0);
            const std::string inherited = use_stderr != 0 ? "O\n" : "E\n";
            EXPECT_EQ(qx_test::read_file(dir.file("other")), null_other != 0 ? "" : inherited);
        }
    EXPECT_TRUE(fds_.unchanged());
}

// ---- the signal mask ---------------------------------------------------------

TEST_F(Process, EveryOpenerLeavesSigchldBlockedInTheCaller) {
    child_argv argv{"exit", "0"};
    for (int opener = 0; opener < 3; ++opener) {
        SCOPED_TRACE(opener);
        ASSERT_FALSE(sigchld_blocked());
        process *proc = opener == 0   ? process_open(argv.get(), "r")
                        : opener == 1 ? process_open_stderr(argv.get(), "r")
                                      : process_open_with_flags(argv.get(), "r", 0, 1, 1, 1);
        ASSERT_NE(proc, nullptr);
        EXPECT_TRUE(sigchld_blocked());
        close_expecting(proc, 0);
        EXPECT_TRUE(sigchld_blocked()); // closing does not restore it either
        unblock_sigchld();
    }
}

TEST_F(Process, ChildStartsWithSigchldBlocked) {
    child_argv argv{"blocked", std::to_string(SIGCHLD), "blocked", std::to_string(SIGUSR1)};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(read_to_end(process_read_fd(proc)), "1\n0\n");
    close_expecting(proc, 0);
}

TEST_F(Process, OtherBlockedSignalsOfTheCallerStayBlocked) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, nullptr);
    child_argv argv{"exit", "0"};
    process *proc = process_open(argv.get(), nullptr);
    ASSERT_NE(proc, nullptr);
    sigset_t current;
    sigprocmask(SIG_SETMASK, nullptr, &current);
    EXPECT_EQ(sigismember(&current, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&current, SIGCHLD), 1);
    close_expecting(proc, 0);
}

// ---- failures while opening ------------------------------------------------

TEST_F(Process, ReadPipeFailureLogsBothMessagesAndReturnsNull) {
    child_argv argv{"exit", "0"};
    fail_pipe2_call(0);
    errno = 0;
    EXPECT_EQ(process_open(argv.get(), "rw"), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked()); // blocked before the first pipe was tried
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, WritePipeFailureClosesTheReadPipeAndLogsBothMessages) {
    child_argv argv{"exit", "0"};
    fail_pipe2_call(1);
    EXPECT_EQ(process_open_with_flags(argv.get(), "rw", 0, 0, 0, 0), nullptr);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked());
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, WriteOnlyPipeFailureLogsBothMessages) {
    child_argv argv{"exit", "0"};
    fail_pipe2_call(0);
    EXPECT_EQ(process_open_stderr(argv.get(), "w"), nullptr);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ForkFailureWithOnlyAReadPipeClosesItAndLogsTheSpawnMessage) {
    child_argv argv{"exit", "0"};
    fork_mode = fork_behaviour::fail;
    EXPECT_EQ(process_open(argv.get(), "r"), nullptr);
    fork_mode = fork_behaviour::real;
    EXPECT_EQ(messages(), (strings{"error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked());
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ForkFailureWithAWritePipeLeavesItsWriteEndOpen) {
    child_argv argv{"exit", "0"};
    for (const char *mode : {"w", "rw"}) {
        SCOPED_TRACE(mode);
        qx_test::syslog_clear();
        const std::set<int> before = qx_test::open_descriptors();
        fork_mode = fork_behaviour::fail;
        EXPECT_EQ(process_open(argv.get(), mode), nullptr);
        fork_mode = fork_behaviour::real;
        EXPECT_EQ(messages(), (strings{"error spawning child process"}));

        // The one deliberate leak: the write pipe's write end stays open
        // (its read end is closed twice instead).
        std::set<int> added;
        for (int fd : qx_test::open_descriptors())
            if (before.count(fd) == 0)
                added.insert(fd);
        ASSERT_EQ(added.size(), 1U);
        const int leaked = *added.begin();
        struct stat st {};
        ASSERT_EQ(fstat(leaked, &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode));
        EXPECT_EQ(fcntl(leaked, F_GETFL) & O_ACCMODE, O_WRONLY);
        close(leaked);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, RecordAllocationFailureStopsAndReapsTheChild) {
    child_argv argv{"sleep", "30"};
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_test::syslog_clear();
        process *proc = qx_test::call_with_failing_allocation(
            n, [&] { return process_open(argv.get(), "rw"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(proc, nullptr);
            EXPECT_EQ(messages(), (strings{"error spawning child process"}));
            int status;
            EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1); // no child left behind
            EXPECT_EQ(errno, ECHILD);
        } else {
            ASSERT_NE(proc, nullptr);
            const pid_t pid = proc->pid;
            EXPECT_EQ(process_signal(proc, SIGKILL), 0);
            int exitcode = 77;
            EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
            EXPECT_EQ(exitcode, 77);
        }
    });
    EXPECT_EQ(allocations, 1); // the record is the only allocation
    EXPECT_TRUE(fds_.unchanged());
}

// ---- process_gets ----------------------------------------------------------

TEST_F(Process, GetsOfALongLineStoresWhatFitsAndReturnsTheFullLength) {
    child_argv argv{"out", "abcdefghijklmnopqrst\\nnext\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, 8), 20);
    EXPECT_EQ(std::string(buf, 8), std::string("abcdefg\0", 8));
    EXPECT_EQ(process_gets(proc, buf, 8), 4);
    EXPECT_STREQ(buf, "next");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsOfALineThatExactlyFillsTheBufferTakesItsLineFeed) {
    child_argv argv{"out", "1234567\\nnext\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, 8), 7);
    EXPECT_STREQ(buf, "1234567");
    EXPECT_EQ(process_gets(proc, buf, 8), 4);
    EXPECT_STREQ(buf, "next");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsOfAnEmptyLineLeavesTheLineFeedInTheFirstByte) {
    child_argv argv{"out", "\\nx\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, 4), "\nZZZ");
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "x");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsAtEndOfInputLeavesTheBufferAsItWas) {
    child_argv argv{"out", "last"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 4); // ended by end of input
    EXPECT_EQ(std::string(buf, 6), std::string("last\0Z", 6));
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, 8), "ZZZZZZZZ");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsOfALongLastLineWithoutLineFeedCountsToEndOfInput) {
    child_argv argv{"out", "abcdefghij"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[4];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 10);
    EXPECT_STREQ(buf, "abc");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsWithSizeZeroDiscardsTheLineWithoutTouchingTheBuffer) {
    child_argv argv{"out", "twelve chars\\n\\nrest\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_gets(proc, nullptr, 0), 12);
    EXPECT_EQ(process_gets(proc, nullptr, 0), 0);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "rest");
    EXPECT_EQ(process_gets(proc, nullptr, 0), 0); // end of input
    close_expecting(proc, 0);
}

TEST_F(Process, GetsWithSizeOneStoresOnlyANulAndDiscardsTheLine) {
    child_argv argv{"out", "abcde\\nrest\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[3] = {'Z', 'Z', 'Z'};
    EXPECT_EQ(process_gets(proc, buf, 1), 5);
    EXPECT_EQ(std::string(buf, 3), std::string("\0ZZ", 3));
    EXPECT_EQ(process_gets(proc, buf, 3), 4);
    EXPECT_STREQ(buf, "re");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsTakesNothingPastTheLineFeedOutOfThePipe) {
    child_argv argv{"out", "first\\nsecond\\nthird"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[16];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "first");
    EXPECT_EQ(read_to_end(process_read_fd(proc)), "second\nthird");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsKeepsNulBytesInsideTheLine) {
    child_argv argv{"out", "a\\0b\\n"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 4), std::string("a\0b\0", 4));
    close_expecting(proc, 0);
}

TEST_F(Process, GetsReadErrorAfterSomeBytesTerminatesThemAndReturnsMinusOne) {
    child_argv argv{"out", "abc", "sleep", "30"};
    process *proc = process_open_with_flags(argv.get(), "r", 0, 0, 1, 0);
    ASSERT_NE(proc, nullptr);
    wait_readable(process_read_fd(proc));
    char buf[8];
    std::memset(buf, 'Z', sizeof buf);
    errno = 0;
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(std::string(buf, 5), std::string("abc\0Z", 5));

    // Nothing stored: the buffer stays as it was.
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), -1);
    EXPECT_EQ(std::string(buf, 8), "ZZZZZZZZ");
    EXPECT_EQ(process_gets(proc, nullptr, 0), -1);
    EXPECT_EQ(process_gets(proc, buf, 1), -1);
    EXPECT_EQ(buf[0], '\0');

    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGKILL), 0);
    int exitcode = 77;
    EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
    EXPECT_EQ(exitcode, 77);
}

TEST_F(Process, GetsReadErrorWhileDiscardingALongLineStillTerminatesTheBuffer) {
    child_argv argv{"out", "abcdefgh", "sleep", "30"};
    process *proc = process_open_with_flags(argv.get(), "r", 0, 0, 1, 0);
    ASSERT_NE(proc, nullptr);
    wait_readable(process_read_fd(proc));
    char buf[4];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), -1);
    EXPECT_STREQ(buf, "abc");
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGKILL), 0);
    EXPECT_EQ(process_close(proc, nullptr, 1), pid);
}

// ---- process_puts ----------------------------------------------------------

TEST_F(Process, PutsSendsExactlyLenBytesAndALineFeed) {
    child_argv argv{"echo"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_puts(proc, "abcdef", 3), 0);
    EXPECT_EQ(process_puts(proc, "x\0y", 3), 0);
    process_close_write(proc);
    EXPECT_EQ(read_to_end(process_read_fd(proc)), std::string("abc\nx\0y\n", 8));
    close_expecting(proc, 0);
    EXPECT_TRUE(messages().empty());
}

TEST_F(Process, PutsRefusesANullBufferOrZeroLengthWithoutAMessage) {
    child_argv argv{"echo"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_puts(proc, nullptr, 3), -1);
    EXPECT_EQ(process_puts(proc, "abc", 0), -1);
    EXPECT_TRUE(messages().empty());
    process_close_write(proc);
    EXPECT_EQ(read_to_end(process_read_fd(proc)), ""); // nothing was written
    close_expecting(proc, 0);
}

TEST_F(Process, PutsWithoutAWritePipeLogsErrorSendingCommand) {
    child_argv argv{"exit", "0"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    errno = 0;
    EXPECT_EQ(process_puts(proc, "abc", 3), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(messages(), (strings{"error sending command"}));
    close_expecting(proc, 0);
}

TEST_F(Process, PutsIntoAFullNonBlockingPipeLogsErrorSendingCommand) {
    child_argv argv{"sleep", "30"};
    process *proc = process_open_with_flags(argv.get(), "w", 0, 0, 0, 1);
    ASSERT_NE(proc, nullptr);
    const int capacity = fcntl(process_write_fd(proc), F_GETPIPE_SZ);
    ASSERT_GT(capacity, 0);
    const std::string fill(static_cast<std::size_t>(capacity), 'f');
    ASSERT_EQ(write(process_write_fd(proc), fill.data(), fill.size()), capacity);
    EXPECT_EQ(process_puts(proc, "abc", 3), -1);
    EXPECT_EQ(messages(), (strings{"error sending command"}));
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGKILL), 0);
    EXPECT_EQ(process_close(proc, nullptr, 1), pid);
}

TEST_F(Process, PutsCountsAShortWriteAsSentAndThenFailsOnTheLineBreak) {
    child_argv argv{"sleep", "30"};
    process *proc = process_open_with_flags(argv.get(), "w", 0, 0, 0, 1);
    ASSERT_NE(proc, nullptr);
    const int capacity = fcntl(process_write_fd(proc), F_GETPIPE_SZ);
    ASSERT_GT(capacity, 0);
    // More than the pipe holds: the first write is short and not continued,
    // so the line break finds the pipe full.
    const std::string line(static_cast<std::size_t>(capacity) + 100, 'x');
    EXPECT_EQ(process_puts(proc, line.data(), static_cast<int>(line.size())), -1);
    EXPECT_EQ(messages(), (strings{"error sending line break"}));
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGKILL), 0);
    EXPECT_EQ(process_close(proc, nullptr, 1), pid);
}

// ---- closing, exit codes and signals ---------------------------------------

TEST_F(Process, CloseGivesTheExitStatusByte) {
    for (int code : {0, 1, 42, 254}) {
        child_argv argv{"exit", std::to_string(code)};
        process *proc = process_open(argv.get(), "rw");
        ASSERT_NE(proc, nullptr);
        close_expecting(proc, code);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseAcceptsANullExitCode) {
    child_argv argv{"exit", "9"};
    process *proc = process_open(argv.get(), nullptr);
    ASSERT_NE(proc, nullptr);
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_close(proc, nullptr, 1), pid);
}

TEST_F(Process, CloseShutsTheWritePipeFirstSoTheChildSeesEndOfInput) {
    child_argv argv{"echo", "exit", "6"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    close_expecting(proc, 6); // the child would wait for input for ever otherwise
}

TEST_F(Process, CloseWithoutWaitingOnARunningChildReturnsZeroAndKeepsTheRecord) {
    // The child waits for a line on a pipe the test holds, so it runs until
    // the test lets it go; its standard output goes to /dev/null.
    int gate[2];
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    child_argv argv{"echoline", "exit", "3"};
    process *proc;
    {
        redirected in(STDIN_FILENO, gate[0]);
        proc = process_open_with_flags(argv.get(), "r", 1, 1, 0, 0);
    }
    close(gate[0]);
    ASSERT_NE(proc, nullptr);
    const int read_fd = process_read_fd(proc);
    ASSERT_GE(read_fd, 0);

    int exitcode = 77;
    EXPECT_EQ(process_close(proc, &exitcode, 0), 0);
    EXPECT_EQ(exitcode, 77);
    EXPECT_EQ(process_read_fd(proc), -1); // both sides closed, the record kept
    EXPECT_EQ(process_write_fd(proc), -1);
    EXPECT_EQ(fcntl(read_fd, F_GETFD), -1);

    ASSERT_EQ(write(gate[1], "go\n", 3), 3);
    close(gate[1]);
    close_expecting(proc, 3);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseOfAChildKilledBySignalLeavesTheExitCodeAlone) {
    child_argv argv{"sleep", "30"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGKILL), 0);
    int exitcode = 77;
    EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
    EXPECT_EQ(exitcode, 77);

    child_argv self_killed{"signal", std::to_string(SIGTERM)};
    proc = process_open(self_killed.get(), "r");
    ASSERT_NE(proc, nullptr);
    const pid_t second = proc->pid;
    EXPECT_EQ(process_close(proc, &exitcode, 1), second);
    EXPECT_EQ(exitcode, 77);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseReportsAWaitErrorAndKeepsTheRecord) {
    child_argv argv{"exit", "5"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    int status = 0;
    ASSERT_EQ(waitpid(proc->pid, &status, 0), proc->pid); // reaped behind its back
    int exitcode = 77;
    errno = 0;
    EXPECT_EQ(process_close(proc, &exitcode, 1), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(exitcode, 77);
    EXPECT_EQ(process_read_fd(proc), -1);
    EXPECT_EQ(process_write_fd(proc), -1);
    std::free(proc); // nothing is left to reap, so the caller frees it
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, SignalGivesTheResultOfKill) {
    child_argv argv{"out", "ready\n", "sleep", "30"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    // SIGTERM can be caught, so it is sent only once the child runs the
    // program: a copy of this process between fork and exec may still hold
    // it (valgrind's does, and loses it in the exec).
    char line[16];
    ASSERT_EQ(process_gets(proc, line, sizeof line), 5);
    EXPECT_EQ(std::string(line, 5), "ready");
    EXPECT_EQ(process_signal(proc, 0), 0);
    errno = 0;
    EXPECT_EQ(process_signal(proc, 1000), -1);
    EXPECT_EQ(errno, EINVAL);
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_signal(proc, SIGTERM), 0);
    int exitcode = 77;
    EXPECT_EQ(process_close(proc, &exitcode, 1), pid);
    EXPECT_EQ(exitcode, 77);
}

TEST_F(Process, CloseWriteGivesEndOfInputWhileTheAnswerIsStillRead) {
    child_argv argv{"echo"};
    process *proc = process_open(argv.get(), "rw");
    ASSERT_NE(proc, nullptr);
    ASSERT_EQ(process_puts(proc, "question", 8), 0);
    process_close_write(proc);
    EXPECT_EQ(process_write_fd(proc), -1);
    process_close_write(proc); // a second close changes nothing
    EXPECT_EQ(process_write_fd(proc), -1);
    char buf[16];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 8);
    EXPECT_STREQ(buf, "question");
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 0);
    EXPECT_EQ(buf[0], 'Z');
    close_expecting(proc, 0);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseReadClosesTheReadSideOnce) {
    child_argv argv{"exit", "0"};
    process *proc = process_open(argv.get(), "r");
    ASSERT_NE(proc, nullptr);
    const int fd = process_read_fd(proc);
    process_close_read(proc);
    EXPECT_EQ(process_read_fd(proc), -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    process_close_read(proc);
    EXPECT_EQ(process_read_fd(proc), -1);
    close_expecting(proc, 0);
    EXPECT_TRUE(fds_.unchanged());
}

// ---- the child's exit path ---------------------------------------------------

void print_captured_syslog() {
    for (const auto &entry : syslog_entries())
        std::fprintf(stderr, "syslog %d %s\n", entry.priority, entry.message.c_str());
}

// Runs the child's side of an open whose execv fails, in this process.
void open_missing_program_as_the_child() {
    // The capture first: its store must outlive the exit handler.
    qx_test::syslog_clear();
    std::atexit(print_captured_syslog);
    fork_mode = fork_behaviour::pretend_child;
    char missing[] = "/nonexistent/qx-no-such-program";
    char *argv[] = {missing, nullptr};
    process_open(argv, nullptr);
    std::fputs("process_open returned in the child\n", stderr);
    _exit(0);
}

TEST(ProcessDeathTest, ChildWhoseExecvFailsLogsItAndExitsThroughTheExitHandlers) {
    // fork answers as the child would, so this process takes the child's
    // path; the exit handler shows what was logged, which also proves that
    // the full exit ran.
    EXPECT_EXIT(open_missing_program_as_the_child(), ::testing::ExitedWithCode(255),
                "syslog 3 execv failure: 2 \\(No such file or directory\\)");
}

} // namespace
