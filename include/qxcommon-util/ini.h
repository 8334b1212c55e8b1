/* INI files: lookups, enumeration, browsing and in-place updates.
 *
 * Every call opens the file, scans it from the first line and closes it
 * again; nothing is cached between calls, so a file changed by another
 * program is seen as it is at the time of the call. There is no locking:
 * callers serialise writers themselves.
 *
 * Line syntax, shared by all functions:
 * - Lines are read in pieces of at most 511 bytes; the rest of a longer line
 *   is read as a line of its own.
 * - A byte is a blank when it is a control byte or space (1..32) or any byte
 *   from 0x80 to 0xFF: non-ASCII bytes at the edges of a key, value or line
 *   are removed like spaces.
 * - "[name]" starts a section (the text up to the first "]", not trimmed);
 *   lines starting with ";" or "#" are comments; other lines are key lines
 *   when they hold a separator: the first "=", or the first ":" when there
 *   is no "=". Keys before the first section belong to the unnamed section
 *   (pass NULL or "" as its name).
 * - A value ends at ";" or "#" outside double quotes; a value enclosed in
 *   double quotes loses them, and inside it \" and "" stand for one quote.
 * - Names compare case-insensitively; the first matching section and the
 *   first matching key in it win.
 *
 * No function uses heap memory of its own: the only allocations are the FILE
 * records that fopen makes for the file (and, when writing, the temporary
 * file); everything else lives on the caller's stack (about 10 KiB).
 *
 * The engine checks its programming contracts with assertions that end the
 * process (for instance a NULL file name for ini_puts). */
#ifndef QXCOMMON_UTIL_INI_H
#define QXCOMMON_UTIL_INI_H

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Called by the browse functions for every key line with the section name,
 * key and cleaned value, which are valid only during the call. Return
 * nonzero to go on, 0 to stop the browse at once. */
typedef int (*ini_browse_callback)(const char *section, const char *key, const char *value,
                                   void *user_data);

/* Copies the value of key in section into buffer (at most buffer_size bytes
 * with the terminating zero) and returns its length. When the file cannot be
 * opened or the key is missing, def_value (not NULL) is copied instead,
 * truncated to the buffer. Returns 0 and leaves the buffer untouched when
 * buffer is NULL, buffer_size <= 0 or key is NULL. */
QX_API int ini_gets(const char *section, const char *key, const char *def_value, char *buffer,
                    int buffer_size, const char *filename);
/* The value as a long: hexadecimal when its second byte is "x" or "X"
 * ("0x1F", but also "1x" which gives 1), decimal otherwise ("-0x10" gives 0),
 * as strtol reads it. def_value when the key is missing or empty. */
QX_API long ini_getl(const char *section, const char *key, long def_value, const char *filename);
/* The value through strtod, narrowed to float; def_value when missing or empty. */
QX_API float ini_getf(const char *section, const char *key, float def_value, const char *filename);
/* 1 when the value starts with 1, T, t, Y or y; 0 when it starts with 0, F, f,
 * N or n; def_value otherwise ("on", "off", empty or missing). */
QX_API int ini_getbool(const char *section, const char *key, int def_value, const char *filename);
/* Copies the name of the index-th section header (from 0, in file order) and
 * returns its length; empties the buffer and returns 0 when there is none.
 * A header "[]" ends the enumeration: no section after it is reachable.
 * Returns 0 without touching the buffer when buffer is NULL, buffer_size <= 0
 * or index < 0. */
QX_API int ini_getsection(int index, char *buffer, int buffer_size, const char *filename);
/* Copies the name of the index-th key of section (from 0; comment lines and
 * lines without separator do not count) and returns its length; empties the
 * buffer and returns 0 when there is none. A key line with an empty key
 * ends the enumeration. Same guards as ini_getsection. */
QX_API int ini_getkey(const char *section, int index, char *buffer, int buffer_size,
                      const char *filename);

/* Calls callback for every key line of the file, in file order, with every
 * section (also repeated ones). When bit 0 of flags is set, callback is also
 * called at every section header with the name and NULL key and value.
 * Returns 1 when the file was opened and browsed (also when the callback
 * stopped it), 0 when callback is NULL or the file cannot be opened. */
QX_API int ini_browse_int(ini_browse_callback callback, void *user_data, const char *filename,
                          int flags);
/* ini_browse_int with flags 0. */
QX_API int ini_browse(ini_browse_callback callback, void *user_data, const char *filename);
/* ini_browse_int with flags 1. */
QX_API int ini_browse_with_section_cb(ini_browse_callback callback, void *user_data,
                                      const char *filename);

/* Sets, replaces or deletes one key, or deletes a whole section, keeping
 * every other byte of the file:
 * - key and value given: replaces the first matching key line of the section
 *   with "key=value" (value quoted when it contains '"', ';' or '#' or ends
 *   with a space), or adds it at the end of the section, creating the section
 *   (or the file) when needed. Nothing is written when the key already has
 *   this value.
 * - value NULL: deletes the key line. key NULL: deletes the section's header
 *   and every line up to the next line starting with "[". Deleting the
 *   unnamed section (section NULL or "") also removes the file's first line.
 * The file is rewritten through a temporary file named like it with the last
 * byte replaced by "~" and then renamed; it does not keep the old file's
 * permissions. Returns 0 only when the file or the temporary file cannot be
 * created, 1 otherwise (also when nothing changed). filename must not be NULL. */
QX_API int ini_puts(const char *section, const char *key, const char *value, const char *filename);
/* ini_puts of value in decimal. */
QX_API int ini_putl(const char *section, const char *key, long value, const char *filename);
/* ini_puts of value written with "%f" (six decimals). */
QX_API int ini_putf(const char *section, const char *key, float value, const char *filename);

#ifdef __cplusplus
}
#endif

#endif
