// Base32, Base64 and hex. Two kinds of check per input:
//  - the encoders into a strbuf (already holding a prefix, so that every
//    distance to the end of the allocation is reached) must decode back to
//    the input and leave the prefix alone;
//  - the decoders on the input taken as text must agree with small
//    reference decoders written from the codecs' rules.
// Input: byte 0 picks pad, line length and the low prefix bits, byte 1 the
// high prefix bits and the decoders' output size; the rest is the payload.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/codec.h"
#include "qxcommon-util/strbuf.h"

using qx_fuzz::check;

using qx_fuzz::hex_value;

namespace {

int b32_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a';
    if (c >= '2' && c <= '7')
        return c - '2' + 26;
    return -1;
}

int b64_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

bool is_c_space(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Result and bytes of a Base32 decode; -1 where the decoder must fail.
int ref_base32(const std::string &in, int outsize, std::string &out) {
    out.clear();
    if (outsize < 1)
        return -1;
    unsigned long acc = 0;
    int bits = 0;
    for (unsigned char c : in) {
        if (c == '\0' || c == '=')
            break;
        if (is_c_space(c) || c == '-')
            continue;
        const int v = b32_value(c);
        if (v < 0)
            return -1;
        acc = (acc << 5 | static_cast<unsigned>(v)) & 0xFFFF;
        bits += 5;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((acc >> bits) & 0xFF));
            if (static_cast<int>(out.size()) == outsize)
                return -1;
        }
    }
    return static_cast<int>(out.size());
}

int ref_base64(const std::string &in, int outsize, std::string &out) {
    out.clear();
    unsigned long acc = 0;
    int bits = 0;
    for (unsigned char c : in) {
        const int v = b64_value(c);
        if (v < 0)
            break;
        acc = (acc << 6 | static_cast<unsigned>(v)) & 0xFFFF;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            if (static_cast<int>(out.size()) == outsize)
                return -1;
            out.push_back(static_cast<char>((acc >> bits) & 0xFF));
        }
    }
    return static_cast<int>(out.size());
}

int ref_hex(const std::string &in, unsigned outsize, std::string &out) {
    out.clear();
    if (static_cast<int>(outsize) < 2)
        return 0;
    for (std::size_t i = 0; i + 1 < in.size() + 1 && out.size() < outsize - 1; i += 2) {
        const int hi = hex_value(static_cast<unsigned char>(in[i]));
        const int lo = i + 1 < in.size() ? hex_value(static_cast<unsigned char>(in[i + 1])) : -1;
        if (hi < 0 || lo < 0)
            break;
        out.push_back(static_cast<char>(hi << 4 | lo));
    }
    return static_cast<int>(out.size());
}

// Fills a buffer with prefix_length bytes of 'P' so the encoders start at
// any distance from the end of the allocation.
void start_with_prefix(strbuf &sb, std::size_t prefix_length) {
    std::string prefix(prefix_length, 'P');
    if (strbuf_nappend(&sb, prefix.data(), prefix.size()) != 0)
        qx_fuzz::fail("prefix append failed");
}

bool prefix_intact(const strbuf &sb, std::size_t prefix_length) {
    for (std::size_t i = 0; i < prefix_length; ++i)
        if (sb.text[i] != 'P')
            return false;
    return true;
}

void check_base64_round_trip(const std::string &payload, std::size_t prefix, int pad, int linelen) {
    strbuf sb{};
    start_with_prefix(sb, prefix);
    const int len = static_cast<int>(payload.size());
    const int r = strbuf_append_b64n_wrap(&sb, payload.data(), len, pad, linelen);
    check(r == 0, "strbuf_append_b64n_wrap failed on a valid input");
    check(prefix_intact(sb, prefix), "Base64 append changed the existing text");
    check(sb.text[sb.length] == '\0', "Base64 append left no NUL");
    std::string encoded(sb.text + prefix, sb.length - prefix);

    const std::size_t c = (8 * payload.size() + 5) / 6;
    const std::size_t padded = (payload.size() + 2) / 3 * 4;
    if (linelen == 0) {
        check(encoded.size() == (pad ? padded : c), "Base64 length");
    } else if (pad) {
        check(encoded.size() == padded + padded / static_cast<std::size_t>(linelen),
              "wrapped Base64 length");
        std::string joined;
        for (std::size_t i = 0; i < encoded.size(); ++i) {
            const bool at_break = (i + 1) % static_cast<std::size_t>(linelen + 1) == 0;
            check(at_break == (encoded[i] == '\n'), "line feed out of place");
            if (!at_break)
                joined.push_back(encoded[i]);
        }
        encoded = joined;
    } else {
        // Without padding the wrapped length is deliberately c', not the
        // encoder's count; only the memory checks apply.
        strbuf_free(&sb);
        return;
    }
    for (std::size_t i = 0; i < encoded.size(); ++i)
        check(b64_value(static_cast<unsigned char>(encoded[i])) >= 0 ||
                  (encoded[i] == '=' && i >= c),
              "Base64 output outside the alphabet");

    std::string decoded(payload.size() + 1, '\0');
    const int n =
        base64_decode(encoded.c_str(), reinterpret_cast<unsigned char *>(decoded.data()), len + 1);
    check(n == len, "Base64 round trip length");
    check(std::memcmp(decoded.data(), payload.data(), payload.size()) == 0,
          "Base64 round trip bytes");
    strbuf_free(&sb);
}

