// The Base64 codec beside glib's g_base64_encode/g_base64_decode and libb64,
// on the same mebibyte of random bytes; Base32, hex decoding and URL encoding
// alone, in MB/s.
//
//   cmake --preset bench && cmake --build --preset bench
//   build/bench/bench/codec_bench
//
// The Base64 and hex decoders, the Base64 encoder and the URL encoding have
// vector kernels; QXCOMMON_UTIL_SIMD=scalar in the environment makes them
// take the scalar path, so that the two can be compared:
//
//   QXCOMMON_UTIL_SIMD=scalar build/bench/bench/codec_bench \
//       --benchmark_filter='^hex_decode/qx$' --benchmark_repetitions=5
//
// Every encoder and decoder gets a fresh output block per iteration: glib
// allocates its result itself, so ours and libb64 pay for a malloc too. The
// bytes processed are the bytes of binary data (1 MiB), whichever way they go.
#include <benchmark/benchmark.h>

#include <glib.h>

extern "C" {
#include <b64/cdecode.h>
#include <b64/cencode.h>
}

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "bench_support.hpp"
#include "qxcommon-util/codec.h"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

namespace {

constexpr int data_size = 1 << 20;

struct workload {
    std::string data;   // data_size random bytes
    std::string base64; // their padded Base64 form, one line
    std::string base32; // their Base32 form, unpadded
    std::string hex;    // their lower-case hex form
    std::string text;   // data_size bytes of URL-like text
};

const workload &the_workload() {
    static const workload w = [] {
        workload made;
        std::mt19937 rng(7);
        std::uniform_int_distribution<int> byte(0, 255);
        made.data.resize(data_size);
        for (char &c : made.data)
            c = static_cast<char>(byte(rng));
        const auto *in = reinterpret_cast<const unsigned char *>(made.data.data());

        // glib gives the reference Base64 text; the benchmark then checks that
        // ours agrees with it before trusting the timings.
        gchar *encoded = g_base64_encode(in, made.data.size());
        made.base64 = encoded;
        g_free(encoded);

        made.base32.resize((data_size * 8 + 4) / 5 + 1);
        const int n =
            base32_encode(in, data_size, made.base32.data(), static_cast<int>(made.base32.size()));
        made.base32.resize(n < 0 ? 0 : static_cast<std::size_t>(n));

        static const char digits[] = "0123456789abcdef";
        for (unsigned char c : made.data) {
            made.hex.push_back(digits[c >> 4]);
            made.hex.push_back(digits[c & 15]);
        }

        static const char sample[] = "/srv/data/Report 2026 (final).pdf?user=J%C3&x=1~y_z-2.3 ";
        while (made.text.size() < static_cast<std::size_t>(data_size))
            made.text += sample;
        made.text.resize(data_size);
        return made;
    }();
    return w;
}

const unsigned char *data_bytes(const workload &w) {
    return reinterpret_cast<const unsigned char *>(w.data.data());
}

void set_bytes(benchmark::State &state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * data_size);
}

void base64_encode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        const int needed = base64_encode(data_bytes(w), data_size, nullptr, 0);
        char *out = static_cast<char *>(std::malloc(static_cast<std::size_t>(needed)));
        const int n = base64_encode(data_bytes(w), data_size, out, needed);
        if (n != static_cast<int>(w.base64.size()) ||
            std::memcmp(out, w.base64.data(), w.base64.size()) != 0)
            state.SkipWithError("base64_encode disagrees with glib");
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    set_bytes(state);
    meter.report(state);
}

void base64_encode_glib(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        gchar *out = g_base64_encode(data_bytes(w), w.data.size());
        benchmark::DoNotOptimize(out);
        g_free(out);
    }
    set_bytes(state);
    meter.report(state);
}

// libb64 breaks its lines (it writes line feeds the others do not), so its
// block gets room for them; the check compares the text without them.
void base64_encode_libb64(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    const std::size_t room = w.base64.size() * 2 + 16;
    bool checked = false;
    for (auto _ : state) {
        char *out = static_cast<char *>(std::malloc(room));
        base64_encodestate es;
        base64_init_encodestate(&es);
        int n = base64_encode_block(w.data.data(), data_size, out, &es);
        n += base64_encode_blockend(out + n, &es);
        benchmark::DoNotOptimize(out);
        if (!checked) {
            // Compared in place: a copy would count in the memory figure.
            checked = true;
            std::size_t j = 0;
            bool same = true;
            for (int i = 0; i < n && same; ++i)
                if (out[i] != '\n')
                    same = j < w.base64.size() && out[i] == w.base64[j++];
            if (!same || j != w.base64.size())
                state.SkipWithError("libb64 disagrees with glib");
        }
        std::free(out);
    }
    set_bytes(state);
    meter.report(state);
}

