// configfile_load and qx_config_reader on arbitrary file content, against
// references written from their line rules: the line list (pieces of at
// most 1000 bytes, cut at the first CR or LF, empty ones skipped) and the
// pairs (trimmed lines, "#" comments, exactly one "=", trimmed name and
// value, first pair of a name wins), with the yes/no reading of each value.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/config.h"
#include "qxcommon-util/containers.h"

using qx_fuzz::check;

namespace {

bool c_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string trim(const std::string &s) {
    std::size_t b = 0, e = s.size();
    while (e > 0 && c_space(s[e - 1]))
        --e;
    while (b < e && c_space(s[b]))
        ++b;
    return s.substr(b, e - b);
}

// The reads of fgets into a 1001-byte buffer, each seen as a C string.
std::vector<std::string> ref_lines(const std::string &content) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = pos;
        while (end < content.size() && end - pos < 1000 && content[end] != '\n')
            ++end;
        if (end < content.size() && end - pos < 1000)
            ++end; // the line feed is part of the read
        std::string text(content.c_str() + pos, end - pos);
        text = std::string(text.c_str());
        const std::size_t cut = text.find_first_of("\r\n");
        if (cut != std::string::npos)
            text.resize(cut);
        if (!text.empty())
            out.push_back(text);
        pos = end;
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> ref_pairs(const std::string &content) {
    std::vector<std::pair<std::string, std::string>> out;
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = content.find('\n', pos);
        end = end == std::string::npos ? content.size() : end + 1;
        const std::string line = trim(std::string(std::string(content, pos, end - pos).c_str()));
        pos = end;
        if (line.empty() || line[0] == '#')
            continue;
        const std::size_t eq = line.find('=');
        if (eq == std::string::npos || line.find('=', eq + 1) != std::string::npos)
            continue;
        out.emplace_back(trim(line.substr(0, eq)), trim(line.substr(eq + 1)));
    }
    return out;
}

int ref_bool(const std::string &v) {
    if (v == "y" || v == "yes" || v == "1")
        return 1;
    if (v == "n" || v == "no" || v == "0" || v.empty())
        return 0;
    return -3;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string content(reinterpret_cast<const char *>(data), size);
    const std::string path =
        qx_fuzz::scratch_dir::instance().write("config", content.data(), content.size());

    const auto want_lines = ref_lines(content);
    configfile_line *first = configfile_load(path.c_str());
    std::size_t n = 0;
    for (configfile_line *l = first; l != nullptr; l = l->next, ++n) {
        check(n < want_lines.size(), "configfile_load gave too many lines");
        check(want_lines[n] == l->text, "configfile_load line text");
    }
    check(n == want_lines.size(), "configfile_load line count");
    free_config(first);

    const auto want_pairs = ref_pairs(content);
    qx_config_reader *reader = qx_config_reader_new();
    check(reader != nullptr, "qx_config_reader_new");
    check(qx_config_reader_read_config(reader, path.c_str()) == 0, "read_config");
    check(qx_properties_get_count(reader->properties) == want_pairs.size(), "pair count");
    for (std::size_t i = 0; i < want_pairs.size(); ++i) {
        const auto idx = static_cast<std::uint32_t>(i);
        check(want_pairs[i].first == qx_properties_get_name_at(reader->properties, idx),
              "pair name");
        check(want_pairs[i].second == qx_properties_get_value_at(reader->properties, idx),
              "pair value");
        const char *name = want_pairs[i].first.c_str();
        std::string first_value;
        for (const auto &p : want_pairs)
            if (p.first == want_pairs[i].first) {
                first_value = p.second;
                break;
            }
        const char *got = qx_config_reader_get_property(reader, name);
        check(got != nullptr && first_value == got, "get_property is not the first value");
        check(qx_config_reader_get_bool_property(reader, name) == ref_bool(first_value),
              "get_bool_property");
    }
    check(qx_config_reader_get_property(reader, nullptr) == nullptr, "NULL name");
    check(qx_config_reader_get_bool_property(reader, nullptr) == -1, "NULL name for bool");
    check(qx_config_reader_get_bool_property(reader, "no=such") == -2, "missing name for bool");
    // A second read adds to the pairs already held.
    check(qx_config_reader_read_config(reader, path.c_str()) == 0, "second read_config");
    check(qx_properties_get_count(reader->properties) == 2 * want_pairs.size(),
          "second read does not add");
    qx_config_reader_delete(reader);
    return 0;
}