void check_base32_round_trip(const std::string &payload, std::size_t prefix, int pad) {
    const std::string str(payload.c_str()); // up to the first NUL
    strbuf sb{};
    start_with_prefix(sb, prefix);
    check(strbuf_append_b32(&sb, str.c_str(), pad) == 0, "strbuf_append_b32 failed");
    check(prefix_intact(sb, prefix), "Base32 append changed the existing text");
    check(sb.text[sb.length] == '\0', "Base32 append left no NUL");
    const std::string encoded(sb.text + prefix, sb.length - prefix);
    const std::size_t c = (8 * str.size() + 4) / 5;
    check(encoded.size() == (pad ? (c + 7) / 8 * 8 : c), "Base32 length");

    // The plain encoder agrees with the buffer form.
    std::string low(c + 1, '\0');
    const int lc = base32_encode(reinterpret_cast<const unsigned char *>(str.data()),
                                 static_cast<int>(str.size()), low.data(), static_cast<int>(c + 1));
    check(lc == static_cast<int>(c), "base32_encode count");
    check(encoded.compare(0, c, low.c_str()) == 0, "base32_encode differs from the append");

    std::string decoded(str.size() + 1, 'X');
    const int n = base32_decode(encoded.c_str(), reinterpret_cast<unsigned char *>(decoded.data()),
                                static_cast<int>(str.size() + 1));
    check(n == static_cast<int>(str.size()), "Base32 round trip length");
    check(decoded.compare(0, str.size(), str) == 0, "Base32 round trip bytes");
    check(decoded[str.size()] == '\0', "Base32 decode left no NUL");
    strbuf_free(&sb);
}

void check_decoders(const std::string &payload, int outsize) {
    const std::string text(payload.c_str());
    std::string want;
    // Output buffers are exactly outsize bytes, so a write past them is seen.
    unsigned char *out = static_cast<unsigned char *>(std::malloc(outsize > 0 ? outsize : 1));

    int expected = ref_base32(text, outsize, want);
    int got = base32_decode(text.c_str(), out, outsize);
    check(got == expected, "base32_decode result");
    if (got >= 0) {
        check(std::memcmp(out, want.data(), want.size()) == 0, "base32_decode bytes");
        check(out[got] == '\0', "base32_decode NUL");
    }

    expected = ref_base64(text, outsize, want);
    got = base64_decode(text.c_str(), out, outsize);
    check(got == expected, "base64_decode result");
    if (got >= 0)
        check(std::memcmp(out, want.data(), want.size()) == 0, "base64_decode bytes");

    std::memset(out, 0x55, outsize > 0 ? outsize : 1);
    expected = ref_hex(text, static_cast<unsigned>(outsize), want);
    got = hex_decode(text.c_str(), out, static_cast<unsigned>(outsize));
    check(got == expected, "hex_decode result");
    if (got > 0) {
        check(std::memcmp(out, want.data(), want.size()) == 0, "hex_decode bytes");
        check(out[got] == '\0', "hex_decode NUL");
    } else if (outsize > 0) {
        check(out[0] == 0x55, "hex_decode wrote on a failed first pair");
    }

    if (text.size() >= 4) {
        unsigned value = 0xDEADBEEF;
        const int r = hex4_decode(text.c_str(), &value);
        int v = 0;
        bool ok = true;
        for (int i = 0; i < 4; ++i) {
            const int h = hex_value(static_cast<unsigned char>(text[static_cast<std::size_t>(i)]));
            ok = ok && h >= 0;
            v = v << 4 | (h & 15);
        }
        check(r == (ok ? 0 : -1), "hex4_decode result");
        check(value == (ok ? static_cast<unsigned>(v) : 0xDEADBEEFu), "hex4_decode value");
    }
    std::free(out);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2)
        return 0;
    const int pad = data[0] & 1;
    const int linelen = (data[0] >> 1) & 7; // 0: not wrapped
    const std::size_t prefix = static_cast<std::size_t>(data[1]) * 4 + (data[0] >> 6);
    const int outsize = data[1] % 64;
    const std::string payload(reinterpret_cast<const char *>(data) + 2, size - 2);

    check_base64_round_trip(payload, prefix, pad, linelen);
    check_base32_round_trip(payload, prefix, pad);
    check_decoders(payload, outsize);
    return 0;
}
