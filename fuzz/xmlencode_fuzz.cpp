// strbuf_append_xmlencoded on arbitrary text appended after existing text,
// against a reference written from the escaping rules (entities, dropped
// control bytes, character references for UTF-8 sequences and for bad lead
// bytes, whose following byte is lost on purpose).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

namespace {

// Code point and the index where decoding stopped, as the UTF-8 rules say.
unsigned int decode_utf8(const unsigned char *s, std::size_t &stop) {
    const unsigned int lead = s[0];
    stop = 0;
    if (lead < 0xC0)
        return 0; // (only called for lead >= 0x80)
    std::size_t count = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    unsigned int value = lead & (lead < 0xE0 ? 0x1F : lead < 0xF0 ? 0x0F : 0x07);
    for (std::size_t i = 1; i <= count; ++i) {
        stop = i;
        if (s[i] < 0x80 || s[i] > 0xBF)
            return 0;
        value = value << 6 | (s[i] & 0x3F);
    }
    stop = count + 1;
    return value;
}

std::string reference(const unsigned char *s) {
    std::string out;
    char ref[32];
    std::size_t i = 0;
    while (s[i] != 0) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            if (c == '&')
                out += "&amp;";
            else if (c == '<')
                out += "&lt;";
            else if (c == '>')
                out += "&gt;";
            else if (c == 13)
                out += "&#13;";
            else if (c >= 32 || c == 9 || c == 10)
                out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        std::size_t stop = 0;
        const unsigned int cp = decode_utf8(s + i, stop);
        if (cp != 0) {
            std::snprintf(ref, sizeof ref, "&#x%X;", cp);
            out += ref;
            i += stop;
            continue;
        }
        std::snprintf(ref, sizeof ref, "&#%d;", c);
        out += ref;
        if (s[i + stop] == 0)
            break; // never past the terminating NUL
        i += stop + 1;
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    // Byte 0 sets how much text the buffer holds before, so that the
    // appends meet the end of the allocation at every distance.
    const std::size_t prefix = static_cast<std::size_t>(data[0]) * 4;
    const std::size_t length = strnlen(reinterpret_cast<const char *>(data + 1), size - 1);
    auto *s = static_cast<unsigned char *>(std::malloc(length + 1));
    std::memcpy(s, data + 1, length);
    s[length] = 0;

    strbuf sb{};
    const std::string before(prefix, 'P');
    qx_fuzz::check(strbuf_nappend(&sb, before.data(), before.size()) == 0, "prefix");
    const std::string want = reference(s);
    qx_fuzz::check(strbuf_append_xmlencoded(&sb, reinterpret_cast<const char *>(s)) == 0,
                   "strbuf_append_xmlencoded result");
    qx_fuzz::check(sb.length == prefix + want.size(), "xml-encoded length");
    qx_fuzz::check(sb.length == 0 || (std::memcmp(sb.text, before.data(), prefix) == 0 &&
                                      std::memcmp(sb.text + prefix, want.data(), want.size()) == 0),
                   "xml-encoded text");
    qx_fuzz::check(sb.text == nullptr || sb.text[sb.length] == '\0', "xml-encoded NUL");
    strbuf_free(&sb);
    std::free(s);
    return 0;
}
