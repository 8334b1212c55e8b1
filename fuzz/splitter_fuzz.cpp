// qx_string_splitter on an arbitrary text and separator, and
// qx_txt_file_reader on arbitrary file content with a line range from the
// input, against references written from their rules.
// Input: byte 0 and byte 1 pick the first and last line, then the separator
// up to a NUL byte, then the text (the file content is all of the input).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/splitter.h"

using qx_fuzz::check;

namespace {

std::vector<std::string> ref_split(const std::string &text, const std::string &sep) {
    std::vector<std::string> out;
    if (sep.empty()) {
        out.push_back(text);
        return out;
    }
    std::size_t pos = 0;
    for (;;) {
        const std::size_t hit = text.find(sep, pos);
        if (hit == std::string::npos) {
            out.push_back(text.substr(pos));
            return out;
        }
        out.push_back(text.substr(pos, hit - pos));
        pos = hit + sep.size();
        if (pos == text.size()) {
            out.emplace_back();
            return out;
        }
    }
}

// Lines first..last (from 1) as getline gives them, each seen as a C string.
std::vector<std::string> ref_lines(const std::string &content, std::uint32_t first,
                                   std::uint32_t last) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    for (std::uint32_t number = 1; pos < content.size(); ++number) {
        std::size_t end = content.find('\n', pos);
        end = end == std::string::npos ? content.size() : end + 1;
        if (number >= first && number <= last)
            out.emplace_back(std::string(content, pos, end - pos).c_str());
        if (number == last && last != 0xFFFFFFFFu)
            break;
        pos = end;
    }
    return out;
}

void check_splitter(const std::string &text, const std::string &sep, bool null_separator) {
    qx_string_splitter *s = qx_string_splitter_new();
    check(s != nullptr, "splitter_new");
    check(qx_string_splitter_split(s, "a,b", ",") == 0, "first split");
    const int r = qx_string_splitter_split(s, text.c_str(), null_separator ? nullptr : sep.c_str());
    if (text.empty()) {
        check(r == -1 && qx_string_splitter_get_count(s) == 0 && qx_string_splitter_is_empty(s),
              "splitting nothing must fail and leave no field");
    } else {
        const auto want = ref_split(text, null_separator ? std::string() : sep);
        check(r == 0, "split result");
        check(qx_string_splitter_get_count(s) == want.size(), "field count");
        check(qx_string_splitter_is_empty(s) == 0, "is_empty after a split");
        for (std::size_t i = 0; i < want.size(); ++i) {
            const char *f = qx_string_splitter_get_at(s, static_cast<std::uint32_t>(i));
            check(f != nullptr && want[i] == f, "field text");
        }
        check(qx_string_splitter_get_at(s, static_cast<std::uint32_t>(want.size())) == nullptr,
              "field past the end");
    }
    check(qx_string_splitter_get_at(s, 0xFFFFFFFFu) == nullptr, "field at the missing index");
    qx_string_splitter_delete(s);
}

void check_reader(const std::string &content, std::uint32_t first, std::uint32_t last) {
    const std::string path =
        qx_fuzz::scratch_dir::instance().write("lines", content.data(), content.size());
    qx_txt_file_reader *reader = qx_txt_file_reader_new();
    check(reader != nullptr, "reader_new");
    const int r = qx_txt_file_reader_read_lines(reader, path.c_str(), first, last);
    std::vector<std::string> want;
    if (first == 0 || first > last) {
        check(r == -2, "invalid range");
    } else {
        check(r == 0, "read_lines result");
        want = ref_lines(content, first, last);
    }
    const auto all = ref_lines(content, 1, 0xFFFFFFFFu);
    check(qx_txt_file_reader_read_all_lines(reader, path.c_str()) == 0, "read_all_lines");
    want.insert(want.end(), all.begin(), all.end());
    check(qx_txt_file_reader_get_count(reader) == want.size(), "line count");
    for (std::size_t i = 0; i < want.size(); ++i) {
        const char *line = qx_txt_file_reader_get_line_at(reader, static_cast<std::uint32_t>(i));
        check(line != nullptr && want[i] == line, "line text");
    }
    check(qx_txt_file_reader_get_line_at(reader, static_cast<std::uint32_t>(want.size())) ==
              nullptr,
          "line past the end");
    if (!want.empty()) {
        qx_txt_file_reader_remove_line_at(reader, 0);
        check(qx_txt_file_reader_get_count(reader) == want.size() - 1, "remove_line_at");
    }
    qx_txt_file_reader_remove_line_at(reader, 0xFFFFFFFFu);
    check(qx_txt_file_reader_empty(reader) == 1 && qx_txt_file_reader_is_empty(reader) == 1,
          "empty");
    check(qx_txt_file_reader_read_lines(reader, nullptr, 1, 1) == -1, "NULL path");
    qx_txt_file_reader_delete(reader);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2)
        return 0;
    std::uint32_t first = data[0] % 8;
    std::uint32_t last = data[1] == 0xFF ? 0xFFFFFFFFu : data[1] % 16;
    std::size_t pos = 2;
    std::string sep;
    while (pos < size && data[pos] != 0)
        sep.push_back(static_cast<char>(data[pos++]));
    if (pos < size)
        ++pos;
    const std::string text(reinterpret_cast<const char *>(data) + pos,
                           strnlen(reinterpret_cast<const char *>(data) + pos, size - pos));
    check_splitter(text, sep, (data[0] & 0x80) != 0);
    check_reader(std::string(reinterpret_cast<const char *>(data), size), first, last);
    return 0;
}
