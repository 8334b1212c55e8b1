// Template substitution with the template, the delimiter and the pairs all
// taken from the input, against a reference written from the substitution
// rules (first pair wins, unknown placeholders stay, touching placeholders
// are not both replaced). Input: fields separated by NUL bytes, in the order
// delimiter, template, name, value, name, value, ...; an empty value field
// stands for a NULL value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "qxcommon-util/strbuf.h"
#include "qxcommon-util/strbuf_format.h"

namespace {

constexpr std::size_t max_fields = 9; // delimiter, template and up to 3 pairs + spare

struct pair {
    const char *name;
    const char *value;
};

int reference(const std::string &t, const std::string &delim, const pair *pairs,
              std::size_t pair_count, std::string &out) {
    out.clear();
    const std::size_t d = delim.size();
    int count = 0;
    std::size_t segment = 0;
    std::size_t p = 0;
    while (p < t.size()) {
        if (t.compare(p, d, delim) != 0) {
            ++p;
            continue;
        }
        const pair *hit = nullptr;
        for (std::size_t i = 0; i < pair_count && hit == nullptr; ++i) {
            const std::size_t n = std::strlen(pairs[i].name);
            if (t.compare(p + d, n, pairs[i].name) == 0 && p + d + n <= t.size() &&
                t.compare(p + d + n, d, delim) == 0 && p + d + n + d <= t.size())
                hit = &pairs[i];
        }
        if (hit == nullptr) {
            ++p;
            continue;
        }
        out.append(t, segment, p - segment);
        if (hit->value != nullptr)
            out += hit->value;
        ++count;
        segment = p + d + std::strlen(hit->name) + d;
        if (segment >= t.size())
            break;
        p = segment + 1;
    }
    if (segment < t.size())
        out.append(t, segment, std::string::npos);
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const auto fields = qx_fuzz::split_at_nul(data, size, max_fields);
    if (fields.size() < 2 || fields[0].empty())
        return 0;
    auto value = [&](std::size_t i) -> const char * {
        return i < fields.size() && !fields[i].empty() ? fields[i].c_str() : nullptr;
    };
    auto name = [&](std::size_t i) -> const char * {
        return i < fields.size() ? fields[i].c_str() : nullptr;
    };

    pair pairs[3];
    std::size_t pair_count = 0;
    for (std::size_t i = 2; i < 8 && name(i) != nullptr; i += 2)
        pairs[pair_count++] = {name(i), value(i + 1)};
    std::string want;
    const int expected = reference(fields[1], fields[0], pairs, pair_count, want);

    strbuf sb{};
    qx_fuzz::check(strbuf_append(&sb, fields[1].c_str()) == 0, "template append");
    const int replaced = strbuf_substitute(&sb, fields[0].c_str(), name(2), value(3), name(4),
                                           value(5), name(6), value(7), nullptr);
    qx_fuzz::check(replaced == expected, "substitution count");
    qx_fuzz::check(sb.text != nullptr && sb.length == want.size() &&
                       std::memcmp(sb.text, want.data(), want.size()) == 0,
                   "substituted text");
    qx_fuzz::check(sb.text[sb.length] == '\0', "substituted text NUL");
    strbuf_free(&sb);

    strbuf empty{};
    qx_fuzz::check(strbuf_substitute(&empty, fields[0].c_str(), nullptr) == -1,
                   "substitution on a buffer without text");
    return 0;
}
