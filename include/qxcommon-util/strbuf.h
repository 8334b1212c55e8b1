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

/* Appends the NUL-terminated str. When the room left (size - length) is not
 * larger than strlen(str), the size grows to (size + strlen(str) + 1) | 1023.
 * 0 on success; -1 if str is NULL, if growing fails or the size would wrap
 * (buffer unchanged). */
QX_API int strbuf_append(strbuf *sb, const char *str);
/* Appends exactly n bytes (NULs included) and a NUL, growing as
 * strbuf_append does. 0 on success; -1 if data is NULL or growing fails
 * (buffer unchanged). */
QX_API int strbuf_nappend(strbuf *sb, const void *data, size_t n);
/* Inserts str in front of the text, growing as strbuf_append does. 0 on
 * success, -1 when growing fails (buffer unchanged). A NULL str returns 0
 * and changes nothing, where strbuf_append returns -1: deliberate, callers
 * rely on it. */
QX_API int strbuf_prepend(strbuf *sb, const char *str);
/* Replaces the text: sets length to 0, then strbuf_append. On any failure
 * length stays 0; a NULL str returns -1 with the old bytes left in place,
 * unterminated at position 0 (deliberate, long-standing behaviour). */
QX_API int strbuf_put(strbuf *sb, const char *str);
/* Sets the length and writes a NUL at text[newlength]. Grows only when size
 * < newlength + 1, to (newlength + 1) | 1023 (from the length alone); bytes
 * added are not cleared. 0 on success, -1 when growing fails (buffer
 * unchanged). On a zero record even 0 allocates 1023 bytes. */
QX_API int strbuf_setlength(strbuf *sb, size_t newlength);
/* Removes trailing white space (isspace of the current locale, each byte
 * taken as a signed char), writing a NUL over each byte removed. Nothing
 * happens on an empty or zero record. */
QX_API void strbuf_chomp(strbuf *sb);
/* Cuts the text at the first byte found in chars (strpbrk): writes a NUL
 * there, sets length to its index and returns a pointer to it, valid until
 * the next growth. NULL, with nothing changed, when none is found. text
 * must not be NULL. */
QX_API char *strbuf_trunc_at(strbuf *sb, const char *chars);
/* Returns length. */
QX_API size_t strbuf_len(const strbuf *sb);
/* One write(2) of the whole text; its result is returned as it is: a short
 * write is not retried and EINTR is not handled (errno is write's). */
QX_API ssize_t strbuf_write(const strbuf *sb, int fd);
/* Frees text when size is not 0, then clears the three fields; the record
 * itself is not freed and is again a valid empty buffer. */
QX_API void strbuf_free(strbuf *sb);
/* Zeroes the first length bytes (whatever size is; the NUL and unused room
 * are not touched), then strbuf_free. Meant for secrets. */
QX_API void strbuf_wipefree(strbuf *sb);

/* A zero-filled record from calloc, or NULL when memory is exhausted. Free
 * it with qx_string_delete. */
QX_API strbuf *qx_string_new(void);
/* Frees a non-NULL text whatever its size, then the record. NULL is allowed. */
QX_API void qx_string_delete(strbuf *sb);
/* 1 if text is NULL or starts with a NUL (length is not consulted). */
QX_API int qx_string_is_empty(const strbuf *sb);
/* The negation of qx_string_is_empty. */
QX_API int qx_string_has_value(const strbuf *sb);
/* 1 if strcmp(text, other) is 0, else 0. Neither pointer may be NULL. */
QX_API int qx_string_is_equal(const strbuf *sb, const char *other);
/* strbuf_setlength(sb, 0): 0, or -1 when the first allocation fails. */
QX_API int qx_string_clear(strbuf *sb);

#ifdef __cplusplus
}
#endif

#endif
