// Opens that fail (no pipe, no process, no memory), and a child whose
// execv fails.
#include "process/fixture.hpp"

namespace process_test {
namespace {

// ---- failures while opening ------------------------------------------------

TEST_F(Process, ReadPipeFailureLogsBothMessagesAndReturnsNull) {
    child_command argv({"exit", "0"});
    qx_test::fail_pipe2(0);
    errno = 0;
    EXPECT_EQ(process_open(argv.argv(), "rw"), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked()); // blocked before the first pipe was tried
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, WritePipeFailureClosesTheReadPipeAndLogsBothMessages) {
    child_command argv({"exit", "0"});
    qx_test::fail_pipe2(1);
    EXPECT_EQ(process_open_with_flags(argv.argv(), "rw", 0, 0, 0, 0), nullptr);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked());
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, WriteOnlyPipeFailureLogsBothMessages) {
    child_command argv({"exit", "0"});
    qx_test::fail_pipe2(0);
    EXPECT_EQ(process_open_stderr(argv.argv(), "w"), nullptr);
    EXPECT_EQ(messages(), (strings{"error opening pipe (24): Too many open files",
                                   "error spawning child process"}));
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ForkFailureWithOnlyAReadPipeClosesItAndLogsTheSpawnMessage) {
    child_command argv({"exit", "0"});
    qx_test::fail_fork();
    EXPECT_EQ(process_open(argv.argv(), "r"), nullptr);
    qx_test::stop_failing_pipe2_and_fork();
    EXPECT_EQ(messages(), (strings{"error spawning child process"}));
    EXPECT_TRUE(sigchld_blocked());
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, ForkFailureWithAWritePipeLeavesItsWriteEndOpen) {
    child_command argv({"exit", "0"});
    for (const char *mode : {"w", "rw"}) {
        SCOPED_TRACE(mode);
        qx_test::syslog_clear();
        const std::set<int> before = qx_test::open_descriptors();
        qx_test::fail_fork();
        EXPECT_EQ(process_open(argv.argv(), mode), nullptr);
        qx_test::stop_failing_pipe2_and_fork();
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
    child_command argv({"sleep", "30"});
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_test::syslog_clear();
        process *proc = qx_test::call_with_failing_allocation(
            n, [&] { return process_open(argv.argv(), "rw"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(proc, nullptr);
            EXPECT_EQ(messages(), (strings{"error spawning child process"}));
            int status;
            EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1); // no child left behind
            EXPECT_EQ(errno, ECHILD);
        } else {
            ASSERT_NE(proc, nullptr);
            kill_and_close(proc);
        }
    });
    EXPECT_EQ(allocations, 1); // the record is the only allocation
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
    qx_test::fail_fork(qx_test::fork_fault::pretend_child);
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
} // namespace process_test
