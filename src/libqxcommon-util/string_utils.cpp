// Emptiness, equality, copies and in-place trimming of plain C strings.
#include "qxcommon-util/string_utils.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace qx::detail {
namespace {

// Deliberate: bytes are classified as signed chars, so 0xFF (EOF) is never white space.
// Each byte is classified as a signed char value, as the callers of these
// helpers have always seen it: byte 0xFF becomes EOF and is never white space.
bool is_white(char c) noexcept {
    return std::isspace(static_cast<signed char>(c)) != 0;
}

} // namespace
} // namespace qx::detail

using qx::detail::is_white;

extern "C" {

QX_API int qx_string_utils_is_empty(const char *s) {
    return s[0] == '\0' ? 1 : 0;
}

QX_API int qx_string_utils_has_value(const char *s) {
    return s != nullptr && s[0] != '\0' ? 1 : 0;
}

QX_API int qx_string_utils_is_equal(const char *a, const char *b) {
    return std::strcmp(a, b) == 0 ? 1 : 0;
}

QX_API char *qx_string_utils_get_copy(const char *s) {
    if (s == nullptr)
        return nullptr;
    const std::size_t n = std::strlen(s);
    auto *copy = static_cast<char *>(std::calloc(n + 1, 1));
    if (copy != nullptr)
        std::memcpy(copy, s, n);
    return copy;
}

QX_API void qx_string_utils_trim_left(char *s) {
    if (s == nullptr || s[0] == '\0')
        return;
    const char *rest = s;
    while (*rest != '\0' && is_white(*rest))
        ++rest;
    if (rest == s)
        return;
    char *to = s;
    while (*rest != '\0')
        *to++ = *rest++;
    *to = '\0';
}

QX_API void qx_string_utils_trim_right(char *s) {
    if (s == nullptr || s[0] == '\0')
        return;
    for (char *end = s + std::strlen(s); end != s && is_white(end[-1]);)
        *--end = '\0';
}

QX_API void qx_string_utils_trim(char *s) {
    qx_string_utils_trim_right(s);
    qx_string_utils_trim_left(s);
}

} // extern "C"
