// OS release information: a KEY=value file read once, cut in place into
// pairs, and looked up key by key.
#include "qxcommon-util/os_info.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "qxcommon-util/fileio.h"

namespace qx::detail {

namespace {

constexpr char default_os_release_path[] = "/etc/os-release";
constexpr char no_value[] = "";

// The record behind osrelease(); zero-initialised, so no constructor runs.
os_info library_record;

// Deliberate: a quoted value on a last line without a line feed keeps both its quotes.
// Strips the value's opening quote and the closing one, which must be the
// character two places before next_line (the last one of a line ended by a
// line feed). Deliberate: for a last line without a line feed that is the
// text's second-to-last character, so such a line keeps its quotes, and
// callers have come to expect exactly that.
char *unquote(char *value, char *next_line) noexcept {
    const char quote = value[0];
    if (quote != '"' && quote != '\'')
        return value;
    char *closing = next_line - 2;
    if (*closing != quote)
        return value;
    *closing = '\0';
    return value + 1;
}

// Adds a pair and the terminating pair behind it. False when the table
// cannot grow; it is then left as it was.
bool append_pair(os_info *info, std::size_t &count, char *key, char *value) noexcept {
    auto *grown =
        static_cast<os_info_pair *>(std::realloc(info->pairs, (count + 2) * sizeof(os_info_pair)));
    if (grown == nullptr)
        return false;
    info->pairs = grown;
    info->pairs[count] = {key, value};
    ++count;
    info->pairs[count] = {nullptr, nullptr};
    return true;
}

// Cuts the text into lines and the lines into pairs. Stops early, keeping
// the pairs found so far, when the pair table cannot grow.
void parse_pairs(os_info *info, std::size_t length) noexcept {
    char *const end = info->text + length;
    std::size_t count = 0;
    for (char *line = info->text; line < end;) {
        auto *feed = static_cast<char *>(std::memchr(line, '\n', end - line));
        char *const next_line = feed != nullptr ? feed + 1 : end;
        if (feed != nullptr)
            *feed = '\0';
        char *const equals = line[0] == ' ' || line[0] == '\n' ? nullptr : std::strchr(line, '=');
        if (equals != nullptr) {
            *equals = '\0';
            if (!append_pair(info, count, line, unquote(equals + 1, next_line)))
                return;
        }
        line = next_line;
    }
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API os_info *os_info_create(const char *path) {
    auto *info = static_cast<os_info *>(std::calloc(1, sizeof(os_info)));
    if (info == nullptr)
        return nullptr;
    info->path = ::strdup(path != nullptr ? path : default_os_release_path);
    if (info->path == nullptr) {
        std::free(info);
        return nullptr;
    }
    return info;
}

QX_API int openosrelease_v2(os_info *info) {
    if (info == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // A parsed record answers from what it holds: its path is not looked at,
    // and may even have been released.
    if (info->pairs != nullptr)
        return 0;
    if (info->path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char *text = nullptr;
    int length = 0;
    if (openreadclose(info->path, &text, &length) != 0)
        return -1;
    std::free(info->text);
    info->text = text;
    parse_pairs(info, static_cast<std::size_t>(length));
    return 0;
}

QX_API const char *osrelease_v2(os_info *info, const char *key) {
    if (info == nullptr || key == nullptr)
        return no_value;
    if (info->pairs == nullptr)
        (void)openosrelease_v2(info);
    if (info->pairs == nullptr)
        return no_value;
    for (const os_info_pair *pair = info->pairs; pair->key != nullptr; ++pair) {
        if (::strcasecmp(pair->key, key) == 0)
            return pair->value;
    }
    return no_value;
}

QX_API const char *osrelease(const char *key) {
    if (library_record.path == nullptr)
        library_record.path = ::strdup(default_os_release_path);
    return osrelease_v2(&library_record, key);
}

QX_API void os_info_free_values(os_info *info) {
    if (info == nullptr)
        return;
    std::free(info->text);
    info->text = nullptr;
    std::free(info->pairs);
    info->pairs = nullptr;
}

QX_API void os_info_free(os_info *info) {
    if (info == nullptr)
        return;
    os_info_free_values(info);
    std::free(info->path);
    info->path = nullptr;
}

QX_API void os_info_delete(os_info *info) {
    os_info_free(info);
    std::free(info);
}

} // extern "C"

namespace qx::detail {

namespace {

// Deliberate: at unload an unused record is given a copy of its path, freed at once.
// Runs when the library is unloaded. A record that was never used is first
// given its path, which is then released at once: deliberate, kept as it is.
__attribute__((destructor)) void release_library_record() {
    if (library_record.path == nullptr)
        library_record.path = ::strdup(default_os_release_path);
    os_info_free(&library_record);
}

} // namespace

} // namespace qx::detail
