// What a call returns: the command's exit status, and what stands for a
// command that could not run, was killed, stopped or continued.
#include "forkandexec/fixture.hpp"

namespace forkandexec_test {
namespace {

TEST_P(ForkAndExecEach, ReturnsTheCommandsExitStatus) {
    command cmd({"exit", "3"});
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv()), 3);
    call.expect_nothing_collected();
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_P(ForkAndExecEach, ReturnsOneWhenTheProgramCannotBeExecuted) {
    command cmd({}, missing_program);
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv()), 1);
    call.expect_nothing_collected();
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_P(ForkAndExecEach, ReturnsZeroForACommandKilledByASignal) {
    for (const int signal : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(signal);
        command cmd({"out", "before", "signal", std::to_string(signal), "out", "after"});
        collected call(entry());
        EXPECT_EQ(call.run(cmd.argv()), 0);
        EXPECT_EQ(call.out(), "before");
        EXPECT_EQ(run_discarding(entry(), cmd.argv()), 0);
    }
    EXPECT_TRUE(syslog_is_empty());
}

TEST_P(ForkAndExecTimed, ReturnsTheExitStatusOfACommandThatEndsWithinItsTimeLimit) {
    command cmd({"out", "done", "exit", "42"});
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv(), 5), 42);
    EXPECT_EQ(call.out(), "done");
    EXPECT_TRUE(syslog_is_empty());
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_P(ForkAndExecUntimed, ReturnsTheStopSignalForAStoppedChildAndLeavesItUnreaped) {
    // The child closes every copy of the pipes' write ends first, so that
    // collection ends at once and the wait sees the stop.
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "close-stdout", "close-stderr", "close-extra", "signal",
                 std::to_string(SIGSTOP)});
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv()), SIGSTOP);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_EQ(process_state(pid), 'T');
    kill_and_reap(pid);
}

TEST_P(ForkAndExecTimed, ANegativeOrZeroTimeLimitWaitsWithoutLimitAndSeesAStop) {
    for (const int limit : {-1, 0}) {
        SCOPED_TRACE(limit);
        const std::string pidfile = dir_.file("child" + std::to_string(limit) + ".pid");
        command cmd({"pidfile", pidfile, "close-stdout", "close-stderr", "close-extra", "signal",
                     std::to_string(SIGSTOP)});
        collected call(entry());
        EXPECT_EQ(call.run(cmd.argv(), limit), SIGSTOP);
        kill_and_reap(pid_from_file(pidfile));
        const std::string discarding_pidfile = dir_.file("discarding.pid");
        command discarding({"pidfile", discarding_pidfile, "close-stdout", "close-stderr",
                            "close-extra", "signal", std::to_string(SIGSTOP)});
        EXPECT_EQ(run_discarding(entry(), discarding.argv(), limit), SIGSTOP);
        kill_and_reap(pid_from_file(discarding_pidfile));
    }
    EXPECT_TRUE(syslog_is_empty());
}

TEST_P(ForkAndExecUntimed, Returns255ForAContinuedChildAndLeavesItUnreaped) {
    // The child is stopped and continued while it still holds its output
    // open; the wait then finds the continue.
    const std::string pidfile = dir_.file("child.pid");
    command cmd({"pidfile", pidfile, "stop-until-continued", "0.5", "close-stdout", "close-stderr",
                 "close-extra", "sleep", "30"});
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv()), 255);
    const pid_t pid = pid_from_file(pidfile);
    EXPECT_NE(process_state(pid), '\0');
    kill_and_reap(pid);
}

TEST_P(ForkAndExecEach, AChildThatCannotBeWaitedForGivesZeroOrWithATimeLimitMinusOne) {
    // With SIGCHLD ignored the kernel reaps the child itself and waitpid
    // fails: without a time limit the status word keeps its initial 0,
    // with one the call gives -1.
    sigchld_disposition ignored(SIG_IGN);
    command cmd({"exit", "3"});
    EXPECT_EQ(run_discarding(entry(), cmd.argv(), 1), entry().time_limit ? -1 : 0);
    EXPECT_TRUE(syslog_is_empty());
}

// The parameterised suites of every file of the family are instantiated
// here, once for the whole test program.
INSTANTIATE_TEST_SUITE_P(All, ForkAndExecEach, ::testing::ValuesIn(every_entry_point),
                         entry_point_name);
INSTANTIATE_TEST_SUITE_P(WithATimeLimit, ForkAndExecTimed,
                         ::testing::ValuesIn(entry_points_with_a_time_limit), entry_point_name);
INSTANTIATE_TEST_SUITE_P(WithoutATimeLimit, ForkAndExecUntimed,
                         ::testing::ValuesIn(entry_points_without_a_time_limit), entry_point_name);

} // namespace
} // namespace forkandexec_test
