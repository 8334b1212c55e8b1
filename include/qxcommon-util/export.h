/* Symbol visibility for the public interface of libqxcommon-util.
 *
 * The library is built with hidden visibility; only declarations marked
 * QX_API are exported. */
#ifndef QXCOMMON_UTIL_EXPORT_H
#define QXCOMMON_UTIL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QX_API __attribute__((visibility("default")))
#define QX_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#define QX_SENTINEL __attribute__((sentinel))
#else
#define QX_API
#define QX_PRINTF_LIKE(fmt, args)
#define QX_SENTINEL
#endif

#endif
