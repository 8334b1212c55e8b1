/* qx_string_utils: small helpers on plain NUL-terminated strings.
 *
 * White space is what isspace() accepts in the current locale, each byte
 * taken as a signed char. Trimming works in place: the string keeps its
 * address. */
#ifndef QXCOMMON_UTIL_STRING_UTILS_H
#define QXCOMMON_UTIL_STRING_UTILS_H

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1 if s is "", else 0. s must not be NULL. */
QX_API int qx_string_utils_is_empty(const char *s);
/* 0 for NULL or "", else 1: the NULL-safe test. */
QX_API int qx_string_utils_has_value(const char *s);
/* 1 if strcmp finds a and b equal (case-sensitive), else 0. Neither may be
 * NULL. */
QX_API int qx_string_utils_is_equal(const char *a, const char *b);
/* A calloc'ed copy of s, released with free; NULL for NULL, and NULL when
 * the allocation fails. */
QX_API char *qx_string_utils_get_copy(const char *s);
/* Removes leading white space by moving the rest to the start of s. NULL
 * and "" are left alone. */
QX_API void qx_string_utils_trim_left(char *s);
/* Overwrites trailing white space with NUL bytes. NULL and "" are left
 * alone. */
QX_API void qx_string_utils_trim_right(char *s);
/* qx_string_utils_trim_right, then qx_string_utils_trim_left. */
QX_API void qx_string_utils_trim(char *s);

#ifdef __cplusplus
}
#endif

#endif
