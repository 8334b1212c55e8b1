// The process title, observed through <qxcommon-util/proctitle.h>.
//
// Setting a title rewrites the argument area and moves the environment, so
// every scenario runs in a fresh process: this test program executes itself
// with an argv[0] of "/qx-title-<scenario>/prog", a chosen argument list and
// a chosen environment. A constructor recognises such a start, runs the
// scenario before anything else of the program has touched the environment,
// reports what it saw on standard output and ends the process. The suite's
// own process never calls initproctitle, so its environment stays usable.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <qxcommon-util/proctitle.h>

#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

namespace {

constexpr std::string_view scenario_prefix = "/qx-title-";
constexpr const char *program_name = "prog";

std::string read_whole(int fd) {
    std::string all;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return all;
        all.append(buffer, static_cast<std::size_t>(n));
    }
}

std::string read_cmdline() {
    const int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    std::string text = read_whole(fd);
    close(fd);
    return text;
}

std::string to_hex(std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string from_hex(std::string_view hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return out;
}

// ---- the scenario side: runs in the started process ------------------------

namespace scenario {

// One "key hex(value)" line per fact, written at once.
void report(const std::string &key, std::string_view value) {
    const std::string line = key + " " + to_hex(value) + "\n";
    const ssize_t ignored = write(STDOUT_FILENO, line.data(), line.size());
    (void)ignored;
}

void report(const std::string &key, long value) {
    report(key, std::to_string(value));
}

// The argument area as the kernel laid it out: from the first argument
// string to the end of the last environment string (or of the last argument
// without an environment).
struct area {
    char *start;
    std::size_t length; // without the final NUL

    area(int argc, char **argv, char **envp) : start(argv[0]) {
        const char *last = argv[argc - 1];
        for (char **e = envp; *e != nullptr; ++e)
            last = *e;
        length = static_cast<std::size_t>(last + std::strlen(last) - start);
    }
    // The area and its final NUL.
    std::string bytes() const { return std::string(start, length + 1); }
    bool holds(const void *p) const {
        const auto *c = static_cast<const char *>(p);
        return c >= start && c <= start + length;
    }
};

// The environment reads as before and none of it lies in the area.
bool environment_moved_out_of(const area &a, char **envp) {
    if (environ == envp || environ == nullptr)
        return false;
    std::size_t i = 0;
    for (; envp[i] != nullptr; ++i) {
        if (environ[i] == nullptr || a.holds(environ[i]) || std::strcmp(environ[i], envp[i]) != 0)
            return false;
    }
    return environ[i] == nullptr;
}

void report_title(const std::string &key, const area &a, char **argv) {
    report(key + ".area", a.bytes());
    report(key + ".cmdline", read_cmdline());
    report(key + ".argv1_null", argv[1] == nullptr ? 1 : 0);
}

void basic(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    report("area_length", static_cast<long>(a.length));
    initproctitle(argc, argv);
    report("moved", environment_moved_out_of(a, envp) ? 1 : 0);
    const char *first = std::getenv("QX_FIRST");
    const char *second = std::getenv("QX_SECOND");
    report("QX_FIRST", first != nullptr ? first : "(unset)");
    report("QX_SECOND", second != nullptr ? second : "(unset)");
    report("first_in_area", a.holds(first) ? 1 : 0);

    proctitle("idle");
    report_title("idle", a, argv);
    proctitle("%s #%d", "busy", 42);
    report_title("busy", a, argv);
    proctitle("ok");
    report_title("ok", a, argv);
    // The environment is still usable after titles overwrote its old home.
    second = std::getenv("QX_SECOND");
    report("QX_SECOND_after", second != nullptr ? second : "(unset)");
}

void inert(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    const std::string before = a.bytes();
    char *second = argv[1];
    proctitle("idle");
    report("unchanged", a.bytes() == before && argv[1] == second && environ == envp ? 1 : 0);
    report("cmdline", read_cmdline());
}

// A title of `length` 'x's after the prefix.
void long_title(int argc, char **argv, char **envp, int length) {
    const area a(argc, argv, envp);
    report("area_length", static_cast<long>(a.length));
    initproctitle(argc, argv);
    const std::string text(static_cast<std::size_t>(length), 'x');
    proctitle("%s", text.c_str());
    report_title("long", a, argv);
}

void empty_environment(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    report("area_length", static_cast<long>(a.length));
    report("env_was_empty", envp[0] == nullptr ? 1 : 0);
    initproctitle(argc, argv);
    report("new_array", environ != envp && environ != nullptr && environ[0] == nullptr ? 1 : 0);
    proctitle("%s", std::string(100, 'x').c_str());
    report_title("long", a, argv);
}

void failing_allocations(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    const std::string before = a.bytes();
    char *second = argv[1];
    long failed_runs = 0;
    bool unchanged = true;
    for (long n = 0; n < 100; ++n) {
        qx_test::call_with_failing_allocation(n, [&] {
            initproctitle(argc, argv);
            return 0;
        });
        if (!qx_test::allocation_was_failed())
            break;
        ++failed_runs;
        const char *first = std::getenv("QX_FIRST");
        unchanged =
            unchanged && environ == envp && first != nullptr && std::strcmp(first, "1") == 0;
        proctitle("idle");
        unchanged = unchanged && a.bytes() == before && argv[1] == second;
    }
    report("failed_runs", failed_runs);
    report("unchanged", unchanged ? 1 : 0);
    report("moved", environment_moved_out_of(a, envp) ? 1 : 0);
    proctitle("idle");
    report_title("idle", a, argv);
}

void twice(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    initproctitle(argc, argv);
    char **first_copy = environ;
    initproctitle(argc, argv);
    report("copied_again", environ != first_copy && environ != envp ? 1 : 0);
    report("moved", environment_moved_out_of(a, envp) ? 1 : 0);
    proctitle("idle");
    report_title("idle", a, argv);
}

void refused(int argc, char **argv, char **envp) {
    const area a(argc, argv, envp);
    const std::string before = a.bytes();
    char *second = argv[1];
    initproctitle(0, nullptr);
    char *no_first[] = {nullptr, nullptr};
    initproctitle(1, no_first);
    initproctitle(0, argv);
    proctitle("idle");
    report("unchanged", a.bytes() == before && argv[1] == second && environ == envp ? 1 : 0);
}

void release(int argc, char **argv, char **envp) {
    initproctitle(argc, argv);
    proctitle("idle");
    char **moved = environ;
    std::vector<char *> strings;
    for (char **e = moved; *e != nullptr; ++e)
        strings.push_back(*e);
    long freed_strings = 0;
    long frees = 0;
    bool array_freed = false;
    {
        qx_test::free_log log;
        release_proctitle();
        for (char *s : strings)
            freed_strings += log.freed(s) ? 1 : 0;
        array_freed = log.freed(moved);
        frees = log.count();
    }
    (void)envp;
    report("strings", static_cast<long>(strings.size()));
    report("freed_strings", freed_strings);
    report("array_freed", array_freed ? 1 : 0);
    report("frees", frees);
}

void release_without_init(int, char **, char **envp) {
    long frees = 0;
    {
        qx_test::free_log log;
        release_proctitle();
        frees = log.count();
    }
    const char *first = std::getenv("QX_FIRST");
    report("frees", frees);
    report("environment_intact",
           environ == envp && first != nullptr && std::strcmp(first, "1") == 0 ? 1 : 0);
}

using function = void (*)(int, char **, char **);

struct entry {
    const char *name;
    function run;
};

constexpr entry scenarios[] = {
    {"basic", basic},
    {"inert", inert},
    {"long", [](int c, char **v, char **e) { long_title(c, v, e, 1500); }},
    {"huge", [](int c, char **v, char **e) { long_title(c, v, e, 3000); }},
    {"empty-env", empty_environment},
    {"alloc", failing_allocations},
    {"twice", twice},
    {"refused", refused},
    {"release", release},
    {"release-without-init", release_without_init},
};

// Runs at load time in every start of the program; only a start made by
// run_scenario has the scenario prefix in argv[0].
__attribute__((constructor)) void run_scenario_if_asked(int argc, char **argv, char **envp) {
    if (argc < 1 || argv == nullptr || argv[0] == nullptr)
        return;
    const std::string_view first(argv[0]);
    if (first.substr(0, scenario_prefix.size()) != scenario_prefix)
        return;
    std::string_view name = first.substr(scenario_prefix.size());
    name = name.substr(0, name.find('/'));
    for (const entry &s : scenarios) {
        if (name == s.name) {
            s.run(argc, argv, envp);
#ifdef QX_TEST_COVERAGE
            // gcov writes its counters at exit; _exit would drop what the
            // scenario ran. It reads the environment on the way, which a
            // scenario may have released: give it an empty one.
            static char *no_environment[] = {nullptr};
            environ = no_environment;
            exit(0);
#else
            _exit(0);
#endif
        }
    }
    _exit(99);
}

} // namespace scenario

// ---- the suite side ----------------------------------------------------------

struct scenario_result {
    int status = -1;
    std::map<std::string, std::string> facts;

    std::string operator[](const std::string &key) const {
        const auto found = facts.find(key);
        return found == facts.end() ? std::string("(missing)") : found->second;
    }
};

std::string scenario_argv0(const std::string &name) {
    return std::string(scenario_prefix) + name + "/" + program_name;
}

// Starts this program as "/qx-title-<name>/prog" with the given further
// arguments and environment, and collects its report.
scenario_result run_scenario(const std::string &name, const std::vector<std::string> &arguments,
                             const std::vector<std::string> &environment) {
    std::vector<std::string> args{scenario_argv0(name)};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_copy(environment);
    std::vector<char *> envp;
    for (std::string &e : env_copy)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    scenario_result result;
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0)
        return result;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(channel[1], STDOUT_FILENO);
        execve("/proc/self/exe", argv.data(), envp.data());
        _exit(127);
    }
    close(channel[1]);
    const std::string output = read_whole(channel[0]);
    close(channel[0]);
    waitpid(pid, &result.status, 0);
    std::size_t start = 0;
    while (start < output.size()) {
        const std::size_t end = output.find('\n', start);
        const std::string line = output.substr(start, end - start);
        const std::size_t blank = line.find(' ');
        result.facts[line.substr(0, blank)] = from_hex(line.substr(blank + 1));
        start = end == std::string::npos ? output.size() : end + 1;
    }
    return result;
}

