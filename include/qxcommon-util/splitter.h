/* qx_string_splitter cuts a string at every occurrence of a separator
 * string; qx_txt_file_reader reads the lines of a text file. Both keep
 * their results in a qx_slist and hand them out by index; an index out of
 * range gives NULL or does nothing. Not thread-safe. */
#ifndef QXCOMMON_UTIL_SPLITTER_H
#define QXCOMMON_UTIL_SPLITTER_H

#include <stdint.h>

#include <qxcommon-util/containers.h>
#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qx_string_splitter {
    char *text;       /* own copy of the last text split; NULL before the first */
    qx_slist *fields; /* pointers into text */
} qx_string_splitter;

typedef struct qx_txt_file_reader {
    qx_slist *lines; /* separately allocated strings, owned by the reader */
} qx_txt_file_reader;

/* A new splitter with no field, released with qx_string_splitter_delete;
 * NULL when an allocation fails (nothing leaks). */
QX_API qx_string_splitter *qx_string_splitter_new(void);
/* Splits a copy of text at every occurrence of the whole separator string:
 * n occurrences give n + 1 fields, empty ones included, nothing trimmed.
 * A NULL or "" separator gives the whole text as the only field. The
 * previous fields are gone even when the call fails. 0 on success; -1 when
 * text is NULL or "", or when the copy or a field cannot be allocated (no
 * field is then left). */
QX_API int qx_string_splitter_split(qx_string_splitter *splitter, const char *text,
                                    const char *separator);
/* The number of fields of the last split. */
QX_API uint32_t qx_string_splitter_get_count(const qx_string_splitter *splitter);
/* 1 when there is no field, else 0. */
QX_API int qx_string_splitter_is_empty(const qx_string_splitter *splitter);
/* The field, NUL-terminated inside the splitter's copy (valid until the next
 * split or the delete), or NULL when out of range. */
QX_API char *qx_string_splitter_get_at(const qx_string_splitter *splitter, uint32_t index);
/* Frees the fields, the copy and the record. NULL is allowed. */
QX_API void qx_string_splitter_delete(qx_string_splitter *splitter);

/* A new reader with no line, released with qx_txt_file_reader_delete; NULL
 * when an allocation fails (nothing leaks). */
QX_API qx_txt_file_reader *qx_txt_file_reader_new(void);
/* Appends lines first to last (numbered from 1; last 0xFFFFFFFF means no
 * upper bound) to the lines already held. Each line keeps its terminator;
 * nothing is stripped or skipped. Results: 0 success; -1 path is NULL;
 * -2 first is 0 or greater than last; -3 the file cannot be opened;
 * -4 closing the file failed. A read error, or a line that cannot be
 * stored for lack of memory, ends the reading like the end of the file.
 * Lines appended stay when a later step fails. */
QX_API int qx_txt_file_reader_read_lines(qx_txt_file_reader *reader, const char *path,
                                         uint32_t first, uint32_t last);
/* qx_txt_file_reader_read_lines(reader, path, 1, 0xFFFFFFFF). */
QX_API int qx_txt_file_reader_read_all_lines(qx_txt_file_reader *reader, const char *path);
/* The number of lines held. */
QX_API uint32_t qx_txt_file_reader_get_count(const qx_txt_file_reader *reader);
/* 1 when no line is held, else 0. */
QX_API int qx_txt_file_reader_is_empty(const qx_txt_file_reader *reader);
/* The line at index (from 0), with its terminator, owned by the reader
 * (valid until it is removed), or NULL when out of range. */
QX_API char *qx_txt_file_reader_get_line_at(const qx_txt_file_reader *reader, uint32_t index);
/* Removes the line and frees its text; out of range does nothing. */
QX_API void qx_txt_file_reader_remove_line_at(qx_txt_file_reader *reader, uint32_t index);
/* Removes every line, freeing their texts; the reader stays usable.
 * Returns 1. */
QX_API int qx_txt_file_reader_empty(qx_txt_file_reader *reader);
/* Empties the reader and frees it. NULL is allowed. */
QX_API void qx_txt_file_reader_delete(qx_txt_file_reader *reader);

#ifdef __cplusplus
}
#endif

#endif
