/* Formatted text, times and named-placeholder templates into a strbuf.
 *
 * Every function here works on a caller's strbuf and follows its rules:
 * 0 (or a count) on success, -1 on failure, and growth to sizes of the form
 * k * 1024 - 1. Unless a function says otherwise, a failure leaves the
 * buffer as it was. */
#ifndef QXCOMMON_UTIL_STRBUF_FORMAT_H
#define QXCOMMON_UTIL_STRBUF_FORMAT_H

#include <stdarg.h>
#include <time.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Converts a time_t to broken-down time, like localtime or gmtime. */
typedef struct tm *(*strbuf_time_conversion)(const time_t *);

/* Appends the text of a vsnprintf-style format. The text is formatted in
 * place when it fits in the room left (size - length, one byte kept for the
 * NUL); otherwise the buffer grows to (count + size + 1) | 1023 and the text
 * is formatted a second time, with `ap` itself. The second pass is not
 * checked: a format error (vsnprintf < 0) still returns 0 and leaves the
 * length one short, a behaviour callers have always seen. On a zero record
 * the first pass only measures. -1 when growing fails (buffer unchanged). */
QX_API int strbuf_vappendf(strbuf *sb, const char *format, va_list ap) QX_PRINTF_LIKE(2, 0);
/* strbuf_vappendf with variable arguments. */
QX_API int strbuf_appendf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* Replaces the text: length is set to 0, then the text is appended. On
 * failure length stays 0 and the old bytes stay in place, as with
 * strbuf_put. */
QX_API int strbuf_putf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* Puts the formatted text in front of the existing text. The result is
 * built in a fresh buffer, so its size is the one a new buffer gets for the
 * whole text, not the old size; the old block is freed. -1 when that buffer
 * cannot be built (the caller's buffer unchanged). */
QX_API int strbuf_prependf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* strbuf_appendf with "%lu". */
QX_API int qx_string_append_luint(strbuf *sb, unsigned long value);
/* strbuf_appendf with "%ld". */
QX_API int qx_string_append_lsint(strbuf *sb, long value);

/* Formats tm with strftime into a 1000-byte scratch buffer and appends the
 * bytes. -1, with nothing appended, when strftime gives 0: an empty result,
 * or one that needs more than 999 bytes. */
QX_API int strbuf_appendf_tm(strbuf *sb, const char *format, const struct tm *tm);
/* Converts a copy of t with `convert` and appends it with
 * strbuf_appendf_tm; -1 when the conversion gives NULL. */
QX_API int strbuf_appendf_time_t(strbuf *sb, const char *format, time_t t,
                                 strbuf_time_conversion convert);
/* strbuf_appendf_time_t with localtime (the non-reentrant form: not safe to
 * call from several threads at once). */
QX_API int strbuf_appendf_localtime(strbuf *sb, const char *format, time_t t);
/* strbuf_appendf_time_t with gmtime (non-reentrant, as above). */
QX_API int strbuf_appendf_gmtime(strbuf *sb, const char *format, time_t t);

/* Replaces placeholders "<delimiter>name<delimiter>" in the text of sb.
 * The arguments are name, value pairs of const char * ended by a NULL name;
 * a NULL value stands for the empty text. At each delimiter the pairs are
 * tried in order and the first whose name and closing delimiter follow wins;
 * an unknown placeholder stays as it is, and its closing delimiter may open
 * the next one. Values are never scanned again. Two placeholders that touch
 * are not both replaced: the byte after a closing delimiter never opens one.
 * The result is built in a new buffer that replaces the caller's (an empty
 * text gives an empty result of size 1023). Returns the number of
 * substitutions, or -1 for a NULL delimiter, a NULL text or a failed
 * allocation (buffer unchanged). */
QX_API int strbuf_vasubstitute(strbuf *sb, const char *delimiter, va_list pairs);
/* strbuf_vasubstitute with variable arguments. */
QX_API int strbuf_substitute(strbuf *sb, const char *delimiter, ...) QX_SENTINEL;

#ifdef __cplusplus
}
#endif

#endif
