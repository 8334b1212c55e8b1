// qx_array: string arrays held in one block, with their texts packed
// downwards from the block's end; flattening, splitting, joining and the
// flag-name translations.
#include "qxcommon-util/array.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "qxcommon-util/tokenizer.h"

namespace qx::detail {
namespace {

constexpr std::size_t word = sizeof(char *);
// The terminator and the free count.
constexpr std::size_t header_words = 2 * word;

std::size_t entry_count(char *const *vector) noexcept {
    std::size_t n = 0;
    while (vector[n] != nullptr)
        ++n;
    return n;
}

// The free count lives in the word after the terminator; entry slots and
// free count share words over the array's life, so it is copied, not cast.
std::size_t free_count(char **array, std::size_t entries) noexcept {
    std::size_t count;
    std::memcpy(&count, array + entries + 1, sizeof count);
    return count;
}

void set_free_count(char **array, std::size_t entries, std::size_t count) noexcept {
    std::memcpy(array + entries + 1, &count, sizeof count);
}

bool equals_entry(const char *entry, const char *s, std::size_t len) noexcept {
    return std::strlen(entry) == len && std::strncmp(entry, s, len) == 0;
}

// Takes len + 1 + one word of the free area after `entries` entries: the
// terminator slot becomes the entry, the free-count slot the terminator,
// and the text goes to the top of the old free area. Its NUL is the zero
// byte already there.
void place(char **array, std::size_t entries, std::size_t free, const char *s,
           std::size_t len) noexcept {
    const std::size_t left = free - (len + 1 + word);
    set_free_count(array, entries + 1, left);
    array[entries + 1] = nullptr;
    char *text = reinterpret_cast<char *>(array) + (entries + 3) * word + left;
    array[entries] = text;
    if (len > 0)
        std::strncpy(text, s, len);
}

// A new array holding the entries of `array`, whose free area is that of
// `array` plus `more`. The old array is left alone.
char **enlarged_copy(char **array, std::size_t more) noexcept {
    const std::size_t space = qx_array_size(array) - header_words;
    if (more > SIZE_MAX - header_words - space)
        return nullptr;
    char **copy = qx_array_new(space + more);
    if (copy == nullptr)
        return nullptr;
    for (char **entry = array; *entry != nullptr; ++entry)
        qx_array_append(copy, *entry, -1);
    return copy;
}

__attribute__((format(printf, 3, 0))) int append_formatted(char ***parray, int mode,
                                                           const char *fmt, va_list ap) {
    char *text = nullptr;
    if (fmt != nullptr && vasprintf(&text, fmt, ap) < 0)
        text = nullptr;
    const int result = qx_array_append_x(parray, text != nullptr ? text : "", -1, mode);
    std::free(text);
    return result;
}

void append_entries(char **&out, char **array) noexcept {
    for (; *array != nullptr; ++array)
        *out++ = *array;
}

// Where array2flag leaves its error text; one buffer for all callers.
char unknown_flag_text[16];

} // namespace
} // namespace qx::detail

