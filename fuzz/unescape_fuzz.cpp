// strbuf_unescape on arbitrary text, against a reference written from the
// unescaping rules: simple escapes, "\u" code points and surrogate pairs,
// invalid "\u" escapes kept as text, and the stop at an unescaped quote.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

using qx_fuzz::hex_value;

namespace {

// Four hex digits at t[i..i+3]; -1 when they are not.
long hex4(const std::string &t, std::size_t i) {
    long v = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        if (i + k >= t.size())
            return -1;
        const int h = hex_value(static_cast<unsigned char>(t[i + k]));
        if (h < 0)
            return -1;
        v = v << 4 | h;
    }
    return v;
}

void put_utf8(unsigned long cp, std::string &out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | cp >> 6));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | cp >> 12));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | cp >> 18));
        out.push_back(static_cast<char>(0x80 | (cp >> 12 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string reference(const std::string &t) {
    std::string out;
    std::size_t i = 0;
    while (i < t.size() && t[i] != '"') {
        if (t[i] != '\\') {
            out.push_back(t[i++]);
            continue;
        }
        if (i + 1 >= t.size())
            break; // a lone backslash at the end escapes nothing
        const char e = t[i + 1];
        if (e == 'u') {
            const long v = hex4(t, i + 2);
            if (v <= 0 || (v >= 0xDC00 && v <= 0xDFFF)) {
                i += 2;
            } else if (v >= 0xD800 && v <= 0xDBFF) {
                const long low =
                    i + 7 < t.size() && t[i + 6] == '\\' && t[i + 7] == 'u' ? hex4(t, i + 8) : -1;
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    put_utf8(((static_cast<unsigned long>(v) & 0x3FF) << 10 |
                              (static_cast<unsigned long>(low) & 0x3FF)) +
                                 0x10000,
                             out);
                    i += 12;
                } else {
                    i += 2;
                }
            } else {
                put_utf8(static_cast<unsigned long>(v), out);
                i += 6;
            }
            continue;
        }
        switch (e) {
        case 'b':
            out.push_back('\b');
            break;
        case 'f':
            out.push_back('\f');
            break;
        case 'n':
            out.push_back('\n');
            break;
        case 'r':
            out.push_back('\r');
            break;
        case 't':
            out.push_back('\t');
            break;
        default:
            out.push_back(e);
            break;
        }
        i += 2;
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    strbuf sb{};
    if (strbuf_nappend(&sb, data, size) != 0)
        return 0;
    const std::string want = reference(std::string(sb.text));
    qx_fuzz::check(strbuf_unescape(&sb) == 0, "strbuf_unescape result");
    qx_fuzz::check(sb.length == want.size() && std::memcmp(sb.text, want.data(), want.size()) == 0,
                   "strbuf_unescape text");
    qx_fuzz::check(sb.text[sb.length] == '\0', "strbuf_unescape left no NUL");
    strbuf_free(&sb);
    return 0;
}
