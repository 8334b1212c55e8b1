// Base32, Base64 and hex: encoders and decoders on caller buffers, and the
// appends of an encoding to a strbuf.
#include "qxcommon-util/codec.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>

#include "internal/codec_tables.hpp"
#include "internal/strbuf_growth.hpp"

namespace qx::detail {

namespace {

constexpr reverse_table base32_values = make_reverse_table(base32_alphabet, true);
constexpr reverse_table base64_values = make_reverse_table(base64_alphabet);

// Writes the Base32 characters of the bytes, five bits at a time; a last
// partial group is filled with zero bits on the right. Returns the count.
int encode_base32(const unsigned char *in, int inlen, char *out) noexcept {
    std::uint32_t held = 0;
    int bits = 0;
    int written = 0;
    for (int i = 0; i < inlen; ++i) {
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

// Base64 with "=" padding to a multiple of four characters; pad characters
// count towards a line like the others. Returns the bytes written.
int encode_base64(const unsigned char *in, int inlen, char *out, int line_length) noexcept {
    line_writer write(out, line_length);
    for (int i = 0; i < inlen; i += 3) {
        const auto n = static_cast<std::size_t>(std::min(3, inlen - i));
        const int characters = encode_base64_group(base64_alphabet, in + i, n, write);
        for (int pad = characters; pad < 4; ++pad)
            write(base64_pad);
    }
    return write.written();
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
    std::uint32_t held = 0;
    int bits = 0;
    int count = 0;
    for (const char *p = in; *p != '\0' && *p != '='; ++p) {
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
    std::uint32_t held = 0;
    int bits = 0;
    int count = 0;
    for (const char *p = in;; ++p) {
        const std::uint8_t value = base64_values[static_cast<unsigned char>(*p)];
        if (value == no_value)
            break; // "=", the NUL, white space: all simply end the data
        held = (held << 6) | value;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            if (count == outsize)
                return -1;
            out[count++] = static_cast<unsigned char>(held >> bits);
        }
    }
    return count;
}

QX_API int hex_decode(const char *in, unsigned char *out, unsigned int outsize) {
    if (in == nullptr || static_cast<int>(outsize) < 2)
        return 0;
    const unsigned int most = outsize - 1;
    unsigned int count = 0;
    for (const char *p = in; count < most; p += 2) {
        const std::uint8_t high = hex_value(p[0]);
        if (high == no_value)
            break;
        const std::uint8_t low = hex_value(p[1]);
        if (low == no_value)
            break;
        out[count++] = static_cast<unsigned char>(high << 4 | low);
        out[count] = '\0';
    }
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

    // The room is at least the capacity the encoder is told about; very short
    // lines (one or two characters) write more than that, and get it too.
    const std::size_t room = std::max<std::size_t>(capacity, base64_written(len, linelen));
    if (strbuf_reserve(sb, room) != 0)
        return -1;
    const auto *bytes = static_cast<const unsigned char *>(data);
    char *end = sb->text + sb->length;
    const int written =
        linelen == 0 ? base64_encode(bytes, len, end, static_cast<int>(capacity))
                     : base64_encode_wrap(bytes, len, end, static_cast<int>(capacity), linelen);
    if (written < 0)
        return -1;
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
