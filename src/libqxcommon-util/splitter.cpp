// The string splitter and the text file reader: text turned into an indexed
// list of strings.
#include "qxcommon-util/splitter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/types.h>

#include "qxcommon-util/string_utils.h"
#include "internal/containers.hpp"

namespace qx::detail {
namespace {

constexpr uint32_t no_upper_bound = 0xFFFFFFFFu;

void forget_split(qx_string_splitter *splitter) noexcept {
    std::free(splitter->text);
    splitter->text = nullptr;
    qx_slist_empty(splitter->fields);
}

// Cuts the splitter's copy at each separator, appending the field after
// each one. Occurrences do not overlap: the search resumes after the
// separator just consumed. False when a field cannot be stored.
bool cut_at_separators(qx_string_splitter *splitter, const char *separator) noexcept {
    const std::size_t separator_length = std::strlen(separator);
    char *position = splitter->text;
    while (char *found = std::strstr(position, separator)) {
        std::memset(found, '\0', separator_length);
        position = found + separator_length;
        if (!slist_try_append(splitter->fields, position))
            return false;
        if (*position == '\0')
            break; // a trailing separator leaves one empty field
    }
    return true;
}

// Appends the lines numbered first..last. getline's buffer is handed over
// to the list with each kept line, so every kept line is its own block.
void append_lines(qx_txt_file_reader *reader, FILE *file, uint32_t first, uint32_t last) noexcept {
    char *buffer = nullptr;
    std::size_t capacity = 0;
    for (uint64_t number = 1; getline(&buffer, &capacity, file) != -1; ++number) {
        if (number < first)
            continue; // read and dropped; the buffer is reused
        if (!slist_try_append(reader->lines, buffer))
            break; // no memory for the node: ends the reading like a read error
        buffer = nullptr;
        capacity = 0;
        if (last != no_upper_bound && number >= last)
            break;
    }
    std::free(buffer);
}

} // namespace
} // namespace qx::detail

using qx::detail::allocate_record;

extern "C" {

// qx_string_splitter

QX_API qx_string_splitter *qx_string_splitter_new(void) {
    auto *splitter = allocate_record<qx_string_splitter>();
    if (splitter == nullptr)
        return nullptr;
    splitter->fields = qx_slist_new();
    if (splitter->fields == nullptr) {
        std::free(splitter);
        return nullptr;
    }
    return splitter;
}

QX_API int qx_string_splitter_split(qx_string_splitter *splitter, const char *text,
                                    const char *separator) {
    qx::detail::forget_split(splitter);
    if (qx_string_utils_has_value(text) == 0)
        return -1;
    splitter->text = qx_string_utils_get_copy(text);
    if (splitter->text == nullptr)
        return -1;
    if (!qx::detail::slist_try_append(splitter->fields, splitter->text)) {
        qx::detail::forget_split(splitter);
        return -1;
    }
    if (qx_string_utils_has_value(separator) == 0)
        return 0;
    if (!qx::detail::cut_at_separators(splitter, separator)) {
        // A missing field would shift every later one: keep none.
        qx::detail::forget_split(splitter);
        return -1;
    }
    return 0;
}

QX_API uint32_t qx_string_splitter_get_count(const qx_string_splitter *splitter) {
    return qx_slist_get_count(splitter->fields);
}

QX_API int qx_string_splitter_is_empty(const qx_string_splitter *splitter) {
    return qx_slist_is_empty(splitter->fields);
}

QX_API char *qx_string_splitter_get_at(const qx_string_splitter *splitter, uint32_t index) {
    return static_cast<char *>(qx_slist_get_at(splitter->fields, index));
}

QX_API void qx_string_splitter_delete(qx_string_splitter *splitter) {
    if (splitter == nullptr)
        return;
    qx_slist_delete(splitter->fields);
    std::free(splitter->text);
    std::free(splitter);
}

// qx_txt_file_reader

QX_API qx_txt_file_reader *qx_txt_file_reader_new(void) {
    auto *reader = allocate_record<qx_txt_file_reader>();
    if (reader == nullptr)
        return nullptr;
    reader->lines = qx_slist_new();
    if (reader->lines == nullptr) {
        std::free(reader);
        return nullptr;
    }
    return reader;
}

QX_API int qx_txt_file_reader_read_lines(qx_txt_file_reader *reader, const char *path,
                                         uint32_t first, uint32_t last) {
    if (path == nullptr)
        return -1;
    // Unsigned on purpose: first 0 wraps to the largest value and is refused.
    if (static_cast<uint32_t>(first - 1) >= last)
        return -2;
    FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return -3;
    qx::detail::append_lines(reader, file, first, last);
    return std::fclose(file) == 0 ? 0 : -4;
}

QX_API int qx_txt_file_reader_read_all_lines(qx_txt_file_reader *reader, const char *path) {
    return qx_txt_file_reader_read_lines(reader, path, 1, qx::detail::no_upper_bound);
}

QX_API uint32_t qx_txt_file_reader_get_count(const qx_txt_file_reader *reader) {
    return qx_slist_get_count(reader->lines);
}

QX_API int qx_txt_file_reader_is_empty(const qx_txt_file_reader *reader) {
    return qx_slist_is_empty(reader->lines);
}

QX_API char *qx_txt_file_reader_get_line_at(const qx_txt_file_reader *reader, uint32_t index) {
    return static_cast<char *>(qx_slist_get_at(reader->lines, index));
}

QX_API void qx_txt_file_reader_remove_line_at(qx_txt_file_reader *reader, uint32_t index) {
    std::free(qx_slist_remove_at(reader->lines, index));
}

QX_API int qx_txt_file_reader_empty(qx_txt_file_reader *reader) {
    while (qx_txt_file_reader_get_count(reader) > 0)
        qx_txt_file_reader_remove_line_at(reader, 0);
    return 1;
}

QX_API void qx_txt_file_reader_delete(qx_txt_file_reader *reader) {
    if (reader == nullptr)
        return;
    qx_txt_file_reader_empty(reader);
    qx_slist_delete(reader->lines);
    std::free(reader);
}

} // extern "C"
