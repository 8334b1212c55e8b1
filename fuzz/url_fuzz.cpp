// URL percent-encoding and decoding. The input is used twice: encoded and
// decoded again, which must give back its text up to the first NUL; and
// decoded as it stands, compared with a reference decoder (a malformed "%"
// must fail and leave the buffer exactly as it was).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

using qx_fuzz::check;

using qx_fuzz::hex_value;

namespace {

bool unreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

// false for a malformed escape.
bool ref_decode(const std::string &text, std::string &out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '%') {
            if (i + 2 >= text.size())
                return false;
            const int hi = hex_value(static_cast<unsigned char>(text[i + 1]));
            const int lo = hex_value(static_cast<unsigned char>(text[i + 2]));
            if (hi < 0 || lo < 0)
                return false;
            out.push_back(static_cast<char>(hi << 4 | lo));
            i += 2;
        } else {
            out.push_back(c == '+' ? ' ' : static_cast<char>(c));
        }
    }
    return true;
}

void check_round_trip(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data),
                           strnlen(reinterpret_cast<const char *>(data), size));
    strbuf sb{};
    check(strbuf_nappend(&sb, data, size) == 0, "nappend failed");
    check(strbuf_urlencode(&sb) == 0, "strbuf_urlencode failed");
    check(sb.text[sb.length] == '\0', "urlencode left no NUL");
    std::size_t expected_length = 0;
    for (unsigned char c : text)
        expected_length += unreserved(c) ? 1 : 3;
    check(sb.length == expected_length, "urlencode length");
    for (std::size_t i = 0; i < sb.length; ++i) {
        const unsigned char c = static_cast<unsigned char>(sb.text[i]);
        if (c == '%') {
            const unsigned char h1 = static_cast<unsigned char>(sb.text[i + 1]);
            const unsigned char h2 = static_cast<unsigned char>(sb.text[i + 2]);
            check(hex_value(h1) >= 0 && !(h1 >= 'A' && h1 <= 'F') && hex_value(h2) >= 0 &&
                      !(h2 >= 'A' && h2 <= 'F'),
                  "urlencode escape is not two lower-case hex digits");
            check(!unreserved(static_cast<unsigned char>(hex_value(h1) << 4 | hex_value(h2))),
                  "urlencode escaped an unreserved byte");
            i += 2;
        } else {
            check(unreserved(c), "urlencode left a reserved byte");
        }
    }
    check(strbuf_urldecode(&sb) == 0, "strbuf_urldecode failed on encoded text");
    check(sb.length == text.size() && std::memcmp(sb.text, text.data(), text.size()) == 0,
          "url round trip");
    check(sb.text[sb.length] == '\0', "urldecode left no NUL");
    strbuf_free(&sb);
}

void check_decode(const std::uint8_t *data, std::size_t size) {
    strbuf sb{};
    check(strbuf_nappend(&sb, data, size) == 0, "nappend failed");
    const std::string before(sb.text, sb.length + 1);
    const char *text_before = sb.text;
    const std::size_t size_before = sb.size;
    const std::string text(sb.text); // the decoder works up to the first NUL
    std::string want;
    const bool ok = ref_decode(text, want);
    const int r = strbuf_urldecode(&sb);
    if (!ok) {
        check(r == -1, "urldecode accepted a malformed escape");
        check(sb.text == text_before && sb.size == size_before && sb.length == size &&
                  std::memcmp(sb.text, before.data(), before.size()) == 0,
              "failed urldecode changed the buffer");
    } else {
        check(r == 0, "urldecode rejected a valid text");
        check(sb.length == want.size() && std::memcmp(sb.text, want.data(), want.size()) == 0,
              "urldecode result");
        check(sb.text[sb.length] == '\0', "urldecode left no NUL");
    }
    strbuf_free(&sb);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    check_round_trip(data, size);
    check_decode(data, size);
    return 0;
}
