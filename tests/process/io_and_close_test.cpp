// Talking to a child line by line, and closing, waiting for and signalling
// it.
#include "process/fixture.hpp"

namespace process_test {
namespace {

// ---- process_gets ----------------------------------------------------------

TEST_F(Process, GetsOfALongLineStoresWhatFitsAndReturnsTheFullLength) {
    child_command argv({"out", "abcdefghijklmnopqrst\\nnext\\n"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, 8), 20);
    EXPECT_EQ(std::string(buf, 8), std::string("abcdefg\0", 8));
    EXPECT_EQ(process_gets(proc, buf, 8), 4);
    EXPECT_STREQ(buf, "next");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsOfALineThatExactlyFillsTheBufferTakesItsLineFeed) {
    child_command argv({"out", "1234567\\nnext\\n"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, 8), 7);
    EXPECT_STREQ(buf, "1234567");
    EXPECT_EQ(process_gets(proc, buf, 8), 4);
    EXPECT_STREQ(buf, "next");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsOfAnEmptyLineLeavesTheLineFeedInTheFirstByte) {
    child_command argv({"out", "\\nx\\n"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf, 4), "\nZZZ");
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 1);
    EXPECT_STREQ(buf, "x");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsAtEndOfInputLeavesTheBufferAsItWas) {
    child_command argv({"out", "last"});
    process *proc = process_open(argv.argv(), "r");
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
    child_command argv({"out", "abcdefghij"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[4];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 10);
    EXPECT_STREQ(buf, "abc");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsWithSizeZeroDiscardsTheLineWithoutTouchingTheBuffer) {
    child_command argv({"out", "twelve chars\\n\\nrest\\n"});
    process *proc = process_open(argv.argv(), "r");
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
    child_command argv({"out", "abcde\\nrest\\n"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[3] = {'Z', 'Z', 'Z'};
    EXPECT_EQ(process_gets(proc, buf, 1), 5);
    EXPECT_EQ(std::string(buf, 3), std::string("\0ZZ", 3));
    EXPECT_EQ(process_gets(proc, buf, 3), 4);
    EXPECT_STREQ(buf, "re");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsTakesNothingPastTheLineFeedOutOfThePipe) {
    child_command argv({"out", "first\\nsecond\\nthird"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[16];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "first");
    EXPECT_EQ(read_all(process_read_fd(proc)), "second\nthird");
    close_expecting(proc, 0);
}

TEST_F(Process, GetsKeepsNulBytesInsideTheLine) {
    child_command argv({"out", "a\\0b\\n"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    char buf[8];
    EXPECT_EQ(process_gets(proc, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 4), std::string("a\0b\0", 4));
    close_expecting(proc, 0);
}

TEST_F(Process, GetsReadErrorAfterSomeBytesTerminatesThemAndReturnsMinusOne) {
    child_command argv({"out", "abc", "sleep", "30"});
    process *proc = process_open_with_flags(argv.argv(), "r", 0, 0, 1, 0);
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

    kill_and_close(proc);
}

TEST_F(Process, GetsReadErrorWhileDiscardingALongLineStillTerminatesTheBuffer) {
    child_command argv({"out", "abcdefgh", "sleep", "30"});
    process *proc = process_open_with_flags(argv.argv(), "r", 0, 0, 1, 0);
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
    child_command argv({"echo"});
    process *proc = process_open(argv.argv(), "rw");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_puts(proc, "abcdef", 3), 0);
    EXPECT_EQ(process_puts(proc, "x\0y", 3), 0);
    process_close_write(proc);
    EXPECT_EQ(read_all(process_read_fd(proc)), std::string("abc\nx\0y\n", 8));
    close_expecting(proc, 0);
    EXPECT_TRUE(messages().empty());
}

TEST_F(Process, PutsRefusesANullBufferOrZeroLengthWithoutAMessage) {
    child_command argv({"echo"});
    process *proc = process_open(argv.argv(), "rw");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(process_puts(proc, nullptr, 3), -1);
    EXPECT_EQ(process_puts(proc, "abc", 0), -1);
    EXPECT_TRUE(messages().empty());
    process_close_write(proc);
    EXPECT_EQ(read_all(process_read_fd(proc)), ""); // nothing was written
    close_expecting(proc, 0);
}

TEST_F(Process, PutsWithoutAWritePipeLogsErrorSendingCommand) {
    child_command argv({"exit", "0"});
    process *proc = process_open(argv.argv(), "r");
    ASSERT_NE(proc, nullptr);
    errno = 0;
    EXPECT_EQ(process_puts(proc, "abc", 3), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(messages(), (strings{"error sending command"}));
    close_expecting(proc, 0);
}

TEST_F(Process, PutsIntoAFullNonBlockingPipeLogsErrorSendingCommand) {
    child_command argv({"sleep", "30"});
    process *proc = process_open_with_flags(argv.argv(), "w", 0, 0, 0, 1);
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
    child_command argv({"sleep", "30"});
    process *proc = process_open_with_flags(argv.argv(), "w", 0, 0, 0, 1);
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
        child_command argv({"exit", std::to_string(code)});
        process *proc = process_open(argv.argv(), "rw");
        ASSERT_NE(proc, nullptr);
        close_expecting(proc, code);
    }
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseAcceptsANullExitCode) {
    child_command argv({"exit", "9"});
    process *proc = process_open(argv.argv(), nullptr);
    ASSERT_NE(proc, nullptr);
    const pid_t pid = proc->pid;
    EXPECT_EQ(process_close(proc, nullptr, 1), pid);
}

TEST_F(Process, CloseShutsTheWritePipeFirstSoTheChildSeesEndOfInput) {
    child_command argv({"echo", "exit", "6"});
    process *proc = process_open(argv.argv(), "rw");
    ASSERT_NE(proc, nullptr);
    close_expecting(proc, 6); // the child would wait for input for ever otherwise
}

TEST_F(Process, CloseWithoutWaitingOnARunningChildReturnsZeroAndKeepsTheRecord) {
    // The child waits for a line on a pipe the test holds, so it runs until
    // the test lets it go; its standard output goes to /dev/null.
    int gate[2];
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    child_command argv({"echoline", "exit", "3"});
    process *proc;
    {
        redirected in(STDIN_FILENO, gate[0]);
        proc = process_open_with_flags(argv.argv(), "r", 1, 1, 0, 0);
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
    child_command argv({"sleep", "30"});
    process *proc = process_open(argv.argv(), "rw");
    ASSERT_NE(proc, nullptr);
    kill_and_close(proc);

    child_command self_killed({"signal", std::to_string(SIGTERM)});
    proc = process_open(self_killed.argv(), "r");
    ASSERT_NE(proc, nullptr);
    const pid_t second = proc->pid;
    int exitcode = 77;
    EXPECT_EQ(process_close(proc, &exitcode, 1), second);
    EXPECT_EQ(exitcode, 77);
    EXPECT_TRUE(fds_.unchanged());
}

TEST_F(Process, CloseReportsAWaitErrorAndKeepsTheRecord) {
    child_command argv({"exit", "5"});
    process *proc = process_open(argv.argv(), "rw");
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
    child_command argv({"out", "ready\n", "sleep", "30"});
    process *proc = process_open(argv.argv(), "r");
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
    child_command argv({"echo"});
    process *proc = process_open(argv.argv(), "rw");
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
    child_command argv({"exit", "0"});
    process *proc = process_open(argv.argv(), "r");
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

} // namespace
} // namespace process_test
