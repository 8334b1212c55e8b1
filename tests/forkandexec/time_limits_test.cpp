// The time limit: when it starts, what it kills, and what it gives.
#include "forkandexec/fixture.hpp"

namespace forkandexec_test {
namespace {

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

TEST_P(ForkAndExecTimed, TimeLimitKillsTheWholeProcessGroup) {
    const std::string child_pidfile = dir_.file("child.pid");
    const std::string grandchild_pidfile = dir_.file("grandchild.pid");
    command cmd({"close-extra", "detached-grandchild", "60", grandchild_pidfile, "pidfile",
                 child_pidfile, "out", "partial", "close-stdout", "close-stderr", "sleep", "60"});
    {
        collected call(entry());
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(call.run(cmd.argv(), 1), -1);
        const seconds_d elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_LT(elapsed.count(), 15.0);
        EXPECT_EQ(call.out(), "partial");
    }
    const pid_t child = pid_from_file(child_pidfile);
    expect_one_timeout_warning(cmd.program(), child);
    EXPECT_EQ(process_state(child), '\0');
    EXPECT_TRUE(no_longer_runs(pid_from_file(grandchild_pidfile)));
    EXPECT_TRUE(descriptors_unchanged());
}

TEST_P(ForkAndExecTimed, TimeLimitCountsFromTheEndOfCollection) {
    // The command writes for longer than its limit and then ends by itself.
    command cmd({"err", "a", "sleep", "1.2", "out", "b", "sleep", "1.2", "err", "c", "out", "d",
                 "exit", "6"});
    collected call(entry());
    EXPECT_EQ(call.run(cmd.argv(), 1), 6);
    EXPECT_EQ(call.out(), "bd");
    EXPECT_EQ(call.err(), entry().strbufs ? "ac" : "");
    EXPECT_TRUE(syslog_is_empty());
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
} // namespace forkandexec_test