void base64_decode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        auto *out = static_cast<unsigned char *>(std::malloc(data_size));
        const int n = base64_decode(w.base64.c_str(), out, data_size);
        if (n != data_size || std::memcmp(out, w.data.data(), data_size) != 0)
            state.SkipWithError("base64_decode did not give the data back");
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    set_bytes(state);
    meter.report(state);
}

void base64_decode_glib(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        gsize n = 0;
        guchar *out = g_base64_decode(w.base64.c_str(), &n);
        if (n != static_cast<gsize>(data_size))
            state.SkipWithError("g_base64_decode did not give the data back");
        benchmark::DoNotOptimize(out);
        g_free(out);
    }
    set_bytes(state);
    meter.report(state);
}

void base64_decode_libb64(benchmark::State &state) {
    const workload &w = the_workload();
    const qx_bench::memory_meter meter;
    for (auto _ : state) {
        char *out = static_cast<char *>(std::malloc(data_size));
        base64_decodestate ds;
        base64_init_decodestate(&ds);
        const int n =
            base64_decode_block(w.base64.data(), static_cast<int>(w.base64.size()), out, &ds);
        if (n != data_size || std::memcmp(out, w.data.data(), data_size) != 0)
            state.SkipWithError("libb64 did not give the data back");
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    set_bytes(state);
    meter.report(state);
}

void base32_encode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    std::string out(w.base32.size() + 1, '\0');
    for (auto _ : state) {
        const int n =
            base32_encode(data_bytes(w), data_size, out.data(), static_cast<int>(out.size()));
        if (n != static_cast<int>(w.base32.size()))
            state.SkipWithError("base32_encode failed");
        benchmark::DoNotOptimize(out.data());
    }
    set_bytes(state);
}

void base32_decode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    std::string out(data_size + 1, '\0');
    for (auto _ : state) {
        const int n = base32_decode(w.base32.c_str(), reinterpret_cast<unsigned char *>(out.data()),
                                    static_cast<int>(out.size()));
        if (n != data_size || std::memcmp(out.data(), w.data.data(), data_size) != 0)
            state.SkipWithError("base32_decode did not give the data back");
        benchmark::DoNotOptimize(out.data());
    }
    set_bytes(state);
}

void hex_decode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    std::string out(data_size + 1, '\0');
    for (auto _ : state) {
        const int n = hex_decode(w.hex.c_str(), reinterpret_cast<unsigned char *>(out.data()),
                                 static_cast<unsigned int>(out.size()));
        if (n != data_size || std::memcmp(out.data(), w.data.data(), data_size) != 0)
            state.SkipWithError("hex_decode did not give the data back");
        benchmark::DoNotOptimize(out.data());
    }
    set_bytes(state);
}

// The buffer is refilled, outside the timing, before each in-place encoding.
void urlencode_qx(benchmark::State &state) {
    const workload &w = the_workload();
    for (auto _ : state) {
        state.PauseTiming();
        strbuf sb{};
        const int filled = strbuf_nappend(&sb, w.text.data(), w.text.size());
        state.ResumeTiming();
        if (filled != 0 || strbuf_urlencode(&sb) != 0 || sb.length <= w.text.size())
            state.SkipWithError("strbuf_urlencode failed");
        benchmark::DoNotOptimize(sb.text);
        state.PauseTiming();
        strbuf_free(&sb);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * w.text.size()));
}

BENCHMARK(base64_encode_qx)->Name("base64_encode/qx");
BENCHMARK(base64_encode_glib)->Name("base64_encode/glib");
BENCHMARK(base64_encode_libb64)->Name("base64_encode/libb64");
BENCHMARK(base64_decode_qx)->Name("base64_decode/qx");
BENCHMARK(base64_decode_glib)->Name("base64_decode/glib");
BENCHMARK(base64_decode_libb64)->Name("base64_decode/libb64");
BENCHMARK(base32_encode_qx)->Name("base32_encode/qx");
BENCHMARK(base32_decode_qx)->Name("base32_decode/qx");
BENCHMARK(hex_decode_qx)->Name("hex_decode/qx");
BENCHMARK(urlencode_qx)->Name("urlencode/qx");

} // namespace

BENCHMARK_MAIN();
