// Extended MIME parameter values: decoding to UTF-8 through iconv, and
// encoding as UTF-8 with percent escapes.
#include "qxcommon-util/rfc2231.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <string_view>

#include "internal/guards.hpp"

namespace qx::detail {

namespace {

// Room for a character-set name of 31 bytes and its NUL.
constexpr std::size_t charset_room = 32;

constexpr char encoded_charset[] = "UTF-8''";
constexpr char upper_hex_digits[] = "0123456789ABCDEF";

// Deliberate: a non-hexadecimal digit counts as 0, so "%zz" gives a NUL that ends the text.
// A byte that is not a hexadecimal digit counts as 0. Deliberate: "%zz"
// becomes a NUL byte, which ends the decoded text.
constexpr unsigned hex_value(char c) noexcept {
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A' + 10);
    return 0;
}

// The parts of an extended value: charset'language'text.
struct extended_value {
    char charset[charset_room] = {};
    std::string_view text; // the percent-encoded rest
    bool has_text = false; // false when the value ends before or at the text
};

extended_value split_value(std::string_view value) noexcept {
    extended_value parts;
    const std::size_t first = value.find('\'');
    if (first == std::string_view::npos)
        return parts;
    const std::size_t kept = first < charset_room - 1 ? first : charset_room - 1;
    std::memcpy(parts.charset, value.data(), kept);
    value.remove_prefix(first + 1);
    const std::size_t second = value.find('\'');
    if (second == std::string_view::npos)
        return parts;
    value.remove_prefix(second + 1);
    parts.text = value;
    parts.has_text = !value.empty();
    return parts;
}

// Undoes the percent escapes of text into out, which has room for at least
// text.size() bytes. A "%" with fewer than two bytes behind it ends the
// text.
void percent_decode(std::string_view text, char *out) noexcept {
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] != '%') {
            *out++ = text[i++];
            continue;
        }
        if (text.size() - i < 3)
            return;
        *out++ = static_cast<char>(hex_value(text[i + 1]) << 4 | hex_value(text[i + 2]));
        i += 3;
    }
}

// Converts the NUL-terminated bytes in into out, which holds room bytes and
// a NUL behind them. Whatever iconv refuses, and whatever does not fit, is
// dropped one input byte at a time.
void convert_skipping_failures(iconv_t converter, char *in, char *out, std::size_t room) noexcept {
    std::size_t in_left = std::strlen(in);
    std::size_t out_left = room;
    while (in_left > 0) {
        if (::iconv(converter, &in, &in_left, &out, &out_left) != static_cast<std::size_t>(-1))
            continue;
        if (in_left > 0) {
            ++in;
            --in_left;
        }
    }
}

bool is_escaped_on_encoding(unsigned char c) noexcept {
    // Deliberate: ( ) ; / = ? and the double quote are not escaped; callers' headers rely on it.
    // The list is deliberately short: "(", ")", ";", "/", "=", "?" and the
    // double quote go out as they are, and callers' headers rely on that.
    return c < '!' || c > '~' || c == '*' || c == ',' || c == '%' || c == '\'';
}

// Appends to a destination of limited room, leaving space for the NUL.
class bounded_writer {
  public:
    bounded_writer(char *dest, std::size_t size) noexcept : dest_(dest), limit_(size - 1) {}
    ~bounded_writer() { dest_[used_] = '\0'; }
    bounded_writer(const bounded_writer &) = delete;
    bounded_writer &operator=(const bounded_writer &) = delete;

    void put(char c) noexcept {
        if (used_ < limit_)
            dest_[used_++] = c;
    }
    // A sequence goes in whole or not at all.
    void put_whole(const char *bytes, std::size_t n) noexcept {
        if (limit_ - used_ < n)
            return;
        std::memcpy(dest_ + used_, bytes, n);
        used_ += n;
    }

  private:
    char *dest_;
    std::size_t limit_;
    std::size_t used_ = 0;
};

void encode_into(const char *text, char *dest, std::size_t size) noexcept {
    bounded_writer out(dest, size);
    for (const char *p = encoded_charset; *p != '\0'; ++p)
        out.put(*p);
    for (const auto *p = reinterpret_cast<const unsigned char *>(text); *p != '\0'; ++p) {
        if (!is_escaped_on_encoding(*p)) {
            out.put(static_cast<char>(*p));
            continue;
        }
        const char escape[3] = {'%', upper_hex_digits[*p >> 4], upper_hex_digits[*p & 0x0F]};
        out.put_whole(escape, sizeof escape);
    }
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API char *rfc2231_to_utf8(const char *value) {
    const std::string_view encoded(value);
    unique_malloc<char> decoded(static_cast<char *>(std::calloc(encoded.size() + 1, 1)));
    if (!decoded)
        return nullptr;
    const extended_value parts = split_value(encoded);
    if (!parts.has_text)
        return decoded.release();
    percent_decode(parts.text, decoded.get());

    iconv_t converter = ::iconv_open("utf-8", parts.charset);
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        // An unknown character set hands the bytes back unconverted; running
        // out of memory is a failure like any other allocation.
        if (errno == EINVAL)
            return decoded.release();
        return nullptr;
    }
    scope_exit close_converter([converter] { ::iconv_close(converter); });
    char *converted = static_cast<char *>(std::calloc(encoded.size() + 1, 1));
    if (converted == nullptr)
        return nullptr;
    convert_skipping_failures(converter, decoded.get(), converted, encoded.size());
    return converted;
}

QX_API char *rfc2231_encode(const char *text, char *dest, size_t size) {
    if (dest == nullptr) {
        size = 3 * std::strlen(text) + 8;
        dest = static_cast<char *>(std::calloc(size, 1));
        if (dest == nullptr)
            return nullptr;
    }
    // Not allowed by the interface; refusing beats writing before the buffer.
    if (size == 0)
        return dest;
    encode_into(text, dest, size);
    return dest;
}

} // extern "C"
