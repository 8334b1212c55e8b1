// Opening a child: the modes and their pipes, the flags of the descriptors,
// which stream the read pipe carries, and the signal mask.
#include "process/fixture.hpp"

namespace process_test {
namespace {

// ---- opening: modes and pipes --------------------------------------------

TEST_F(Process, ReadWriteModeDrivesAnEchoingChildLineByLine) {
    child_command argv({"echo"});
    process *proc = process_open(argv.argv(), "rw");
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
    child_command argv({"echoline", "out", "done"});
    process *proc = open_redirected(STDOUT_FILENO, dir.file("stdout"),
                                    [&] { return process_open(argv.argv(), "w"); });
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
    child_command argv({"out", "only output\n"});
    process *proc = process_open(argv.argv(), "r");
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
        child_command argv({"exit", "4"});
        process *proc = process_open(argv.argv(), e.mode);
        ASSERT_NE(proc, nullptr);
        EXPECT_EQ(process_read_fd(proc) >= 0, e.read);
        EXPECT_EQ(process_write_fd(proc) >= 0, e.write);
        close_expecting(proc, 4);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, OutputArrivesByteForByteIncludingNulAndHighBytes) {
    child_command argv({"out", "a\\0b\\xff\\r\\n", "outn", "70000", "out", "\\0"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    std::string expected("a\0b\xff\r\n", 6);
    for (int i = 0; i < 70000; ++i)
        expected.push_back(static_cast<char>('a' + i % 26));
    expected.push_back('\0');
    EXPECT_EQ(read_all(process_read_fd(proc)), expected);
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
    child_command argv({"echo"});
    for (bool on_stderr : {false, true}) {
        process *proc =
            on_stderr ? process_open_stderr(argv.argv(), "rw") : process_open(argv.argv(), "rw");
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
    child_command argv({"echo"});
    for (int read_nb : {0, 1})
        for (int write_nb : {0, 1}) {
            SCOPED_TRACE(std::to_string(read_nb) + std::to_string(write_nb));
            process *proc = process_open_with_flags(argv.argv(), "rw", 0, 0, read_nb, write_nb);
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
    child_command stdout_flag({"nonblocking", "1"});
    child_command stdin_flag({"nonblocking", "0"});
    struct expectation {
        char **argv;
        int read_nb;
        int write_nb;
        const char *answer;
    };
    for (const expectation &e :
         {expectation{stdout_flag.argv(), 1, 0, "1"}, expectation{stdout_flag.argv(), 0, 1, "0"},
          expectation{stdin_flag.argv(), 0, 1, "1"}, expectation{stdin_flag.argv(), 1, 0, "0"}}) {
        process *proc = process_open_with_flags(e.argv, "rw", 0, 0, e.read_nb, e.write_nb);
        ASSERT_NE(proc, nullptr);
        EXPECT_EQ(answer_of(proc), e.answer);
        close_expecting(proc, 0);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, NoOpenersDescriptorsReachALaterChild) {
    child_command quiet_echo({"echo"});
    child_command list({"fds"});
    char buf[4096];

    // A child started later must not hold the earlier child's input open,
    // or that child would never see end of input.
    process *plain = process_open(quiet_echo.argv(), "w");
    ASSERT_NE(plain, nullptr);
    process *lister = process_open(list.argv(), "r");
    ASSERT_NE(lister, nullptr);
    ASSERT_GT(process_gets(lister, buf, sizeof buf), 0);
    EXPECT_EQ(numbers_in(buf).count(process_write_fd(plain)), 0U) << buf;
    EXPECT_EQ(numbers_in(buf).count(process_read_fd(lister)), 0U) << buf;
    close_expecting(lister, 0);
    close_expecting(plain, 0);

    process *flagged = process_open_with_flags(quiet_echo.argv(), "w", 0, 0, 0, 0);
    ASSERT_NE(flagged, nullptr);
    lister = process_open_with_flags(list.argv(), "r", 0, 0, 0, 0);
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
    child_command list({"fds"});
    for (const char *mode : {"r", "rw"}) {
        SCOPED_TRACE(mode);
        process *proc = process_open(list.argv(), mode);
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
    child_command argv({"out", "to stdout", "err", "to stderr\\n"});
    process *proc = open_redirected(STDOUT_FILENO, dir.file("stdout"),
                                    [&] { return process_open_stderr(argv.argv(), "r"); });
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
    child_command argv({"out", "to stdout\\n", "err", "to stderr"});
    process *proc = open_redirected(STDERR_FILENO, dir.file("stderr"),
                                    [&] { return process_open(argv.argv(), "r"); });
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
            child_command argv({"out", "O\\n", "err", "E\\n"});
            // The stream that is not read goes where the test's own goes.
            process *proc = open_redirected(
                use_stderr != 0 ? STDOUT_FILENO : STDERR_FILENO, dir.file("other"), [&] {
                    return process_open_with_flags(argv.argv(), "r", use_stderr, null_other, 0, 0);
                });
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
    child_command argv({"exit", "0"});
    for (int opener = 0; opener < 3; ++opener) {
        SCOPED_TRACE(opener);
        ASSERT_FALSE(sigchld_blocked());
        process *proc = opener == 0   ? process_open(argv.argv(), "r")
                        : opener == 1 ? process_open_stderr(argv.argv(), "r")
                                      : process_open_with_flags(argv.argv(), "r", 0, 1, 1, 1);
        ASSERT_NE(proc, nullptr);
        EXPECT_TRUE(sigchld_blocked());
        close_expecting(proc, 0);
        EXPECT_TRUE(sigchld_blocked()); // closing does not restore it either
        unblock_sigchld();
    }
}

TEST_F(Process, ChildStartsWithSigchldBlocked) {
    child_command argv({"blocked", std::to_string(SIGCHLD), "blocked", std::to_string(SIGUSR1)});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(read_all(process_read_fd(proc)), "1\n0\n");
    close_expecting(proc, 0);
}

TEST_F(Process, OtherBlockedSignalsOfTheCallerStayBlocked) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, nullptr);
    child_command argv({"exit", "0"});
    process *proc = process_open(argv.argv(), nullptr);
    ASSERT_NE(proc, nullptr);
    sigset_t current;
    sigprocmask(SIG_SETMASK, nullptr, &current);
    EXPECT_EQ(sigismember(&current, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&current, SIGCHLD), 1);
    close_expecting(proc, 0);
}

} // namespace
} // namespace process_test
