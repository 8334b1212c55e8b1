// What the command inherits and what the caller keeps: standard input,
// descriptors, the process group, signal dispositions and the mask, errno,
// and a caller whose signals interrupt every wait.
#include "forkandexec/fixture.hpp"

#include <sys/time.h>

#include "qxcommon-util/process.h"
#include "support/alarm_storm.hpp"

namespace forkandexec_test {
namespace {

// ---- standard input ---------------------------------------------------------------

TEST_P(ForkAndExecEach, TheCommandDoesNotReadTheCallersStandardInput) {
    // The caller's standard input holds "pending"; the command must not see
    // it. The plain family then leaves the caller a finished pipe there, the
    // strbuf family leaves it alone.
    close_stdin_writer();
    command cmd({"echo", "out", "|"});
    collected call(entry());
    ASSERT_EQ(call.run(cmd.argv()), 0);
    EXPECT_EQ(call.out(), "|");
    EXPECT_EQ(read_stdin(), entry().strbufs ? "pending" : "");
}

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

TEST_P(ForkAndExecEach, ClosedStandardInputMakesTheChildEndWithStatusOne) {
    // With descriptor 0 free, the pipe's read end takes it; the child closes
    // it, /dev/null then opens as 0, which counts as a failed open.
    skip_descriptor_check();
    close(STDIN_FILENO);
    command cmd({"exit", "3"});
    EXPECT_EQ(run_discarding(entry(), cmd.argv()), 1);
    if (entry().strbufs) {
        EXPECT_FALSE(is_open(STDIN_FILENO));
    }
}

// ---- descriptors --------------------------------------------------------------------

TEST_P(ForkAndExecEach, TheCommandInheritsTheDevNullDescriptorAndThePipeWriteEnds) {
    // Standard output's pipe takes the two lowest free numbers, standard
    // error's (strbuf family) the next two; the child closes the read ends
    // and /dev/null lands on the lowest.
    const std::vector<int> pipe_fds = lowest_free_descriptors(4);
    std::set<int> expected = inheritable_descriptors();
    expected.insert({0, 1, 2, pipe_fds[0], pipe_fds[1]});
    if (entry().strbufs)
        expected.insert(pipe_fds[3]);
    command cmd({"fds"});
    {
        collected call(entry());
        ASSERT_EQ(call.run(cmd.argv()), 0);
        EXPECT_EQ(call.out(), as_fds_line(expected));
    }
    EXPECT_TRUE(descriptors_unchanged());
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
    std::string line = read_all(process_read_fd(proc));
    process_close(proc, nullptr, 1);
    return line;
}

TEST_P(ForkAndExecEach, AProgramStartedByAnotherThreadMeanwhileInheritsNoPipeEndOfTheCall) {
    // What a program started now would hold: the test's own descriptors
    // without close-on-exec, the pipe's write end as its standard output.
    std::set<int> expected_meanwhile = inheritable_descriptors();
    expected_meanwhile.insert({0, 1, 2});
    watchdog guard(100);
    const std::string pidfile = dir_.file("child.pid");
    // The call's own command still sees exactly what it always inherits:
    // the /dev/null descriptor and every pipe write end.
    const std::vector<int> pipe_fds = lowest_free_descriptors(4);
    std::set<int> expected_in_command = inheritable_descriptors();
    expected_in_command.insert({0, 1, 2, pipe_fds[0], pipe_fds[1]});
    if (entry().strbufs)
        expected_in_command.insert(pipe_fds[3]);
    command cmd({"fds", "pidfile", pidfile, "sleep", "2"});
    std::string meanwhile;
    std::thread other([&] { meanwhile = descriptors_of_a_program_started_meanwhile(pidfile); });
    std::string own;
    {
        collected call(entry());
        EXPECT_EQ(call.run(cmd.argv()), 0);
        own = call.out();
    }
    other.join();
    EXPECT_EQ(meanwhile, as_fds_line(expected_meanwhile));
    EXPECT_EQ(own, as_fds_line(expected_in_command));
}

// ---- process group, signals, mask and errno -----------------------------------

TEST_P(ForkAndExecEach, RunsTheCommandInAProcessGroupOfItsOwnWithTheCallersMask) {
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "pgid", "blocked", std::to_string(SIGUSR2), "blocked",
                 std::to_string(SIGCHLD)});
    collected call(entry());
    ASSERT_EQ(call.run(cmd.argv()), 0);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_EQ(call.out(), std::to_string(pid) + "\n1\n0\n");
    EXPECT_NE(pid, getpgrp());
}

