// Key=value configuration files: a plain line list, and a reader built
// from the object containers.
#include "qxcommon-util/config.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <syslog.h>

#include "qxcommon-util/splitter.h"
#include "qxcommon-util/string_utils.h"
#include "internal/containers.hpp"
#include "internal/guards.hpp"

namespace qx::detail {
namespace {

// One read takes at most 1000 bytes; a longer line becomes several entries.
constexpr int line_buffer_size = 1001;

constexpr uint32_t not_found = 0xFFFFFFFFu;

// The node first, then its text with strdup; NULL (nothing kept) when
// either allocation fails.
configfile_line *new_line(const char *text) noexcept {
    auto *line = static_cast<configfile_line *>(std::malloc(sizeof(configfile_line)));
    if (line == nullptr)
        return nullptr;
    line->text = strdup(text);
    if (line->text == nullptr) {
        std::free(line);
        return nullptr;
    }
    line->next = nullptr;
    return line;
}

// Reads the lines into a list; stops early (logging) when memory runs out.
configfile_line *load_lines(FILE *file) noexcept {
    configfile_line *first = nullptr;
    configfile_line **link = &first;
    char buffer[line_buffer_size];
    while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
        if (char *end = std::strpbrk(buffer, "\r\n"))
            *end = '\0';
        if (buffer[0] == '\0')
            continue;
        configfile_line *line = new_line(buffer);
        if (line == nullptr) {
            syslog(LOG_ERR, "fatal: out of memory");
            break;
        }
        *link = line;
        link = &line->next;
    }
    return first;
}

// Splits a trimmed line at "=" and adds the pair when there are exactly two
// fields. The set takes the trimmed copies over.
void add_pair(qx_properties *properties, qx_string_splitter *splitter, const char *line) noexcept {
    if (qx_string_splitter_split(splitter, line, "=") != 0 ||
        qx_string_splitter_get_count(splitter) != 2)
        return;
    char *name = qx_string_utils_get_copy(qx_string_splitter_get_at(splitter, 0));
    char *value = qx_string_utils_get_copy(qx_string_splitter_get_at(splitter, 1));
    if (name == nullptr || value == nullptr) {
        std::free(name);
        std::free(value);
        return;
    }
    qx_string_utils_trim(name);
    qx_string_utils_trim(value);
    qx_properties_append(properties, name, value);
}

void add_line(qx_properties *properties, const char *line) noexcept {
    unique_malloc<char> copy(qx_string_utils_get_copy(line));
    if (!copy)
        return;
    qx_string_utils_trim(copy.get()); // also removes the line terminator
    if (copy.get()[0] == '\0' || copy.get()[0] == '#')
        return;
    qx_string_splitter *splitter = qx_string_splitter_new();
    if (splitter == nullptr)
        return;
    add_pair(properties, splitter, copy.get());
    qx_string_splitter_delete(splitter);
}

struct boolean_word {
    std::string_view text;
    int meaning;
};

constexpr std::array<boolean_word, 7> boolean_words{{
    {"y", 1},
    {"yes", 1},
    {"1", 1},
    {"n", 0},
    {"no", 0},
    {"0", 0},
    {"", 0},
}};

constexpr int unrecognised_value = -3;

int boolean_meaning(const char *value) noexcept {
    if (value == nullptr)
        return unrecognised_value;
    for (const auto &word : boolean_words) {
        if (word.text == value)
            return word.meaning;
    }
    return unrecognised_value;
}

} // namespace
} // namespace qx::detail

extern "C" {

QX_API configfile_line *configfile_load(const char *path) {
    if (path == nullptr)
        return nullptr;
    FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return nullptr;
    configfile_line *first = qx::detail::load_lines(file);
    std::fclose(file);
    return first;
}

QX_API void free_config(configfile_line *first) {
    while (first != nullptr) {
        configfile_line *next = first->next;
        std::free(first->text);
        std::free(first);
        first = next;
    }
}

QX_API qx_config_reader *qx_config_reader_new(void) {
    auto *reader = qx::detail::allocate_record<qx_config_reader>();
    if (reader == nullptr)
        return nullptr;
    reader->properties = qx_properties_new_ext(1);
    if (reader->properties == nullptr) {
        std::free(reader);
        return nullptr;
    }
    return reader;
}

QX_API void qx_config_reader_delete(qx_config_reader *reader) {
    if (reader == nullptr)
        return;
    qx_properties_delete(reader->properties);
    std::free(reader);
}

QX_API int qx_config_reader_read_config(qx_config_reader *reader, const char *path) {
    qx_txt_file_reader *file_reader = qx_txt_file_reader_new();
    if (file_reader == nullptr)
        return -1;
    qx::detail::scope_exit release([file_reader] { qx_txt_file_reader_delete(file_reader); });
    const int result = qx_txt_file_reader_read_all_lines(file_reader, path);
    if (result != 0)
        return result;
    const uint32_t count = qx_txt_file_reader_get_count(file_reader);
    for (uint32_t index = 0; index < count; ++index)
        qx::detail::add_line(reader->properties,
                             qx_txt_file_reader_get_line_at(file_reader, index));
    return 0;
}

QX_API char *qx_config_reader_get_property(const qx_config_reader *reader, const char *name) {
    if (name == nullptr)
        return nullptr;
    return qx_properties_find_value(reader->properties, name);
}

QX_API int qx_config_reader_get_bool_property(const qx_config_reader *reader, const char *name) {
    if (name == nullptr)
        return -1;
    const uint32_t index = qx_properties_find_index(reader->properties, name);
    if (index == qx::detail::not_found)
        return -2;
    return qx::detail::boolean_meaning(qx_properties_get_value_at(reader->properties, index));
}

} // extern "C"
