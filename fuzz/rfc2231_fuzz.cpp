// rfc2231_to_utf8 and rfc2231_encode. Oracles: the encoding, whole or into
// a destination of any size, is what the encoding rules give (a percent
// escape that does not fit is left out, a later plain byte still goes in);
// a value whose character set iconv does not know decodes to its
// percent-decoded bytes; valid UTF-8 encoded and decoded again comes back.
// The input is also decoded as it stands.
// Input: byte 0 gives the destination size (1 to 64), the rest is the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/rfc2231.h"

using qx_fuzz::check;

namespace {

bool escaped(unsigned char c) {
    return c < '!' || c > '~' || c == '*' || c == ',' || c == '%' || c == '\'';
}

std::string ref_encode(const std::string &text, std::size_t size) {
    std::string out;
    const std::size_t most = size - 1;
    auto put = [&](const std::string &piece) {
        if (out.size() + piece.size() <= most)
            out += piece;
    };
    for (char c : std::string("UTF-8''"))
        put(std::string(1, c));
    static const char hex[] = "0123456789ABCDEF";
    for (unsigned char c : text) {
        if (escaped(c))
            put(std::string{'%', hex[c >> 4], hex[c & 15]});
        else
            put(std::string(1, static_cast<char>(c)));
    }
    return out;
}

int hex_or_zero(unsigned char c) {
    const int value = qx_fuzz::hex_value(c);
    return value < 0 ? 0 : value;
}

std::string ref_percent_decode(const std::string &s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '%') {
            out.push_back(s[i]);
            continue;
        }
        if (i + 2 >= s.size())
            break;
        out.push_back(static_cast<char>(hex_or_zero(static_cast<unsigned char>(s[i + 1])) << 4 |
                                        hex_or_zero(static_cast<unsigned char>(s[i + 2]))));
        i += 2;
    }
    return std::string(out.c_str());
}

// Strict UTF-8, as a converter accepts it: no overlong forms, no
// surrogates, nothing above U+10FFFF.
bool valid_utf8(const std::string &s) {
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        std::size_t n;
        unsigned cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            n = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            n = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            n = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + n >= s.size())
            return false;
        for (std::size_t k = 1; k <= n; ++k) {
            const unsigned char t = static_cast<unsigned char>(s[i + k]);
            if ((t & 0xC0) != 0x80)
                return false;
            cp = cp << 6 | (t & 0x3F);
        }
        if ((n == 2 && cp < 0x800) || (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += n + 1;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const std::size_t dest_size = 1 + data[0] % 64;
    const std::string text(reinterpret_cast<const char *>(data) + 1,
                           strnlen(reinterpret_cast<const char *>(data) + 1, size - 1));

    char *whole = rfc2231_encode(text.c_str(), nullptr, 0);
    const std::string want = ref_encode(text, 3 * text.size() + 8);
    check(whole != nullptr && want == whole, "rfc2231_encode into a new buffer");

    char *dest = static_cast<char *>(std::malloc(dest_size));
    check(rfc2231_encode(text.c_str(), dest, dest_size) == dest, "rfc2231_encode result");
    check(ref_encode(text, dest_size) == dest, "rfc2231_encode into a small buffer");
    std::free(dest);

    // Round trip through UTF-8 for valid UTF-8.
    char *back = rfc2231_to_utf8(whole);
    check(back != nullptr, "rfc2231_to_utf8 result");
    if (valid_utf8(text))
        check(text == back, "valid UTF-8 does not come back");
    std::free(back);
    std::free(whole);

    // A character set iconv does not know: the decoded bytes as they are.
    const std::string unknown = "x-qx-no-such-charset'lang'" + text;
    char *raw = rfc2231_to_utf8(unknown.c_str());
    check(raw != nullptr && ref_percent_decode(text) == raw, "undecoded bytes of an unknown set");
    std::free(raw);

    // The input as a value of its own, in a block of its own size.
    char *value = static_cast<char *>(std::malloc(text.size() + 1));
    std::memcpy(value, text.c_str(), text.size() + 1);
    char *decoded = rfc2231_to_utf8(value);
    check(decoded != nullptr && std::strlen(decoded) <= text.size(), "decoded value too long");
    if (text.find('\'') == std::string::npos)
        check(decoded[0] == '\0', "a value without apostrophe decodes to nothing");
    std::free(decoded);
    std::free(value);
    return 0;
}