TEST_P(ForkAndExecEach, TheCommandKeepsIgnoredSignalsIgnoredAndCaughtOnesAtTheirDefault) {
    // execv keeps an ignored signal ignored and puts a caught one back to
    // its default; the start must not change either.
    signal_disposition ignored(SIGUSR1, SIG_IGN);
    signal_disposition caught(SIGHUP, ignoring_handler);
    command cmd({"disposition", std::to_string(SIGUSR1), "disposition", std::to_string(SIGHUP),
                 "disposition", std::to_string(SIGTERM)});
    collected call(entry());
    ASSERT_EQ(call.run(cmd.argv()), 0);
    EXPECT_EQ(call.out(), "ignore\ndefault\ndefault\n");
}

TEST_P(ForkAndExecEach, AChildWhoseExecFailsLeavesTheCallersErrnoAsItWas) {
    // Every call of the caller succeeds on this path; the child's failed
    // execv is the child's own affair.
    command cmd({}, missing_program);
    collected call(entry());
    errno = EDOM;
    EXPECT_EQ(call.run(cmd.argv()), 1);
    EXPECT_EQ(errno, EDOM);
    call.expect_nothing_collected();
}

TEST_P(ForkAndExecEach, ACallersSigchldHandlerCannotReapTheChildDuringTheCall) {
    sigchld_handler_calls = 0;
    sigchld_handler_reaped = 0;
    {
        sigchld_disposition handler(reaping_sigchld_handler);
        command cmd({"exit", "7"});
        EXPECT_EQ(run_discarding(entry(), cmd.argv(), 3), 7);
    }
    // The SIGCHLD of the child was held back and arrives once the mask is
    // restored, when there is nothing left to reap.
    EXPECT_GE(sigchld_handler_calls, 1);
    EXPECT_EQ(sigchld_handler_reaped, 0);
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
        qx_test::end_alarm_storm(saved_action_);
        EXPECT_GT(alarms_caught.load(), 10) << "the calls were hardly interrupted";
        ForkAndExec::TearDown();
    }

  private:
    struct sigaction saved_action_ {};
};

// The fixture above, run once with each entry point.
class ForkAndExecSignalsEach : public ForkAndExecSignals,
                               public ::testing::WithParamInterface<entry_point> {
  protected:
    const entry_point &entry() const { return GetParam(); }
};

using ForkAndExecSignalsTimed = ForkAndExecSignalsEach;

TEST_P(ForkAndExecSignalsEach, EveryCallCollectsTheWholeOutput) {
    watchdog guard(100);
    command cmd({"outn", "2000000", "exit", "4"});
    const std::string expected = alphabet_pattern(2000000);
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv(), 30), 4);
    const std::string out = call.out();
    EXPECT_EQ(out.size(), expected.size());
    EXPECT_TRUE(out == expected);
    EXPECT_FALSE(a_zombie_child_is_left());
}

TEST_P(ForkAndExecSignalsEach, EveryCallReportsTheExitStatusAndLeavesNoZombie) {
    // Collection ends at once; the waits are what the signals interrupt.
    watchdog guard(100);
    command cmd({"close-stdout", "close-stderr", "close-extra", "sleep", "0.5", "exit", "3"});
    EXPECT_EQ(run_discarding(entry(), cmd.argv()), 3);
    EXPECT_FALSE(a_zombie_child_is_left());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_P(ForkAndExecSignalsTimed, ATimeLimitIsNeitherCutShortNorStretched) {
    watchdog guard(100);
    command finishing({"close-stdout", "close-stderr", "close-extra", "sleep", "2", "exit", "0"});
    {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(run_discarding(entry(), finishing.argv(), 6), 0);
        const seconds_d elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(elapsed.count(), 2.0);
        EXPECT_LT(elapsed.count(), 4.0);
    }
    EXPECT_TRUE(syslog_is_empty());
    const std::string pidfile = dir_.file("child.pid");
    command endless(
        {"pidfile", pidfile, "close-stdout", "close-stderr", "close-extra", "sleep", "60"});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run_discarding(entry(), endless.argv(), 1), -1);
    const seconds_d elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed.count(), 1.0);
    EXPECT_LT(elapsed.count(), 5.0);
    const pid_t pid = pid_from_file(pidfile);
    expect_one_timeout_warning(endless.program(), pid);
    EXPECT_EQ(process_state(pid), '\0');
}

INSTANTIATE_TEST_SUITE_P(All, ForkAndExecSignalsEach, ::testing::ValuesIn(every_entry_point),
                         entry_point_name);
INSTANTIATE_TEST_SUITE_P(WithATimeLimit, ForkAndExecSignalsTimed,
                         ::testing::ValuesIn(entry_points_with_a_time_limit), entry_point_name);

} // namespace
} // namespace forkandexec_test
