// Escaping and unescaping the text of a strbuf, and the UTF-8 decoder.
#include "qxcommon-util/escape.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/codec_tables.hpp"
#include "internal/guards.hpp"
#include "internal/simd.hpp"
#include "internal/strbuf_growth.hpp"
#include "qxcommon-util/codec.h"
#include "qxcommon-util/strbuf_format.h"

namespace qx::detail {

namespace {

// Writes the percent-encoded form of the n bytes of source (which end with a
// NUL and hold no other) at out and returns the bytes written. out has room
// for them and one more; nothing is stored beyond them.
std::size_t percent_encode(const char *source, std::size_t n, char *out) noexcept {
    char *o = out;
    std::size_t i = simd::percent_encode_blocks(source, n, out, &o);
    for (; i < n; ++i)
        o = percent_encode_byte(static_cast<unsigned char>(source[i]), o);
    return static_cast<std::size_t>(o - out);
}

// The bytes the percent-encoded form of the n bytes of source takes.
std::size_t percent_encoded_length(const char *source, std::size_t n) noexcept {
    std::size_t length = n;
    for (std::size_t i = 0; i < n; ++i)
        if (!url_unreserved[static_cast<unsigned char>(source[i])])
            length += 2;
    return length;
}

// Makes sure the block holds n bytes and a NUL, growing it with the length
// rule when it does not; the length is left to the caller.
bool room_for(strbuf *sb, std::size_t n) noexcept {
    if (n < sb->size)
        return true;
    const std::size_t length = sb->length;
    if (strbuf_setlength(sb, n) != 0)
        return false;
    sb->length = length;
    return true;
}

// Decodes the NUL-terminated text over itself; returns the decoded byte
// count, or -1 for a "%" without two hex digits after it.
long percent_decode_in_place(char *text) noexcept {
    char *out = text;
    for (const char *p = text; *p != '\0';) {
        if (*p == '%') {
            // The second digit is looked at only when the first one is a
            // digit, so a "%" at the very end is not read past.
            const std::uint8_t high = hex_value(p[1]);
            if (high == no_value)
                return -1;
            const std::uint8_t low = hex_value(p[2]);
            if (low == no_value)
                return -1;
            *out++ = static_cast<char>(high << 4 | low);
            p += 3;
        } else {
            *out++ = *p == '+' ? ' ' : *p;
            ++p;
        }
    }
    return out - text;
}

int append_byte(strbuf *sb, unsigned char c) noexcept {
    return strbuf_nappend(sb, &c, 1);
}

// Appends one byte from 32 to 127, or a tab, line feed or carriage return,
// in its XML form.
int append_xml_ascii(strbuf *sb, unsigned char c) {
    switch (c) {
    case '&':
        return strbuf_append(sb, "&amp;");
    case '<':
        return strbuf_append(sb, "&lt;");
    case '>':
        return strbuf_append(sb, "&gt;");
    case '\t':
    case '\n':
        return append_byte(sb, c);
    case '\r':
        return strbuf_appendf(sb, "&#%d;", c);
    default:
        return append_byte(sb, c);
    }
}

constexpr bool is_high_surrogate(unsigned int v) noexcept {
    return v >= 0xD800 && v <= 0xDBFF;
}
constexpr bool is_low_surrogate(unsigned int v) noexcept {
    return v >= 0xDC00 && v <= 0xDFFF;
}

// Writes a code point as UTF-8 (one to four bytes) and moves out past it.
void put_utf8(unsigned int cp, char *&out) noexcept {
    auto put = [&out](unsigned int byte) { *out++ = static_cast<char>(byte); };
    if (cp < 0x80) {
        put(cp);
    } else if (cp < 0x800) {
        put(0xC0 | cp >> 6);
        put(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        put(0xE0 | cp >> 12);
        put(0x80 | (cp >> 6 & 0x3F));
        put(0x80 | (cp & 0x3F));
    } else {
        put(0xF0 | cp >> 18);
        put(0x80 | (cp >> 12 & 0x3F));
        put(0x80 | (cp >> 6 & 0x3F));
        put(0x80 | (cp & 0x3F));
    }
}

// Resolves the "\u" escape whose backslash is at in, writing at out (which
// never runs ahead of in). Returns where reading goes on: after the escape
// (or the surrogate pair), or at its four characters when it is not valid,
// so that they are then copied as ordinary text.
const char *unescape_code_point(const char *in, char *&out) noexcept {
    const char *digits = in + 2;
    unsigned int value = 0;
    if (hex4_decode(digits, &value) != 0 || value == 0 || is_low_surrogate(value))
        return digits;
    if (!is_high_surrogate(value)) {
        put_utf8(value, out);
        return in + 6;
    }
    unsigned int low = 0;
    if (in[6] == '\\' && in[7] == 'u' && hex4_decode(in + 8, &low) == 0 && is_low_surrogate(low)) {
        put_utf8((((value & 0x3FF) << 10) | (low & 0x3FF)) + 0x10000, out);
        return in + 12;
    }
    return digits;
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int strbuf_urlencode(strbuf *sb) {
    const std::size_t length = sb->length;
    const unique_malloc<char> copy(::strdup(sb->text != nullptr ? sb->text : ""));
    // Every byte of the text may take three: the buffer is sized for that
    // first. The walk goes to the copy's NUL, which after strbuf_put of NULL
    // or a translation that deleted everything lies beyond length; only when
    // the bytes written there could pass the block are they counted, and the
    // block grown if they would.
    const bool sized =
        copy != nullptr && length <= SIZE_MAX / 3 && strbuf_setlength(sb, 3 * length) == 0;
    const std::size_t walked = sized ? std::strlen(copy.get()) : 0;
    if (!sized ||
        (walked >= sb->size / 3 && !room_for(sb, percent_encoded_length(copy.get(), walked)))) {
        // Deliberate: a failed encoding empties the text but keeps the length, as callers see it.
        // The text is emptied while length stays; callers have always seen
        // a failed encoding this way.
        sb->length = length;
        if (sb->text != nullptr)
            sb->text[0] = '\0';
        return -1;
    }
    sb->length = percent_encode(copy.get(), walked, sb->text);
    sb->text[sb->length] = '\0';
    return 0;
}

QX_API int strbuf_urldecode(strbuf *sb) {
    if (sb->text == nullptr)
        return 0; // a buffer that never held text decodes to itself
    const unique_malloc<char> copy(::strdup(sb->text));
    if (copy == nullptr)
        return -1;
    const long decoded = percent_decode_in_place(copy.get());
    if (decoded < 0)
        return -1;
    // Decoding never lengthens, so the result fits where the text was.
    const auto n = static_cast<std::size_t>(decoded);
    std::memcpy(sb->text, copy.get(), n);
    sb->length = n;
    sb->text[n] = '\0';
    return 0;
}

QX_API int strbuf_append_xmlencoded(strbuf *sb, const char *s) {
    if (s == nullptr)
        return -1;
    // The result is that of the last append made; a dropped control byte
    // makes none and leaves it as it was.
    int result = 0;
    const char *p = s;
    while (*p != '\0') {
        const auto c = static_cast<unsigned char>(*p);
        if (c < 0x80) {
            if (c < 32 && c != '\t' && c != '\n' && c != '\r') {
                ++p; // dropped without trace
                continue;
            }
            result = append_xml_ascii(sb, c);
            if (result != 0)
                return result;
            ++p;
            continue;
        }
        const char *stop = p;
        if (const unsigned int cp = utf8toint(&stop); cp != 0) {
            // Deliberate: a failed hex reference is skipped and the walk goes on.
            // A failed reference does not end the walk: it is missing from
            // the output, and it is the result only if nothing is appended
            // after it. Callers have always seen it so.
            result = strbuf_appendf(sb, "&#x%X;", cp);
            p = stop;
            continue;
        }
        result = strbuf_appendf(sb, "&#%d;", c);
        if (result != 0)
            return result;
        // Deliberate: the byte after a bad lead byte is dropped with it (not the NUL).
        // The byte on which decoding stopped goes with the bad lead byte; it
        // is lost on purpose. Only the terminating NUL is never skipped.
        if (*stop == '\0')
            break;
        p = stop + 1;
    }
    return result;
}

QX_API int strbuf_quote(strbuf *sb, const char *special) {
    if (sb->length == 0)
        return 0;
    strbuf quoted{};
    quoted.size = round_to_kib_less_one(sb->length + 1);
    quoted.text = static_cast<char *>(std::malloc(quoted.size));
    if (quoted.text == nullptr)
        return -1;
    const scope_exit release([&quoted] { strbuf_free(&quoted); });
    quoted.text[0] = '\0';

    // Failures of the single appends are not reported: the text is then
    // replaced by as much as was quoted.
    const std::string_view set = special != nullptr ? std::string_view{special} : "";
    for (std::size_t i = 0; i < sb->length; ++i) {
        const auto c = static_cast<unsigned char>(sb->text[i]);
        if (special != nullptr) {
            if (c != '\0' && set.find(static_cast<char>(c)) != std::string_view::npos)
                (void)strbuf_appendf(&quoted, "\\%c", c);
            else
                (void)append_byte(&quoted, c);
        } else if (c < 32 || c == '"' || c == '/' || c == '\\' || c == 127) {
            (void)strbuf_appendf(&quoted, "\\u%.4x", static_cast<unsigned int>(c));
        } else {
            (void)append_byte(&quoted, c);
        }
    }

    const std::size_t old_length = sb->length;
    if (strbuf_put(sb, quoted.text) != 0) {
        sb->length = old_length; // strbuf_put touched nothing else
        return -1;
    }
    return 0;
}

QX_API int strbuf_translate(strbuf *sb, const char *from, const char *to) {
    if (from == nullptr)
        return -1;
    const std::string_view replacements = to != nullptr ? std::string_view{to} : "";
    if (sb->length == 0) {
        (void)strbuf_put(sb, nullptr); // only sets length to 0
        return 0;
    }
    const std::string_view set{from};
    strbuf result{};
    const scope_exit release([&result] { strbuf_free(&result); });
    for (std::size_t i = 0; i < sb->length; ++i) {
        const char c = sb->text[i];
        const std::size_t k = c == '\0' ? std::string_view::npos : set.find(c);
        if (k != std::string_view::npos && replacements.empty())
            continue; // deleted
        // The last byte of to stands for every further byte of from.
        const char out =
            k == std::string_view::npos ? c : replacements[std::min(k, replacements.size() - 1)];
        if (append_byte(&result, static_cast<unsigned char>(out)) != 0)
            return -1;
    }
    // Deliberate: deleting everything gives length 0 and leaves the old bytes unterminated.
    // When everything was deleted, result.text is NULL: strbuf_put then only
    // sets length to 0 and leaves the old bytes unterminated. Kept on purpose.
    const std::size_t old_length = sb->length;
    if (strbuf_put(sb, result.text) != 0 && result.text != nullptr) {
        sb->length = old_length;
        return -1;
    }
    return 0;
}

QX_API int strbuf_unescape(strbuf *sb) {
    if (sb->text == nullptr)
        return 0;
    char *out = sb->text;
    const char *in = sb->text;
    while (*in != '\0' && *in != '"') {
        if (*in != '\\') {
            *out++ = *in++;
            continue;
        }
        const char escaped = in[1];
        if (escaped == '\0')
            break; // a lone backslash at the end: there is nothing to escape
        if (escaped == 'u') {
            in = unescape_code_point(in, out);
            continue;
        }
        switch (escaped) {
        case 'b':
            *out++ = '\b';
            break;
        case 'f':
            *out++ = '\f';
            break;
        case 'n':
            *out++ = '\n';
            break;
        case 'r':
            *out++ = '\r';
            break;
        case 't':
            *out++ = '\t';
            break;
        default:
            *out++ = escaped;
            break;
        }
        in += 2;
    }
    *out = '\0';
    sb->length = static_cast<std::size_t>(out - sb->text);
    return 0;
}

QX_API unsigned int utf8toint(const char **p) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(*p);
    const unsigned int lead = bytes[0];
    if (lead < 0x80) {
        ++*p;
        return lead;
    }
    if (lead < 0xC0)
        return 0; // a continuation byte cannot start a sequence
    // 0xF8 to 0xFF are taken as four-byte leads, unchecked.
    const int continuations = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    unsigned int value = lead & (lead < 0xE0 ? 0x1FU : lead < 0xF0 ? 0x0FU : 0x07U);
    for (int i = 1; i <= continuations; ++i) {
        *p = reinterpret_cast<const char *>(bytes + i);
        if ((bytes[i] & 0xC0) != 0x80)
            return 0;
        value = value << 6 | (bytes[i] & 0x3FU);
    }
    *p = reinterpret_cast<const char *>(bytes + continuations + 1);
    return value;
}

} // extern "C"