extern "C" {

QX_API char **qx_array_new(size_t space) {
    using qx::detail::header_words;
    if (space > SIZE_MAX - header_words)
        return nullptr;
    auto array = static_cast<char **>(std::calloc(1, space + header_words));
    if (array == nullptr)
        return nullptr;
    qx::detail::set_free_count(array, 0, space);
    return array;
}

// The size is not stored: the first appended text ends the block.
QX_API size_t qx_array_size(char **array) {
    if (array[0] == nullptr)
        return qx::detail::free_count(array, 0) + qx::detail::header_words;
    const auto offset = static_cast<std::size_t>(array[0] - reinterpret_cast<char *>(array));
    return offset + std::strlen(array[0]) + 1;
}

QX_API uint32_t qx_array_count(char **array) {
    return static_cast<uint32_t>(qx::detail::entry_count(array));
}

// Deliberate: more = 0 gives NULL and leaves the array alone; callers keep using it.
// more = 0 returns NULL without touching the array, deliberately: callers
// test the result only and keep using the old array then.
QX_API char **qx_array_resize(char **array, size_t more) {
    if (more == 0)
        return nullptr;
    char **resized = qx::detail::enlarged_copy(array, more);
    if (resized == nullptr)
        return nullptr;
    std::free(array);
    return resized;
}

QX_API int qx_array_append_x(char ***parray, const char *s, ssize_t len, int mode) {
    using namespace qx::detail;
    const std::size_t length = len < 0 ? std::strlen(s) : static_cast<std::size_t>(len);
    char **array = *parray;
    std::size_t entries = 0;
    for (; array[entries] != nullptr; ++entries) {
        if ((mode & QX_ARRAY_UNIQUE) != 0 && equals_entry(array[entries], s, length))
            return -1;
    }
    const std::size_t need = length + 1 + word;
    const std::size_t free = free_count(array, entries);
    if (free >= need) {
        place(array, entries, free, s, length);
        return 0;
    }
    if ((mode & QX_ARRAY_MAY_GROW) == 0)
        return -1;
    // Exact fit: the array grows by the shortfall only. The old block is
    // freed after the append, as s may point into it.
    char **grown = enlarged_copy(array, need - free);
    if (grown == nullptr)
        return -1;
    const int result = qx_array_append_x(&grown, s, static_cast<ssize_t>(length), 0);
    *parray = grown;
    std::free(array);
    return result;
}

QX_API int qx_array_append(char **array, const char *s, ssize_t len) {
    return qx_array_append_x(&array, s, len, 0);
}

QX_API int qx_array_append_unique(char **array, const char *s, ssize_t len) {
    return qx_array_append_x(&array, s, len, QX_ARRAY_UNIQUE);
}

QX_API int qx_array_append_resize(char ***parray, const char *s, ssize_t len) {
    return qx_array_append_x(parray, s, len, QX_ARRAY_MAY_GROW);
}

QX_API int qx_array_append_resize_unique(char ***parray, const char *s, ssize_t len) {
    return qx_array_append_x(parray, s, len, QX_ARRAY_MAY_GROW | QX_ARRAY_UNIQUE);
}

QX_API int qx_array_append_printf(char **array, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int result = qx::detail::append_formatted(&array, 0, fmt, ap);
    va_end(ap);
    return result;
}

QX_API int qx_array_append_resize_printf(char ***parray, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int result = qx::detail::append_formatted(parray, QX_ARRAY_MAY_GROW, fmt, ap);
    va_end(ap);
    return result;
}

QX_API char **qx_array_copy(char **array) {
    return qx::detail::enlarged_copy(array, 0);
}

QX_API char **array_merge(char **a, char **b, ...) {
    using qx::detail::entry_count;
    std::size_t total = a != nullptr ? entry_count(a) : 0;
    if (b != nullptr) {
        total += entry_count(b);
        va_list ap;
        va_start(ap, b);
        while (char **further = va_arg(ap, char **))
            total += entry_count(further);
        va_end(ap);
    }
    auto merged = static_cast<char **>(std::calloc(total + 1, sizeof(char *)));
    if (merged == nullptr)
        return nullptr;
    char **out = merged;
    if (a != nullptr)
        qx::detail::append_entries(out, a);
    if (b != nullptr) {
        qx::detail::append_entries(out, b);
        va_list ap;
        va_start(ap, b);
        while (char **further = va_arg(ap, char **))
            qx::detail::append_entries(out, further);
        va_end(ap);
    }
    return merged;
}

QX_API char **qx_array_flatten_x(char **v, int count, size_t *size_out, int absolute) {
    using qx::detail::word;
    if (count < -1)
        return nullptr;
    const std::size_t slots =
        count == -1 ? (v != nullptr ? qx::detail::entry_count(v) : 0) : static_cast<size_t>(count);
    std::size_t size = (slots + 1) * word;
    for (std::size_t i = 0; i < slots; ++i) {
        if (v[i] != nullptr)
            size += std::strlen(v[i]) + 1;
    }
    if (size_out != nullptr)
        *size_out = size;
    auto block = static_cast<char **>(std::calloc(1, size));
    if (block == nullptr)
        return nullptr;
    char *const base = reinterpret_cast<char *>(block);
    char *next = base + (slots + 1) * word;
    for (std::size_t i = 0; i < slots; ++i) {
        if (v[i] == nullptr)
            continue;
        const std::size_t bytes = std::strlen(v[i]) + 1;
        std::memcpy(next, v[i], bytes);
        // The raw form stores offsets, so the block can be written out and
        // read back elsewhere; a reader adds the block's start to non-zero
        // slots.
        block[i] = absolute != 0
                       ? next
                       : reinterpret_cast<char *>(static_cast<std::uintptr_t>(next - base));
        next += bytes;
    }
    return block;
}

QX_API char **qx_array_flatten(char **v, int count, size_t *size_out) {
    return qx_array_flatten_x(v, count, size_out, 1);
}

QX_API char **qx_array_flatten_raw(char **v, int count, size_t *size_out) {
    return qx_array_flatten_x(v, count, size_out, 0);
}

QX_API char **qx_string_to_array(const char *text, const char *delims) {
    const char *cursor = text;
    char **array = nullptr;
    std::size_t len;
    while (const char *field = strnsep(&cursor, delims, &len)) {
        if (array == nullptr) {
            array = qx_array_new(10);
            if (array == nullptr)
                return nullptr;
        }
        if (qx_array_append_resize(&array, field, static_cast<ssize_t>(len)) != 0) {
            std::free(array);
            return nullptr;
        }
    }
    return array;
}

QX_API char *qx_array_to_string(char **array, const char *sep) {
    const std::size_t sep_len = sep != nullptr ? std::strlen(sep) : 0;
    if (array[0] == nullptr)
        return static_cast<char *>(std::calloc(1, 1));
    std::size_t total = 0;
    for (char **entry = array; *entry != nullptr; ++entry)
        total += std::strlen(*entry) + (entry[1] != nullptr ? sep_len : 0);
    auto joined = static_cast<char *>(std::calloc(total + 1, 1));
    if (joined == nullptr || total == 0)
        return joined;
    std::size_t remaining = total;
    for (char **entry = array; *entry != nullptr; ++entry) {
        std::strncat(joined, *entry, remaining);
        remaining -= std::strlen(*entry);
        // Deliberate: no separator goes in front of a final empty entry ({"a", ""} gives "a").
        // Strictly less, deliberately: the separator in front of a final
        // empty entry is thereby left out ({"a", ""} gives "a").
        if (sep_len > 0 && entry[1] != nullptr && sep_len < remaining) {
            std::strcat(joined, sep);
            remaining -= sep_len;
        } else if (remaining == 0) {
            break;
        }
    }
    return joined;
}

QX_API char **flag2array(unsigned int flags, const qx_flag_entry *table) {
    char **array = qx_array_new(0);
    if (array == nullptr || table == nullptr)
        return array;
    for (const qx_flag_entry *row = table; row->name != nullptr; ++row) {
        if ((flags & row->mask) != row->value)
            continue;
        if (qx_array_append_resize(&array, row->name, -1) != 0) {
            std::free(array);
            return nullptr;
        }
    }
    return array;
}

QX_API unsigned int array2flag(char **array, const qx_flag_entry *table, const char **errstr) {
    unsigned int flags = 0;
    for (char **entry = array; *entry != nullptr; ++entry) {
        const qx_flag_entry *row = table;
        while (row != nullptr && row->name != nullptr && strcasecmp(row->name, *entry) != 0)
            ++row;
        if (row == nullptr || row->name == nullptr) {
            if (errstr != nullptr) {
                std::strcpy(qx::detail::unknown_flag_text, "unknown flag");
                *errstr = qx::detail::unknown_flag_text;
            }
            return 0xFFFFFFFFu;
        }
        flags = (flags & ~row->mask) | row->value;
    }
    return flags;
}

} // extern "C"
