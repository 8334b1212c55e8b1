// The os-release parser on arbitrary file content, against a reference
// written from its line rules (lines starting with a space skipped, key up
// to the first "=", a value unquoted only when the character two before the
// next line is the same quote, so a quoted last line without a line feed
// keeps its quotes). Oracles: the pairs are exactly the reference's, every
// lookup (in any case) gives the first match, a missing key gives "".
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <strings.h>
#include <utility>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/os_info.h"

using qx_fuzz::check;

namespace {

std::vector<std::pair<std::string, std::string>> reference(std::string text) {
    std::vector<std::pair<std::string, std::string>> out;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        const bool has_feed = end != std::string::npos;
        if (!has_feed)
            end = text.size();
        const std::size_t next = has_feed ? end + 1 : text.size();
        const std::string line = text.substr(start, end - start);
        const std::size_t eq = line.find('=');
        if (!line.empty() && line[0] != ' ' && eq != std::string::npos) {
            std::size_t value_start = start + eq + 1;
            const std::size_t q = next - 2;
            std::string cut = text.substr(0, end); // the line ends at its feed
            if (value_start < end && (text[value_start] == '"' || text[value_start] == '\'') &&
                next >= 2 && text[q] == text[value_start]) {
                cut[q] = '\0';
                ++value_start;
            }
            std::string value = value_start <= end ? cut.substr(value_start) : std::string();
            out.emplace_back(line.substr(0, eq), std::string(value.c_str()));
        }
        start = next;
    }
    return out;
}

std::string flip_case(std::string s) {
    for (char &c : s) {
        const unsigned char u = static_cast<unsigned char>(c);
        c = static_cast<char>(std::isupper(u) ? std::tolower(u) : std::toupper(u));
    }
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string content(reinterpret_cast<const char *>(data),
                              strnlen(reinterpret_cast<const char *>(data), size));
    const std::string path =
        qx_fuzz::scratch_dir::instance().write("os-release", content.data(), content.size());
    const auto want = reference(content);

    os_info *info = os_info_create(path.c_str());
    check(info != nullptr, "os_info_create");
    check(openosrelease_v2(info) == 0, "openosrelease_v2");
    if (want.empty()) {
        check(info->pairs == nullptr || info->pairs[0].key == nullptr, "pairs where none are");
    } else {
        std::size_t i = 0;
        for (; info->pairs[i].key != nullptr; ++i) {
            check(i < want.size(), "more pairs than lines");
            check(want[i].first == info->pairs[i].key, "pair key");
            check(info->pairs[i].value != nullptr && want[i].second == info->pairs[i].value,
                  "pair value");
        }
        check(i == want.size() && info->pairs[i].value == nullptr, "pair count");
    }
    for (const auto &[key, value] : want) {
        std::string first;
        for (const auto &p : want)
            if (strcasecmp(p.first.c_str(), key.c_str()) == 0) {
                first = p.second;
                break;
            }
        check(first == osrelease_v2(info, key.c_str()), "lookup is not the first match");
        check(first == osrelease_v2(info, flip_case(key).c_str()), "lookup is case-sensitive");
    }
    const char *missing = osrelease_v2(info, "no=such");
    check(missing != nullptr && missing[0] == '\0', "missing key");

    // Freed values are read again on the next lookup.
    os_info_free_values(info);
    check(info->text == nullptr && info->pairs == nullptr && info->path != nullptr,
          "os_info_free_values");
    if (!want.empty())
        check(want[0].second == osrelease_v2(info, want[0].first.c_str()), "lookup after free");
    os_info_delete(info);

    os_info *absent = os_info_create((path + ".missing").c_str());
    check(openosrelease_v2(absent) == -1, "missing file");
    check(std::strcmp(osrelease_v2(absent, "NAME"), "") == 0, "lookup in a missing file");
    os_info_delete(absent);
    return 0;
}
