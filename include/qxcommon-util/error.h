/* Library error codes, their texts, and diagnostics gated by a debug level.
 *
 * The library itself never reads or writes qx_errno and never calls the
 * diagnostic functions; they are here for the programs that load it. */
#ifndef QXCOMMON_UTIL_ERROR_H
#define QXCOMMON_UTIL_ERROR_H

#include <stdarg.h>
#include <stddef.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QX_OK = 0,
    QX_ERR_SYSTEM = 1, /* a system call failed; the detail is in errno */
    QX_ERR_ASSERT = 2,
    QX_ERR_INVALID_VALUE = 3,
    QX_ERR_MISSING_VALUE = 4,
    QX_ERR_UNKNOWN_COMMAND = 5,
    QX_ERR_UNKNOWN_KEY = 6,
    QX_ERR_TLD = 7,
    QX_ERR_UNKNOWN_TLD_TYPE = 8,
    QX_ERR_SQL_EXEC = 9
};

/* Where a program keeps the last library error code; zero at load time. */
QX_API extern int qx_errno;

/* Sets the library-wide debug level (0 at load time). A diagnostic given a
 * level L is produced only when the debug level is >= L (signed). Plain int,
 * no locking. */
QX_API void qx_debug_set(int level);
/* Returns the debug level. */
QX_API int qx_debug_get(void);

/* Print to stderr (no newline added) when the debug level is >= level, then
 * flush stderr. */
QX_API void qx_debug(int level, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* qx_debug with a va_list. */
QX_API void qx_vdebug(int level, const char *format, va_list ap) QX_PRINTF_LIKE(2, 0);
/* Like qx_debug, prefixed with the local time as "Mon DD HH:MM:SS.uuuuuu ".
 * Uses localtime, whose result the C library shares between threads. */
QX_API void qx_debug_tm(int level, const char *format, ...) QX_PRINTF_LIKE(2, 3);

/* vsyslog, except that priority exactly 7 (LOG_DEBUG without facility bits)
 * is dropped when the debug level is exactly 0. Never calls openlog: logs
 * under the program's identity and facility. */
QX_API void qx_syslog(int priority, const char *format, ...) QX_PRINTF_LIKE(2, 3);
/* "message: error text" and a newline for errnum on stderr, when the debug
 * level is >= level; stderr is flushed. The message is cut to 127 bytes.
 * The error text is "unknown" for every error number the C library knows
 * (deliberate); only unknown numbers get the C library's own text. Prints
 * nothing when the text cannot be allocated; reports no error. */
QX_API void qx_perror(int level, int errnum, const char *format, ...) QX_PRINTF_LIKE(3, 4);
/* "message: error text" for the errno at entry, logged through qx_syslog
 * with the same priority, when the debug level is >= 0 (so nothing at a
 * negative level). Same message cut and same "unknown" error text as
 * qx_perror; logs nothing when the text cannot be allocated. */
QX_API void qx_syslog_perror(int priority, const char *format, ...) QX_PRINTF_LIKE(2, 3);

/* Text of a library error code, static: never free or change it. Code 1
 * gives strerror(errno), not the table's text; codes outside 0..9 give
 * "unknown error N" in one shared static buffer that the next such call
 * overwrites. Neither case is reentrant. Never fails. */
QX_API const char *qx_strerror(int code);
/* Copies qx_strerror(code) into buf with snprintf limited to buflen; returns
 * snprintf's result, the text's full length even when the copy was cut (0
 * buflen: nothing written), or -1 when buf is NULL. Goes through
 * qx_strerror and shares its reentrancy limits (deliberate). */
QX_API int qx_strerror_r(int code, char *buf, size_t buflen);

#ifdef __cplusplus
}
#endif

#endif
