/* OS release information: lookups of single keys in a KEY=value file such
 * as "/etc/os-release", read once and kept parsed in memory. */
#ifndef QXCOMMON_UTIL_OS_INFO_H
#define QXCOMMON_UTIL_OS_INFO_H

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One KEY=value line; both point into the record's text. */
typedef struct os_info_pair {
    char *key;
    char *value;
} os_info_pair;

/* A parsed file. text: the whole file as read, cut in place into keys and
 * values. pairs: the pairs in file order, ended by a pair of two NULLs; NULL
 * until a parse found at least one pair. path: the file's path. All three
 * are owned by the record. */
typedef struct os_info {
    char *text;
    os_info_pair *pairs;
    char *path;
} os_info;

/* A new zeroed record with a copy of path ("/etc/os-release" when NULL).
 * NULL when memory runs out. Release with os_info_delete. */
QX_API os_info *os_info_create(const char *path);

/* Reads and parses the record's file unless it is parsed already. Returns 0
 * when parsed, already parsed, empty (pairs stay NULL) or when growing the
 * pair table failed midway (the pairs found so far are kept); -1 with errno
 * when the file cannot be read (the record is then unchanged), and with
 * EINVAL for a NULL record or an unparsed record without a path. A record
 * whose pairs are set gives 0 without reading, even with a NULL path.
 *
 * Each line is cut at its line feed. A line starting with a space, and a
 * line without "=", is skipped. The key is the text before the first "=",
 * the value the text behind it, blanks included. A value starting with a
 * double (or single) quote loses it, and its closing quote, when the
 * character just before the line feed is the same quote. A last line
 * without a line feed keeps its quotes (deliberate). Nothing else is
 * unquoted, and comments are not recognised: a "#" line holding "=" becomes
 * a pair whose key starts with "#". */
QX_API int openosrelease_v2(os_info *info);

/* The value of the first pair whose key equals key ignoring case, parsing
 * the file first when needed (an unreadable or empty file is tried again on
 * every lookup). Keys are compared as they stand: blanks around "=" belong
 * to key and value, and the first occurrence of a repeated key wins. The
 * value lives in the record until os_info_free_values; a missing key, an
 * unreadable file, a NULL record or a NULL key gives a static empty string,
 * never NULL (do not free or change it). */
QX_API const char *osrelease_v2(os_info *info, const char *key);

/* osrelease_v2 on the library's own record for "/etc/os-release", which is
 * released when the library is unloaded; the values stay valid until then.
 * Not safe against concurrent first calls. */
QX_API const char *osrelease(const char *key);

/* Frees text and pairs and sets them NULL; the path stays, so the next
 * lookup reads the file again. NULL is accepted. */
QX_API void os_info_free_values(os_info *info);
/* os_info_free_values, then frees the path and sets it NULL; the record
 * itself stays. NULL is accepted. */
QX_API void os_info_free(os_info *info);
/* os_info_free, then frees the record. NULL is accepted. */
QX_API void os_info_delete(os_info *info);

#ifdef __cplusplus
}
#endif

#endif
