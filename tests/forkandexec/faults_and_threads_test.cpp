// Calls that fail (no descriptor left, no process can be started, no
// memory), a child whose execv fails, and many calls from several threads.
#include "forkandexec/fixture.hpp"

#include <algorithm>
#include <latch>

#include "qxcommon-util/process.h"
#include "support/heap_usage.hpp"
#include "support/start_fail.hpp"

namespace forkandexec_test {
namespace {

// ---- no descriptor left, no process started -------------------------------------

TEST_P(ForkAndExecEach, PipeFailureReturnsMinusOneAndTouchesNothing) {
    const std::vector<int> lowest = lowest_free_descriptors(1);
    command cmd({"exit", "3"});
    collected call(entry(), 42);
    int status;
    {
        descriptor_limit no_room(lowest[0]);
        status = call.run(cmd.argv(), 2);
    }
    EXPECT_EQ(status, -1);
    call.expect_untouched();
    EXPECT_EQ(read_stdin(), "pending");
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

TEST_P(ForkAndExecEach, AFailedStartRestoresTheMaskLeavesItsReasonInErrnoAndReturnsMinusOne) {
    command cmd({"exit", "3"});
    collected call(entry(), 42);
    errno = 0;
    qx_test::fail_next_child_start();
    EXPECT_EQ(call.run(cmd.argv(), 2), -1);
    ASSERT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(errno, EAGAIN);
    call.expect_untouched();
    EXPECT_EQ(read_stdin(), "pending");
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
    errno = 0;
    qx_test::fail_next_child_start();
    EXPECT_EQ(run_discarding(entry(), cmd.argv(), 2), -1);
    ASSERT_TRUE(qx_test::child_start_failure_delivered());
    EXPECT_EQ(errno, EAGAIN);
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
    const std::string line = read_all(results[0]);
    close(results[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(line, "0 1 0 1 errno kept");
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

// ---- many calls from several threads ----------------------------------------------

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

} // namespace
} // namespace forkandexec_test
