/* Date-times in the form of RFC 3339, in local time with its offset. */
#ifndef QXCOMMON_UTIL_RFC3339_H
#define QXCOMMON_UTIL_RFC3339_H

#include <stddef.h>
#include <time.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the time as YYYY-MM-DDTHH:MM:SS followed by "Z" when the local
 * offset from UTC is zero, else by "+HH:MM" or "-HH:MM" (seconds of the
 * offset are dropped, so an offset of a few seconds gives "+00:00"). The
 * offset text has room for five characters: from 100 hours on the hours
 * take three digits and the last minute digit is cut ("+100:0"). No
 * fractions of seconds. The local time zone is the process's (TZ); the
 * call is reentrant (localtime_r). A time that localtime_r cannot break
 * down is written as the zeroed broken-down time: "1900-01-00T00:00:00Z".
 *
 * Returns the length of the whole text as snprintf(3) counts it; when that
 * is size or more, the text is truncated, and NUL-terminated when size is
 * not 0. */
QX_API int rfc3339_date(time_t when, char *dest, size_t size);

#ifdef __cplusplus
}
#endif

#endif
