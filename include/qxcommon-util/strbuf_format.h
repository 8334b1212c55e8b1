/* Formatted text, times and named-placeholder templates into a strbuf. */
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

QX_API int strbuf_vappendf(strbuf *sb, const char *format, va_list ap) QX_PRINTF_LIKE(2, 0);
QX_API int strbuf_appendf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* Replaces the text; on failure length stays 0 and the old bytes stay. */
QX_API int strbuf_putf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
QX_API int strbuf_prependf(strbuf *sb, const char *format, ...) QX_PRINTF_LIKE(2, 3);
QX_API int qx_string_append_luint(strbuf *sb, unsigned long value);
QX_API int qx_string_append_lsint(strbuf *sb, long value);

/* strftime into a 1000-byte scratch buffer; -1 when it yields nothing. */
QX_API int strbuf_appendf_tm(strbuf *sb, const char *format, const struct tm *tm);
QX_API int strbuf_appendf_time_t(strbuf *sb, const char *format, time_t t,
                                 strbuf_time_conversion convert);
QX_API int strbuf_appendf_localtime(strbuf *sb, const char *format, time_t t);
QX_API int strbuf_appendf_gmtime(strbuf *sb, const char *format, time_t t);

/* Replaces placeholders "<delimiter>name<delimiter>" in the text of sb.
 * The arguments are name, value pairs of const char * ended by a NULL name;
 * a NULL value stands for the empty text. Returns the number of
 * substitutions, or -1 (buffer unchanged). Two placeholders that touch are
 * not both replaced: the byte after a closing delimiter never opens one. */
QX_API int strbuf_vasubstitute(strbuf *sb, const char *delimiter, va_list pairs);
QX_API int strbuf_substitute(strbuf *sb, const char *delimiter, ...) QX_SENTINEL;

#ifdef __cplusplus
}
#endif

#endif
