// utf16_to_mutf7_enc on arbitrary code units (the input read as 16-bit
// units, ended by a 0 unit), against a reference encoder written from the
// modified UTF-7 rules; the text already in the buffer must stay.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/mutf7.h"
#include "qxcommon-util/strbuf.h"

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

std::string reference(const std::vector<std::uint16_t> &units) {
    std::string out;
    std::size_t i = 0;
    while (units[i] != 0) {
        const std::uint16_t u = units[i];
        if (u == 0x26) {
            out += "&-";
            ++i;
            continue;
        }
        if (u >= 0x20 && u <= 0x7E) {
            out.push_back(static_cast<char>(u));
            ++i;
            continue;
        }
        std::string bytes;
        while (units[i] != 0 && (units[i] < 0x20 || units[i] > 0x7E)) {
            bytes.push_back(static_cast<char>(units[i] >> 8));
            bytes.push_back(static_cast<char>(units[i] & 0xFF));
            ++i;
        }
        out.push_back('&');
        unsigned long acc = 0;
        int bits = 0;
        for (unsigned char b : bytes) {
            acc = (acc << 8 | b) & 0xFFFFFF;
            bits += 8;
            while (bits >= 6) {
                bits -= 6;
                out.push_back(alphabet[(acc >> bits) & 63]);
            }
        }
        if (bits > 0)
            out.push_back(alphabet[(acc << (6 - bits)) & 63]);
        out.push_back('-');
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const std::size_t prefix = data[0] * 4U;
    std::vector<std::uint16_t> units((size - 1) / 2 + 1, 0);
    if (size > 1)
        std::memcpy(units.data(), data + 1, (size - 1) / 2 * 2);
    units.back() = 0;
    const std::string want = reference(units);

    strbuf sb{};
    const std::string before(prefix, 'P');
    qx_fuzz::check(strbuf_nappend(&sb, before.data(), before.size()) == 0, "prefix");
    utf16_to_mutf7_enc(&sb, units.data());
    qx_fuzz::check(sb.length == prefix + want.size(), "modified UTF-7 length");
    qx_fuzz::check(std::memcmp(sb.text, before.data(), prefix) == 0 &&
                       std::memcmp(sb.text + prefix, want.data(), want.size()) == 0,
                   "modified UTF-7 text");
    qx_fuzz::check(sb.text[sb.length] == '\0', "modified UTF-7 NUL");
    strbuf_free(&sb);

    strbuf untouched{};
    utf16_to_mutf7_enc(&untouched, nullptr);
    qx_fuzz::check(untouched.text == nullptr && untouched.size == 0, "NULL units touch nothing");
    return 0;
}
