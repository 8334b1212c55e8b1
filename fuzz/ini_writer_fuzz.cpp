// The INI writer on an arbitrary file with a sequence of operations taken
// from the input, each followed by reading back. Oracles: every call
// succeeds and leaves no temporary file behind; after a set whose section,
// key and value a line can hold, the value read back is the value written
// (exactly when the writer quotes it, without its blanks at the edges when
// it does not); ini_putl reads back as the same long, ini_putf as the float
// its "%f" text gives; setting a key again to the value it has leaves the
// file's bytes as they were.
// Input: fields separated by NUL bytes: the file content, then groups of
// four fields: operation (first byte), section, key, value.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "fuzz_support.hpp"
#include "qxcommon-util/ini.h"

using qx_fuzz::check;

namespace {

constexpr std::size_t max_fields = 1 + 4 * 4;

bool is_blank(unsigned char c) {
    return c != 0 && static_cast<signed char>(c) <= 32;
}

bool has_line_break(const std::string &s) {
    return s.find_first_of("\r\n") != std::string::npos;
}

// A section name that a header line written for it gives back.
bool usable_section(const std::string &s) {
    return s.size() < 100 && !has_line_break(s) && s.find(']') == std::string::npos;
}

// A key that the key line written for it gives back and that nothing else in
// the line syntax claims.
bool usable_key(const std::string &k) {
    if (k.empty() || k.size() > 100 || has_line_break(k) ||
        k.find_first_of("=") != std::string::npos)
        return false;
    if (is_blank(static_cast<unsigned char>(k.front())) ||
        is_blank(static_cast<unsigned char>(k.back())))
        return false;
    return k.front() != '[' && k.front() != ';' && k.front() != '#';
}

bool writer_quotes(const std::string &v) {
    return (!v.empty() && v.front() == '"') || v.find_first_of("\";#") != std::string::npos ||
           (!v.empty() && v.back() == ' ');
}

// What a value written by the writer reads back as.
std::string read_back_form(const std::string &v) {
    if (writer_quotes(v))
        return v;
    std::size_t b = 0, e = v.size();
    while (b < e && is_blank(static_cast<unsigned char>(v[b])))
        ++b;
    while (e > b && is_blank(static_cast<unsigned char>(v[e - 1])))
        --e;
    return v.substr(b, e - b);
}

std::string file_bytes(const std::string &path) {
    std::string s;
    qx_fuzz::scratch_dir::read(path, s);
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const auto fields = qx_fuzz::split_at_nul(data, size, max_fields);
    auto &dir = qx_fuzz::scratch_dir::instance();
    const std::string path = dir.write("writer.ini", fields[0].data(), fields[0].size());
    const std::string temporary = dir.file("writer.in~");
    const char *file = path.c_str();
    char buf[512];

    for (std::size_t i = 1; i + 3 <= fields.size(); i += 4) {
        const char op = fields[i].empty() ? 's' : fields[i][0];
        const std::string &section = fields[i + 1];
        const std::string &key = fields[i + 2];
        const std::string value = i + 3 < fields.size() ? fields[i + 3] : std::string();
        const char *sec = section.empty() && (op & 1) ? nullptr : section.c_str();
        const bool checkable = usable_section(section) && usable_key(key);

        switch (op % 5) {
        case 0: { // set, and set the same again
            const bool value_fits = value.size() < 200 && !has_line_break(value);
            check(ini_puts(sec, key.c_str(), value.c_str(), file) == 1, "ini_puts set");
            if (checkable && value_fits) {
                const std::string want = read_back_form(value);
                const int r = ini_gets(sec, key.c_str(), "\x01missing", buf, sizeof buf, file);
                check(r == static_cast<int>(want.size()) && want == buf,
                      "value read back differs from the value written");
                if (want == value) {
                    const std::string before = file_bytes(path);
                    check(ini_puts(sec, key.c_str(), value.c_str(), file) == 1, "ini_puts again");
                    check(file_bytes(path) == before, "setting the same value changed the file");
                }
            }
            break;
        }
        case 1: // delete a key
            check(ini_puts(sec, key.empty() ? "k" : key.c_str(), nullptr, file) == 1,
                  "ini_puts delete key");
            break;
        case 2: // delete a section
            check(ini_puts(sec, nullptr, nullptr, file) == 1, "ini_puts delete section");
            break;
        case 3: { // a long
            long v = 0;
            std::memcpy(&v, value.data(), std::min(value.size(), sizeof v));
            check(ini_putl(sec, key.c_str(), v, file) == 1, "ini_putl");
            if (checkable)
                check(ini_getl(sec, key.c_str(), v ^ 1, file) == v, "long read back differs");
            break;
        }
        case 4: { // a float
            float v = 0;
            std::memcpy(&v, value.data(), std::min(value.size(), sizeof v));
            check(ini_putf(sec, key.c_str(), v, file) == 1, "ini_putf");
            if (checkable) {
                char text[64];
                std::snprintf(text, sizeof text, "%f", static_cast<double>(v));
                const float want = static_cast<float>(std::strtod(text, nullptr));
                const float got = ini_getf(sec, key.c_str(), 12345.0f, file);
                check((std::isnan(want) && std::isnan(got)) || got == want,
                      "float read back differs");
            }
            break;
        }
        }
        check(access(temporary.c_str(), F_OK) != 0, "temporary file left behind");
        check(access(file, F_OK) == 0 || op % 5 == 1 || op % 5 == 2, "file vanished");
    }
    unlink(file);
    return 0;
}
