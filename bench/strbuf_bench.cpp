// strbuf beside glib's GString and plain memcpy: many small appends, 4 KiB
// chunks and "%d," formatting. Every case builds a fresh buffer per
// iteration and frees it, so growth is part of what is measured.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/strbuf_bench
//
// QX_BENCH_QUICK=1 shrinks the inputs for a smoke run.
#include <benchmark/benchmark.h>

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_support.hpp"
#include "qxcommon-util/strbuf.h"
#include "qxcommon-util/strbuf_format.h"

namespace {

using qx_bench::mebibyte;
using qx_bench::scaled;

constexpr char piece16[] = "0123456789abcdef";
static_assert(sizeof piece16 == 17, "sixteen bytes and a NUL");

std::size_t small_total() {
    return scaled(64 * mebibyte, mebibyte);
}

// Appends piece count times to sb; false, with the benchmark marked as
// failed, when an append fails or the length comes out wrong.
bool append_pieces(benchmark::State &state, strbuf &sb, const char *piece, std::size_t count,
                   std::size_t total) {
    for (std::size_t i = 0; i < count; ++i) {
        if (strbuf_append(&sb, piece) != 0) {
            state.SkipWithError("strbuf_append failed");
            return false;
        }
    }
    if (sb.length != total) {
        state.SkipWithError("wrong length");
        return false;
    }
    return true;
}

// A fresh buffer per iteration, filled to total bytes with pieces of
// piece_length bytes and freed.
void append_fresh(benchmark::State &state, const char *piece, std::size_t piece_length) {
    const std::size_t total = small_total();
    const std::size_t count = total / piece_length;
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        strbuf sb{};
        const bool filled = append_pieces(state, sb, piece, count, total);
        benchmark::DoNotOptimize(sb.text);
        strbuf_free(&sb);
        if (!filled)
            break;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
    meter.report(state);
}

void append16_qx(benchmark::State &state) {
    append_fresh(state, piece16, sizeof piece16 - 1);
}

void append16_glib(benchmark::State &state) {
    const std::size_t total = small_total();
    const std::size_t count = total / 16;
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        GString *s = g_string_new(nullptr);
        for (std::size_t i = 0; i < count; ++i)
            g_string_append(s, piece16);
        if (s->len != total)
            state.SkipWithError("wrong length");
        benchmark::DoNotOptimize(s->str);
        benchmark::DoNotOptimize(g_string_free(s, TRUE));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
    meter.report(state);
}

const std::string &chunk4k() {
    static const std::string chunk = [] {
        std::string made(4096, '\0');
        for (std::size_t i = 0; i < made.size(); ++i)
            made[i] = static_cast<char>('a' + i % 26);
        return made;
    }();
    return chunk;
}

void append4k_qx(benchmark::State &state) {
    append_fresh(state, chunk4k().c_str(), chunk4k().size());
}

// The same appends into one buffer kept across iterations: its pages are
// already mapped and touched, as the memcpy block's are, so the difference to
// append4k/memcpy is the buffer's own work rather than the kernel's.
void append4k_qx_reused(benchmark::State &state) {
    const std::size_t total = small_total();
    const std::string &chunk = chunk4k();
    const std::size_t count = total / chunk.size();
    strbuf sb{};
    for (auto _ : state) {
        if (strbuf_setlength(&sb, 0) != 0) {
            state.SkipWithError("strbuf_setlength failed");
            break;
        }
        if (!append_pieces(state, sb, chunk.c_str(), count, total))
            break;
        benchmark::DoNotOptimize(sb.text);
        benchmark::ClobberMemory();
    }
    strbuf_free(&sb);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
}

// The memcpy side of the 4 KiB case: count copies of chunk with its NUL,
// each over the NUL of the one before, as the appends do.
void copy_chunks(char *block, const std::string &chunk, std::size_t count) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::memcpy(block + length, chunk.data(), chunk.size() + 1);
        length += chunk.size();
    }
    benchmark::DoNotOptimize(block);
    benchmark::ClobberMemory();
}

