// strbuf_quote and strbuf_translate, with their character sets and the text
// all taken from the input, against references written from their rules.
// Input: byte 0 (bit 0: special is NULL, bit 1: to is NULL), then special,
// from and to separated by NUL bytes; the rest, NUL bytes included, is the
// text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"

using qx_fuzz::check;

namespace {

// What the text becomes when the scratch result replaces it through a
// NUL-terminated copy: everything from the first NUL on is gone.
std::string up_to_nul(const std::string &s) {
    return std::string(s.c_str());
}

std::string ref_quote(const std::string &text, const char *special) {
    std::string out;
    char esc[16];
    for (unsigned char c : text) {
        if (special != nullptr) {
            if (c != 0 && std::strchr(special, c) != nullptr) {
                out.push_back('\\');
                out.push_back(static_cast<char>(c));
            } else {
                out.push_back(static_cast<char>(c));
            }
        } else if (c < 32 || c == '"' || c == '/' || c == '\\' || c == 127) {
            std::snprintf(esc, sizeof esc, "\\u%.4x", c);
            out += esc;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return up_to_nul(out);
}

// false when every byte was deleted (the buffer then keeps its old bytes).
bool ref_translate(const std::string &text, const std::string &from, const char *to,
                   std::string &out) {
    out.clear();
    const std::size_t to_length = to != nullptr ? std::strlen(to) : 0;
    for (char c : text) {
        const std::size_t k = c == '\0' ? std::string::npos : from.find(c);
        if (k == std::string::npos)
            out.push_back(c);
        else if (to_length > 0)
            out.push_back(to[k < to_length ? k : to_length - 1]);
    }
    if (out.empty())
        return false;
    out = up_to_nul(out);
    return true;
}

void check_quote(const std::string &text, const char *special) {
    strbuf sb{};
    check(strbuf_nappend(&sb, text.data(), text.size()) == 0, "nappend");
    const std::string want = ref_quote(text, special);
    check(strbuf_quote(&sb, special) == 0, "strbuf_quote result");
    if (text.empty()) {
        check(sb.length == 0, "quote of nothing");
    } else {
        check(sb.length == want.size() && std::memcmp(sb.text, want.data(), want.size()) == 0,
              "strbuf_quote text");
        check(sb.text[sb.length] == '\0', "strbuf_quote NUL");
    }
    strbuf_free(&sb);
}

void check_translate(const std::string &text, const std::string &from, const char *to) {
    strbuf sb{};
    check(strbuf_nappend(&sb, text.data(), text.size()) == 0, "nappend");
    const std::string old(sb.text, sb.length);
    std::string want;
    const bool replaced = ref_translate(text, from, to, want);
    check(strbuf_translate(&sb, from.c_str(), to) == 0, "strbuf_translate result");
    if (!replaced) {
        check(sb.length == 0 && std::memcmp(sb.text, old.data(), old.size()) == 0,
              "translate deleting everything must only set length to 0");
    } else {
        check(sb.length == want.size() && std::memcmp(sb.text, want.data(), want.size()) == 0,
              "strbuf_translate text");
        check(sb.text[sb.length] == '\0', "strbuf_translate NUL");
    }
    strbuf_free(&sb);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const unsigned flags = data[0];
    std::string fields[3];
    std::size_t pos = 1;
    for (auto &field : fields) {
        while (pos < size && data[pos] != 0)
            field.push_back(static_cast<char>(data[pos++]));
        if (pos < size)
            ++pos;
    }
    const std::string text(reinterpret_cast<const char *>(data) + pos, size - pos);
    check_quote(text, (flags & 1) != 0 ? nullptr : fields[0].c_str());
    check_translate(text, fields[1], (flags & 2) != 0 ? nullptr : fields[2].c_str());

    strbuf sb{};
    check(strbuf_translate(&sb, nullptr, "x") == -1, "translate with a NULL from");
    return 0;
}
