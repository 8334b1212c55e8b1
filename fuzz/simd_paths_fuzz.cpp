// The vector and the scalar path of the codecs and escapes must give the same
// results, byte for byte. Every prefix of the input (every length up to
// max_compared_length, and the whole input) goes through the functions that
// have a vector kernel, once on each path, and the results are compared.
//
// The input and the output blocks end right before a page that may not be
// touched, so a kernel that reads or writes one byte too far crashes at
// once, with or without the sanitizers.
//
// Input: byte 0 picks the decoders' output sizes and the line length of the
// wrapped encoding; the rest is the payload, taken as bytes by the encoders
// and as text (up to its first NUL) by the decoders.
//
// This harness switches paths inside one process, which only the library's
// internals can do; it is linked with its own static build of the library.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz_support.hpp"
#include "internal/simd.hpp"
#include "qxcommon-util/codec.h"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

namespace {

namespace simd = qx::detail::simd;

// Lengths up to this one are all compared; longer inputs are compared whole.
constexpr std::size_t max_compared_length = 256;

// A block of pages followed by one that may not be touched. tail(n) gives n
// bytes that end right before that page.
class guarded_block {
  public:
    char *tail(std::size_t n) {
        if (base_ == nullptr || n > room_)
            grow(n);
        return base_ + room_ - n;
    }

  private:
    void grow(std::size_t n) {
        const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        if (base_ != nullptr)
            ::munmap(base_, room_ + page);
        room_ = n == 0 ? page : (n + page - 1) / page * page;
        void *block = ::mmap(nullptr, room_ + page, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED)
            qx_fuzz::fail("cannot map the guarded block");
        base_ = static_cast<char *>(block);
        if (::mprotect(base_ + room_, page, PROT_NONE) != 0)
            qx_fuzz::fail("cannot protect the guard page");
    }

    char *base_ = nullptr;
    std::size_t room_ = 0;
};

guarded_block input_block;
guarded_block output_block;

// What one path made of one input: each result followed by the bytes the
// function was given room for, in one transcript per path.
class transcript {
  public:
    void result(const char *what, long value) {
        text_ += what;
        text_ += '=';
        text_ += std::to_string(value);
        text_ += '\n';
    }
    // In hex, so that a difference can be printed.
    void bytes(const char *what, const char *data, std::size_t n) {
        static const char digits[] = "0123456789abcdef";
        text_ += what;
        text_ += ':';
        for (std::size_t i = 0; i < n; ++i) {
            const auto b = static_cast<unsigned char>(data[i]);
            text_ += digits[b >> 4];
            text_ += digits[b & 15];
        }
        text_ += '\n';
    }
    const std::string &text() const { return text_; }

