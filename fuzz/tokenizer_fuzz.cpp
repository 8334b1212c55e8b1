// The tokenizers and the string-array splitter and joiner on an arbitrary
// text and delimiter set. Oracles: strnsep against a plain scan for the
// delimiters (field start, length and cursor); qx_strsepstr_x (through
// my_strsep, qx_strsepstr and itself) against a reference of its quote,
// escape and collapse rules, including where the cursor lands and what the
// rest of the text reads after the shifting; qx_string_to_array against the
// strnsep fields; qx_array_to_string against a plain join, with the one
// documented exception (no separator in front of a final empty entry).
// Input: byte 0 picks the options, then the delimiters up to a NUL byte,
// then the text up to the next NUL byte.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/array.h"
#include "qxcommon-util/tokenizer.h"

using qx_fuzz::check;

namespace {

bool is_delim(const std::string &delims, char c) {
    return delims.find(c) != std::string::npos;
}

// Fields as offsets and lengths: cut at every delimiter, no field after a
// trailing delimiter, none at all for an empty text.
struct span {
    std::size_t start;
    std::size_t length;
};

std::vector<span> ref_strnsep(const std::string &text, const std::string &delims) {
    std::vector<span> out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = pos;
        while (end < text.size() && !is_delim(delims, text[end]))
            ++end;
        out.push_back({pos, end - pos});
        pos = end < text.size() ? end + 1 : end;
    }
    return out;
}

void check_strnsep(const std::string &text, const std::string &delims) {
    const auto want = ref_strnsep(text, delims);
    const char *cursor = text.c_str();
    for (const span &f : want) {
        std::size_t len = 12345;
        const char *got = strnsep(&cursor, delims.c_str(), &len);
        check(got == text.c_str() + f.start, "strnsep field start");
        check(len == f.length, "strnsep field length");
        const std::size_t after = f.start + f.length;
        check(cursor == text.c_str() + (after < text.size() ? after + 1 : after), "strnsep cursor");
    }
    const char *at_end = cursor;
    std::size_t len = 12345;
    check(strnsep(&cursor, delims.c_str(), &len) == nullptr, "strnsep past the last field");
    check(len == 0 && cursor == at_end, "strnsep at the end moved or left a length");
    const char *null_cursor = nullptr;
    len = 12345;
    check(strnsep(&null_cursor, delims.c_str(), &len) == nullptr && len == 0,
          "strnsep on a NULL cursor");
}

// One field of qx_strsepstr_x on the remaining text: the field's bytes, the
// number of bytes removed from it, whether a delimiter ended it, and how
// many further delimiters were collapsed.
struct sep_field {
    std::string text;
    std::size_t consumed = 0; // original bytes of the field, delimiter excluded
    bool at_delim = false;
    std::size_t collapsed = 0;
};

sep_field ref_sep_field(const std::string &rest, const std::string &delims, bool collapse) {
    enum { plain, dq, dq_esc, sq, sq_esc, plain_esc } state = plain;
    sep_field f;
    std::size_t i = 0;
    for (; i < rest.size(); ++i) {
        const char c = rest[i];
        switch (state) {
        case plain:
            if (c == '"' && i == 0) {
                state = dq;
            } else if (c == '\'' && i == 0) {
                state = sq;
            } else if (c == '\\') {
                state = plain_esc;
            } else if (!delims.empty() && is_delim(delims, c)) {
                f.at_delim = true;
            } else {
                f.text.push_back(c);
            }
            break;
        case plain_esc:
            f.text.push_back(c);
            state = plain;
            break;
        case dq:
        case sq:
            if (c == '\\')
                state = state == dq ? dq_esc : sq_esc;
            else if (c == (state == dq ? '"' : '\''))
                state = plain;
            else
                f.text.push_back(c);
            break;
        case dq_esc:
            f.text.push_back(c);
            state = dq;
            break;
        case sq_esc:
            f.text.push_back(c);
            state = sq;
            break;
        }
        if (f.at_delim)
            break;
    }
    f.consumed = i;
    if (f.at_delim && collapse) {
        std::size_t j = i + 1;
        while (j < rest.size() && is_delim(delims, rest[j]))
            ++j;
        f.collapsed = j - (i + 1);
    }
    return f;
}