bool ended_cleanly(const scenario_result &r) {
    return WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0;
}

// Bytes the kernel gives the strings: each with its NUL, the last one's NUL
// not counted.
std::size_t area_length_of(const std::vector<std::string> &strings) {
    std::size_t length = 0;
    for (const std::string &s : strings)
        length += s.size() + 1;
    return length - 1;
}

// The first NUL-terminated string of text, and whether only NULs follow.
std::string first_string(const std::string &text) {
    return text.substr(0, text.find('\0'));
}
bool only_nuls_after_first_string(const std::string &text) {
    const std::size_t nul = text.find('\0');
    return nul == std::string::npos || text.find_first_not_of('\0', nul) == std::string::npos;
}

// The area as the title leaves it: the title, then NULs up to and including
// the final NUL.
std::string expected_area(const std::string &title, std::size_t area_length) {
    return title + std::string(area_length + 1 - title.size(), '\0');
}

const std::vector<std::string> basic_arguments{"one-more"};
const std::vector<std::string> basic_environment{"QX_FIRST=1", "QX_SECOND=two words"};

// ---- proctitle before initproctitle -------------------------------------------

TEST(Proctitle, BeforeInitproctitleChangesNothingInThisProcess) {
    const std::string cmdline = read_cmdline();
    const std::string name = program_invocation_name;
    char **environment = environ;
    proctitle("idle");
    proctitle("%s %d", "busy", 1);
    EXPECT_EQ(read_cmdline(), cmdline);
    EXPECT_EQ(std::string(program_invocation_name), name);
    EXPECT_EQ(environ, environment);
}