  private:
    std::string text_;
};

// The payload's first n bytes, ending at the guard page.
const unsigned char *guarded_bytes(const std::uint8_t *payload, std::size_t n) {
    char *in = input_block.tail(n);
    std::memcpy(in, payload, n);
    return reinterpret_cast<const unsigned char *>(in);
}

// The payload's first n bytes and a NUL, the NUL the last byte before the
// guard page.
const char *guarded_text(const std::uint8_t *payload, std::size_t n) {
    char *in = input_block.tail(n + 1);
    std::memcpy(in, payload, n);
    in[n] = '\0';
    return in;
}

// An output block of exactly n bytes, filled with a mark so that the bytes a
// function did not write are compared as well.
unsigned char *guarded_output(std::size_t n) {
    char *out = output_block.tail(n);
    std::memset(out, '#', n);
    return reinterpret_cast<unsigned char *>(out);
}

void run_encoders(const std::uint8_t *payload, std::size_t n, int linelen, transcript &t) {
    const unsigned char *in = guarded_bytes(payload, n);
    const int length = static_cast<int>(n);
    const int needed = base64_encode(in, length, nullptr, 0);
    auto *out = reinterpret_cast<char *>(guarded_output(static_cast<std::size_t>(needed)));
    t.result("base64_encode", base64_encode(in, length, out, needed));
    t.bytes("base64_encode", out, static_cast<std::size_t>(needed));

    // Room for every line feed: the capacity test of the wrapped form is
    // weaker than what it writes.
    const std::size_t wrapped =
        static_cast<std::size_t>(needed) +
        static_cast<std::size_t>(needed) / static_cast<std::size_t>(linelen);
    out = reinterpret_cast<char *>(guarded_output(wrapped));
    t.result("base64_encode_wrap", base64_encode_wrap(guarded_bytes(payload, n), length, out,
                                                      static_cast<int>(wrapped), linelen));
    t.bytes("base64_encode_wrap", out, wrapped);
}

void run_decoders(const std::uint8_t *payload, std::size_t n, std::uint8_t sizes, transcript &t) {
    // Room for everything, and a smaller room picked by the input.
    const std::size_t outsizes[] = {n, sizes % 64U, n > sizes ? n - sizes : 0};
    for (const std::size_t outsize : outsizes) {
        const char *text = guarded_text(payload, n);
        unsigned char *out = guarded_output(outsize);
        t.result("base64_decode", base64_decode(text, out, static_cast<int>(outsize)));
        t.bytes("base64_decode", reinterpret_cast<const char *>(out), outsize);

        text = guarded_text(payload, n);
        out = guarded_output(outsize);
        t.result("hex_decode", hex_decode(text, out, static_cast<unsigned int>(outsize)));
        t.bytes("hex_decode", reinterpret_cast<const char *>(out), outsize);
    }
    // No limit at all: a negative size.
    const char *text = guarded_text(payload, n);
    unsigned char *out = guarded_output(n);
    t.result("base64_decode unlimited", base64_decode(text, out, -1));
    t.bytes("base64_decode unlimited", reinterpret_cast<const char *>(out), n);
}

void run_escapes(const std::uint8_t *payload, std::size_t n, transcript &t) {
    strbuf sb{};
    if (strbuf_nappend(&sb, guarded_bytes(payload, n), n) != 0)
        qx_fuzz::fail("cannot fill a buffer");
    t.result("strbuf_urlencode", strbuf_urlencode(&sb));
    t.result("strbuf_urlencode length", static_cast<long>(sb.length));
    t.bytes("strbuf_urlencode", sb.text, sb.length + 1);
    strbuf_free(&sb);
}

std::string run_on(simd::path wanted, const std::uint8_t *payload, std::size_t n,
                   std::uint8_t selector) {
    simd::select_path(wanted);
    transcript t;
    run_encoders(payload, n, 4 * (selector % 16 + 1) - (selector >> 7), t);
    run_decoders(payload, n, selector, t);
    run_escapes(payload, n, t);
    return t.text();
}

void compare_paths(const std::uint8_t *payload, std::size_t n, std::uint8_t selector) {
    const std::string scalar = run_on(simd::path::scalar, payload, n, selector);
    const std::string vector = run_on(simd::path::avx2, payload, n, selector);
    if (scalar == vector)
        return;
    std::size_t at = 0;
    while (at < scalar.size() && at < vector.size() && scalar[at] == vector[at])
        ++at;
    const std::size_t line = scalar.rfind('\n', at == 0 ? 0 : at - 1);
    const std::size_t from = line == std::string::npos ? 0 : line + 1;
    const std::size_t shown = std::min<std::size_t>(at - from + 16, 120);
    std::fprintf(stderr, "length %zu: the paths differ in\n  scalar: %.*s\n  vector: %.*s\n", n,
                 static_cast<int>(shown), scalar.c_str() + from, static_cast<int>(shown),
                 vector.c_str() + from);
    qx_fuzz::fail("the vector path differs from the scalar path");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (simd::select_path(simd::path::avx2) != simd::path::avx2)
        std::fprintf(stderr, "simd_paths_fuzz: vector path not available on this machine (no "
                             "AVX2); only the scalar path is run, against itself\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const std::uint8_t selector = data[0];
    const std::uint8_t *payload = data + 1;
    const std::size_t n = size - 1;
    for (std::size_t length = 0; length <= n && length <= max_compared_length; ++length)
        compare_paths(payload, length, selector);
    if (n > max_compared_length)
        compare_paths(payload, n, selector);
    return 0;
}
