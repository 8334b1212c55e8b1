/* strbuf: the growable text buffer.
 *
 * A zero-filled record is a valid empty buffer. Growth keeps sizes of the
 * form k * 1024 - 1, and text[length] is NUL after every successful change.
 * Functions that can fail return 0 or -1; a failure leaves the buffer as it
 * was. The qx_string_* names are the same record used as a heap object. */
#ifndef QXCOMMON_UTIL_STRBUF_H
#define QXCOMMON_UTIL_STRBUF_H

#include <stddef.h>
#include <sys/types.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct strbuf {
    char *text;    /* NULL until the first allocation */
    size_t length; /* bytes in use, without the terminating NUL */
    size_t size;   /* bytes allocated; 0 while nothing is owned */
} strbuf;

/* -1 if str is NULL. */
QX_API int strbuf_append(strbuf *sb, const char *str);
/* Appends exactly n bytes (NULs included) and a NUL; -1 if data is NULL. */
QX_API int strbuf_nappend(strbuf *sb, const void *data, size_t n);
/* Inserts str in front; a NULL str returns 0 and changes nothing. */
QX_API int strbuf_prepend(strbuf *sb, const char *str);
/* Replaces the text. A NULL str returns -1 with length 0 and the old bytes
 * left in place, unterminated at position 0. */
QX_API int strbuf_put(strbuf *sb, const char *str);
/* Sets the length, growing if needed; bytes added are not cleared. */
QX_API int strbuf_setlength(strbuf *sb, size_t newlength);
/* Removes trailing white space (isspace of the current locale). */
QX_API void strbuf_chomp(strbuf *sb);
/* Cuts the text at the first byte found in chars; returns that position or
 * NULL when none is found. */
QX_API char *strbuf_trunc_at(strbuf *sb, const char *chars);
QX_API size_t strbuf_len(const strbuf *sb);
/* One write(2) of the whole text; its result is returned as it is. */
QX_API ssize_t strbuf_write(const strbuf *sb, int fd);
/* Frees text when size is not 0, then clears the three fields. */
QX_API void strbuf_free(strbuf *sb);
/* Zeroes the first length bytes, then strbuf_free. */
QX_API void strbuf_wipefree(strbuf *sb);

QX_API strbuf *qx_string_new(void);
/* Frees a non-NULL text whatever its size, then the record. NULL is allowed. */
QX_API void qx_string_delete(strbuf *sb);
/* 1 if text is NULL or starts with a NUL (length is not consulted). */
QX_API int qx_string_is_empty(const strbuf *sb);
QX_API int qx_string_has_value(const strbuf *sb);
QX_API int qx_string_is_equal(const strbuf *sb, const char *other);
QX_API int qx_string_clear(strbuf *sb);

#ifdef __cplusplus
}
#endif

#endif