TEST(Proctitle, BeforeInitproctitleLeavesTheArgumentAreaAndVectorAlone) {
    const auto r = run_scenario("inert", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["unchanged"], "1");
    std::string expected;
    for (const std::string &s : {scenario_argv0("inert"), basic_arguments[0]})
        expected += s + '\0';
    EXPECT_EQ(r["cmdline"], expected);
}

// ---- initproctitle ------------------------------------------------------------

TEST(Initproctitle, MovesTheEnvironmentToTheHeapWithTheSameValues) {
    const auto r = run_scenario("basic", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["moved"], "1");
    EXPECT_EQ(r["QX_FIRST"], "1");
    EXPECT_EQ(r["QX_SECOND"], "two words");
    EXPECT_EQ(r["first_in_area"], "0");
    EXPECT_EQ(r["QX_SECOND_after"], "two words");
}

TEST(Initproctitle, WithAnEmptyEnvironmentTheAreaEndsWithTheLastArgument) {
    const std::vector<std::string> arguments{"abc", "de"};
    const auto r = run_scenario("empty-env", arguments, {});
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["env_was_empty"], "1");
    EXPECT_EQ(r["new_array"], "1");
    const std::size_t area = area_length_of({scenario_argv0("empty-env"), "abc", "de"});
    ASSERT_EQ(r["area_length"], std::to_string(area));
    // The title is cut to the area less two bytes: the area ends with "de".
    const std::string title =
        (std::string(program_name) + ": " + std::string(100, 'x')).substr(0, area - 2);
    EXPECT_EQ(r["long.area"], expected_area(title, area));
    EXPECT_EQ(first_string(r["long.cmdline"]), title);
}

