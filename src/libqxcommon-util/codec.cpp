// Base32, Base64 and hex: encoders and decoders on caller buffers, and the
// appends of an encoding to a strbuf.
#include "qxcommon-util/codec.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>

#include "internal/codec_tables.hpp"
#include "internal/simd.hpp"
#include "internal/strbuf_growth.hpp"

namespace qx::detail {

namespace {

constexpr reverse_table base32_values = make_reverse_table(base32_alphabet, true);
constexpr reverse_table base64_values = make_reverse_table(base64_alphabet);

// Two characters of an alphabet for a value of twice its bits.
using char_pair = std::array<char, 2>;

// Two Base32 characters for every 10-bit value.
constexpr std::array<char_pair, 1024> make_base32_pairs() noexcept {
    std::array<char_pair, 1024> table{};
    for (std::size_t v = 0; v < table.size(); ++v)
        table[v] = {base32_alphabet[v >> 5], base32_alphabet[v & 0x1FU]};
    return table;
}

constexpr std::array<char_pair, 1024> base32_pairs = make_base32_pairs();

// Writes the Base32 characters of the bytes, five bits at a time; a last
// partial group is filled with zero bits on the right. Returns the count.
int encode_base32(const unsigned char *in, int inlen, char *out) noexcept {
    // Whole groups of five bytes first: forty bits, four lookups of two
    // characters each.
    int i = 0;
    int written = 0;
    for (; i + 5 <= inlen; i += 5, written += 8) {
        const std::uint64_t group =
            (std::uint64_t{in[i]} << 32) | (std::uint64_t{in[i + 1]} << 24) |
            (std::uint64_t{in[i + 2]} << 16) | (std::uint64_t{in[i + 3]} << 8) | in[i + 4];
        std::memcpy(out + written, base32_pairs[(group >> 30) & 0x3FFU].data(), 2);
        std::memcpy(out + written + 2, base32_pairs[(group >> 20) & 0x3FFU].data(), 2);
        std::memcpy(out + written + 4, base32_pairs[(group >> 10) & 0x3FFU].data(), 2);
        std::memcpy(out + written + 6, base32_pairs[group & 0x3FFU].data(), 2);
    }
    std::uint32_t held = 0;
    int bits = 0;
    for (; i < inlen; ++i) {
        held = (held << 8) | in[i];
        bits += 8;
        while (bits >= 5) {
            bits -= 5;
            out[written++] = base32_alphabet[(held >> bits) & 0x1FU];
        }
    }
    if (bits > 0)
        out[written++] = base32_alphabet[(held << (5 - bits)) & 0x1FU];
    return written;
}

// Writes characters and, with a positive line length, a line feed after
// every line_length of them.
class line_writer {
  public:
    line_writer(char *out, int line_length) noexcept : out_(out), line_length_(line_length) {}

    void operator()(char c) noexcept {
        out_[written_++] = c;
        if (line_length_ > 0 && ++column_ == line_length_) {
            out_[written_++] = '\n';
            column_ = 0;
        }
    }
    int written() const noexcept { return written_; }