// Calls the chosen front until it returns NULL, checking every field, the
// cursor after it and the text that remains behind the cursor.
void check_strsep(const std::string &text, const std::string &delims, int front) {
    const bool collapse = front == 1 || front == 3;
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char *cursor = buf.data();
    std::string rest = text;
    for (std::size_t calls = 0;; ++calls) {
        check(calls <= text.size() + 1, "qx_strsepstr_x does not finish");
        char *start = cursor;
        char *got;
        switch (front) {
        case 0:
            got = my_strsep(&cursor, delims.c_str());
            break;
        case 1:
            got = qx_strsepstr(&cursor, delims.c_str());
            break;
        default:
            got = qx_strsepstr_x(&cursor, delims.c_str(), collapse ? 1 : 0);
            break;
        }
        if (start == nullptr) {
            check(got == nullptr && cursor == nullptr, "qx_strsepstr_x on a NULL cursor");
            return;
        }
        check(got == start, "qx_strsepstr_x returns the field's start");
        const sep_field f = ref_sep_field(rest, delims, collapse);
        check(f.text == got, "qx_strsepstr_x field text");
        if (!f.at_delim) {
            check(cursor == nullptr, "qx_strsepstr_x cursor at the end of the text");
            continue;
        }
        check(cursor == start + f.text.size() + 1 + f.collapsed, "qx_strsepstr_x cursor");
        for (std::size_t k = 0; k < f.collapsed; ++k)
            check(start[f.text.size() + 1 + k] == '\0', "collapsed delimiter not cleared");
        rest.erase(0, f.consumed + 1 + f.collapsed);
        check(rest == cursor, "qx_strsepstr_x text behind the cursor");
    }
}

// The split must give exactly the strnsep fields.
void check_string_to_array(const std::string &text, const std::string &delims) {
    const auto want = ref_strnsep(text, delims);
    char **a = qx_string_to_array(text.c_str(), delims.c_str());
    if (want.empty()) {
        check(a == nullptr, "qx_string_to_array of no field is not NULL");
        return;
    }
    check(a != nullptr, "qx_string_to_array failed");
    check(qx_array_count(a) == want.size(), "qx_string_to_array count");
    for (std::size_t i = 0; i < want.size(); ++i)
        check(text.compare(want[i].start, want[i].length, a[i]) == 0, "qx_string_to_array field");
    check(a[want.size()] == nullptr, "qx_string_to_array terminator");
    std::free(a);
}

std::string plain_join(const std::vector<std::string> &entries, const std::string &sep) {
    std::string out;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i != 0)
            out += sep;
        out += entries[i];
    }
    return out;
}

// Joins the fields cut at every delimiter (a trailing one giving a final
// empty field, which the joiner treats specially) with the separator.
void check_to_string(const std::string &text, const std::string &delims, const std::string &sep,
                     bool null_sep) {
    std::vector<std::string> entries;
    if (!text.empty()) {
        std::size_t pos = 0;
        for (;;) {
            const std::size_t hit =
                delims.empty() ? std::string::npos : text.find_first_of(delims, pos);
            entries.push_back(text.substr(pos, hit == std::string::npos ? hit : hit - pos));
            if (hit == std::string::npos)
                break;
            pos = hit + 1;
        }
    }
    char **a = qx_array_new(0);
    check(a != nullptr, "qx_array_new");
    for (const std::string &e : entries)
        check(qx_array_append_resize(&a, e.data(), static_cast<ssize_t>(e.size())) == 0,
              "qx_array_append_resize");
    const std::string s = null_sep ? std::string() : sep;
    std::string want = plain_join(entries, s);
    if (!s.empty() && entries.size() >= 2 && entries.back().empty())
        want.resize(want.size() - s.size()); // deliberate: no separator before a final ""
    char *got = qx_array_to_string(a, null_sep ? nullptr : sep.c_str());
    check(got != nullptr, "qx_array_to_string failed");
    check(want == got, "qx_array_to_string text");
    std::free(got);
    std::free(a);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const std::uint8_t options = data[0];
    std::size_t pos = 1;
    std::string delims;
    while (pos < size && data[pos] != 0)
        delims.push_back(static_cast<char>(data[pos++]));
    if (pos < size)
        ++pos;
    const std::string text(reinterpret_cast<const char *>(data) + pos,
                           strnlen(reinterpret_cast<const char *>(data) + pos, size - pos));

    check_strnsep(text, delims);
    check_strsep(text, delims, options & 3);
    check_string_to_array(text, delims);
    // The separator of the join: the delimiters themselves, or NULL.
    check_to_string(text, delims, delims, (options & 4) != 0);
    return 0;
}
