// Starting /bin/true from a parent that holds 1 GiB of touched heap:
// forkandexec_ex beside posix_spawn + waitpid and beside a plain
// fork + execv + waitpid, all in the same run. A start that copies the
// parent's page tables pays for the gigabyte on every call; one that shares
// the address space until the exec does not.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/forkandexec_bench
//
// The figures are wall-clock latency per start (the parent waits for the
// child, so its CPU time would leave out most of the work).
//
// The start_with_limit cases time 100 single calls each, one after the
// other, and report the median and the slowest call in milliseconds
// (counters median_ms and max_ms): forkandexec_ex_with_to of /bin/true with
// a limit of 5 seconds, beside posix_spawn + waitpid. A command that ends at
// once must be returned at once, not after a pause of the limit (target:
// slowest call under 20 ms).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench_support.hpp"
#include "qxcommon-util/forkandexec.h"
#include "qxcommon-util/strbuf.h"

extern char **environ;

namespace {

char true_path[] = "/bin/true";
char *true_argv[] = {true_path, nullptr};

void BM_ForkAndExecEx(benchmark::State &state) {
    for (auto _ : state) {
        strbuf out{};
        strbuf err{};
        const int status = forkandexec_ex(true_argv, &out, &err);
        if (status != 0)
            state.SkipWithError("forkandexec_ex did not report exit status 0");
        std::free(out.text);
        std::free(err.text);
    }
}

void BM_PosixSpawnWaitpid(benchmark::State &state) {
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawn(&pid, true_path, nullptr, nullptr, true_argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            state.SkipWithError("/bin/true did not exit with 0");
    }
}

void BM_ForkExecvWaitpid(benchmark::State &state) {
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid < 0) {
            state.SkipWithError("fork failed");
            break;
        }
        if (pid == 0) {
            execv(true_path, true_argv);
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            state.SkipWithError("/bin/true did not exit with 0");
    }
}

constexpr int single_calls = 100;

// Runs `start` 100 times, timing each call alone, and reports the median and
// the slowest call. `start` tells whether the call gave status 0.
template <typename Start> void time_single_calls(benchmark::State &state, Start start) {
    std::array<double, single_calls> milliseconds{};
    for (auto _ : state) {
        for (double &call : milliseconds) {
            const auto begin = std::chrono::steady_clock::now();
            if (!start()) {
                state.SkipWithError("the command did not report exit status 0");
                return;
            }
            const std::chrono::duration<double, std::milli> took =
                std::chrono::steady_clock::now() - begin;
            call = took.count();
        }
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    state.counters["median_ms"] =
        (milliseconds[single_calls / 2 - 1] + milliseconds[single_calls / 2]) / 2;
    state.counters["max_ms"] = milliseconds.back();
}

void BM_ForkAndExecExWithLimit(benchmark::State &state) {
    time_single_calls(state, [] {
        strbuf out{};
        strbuf err{};
        const int status = forkandexec_ex_with_to(true_argv, 5, &out, &err);
        std::free(out.text);
        std::free(err.text);
        return status == 0;
    });
}

void BM_PosixSpawnSingleCalls(benchmark::State &state) {
    time_single_calls(state, [] {
        pid_t pid = 0;
        if (posix_spawn(&pid, true_path, nullptr, nullptr, true_argv, environ) != 0)
            return false;
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    });
}

BENCHMARK(BM_ForkAndExecEx)->Name("start/qx")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PosixSpawnWaitpid)
    ->Name("start/posix_spawn")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ForkExecvWaitpid)->Name("start/fork")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ForkAndExecExWithLimit)
    ->Name("start_with_limit/qx")
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PosixSpawnSingleCalls)
    ->Name("start_with_limit/posix_spawn")
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    // Touch every page so that the whole gigabyte is mapped and has page
    // table entries to copy; it stays allocated for the whole run.
    // A smoke run only checks that the three starts work.
    const std::size_t touched_heap_bytes =
        qx_bench::scaled(std::size_t{1} << 30, 64 * qx_bench::mebibyte);
    auto *heap = static_cast<volatile char *>(std::malloc(touched_heap_bytes));
    if (heap == nullptr)
        return 1;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (std::size_t offset = 0; offset < touched_heap_bytes; offset += page)
        heap[offset] = 1;

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::free(const_cast<char *>(heap));
    return 0;
}