  private:
    char *out_;
    int line_length_;
    int column_ = 0;
    int written_ = 0;
};

// Two Base64 characters for every 12-bit value: three bytes become four
// characters in two lookups.
using base64_pair_table = std::array<char_pair, 4096>;

constexpr base64_pair_table make_base64_pairs() noexcept {
    base64_pair_table table{};
    for (std::size_t v = 0; v < table.size(); ++v)
        table[v] = {base64_alphabet[v >> 6], base64_alphabet[v & 0x3FU]};
    return table;
}

constexpr base64_pair_table base64_pairs = make_base64_pairs();

// Base64 of n bytes, padded, without line breaks; returns the end of the
// characters written.
char *encode_base64_plain(const unsigned char *in, std::size_t n, char *out) noexcept {
    std::size_t i = simd::encode_base64_groups(in, n, out);
    out += i / 3 * 4;
    for (; i + 3 <= n; i += 3) {
        const std::uint32_t bits =
            (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
        std::memcpy(out, base64_pairs[bits >> 12].data(), 2);
        std::memcpy(out + 2, base64_pairs[bits & 0xFFFU].data(), 2);
        out += 4;
    }
    if (i < n) {
        const int characters =
            encode_base64_group(base64_alphabet, in + i, n - i, [&out](char c) { *out++ = c; });
        for (int pad = characters; pad < 4; ++pad)
            *out++ = base64_pad;
    }
    return out;
}

// Base64 with "=" padding to a multiple of four characters; pad characters
// count towards a line like the others. Returns the bytes written.
int encode_base64(const unsigned char *in, int inlen, char *out, int line_length) noexcept {
    const auto n = static_cast<std::size_t>(inlen);
    if (line_length <= 0)
        return static_cast<int>(encode_base64_plain(in, n, out) - out);
    if (line_length % 4 == 0) {
        // Whole lines take whole groups of three bytes: each is encoded in
        // one go and followed by its line feed.
        const std::size_t per_line = static_cast<std::size_t>(line_length) / 4 * 3;
        char *end = out;
        for (std::size_t i = 0; i < n; i += per_line) {
            const std::size_t take = std::min(per_line, n - i);
            char *line_end = encode_base64_plain(in + i, take, end);
            // A padded last line can fill its line too, and then ends with
            // a line feed like the others.
            if (line_end - end == line_length)
                *line_end++ = '\n';
            end = line_end;
        }
        return static_cast<int>(end - out);
    }
    line_writer write(out, line_length);
    for (int i = 0; i < inlen; i += 3) {
        const auto group = static_cast<std::size_t>(std::min(3, inlen - i));
        const int characters = encode_base64_group(base64_alphabet, in + i, group, write);
        for (int pad = characters; pad < 4; ++pad)
            write(base64_pad);
    }
    return write.written();
}

// Decodes up to the first character outside the alphabet; before each byte
// is stored, a count equal to outsize fails (a negative outsize never does).
int decode_base64(const char *in, unsigned char *out, int outsize) noexcept {
    std::size_t length = std::strlen(in);
    std::size_t count = 0;
    const std::size_t room = outsize < 0 ? SIZE_MAX : static_cast<std::size_t>(outsize);
    const char *p = in;
    const std::size_t consumed = simd::decode_base64_groups(p, length, out, room);
    p += consumed;
    length -= consumed;
    count = consumed / 4 * 3;
    // Four characters at a time while all four are in the alphabet and the
    // three bytes fit; whatever stops this goes to the exact loop below,
    // which starts on a group boundary with no bits held.
    for (; length >= 4 && room - count >= 3; p += 4, length -= 4) {
        const std::uint8_t a = base64_values[static_cast<unsigned char>(p[0])];
        const std::uint8_t b = base64_values[static_cast<unsigned char>(p[1])];
        const std::uint8_t c = base64_values[static_cast<unsigned char>(p[2])];
        const std::uint8_t d = base64_values[static_cast<unsigned char>(p[3])];
        if (((a | b | c | d) & 0xC0U) != 0)
            break;
        const std::uint32_t bits =
            (std::uint32_t{a} << 18) | (std::uint32_t{b} << 12) | (std::uint32_t{c} << 6) | d;
        out[count] = static_cast<unsigned char>(bits >> 16);
        out[count + 1] = static_cast<unsigned char>(bits >> 8);
        out[count + 2] = static_cast<unsigned char>(bits);
        count += 3;
    }
    std::uint32_t held = 0;
    int bits = 0;
    for (;; ++p) {
        const std::uint8_t value = base64_values[static_cast<unsigned char>(*p)];
        if (value == no_value)
            break; // "=", the NUL, white space: all simply end the data
        held = (held << 6) | value;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            if (count == room)
                return -1;
            out[count++] = static_cast<unsigned char>(held >> bits);
        }
    }
    return static_cast<int>(count);
}

// The padded Base64 length of inlen bytes, in the wide type so that the
// arithmetic of a large inlen does not overflow.
constexpr long long base64_length(int inlen) noexcept {
    return (static_cast<long long>(inlen) + 2) / 3 * 4;
}

// Bytes base64_encode_wrap really writes for len bytes (len > 0).
constexpr std::size_t base64_written(int len, int linelen) noexcept {
    const auto n = static_cast<std::size_t>(base64_length(len));
    return linelen > 0 ? n + n / static_cast<std::size_t>(linelen) : n;
}

int clamp_to_int(std::size_t n) noexcept {
    return n > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int base32_encode(const unsigned char *in, int inlen, char *out, int outsize) {
    const long long characters = (static_cast<long long>(inlen) * 8 + 4) / 5;
    if (characters >= outsize || inlen < 0)
        return -1;
    if (in == nullptr || inlen == 0) {
        out[0] = '\0';
        return 0;
    }
    const int written = encode_base32(in, inlen, out);
    out[written] = '\0';
    return written;
}

QX_API int base32_decode(const char *in, unsigned char *out, int outsize) {
    if (outsize < 1)
        return -1;
    int count = 0;
    const char *p = in;
    // Eight characters of the alphabet at a time while the five bytes leave
    // room for the NUL; anything else (white space, "-", "=", the end, a
    // character that fails) goes to the exact loop below, which starts on a
    // group boundary with no bits held.
    for (; count + 5 < outsize; p += 8, count += 5) {
        std::uint64_t group = 0;
        unsigned int seen = 0;
        for (int k = 0; k < 8; ++k) {
            // Stops at the NUL: its value is no_value.
            const std::uint8_t value = base32_values[static_cast<unsigned char>(p[k])];
            seen |= value;
            if (value == no_value)
                break;
            group = (group << 5) | value;
        }
        if ((seen & 0xE0U) != 0)
            break;
        out[count] = static_cast<unsigned char>(group >> 32);
        out[count + 1] = static_cast<unsigned char>(group >> 24);
        out[count + 2] = static_cast<unsigned char>(group >> 16);
        out[count + 3] = static_cast<unsigned char>(group >> 8);
        out[count + 4] = static_cast<unsigned char>(group);
    }
    std::uint32_t held = 0;
    int bits = 0;
    for (; *p != '\0' && *p != '='; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        const std::uint8_t value = base32_values[c];
        if (value == no_value) {
            if (c == '-' || std::isspace(c))
                continue;
            return -1;
        }
        held = (held << 5) | value;
        bits += 5;
        if (bits >= 8) {
            bits -= 8;
            out[count++] = static_cast<unsigned char>(held >> bits);
            // At most outsize - 1 bytes: the NUL needs the last place.
            if (count == outsize)
                return -1;
        }
    }
    out[count] = '\0';
    return count;
}

QX_API int base64_encode(const unsigned char *in, int inlen, char *out, int outsize) {
    const long long needed = base64_length(inlen);
    if (out == nullptr)
        return static_cast<int>(needed);
    if (needed > outsize)
        return -1;
    if (inlen < 1)
        return 0;
    return encode_base64(in, inlen, out, 0);
}

QX_API int base64_encode_wrap(const unsigned char *in, int inlen, char *out, int outsize,
                              int linelen) {
    if (linelen == 0)
        return -1;
    // Deliberate: outsize is tested against lines plus one only; the caller provides the room.
    // Lines plus one, not the size of the output: the weak test is what
    // callers have always had, and strbuf_append_b64n_wrap sizes its room
    // itself.
    const long long lines_and_one = base64_length(inlen) / linelen + 1;
    if (out == nullptr)
        return static_cast<int>(lines_and_one);
    if (lines_and_one > outsize)
        return -1;
    if (inlen < 1)
        return 0;
    return encode_base64(in, inlen, out, linelen);
}

QX_API int base64_decode(const char *in, unsigned char *out, int outsize) {
    return decode_base64(in, out, outsize);
}

QX_API int hex_decode(const char *in, unsigned char *out, unsigned int outsize) {
    if (in == nullptr || static_cast<int>(outsize) < 2)
        return 0;
    const unsigned int most = outsize - 1;
    auto count = static_cast<unsigned int>(simd::decode_hex_pairs(in, out, most));
    for (; count < most; ++count) {
        const std::uint8_t high = hex_value(in[2 * std::size_t{count}]);
        if (high == no_value)
            break;
        const std::uint8_t low = hex_value(in[2 * std::size_t{count} + 1]);
        if (low == no_value)
            break;
        out[count] = static_cast<unsigned char>(high << 4 | low);
    }
    // The NUL after the last byte; nothing at all when no pair was valid.
    if (count > 0)
        out[count] = '\0';
    return static_cast<int>(count);
}

QX_API int hex4_decode(const char *in, unsigned int *value) {
    unsigned int result = 0;
    // Stops at the first non-digit, so a NUL is never read past.
    for (int i = 0; i < 4; ++i) {
        const std::uint8_t digit = hex_value(in[i]);
        if (digit == no_value)
            return -1;
        result = result << 4 | digit;
    }
    *value = result;
    return 0;
}

QX_API int strbuf_append_b64n_wrap(strbuf *sb, const void *data, int len, int pad, int linelen) {
    if (data == nullptr)
        return -1;
    if (len < 1)
        return 0;
    // The counts are 32-bit unsigned; an input so large that 8 * len wraps
    // could not be encoded into the room they describe.
    if (static_cast<std::uint32_t>(len) > (UINT32_MAX - 5) / 8)
        return -1;
    const std::uint32_t unpadded = (8U * static_cast<std::uint32_t>(len) + 5U) / 6U;
    const std::uint32_t padding = 4U - unpadded % 4U; // 4, not 0, for a full last group
    const std::uint32_t counted =
        linelen != 0 ? unpadded + unpadded / static_cast<std::uint32_t>(linelen) + 1U : unpadded;
    const std::uint32_t capacity = counted + padding;

    // The buffer grows when the capacity the encoder is told about does not
    // fit in the room. Lines of one character write one byte more than that
    // capacity for inputs of 3k + 1 bytes: the bytes still fit a room that
    // took the capacity, but with the padding kept the NUL goes after all of
    // them, and only then is more room needed.
    const std::size_t written_bytes = base64_written(len, linelen);
    const std::size_t last_byte = pad != 0 ? written_bytes : written_bytes - 1;
    if (strbuf_reserve(sb, std::max<std::size_t>(capacity, last_byte)) != 0)
        return -1;
    const auto *bytes = static_cast<const unsigned char *>(data);
    char *end = sb->text + sb->length;
    const int written =
        linelen == 0 ? base64_encode(bytes, len, end, static_cast<int>(capacity))
                     : base64_encode_wrap(bytes, len, end, static_cast<int>(capacity), linelen);
    if (written < 0)
        return -1;
    // Deliberate: unpadded wrapped output is cut or extended to the counted length.
    // Without padding the counted length is added as it stands, also when
    // wrapping, where it includes one line feed per full line and one more;
    // the result is then cut or extended by that count. Kept on purpose.
    sb->length += pad != 0 ? static_cast<std::size_t>(written) : counted;
    sb->text[sb->length] = '\0';
    return 0;
}

QX_API int strbuf_append_b64n(strbuf *sb, const void *data, int len, int pad) {
    return strbuf_append_b64n_wrap(sb, data, len, pad, 0);
}

QX_API int strbuf_append_b64(strbuf *sb, const char *str, int pad) {
    if (str == nullptr)
        return -1;
    return strbuf_append_b64n(sb, str, clamp_to_int(std::strlen(str)), pad);
}

QX_API int strbuf_append_b32(strbuf *sb, const char *str, int pad) {
    if (str == nullptr)
        return -1;
    const std::size_t length = std::strlen(str);
    if (length > static_cast<std::size_t>(INT_MAX))
        return -1; // beyond what the int-sized encoder takes
    const std::size_t characters = (8 * length + 4) / 5;
    const std::size_t padding = 8 - characters % 8; // 8, not 0, for a full last group
    if (strbuf_reserve(sb, characters + padding) != 0)
        return -1;
    const int written =
        base32_encode(reinterpret_cast<const unsigned char *>(str), static_cast<int>(length),
                      sb->text + sb->length, clamp_to_int(sb->size - sb->length));
    if (written < 0)
        return -1;
    sb->length += static_cast<std::size_t>(written);
    if (pad != 0 && padding < 8) {
        std::memset(sb->text + sb->length, '=', padding);
        sb->length += padding;
    }
    sb->text[sb->length] = '\0';
    return 0;
}

} // extern "C"