TEST(Initproctitle, LeavesTheEnvironmentAsItWasWhenAnAllocationFails) {
    const auto r = run_scenario("alloc", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    // The program name, the new array and (where the allocator sees the
    // C library's strdup) each string copy.
    const long expected_failures =
        2 + (qx_test::heap_bytes_available() ? 0 : static_cast<long>(basic_environment.size()));
    EXPECT_EQ(r["failed_runs"], std::to_string(expected_failures));
    EXPECT_EQ(r["unchanged"], "1");
    // The run without a failure sets everything up.
    EXPECT_EQ(r["moved"], "1");
    EXPECT_EQ(first_string(r["idle.area"]), "prog: idle");
}

TEST(Initproctitle, CalledTwiceCopiesTheEnvironmentAgain) {
    const auto r = run_scenario("twice", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["copied_again"], "1");
    EXPECT_EQ(r["moved"], "1");
    EXPECT_EQ(first_string(r["idle.area"]), "prog: idle");
}

TEST(Initproctitle, RefusesAMissingArgumentVectorOrFirstArgument) {
    const auto r = run_scenario("refused", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["unchanged"], "1");
}

// ---- proctitle ------------------------------------------------------------------

TEST(Proctitle, WritesNameColonBlankAndTextOverTheFirstArgumentAndEndsTheVector) {
    const auto r = run_scenario("basic", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    const std::size_t area =
        area_length_of({scenario_argv0("basic"), "one-more", "QX_FIRST=1", "QX_SECOND=two words"});
    ASSERT_EQ(r["area_length"], std::to_string(area));
    EXPECT_EQ(r["idle.area"], expected_area("prog: idle", area));
    EXPECT_EQ(r["idle.argv1_null"], "1");
    EXPECT_EQ(first_string(r["idle.cmdline"]), "prog: idle");
    EXPECT_TRUE(only_nuls_after_first_string(r["idle.cmdline"]));
}

TEST(Proctitle, FormatsPrintfStyleArguments) {
    const auto r = run_scenario("basic", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(first_string(r["busy.area"]), "prog: busy #42");
    EXPECT_EQ(first_string(r["busy.cmdline"]), "prog: busy #42");
}

TEST(Proctitle, AShorterTitleLeavesNothingOfTheLongerOneBefore) {
    const auto r = run_scenario("basic", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    const std::size_t area =
        area_length_of({scenario_argv0("basic"), "one-more", "QX_FIRST=1", "QX_SECOND=two words"});
    EXPECT_EQ(r["ok.area"], expected_area("prog: ok", area));
    EXPECT_EQ(first_string(r["ok.cmdline"]), "prog: ok");
    EXPECT_TRUE(only_nuls_after_first_string(r["ok.cmdline"]));
}

TEST(Proctitle, ATitleLongerThanTheAreaIsCutToTheAreaLessTwoBytes) {
    const std::vector<std::string> arguments{"abc"};
    const std::vector<std::string> environment{"A=1"};
    const auto r = run_scenario("long", arguments, environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    const std::size_t area = area_length_of({scenario_argv0("long"), "abc", "A=1"});
    ASSERT_EQ(r["area_length"], std::to_string(area));
    const std::string title = ("prog: " + std::string(1500, 'x')).substr(0, area - 2);
    EXPECT_EQ(r["long.area"], expected_area(title, area));
    EXPECT_EQ(r["long.argv1_null"], "1");
    // The title runs past the arguments into the old environment strings,
    // and process listings follow it there.
    EXPECT_EQ(first_string(r["long.cmdline"]), title);
}

TEST(Proctitle, AFormattedTextBeyondTheWorkBufferIsStillCutToTheArea) {
    const std::vector<std::string> arguments{"abc"};
    const std::vector<std::string> environment{"A=1"};
    const auto r = run_scenario("huge", arguments, environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    const std::size_t area = area_length_of({scenario_argv0("huge"), "abc", "A=1"});
    const std::string title = ("prog: " + std::string(3000, 'x')).substr(0, area - 2);
    EXPECT_EQ(r["long.area"], expected_area(title, area));
}

TEST(Proctitle, NeverCopiesMoreThanTheWorkBufferHoldsIntoALargeArea) {
    const std::vector<std::string> arguments{"abc"};
    const std::vector<std::string> environment{"BIG=" + std::string(5000, 'b')};
    const auto r = run_scenario("huge", arguments, environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    const std::size_t area = area_length_of({scenario_argv0("huge"), "abc", environment[0]});
    ASSERT_GT(area, 3000U);
    const std::string title = ("prog: " + std::string(3000, 'x')).substr(0, 2047);
    EXPECT_EQ(r["long.area"], expected_area(title, area));
    EXPECT_EQ(first_string(r["long.cmdline"]), title);
}

// ---- release_proctitle ------------------------------------------------------

TEST(ReleaseProctitle, FreesTheProgramNameAndTheMovedEnvironment) {
    const auto r = run_scenario("release", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["strings"], std::to_string(basic_environment.size()));
    EXPECT_EQ(r["freed_strings"], std::to_string(basic_environment.size()));
    EXPECT_EQ(r["array_freed"], "1");
    // Every string, the array and the program name.
    EXPECT_EQ(r["frees"], std::to_string(basic_environment.size() + 2));
}

TEST(ReleaseProctitle, WithoutInitproctitleLeavesTheEnvironmentAlone) {
    const auto r = run_scenario("release-without-init", basic_arguments, basic_environment);
    ASSERT_TRUE(ended_cleanly(r)) << r.status;
    EXPECT_EQ(r["frees"], "0");
    EXPECT_EQ(r["environment_intact"], "1");
}

} // namespace