// A block of the final size is allocated in each iteration, as the buffers
// above start afresh in each iteration: its pages are fresh too, so both
// sides pay the kernel for the memory they fill and the difference is the
// buffer's growth and its strlen. The floor for a growing buffer.
void append4k_memcpy(benchmark::State &state) {
    const std::size_t total = small_total();
    const std::string &chunk = chunk4k();
    const std::size_t count = total / chunk.size();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        char *block = static_cast<char *>(std::malloc(total + 1));
        if (block == nullptr) {
            state.SkipWithError("out of memory");
            break;
        }
        copy_chunks(block, chunk, count);
        std::free(block);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
    meter.report(state);
}

// The block is allocated and touched once, before the timing starts: the
// counterpart of append4k/qx_reused, whose pages are also already there.
void append4k_memcpy_touched(benchmark::State &state) {
    const std::size_t total = small_total();
    const std::string &chunk = chunk4k();
    const std::size_t count = total / chunk.size();
    char *block = static_cast<char *>(std::malloc(total + 1));
    if (block == nullptr) {
        state.SkipWithError("out of memory");
        return;
    }
    std::memset(block, 0, total + 1);
    for (auto _ : state) {
        copy_chunks(block, chunk, count);
    }
    std::free(block);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
}

std::size_t appendf_count() {
    return scaled(1000000, 20000);
}

void appendf_qx(benchmark::State &state) {
    const int count = static_cast<int>(appendf_count());
    std::size_t length = 0;
    for (auto _ : state) {
        strbuf sb{};
        for (int i = 0; i < count; ++i) {
            if (strbuf_appendf(&sb, "%d,", i) != 0) {
                state.SkipWithError("strbuf_appendf failed");
                break;
            }
        }
        length = sb.length;
        benchmark::DoNotOptimize(sb.text);
        strbuf_free(&sb);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * count);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * length));
}

void appendf_glib(benchmark::State &state) {
    const int count = static_cast<int>(appendf_count());
    std::size_t length = 0;
    for (auto _ : state) {
        GString *s = g_string_new(nullptr);
        for (int i = 0; i < count; ++i)
            g_string_append_printf(s, "%d,", i);
        length = s->len;
        benchmark::DoNotOptimize(s->str);
        benchmark::DoNotOptimize(g_string_free(s, TRUE));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * count);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * length));
}

// Both sides must produce the same text, or the comparison means nothing.
void appendf_agree(benchmark::State &state) {
    strbuf sb{};
    GString *s = g_string_new(nullptr);
    for (int i = -1000; i < 1000; ++i) {
        (void)strbuf_appendf(&sb, "%d,", i);
        g_string_append_printf(s, "%d,", i);
    }
    const bool same = sb.length == s->len && std::memcmp(sb.text, s->str, s->len) == 0;
    strbuf_free(&sb);
    benchmark::DoNotOptimize(g_string_free(s, TRUE));
    for (auto _ : state)
        benchmark::DoNotOptimize(same);
    if (!same)
        state.SkipWithError("strbuf_appendf and g_string_append_printf differ");
}

BENCHMARK(append16_qx)->Name("append16/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(append16_glib)->Name("append16/glib")->Unit(benchmark::kMillisecond);
BENCHMARK(append4k_qx)->Name("append4k/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(append4k_qx_reused)->Name("append4k/qx_reused")->Unit(benchmark::kMillisecond);
BENCHMARK(append4k_memcpy)->Name("append4k/memcpy")->Unit(benchmark::kMillisecond);
BENCHMARK(append4k_memcpy_touched)->Name("append4k/memcpy_touched")->Unit(benchmark::kMillisecond);
BENCHMARK(appendf_qx)->Name("appendf/qx")->Unit(benchmark::kMillisecond);
BENCHMARK(appendf_glib)->Name("appendf/glib")->Unit(benchmark::kMillisecond);
BENCHMARK(appendf_agree)->Name("appendf/agree")->Iterations(1);

} // namespace

BENCHMARK_MAIN();
