// The INI readers on arbitrary file content. Beyond memory safety (every
// destination buffer is exactly as large as the size passed, so a write
// past it is seen): every length returned is the length of what the buffer
// holds; a key that no line can hold gives the default, cut to the buffer;
// and on files of short lines, the sections enumerated by index are the
// headers the browser reports, in order.
// Input: byte 0 gives the buffer size (1 to 64), the rest is the file.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "qxcommon-util/ini.h"

using qx_fuzz::check;

namespace {

struct browsed {
    std::vector<std::string> headers;
    std::vector<std::pair<std::string, std::string>> keys; // section, key
    int calls = 0;
};

int record(const char *section, const char *key, const char *value, void *user) {
    auto *b = static_cast<browsed *>(user);
    check(section != nullptr, "browse gave no section name");
    check(std::strlen(section) < 512, "browse section name too long");
    if (key == nullptr) {
        check(value == nullptr, "header callback with a value");
        b->headers.emplace_back(section);
    } else {
        check(value != nullptr, "key callback without a value");
        check(std::strlen(key) + std::strlen(value) < 512, "browse strings too long");
        if (b->keys.size() < 16)
            b->keys.emplace_back(section, key);
    }
    return ++b->calls < 4096;
}

// A buffer of exactly size bytes; its text must be what the result says.
void check_copy(int result, const char *buffer, int size, const char *what) {
    check(result >= 0 && result < size, what);
    check(std::strlen(buffer) == static_cast<std::size_t>(result), what);
}

bool all_lines_short(const std::string &content) {
    std::size_t start = 0;
    while (start < content.size()) {
        std::size_t end = content.find('\n', start);
        if (end == std::string::npos)
            end = content.size();
        if (end - start > 200)
            return false;
        start = end + 1;
    }
    return content.find('\0') == std::string::npos;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    const int bufsize = 1 + data[0] % 64;
    const std::string content(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string path =
        qx_fuzz::scratch_dir::instance().write("reader.ini", content.data(), content.size());
    const char *file = path.c_str();
    char *buf = static_cast<char *>(std::malloc(static_cast<std::size_t>(bufsize)));

    browsed all;
    check(ini_browse_with_section_cb(record, &all, file) == 1, "browse of an existing file");
    browsed keys_only;
    check(ini_browse(record, &keys_only, file) == 1, "browse of an existing file");
    check(keys_only.headers.empty(), "browse without flag reported a header");

    // No key line can have a key holding "=": the default comes back.
    const char *sections[] = {nullptr, "", all.headers.empty() ? "x" : all.headers[0].c_str()};
    const std::string def = "default value longer than some buffers";
    for (const char *section : sections) {
        const int r = ini_gets(section, "no=such", def.c_str(), buf, bufsize, file);
        check_copy(r, buf, bufsize, "ini_gets of a missing key");
        check(def.compare(0, static_cast<std::size_t>(r), buf) == 0 &&
                  r == std::min<int>(bufsize - 1, static_cast<int>(def.size())),
              "missing key does not give the default");
        check(ini_getl(section, "no=such", -7, file) == -7, "ini_getl default");
        check(ini_getbool(section, "no=such", 5, file) == 5, "ini_getbool default");
    }

    // Every key the browser saw can be looked up and read in every form.
    for (const auto &[section, key] : all.keys) {
        int r = ini_gets(section.c_str(), key.c_str(), "", buf, bufsize, file);
        check_copy(r, buf, bufsize, "ini_gets of a browsed key");
        (void)ini_getl(section.c_str(), key.c_str(), 0, file);
        (void)ini_getf(section.c_str(), key.c_str(), 0.0f, file);
        const int b = ini_getbool(section.c_str(), key.c_str(), 7, file);
        check(b == 0 || b == 1 || b == 7, "ini_getbool result");
    }

    // Sections by index (in a buffer large enough for any name, and in the
    // small one), and the keys of each by index.
    char name[512];
    std::vector<std::string> by_index;
    for (int i = 0; i < 64; ++i) {
        const int r = ini_getsection(i, name, sizeof name, file);
        check_copy(r, name, sizeof name, "ini_getsection");
        const int small = ini_getsection(i, buf, bufsize, file);
        check_copy(small, buf, bufsize, "ini_getsection into a small buffer");
        check(std::strncmp(buf, name, static_cast<std::size_t>(small)) == 0 &&
                  small == std::min(r, bufsize - 1),
              "ini_getsection into a small buffer is not the name cut short");
        if (r == 0)
            break;
        by_index.emplace_back(name);
        for (int k = 0; k < 16; ++k) {
            const int kr = ini_getkey(name, k, buf, bufsize, file);
            check_copy(kr, buf, bufsize, "ini_getkey");
            if (kr == 0)
                break;
        }
    }
    for (int k = 0; k < 16; ++k) {
        const int kr = ini_getkey(nullptr, k, buf, bufsize, file);
        check_copy(kr, buf, bufsize, "ini_getkey of the unnamed section");
        if (kr == 0)
            break;
    }
    check(ini_getsection(-1, buf, bufsize, file) == 0, "negative section index");

    if (all_lines_short(content)) {
        std::size_t expected = 0;
        while (expected < all.headers.size() && !all.headers[expected].empty() && expected < 64)
            ++expected;
        check(by_index.size() == expected || (by_index.size() == 64 && expected == 64),
              "section count by index differs from the browsed headers");
        for (std::size_t i = 0; i < by_index.size(); ++i)
            check(all.headers[i] == by_index[i],
                  "section by index differs from the browsed header");
    }
    std::free(buf);
    return 0;
}
