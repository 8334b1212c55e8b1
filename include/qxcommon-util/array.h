/* qx_array: a NULL-terminated array of strings in one calloc'ed block.
 *
 * An array is a char ** usable wherever a string vector is expected, and it
 * is released, pointers and strings together, with one free(). The block
 * holds, from its start: one pointer slot per entry, a NULL terminator, a
 * size_t counting the free bytes that follow it, those free (zero) bytes,
 * and the texts packed downwards from the end of the block (the first
 * appended text ends the block). Appending a string of length L takes
 * L + 1 + sizeof(char *) bytes of free area; arrays grow by exactly the
 * shortfall, never more.
 *
 * Callers may read entries and texts but must not reorder, replace or remove
 * entry pointers, nor change the length of the first entry's text: the size
 * of the block is derived from it.
 *
 * Append functions take len bytes of s (a negative len takes strlen(s)) and
 * return 0, or -1 when there is no room (or, for the _unique forms, when an
 * equal entry exists); a refused append leaves the array unchanged. Not
 * thread-safe; array2flag's error text is one static buffer. */
#ifndef QXCOMMON_UTIL_ARRAY_H
#define QXCOMMON_UTIL_ARRAY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A row of the table of flag2array and array2flag; a NULL name ends it. The
 * name stands for the bits of mask having the value value. */
typedef struct qx_flag_entry {
    const char *name;
    uint32_t mask;
    uint32_t value;
} qx_flag_entry;

/* Mode bits of qx_array_append_x. */
#define QX_ARRAY_MAY_GROW 1
#define QX_ARRAY_UNIQUE 2

/* An empty array with space free bytes (the block is space plus two words);
 * NULL when out of memory. Release it with free(). */
QX_API char **qx_array_new(size_t space);
/* Total bytes of the block, derived from the first entry's text (or the free
 * count of an empty array). */
QX_API size_t qx_array_size(char **array);
/* Entries before the NULL. */
QX_API uint32_t qx_array_count(char **array);
/* A new array with the same entries and more extra free bytes; the old block
 * is freed. more = 0 returns NULL and leaves the array alone (deliberate:
 * callers keep using the old array then); so does a failed allocation. */
QX_API char **qx_array_resize(char **array, size_t more);

/* The worker of the append functions: mode QX_ARRAY_MAY_GROW lets it
 * replace *parray by an array grown by exactly the shortfall (the old block
 * is freed), QX_ARRAY_UNIQUE refuses a string whose first len bytes and
 * length equal an entry's (case-sensitive). 0 on success; -1, with *parray
 * and the array unchanged, for a duplicate, no room without
 * QX_ARRAY_MAY_GROW, or a failed growth. s may point into the array. */
QX_API int qx_array_append_x(char ***parray, const char *s, ssize_t len, int mode);
/* Never reallocates: -1 when the free area is too small. */
QX_API int qx_array_append(char **array, const char *s, ssize_t len);
/* qx_array_append, and -1 when an equal entry exists: the caller cannot tell
 * the two refusals apart. */
QX_API int qx_array_append_unique(char **array, const char *s, ssize_t len);
/* Grows the array when needed and stores the new one through parray; -1
 * (array unchanged) only when growing fails. */
QX_API int qx_array_append_resize(char ***parray, const char *s, ssize_t len);
/* qx_array_append_resize, and -1 (array unchanged) when an equal entry
 * exists. */
QX_API int qx_array_append_resize_unique(char ***parray, const char *s, ssize_t len);
/* Append the text formatted with vasprintf, as qx_array_append and
 * qx_array_append_resize do (same results); a NULL fmt, or a format that
 * gives no text (vasprintf failing included), appends an empty string. */
QX_API int qx_array_append_printf(char **array, const char *fmt, ...) QX_PRINTF_LIKE(2, 3);
QX_API int qx_array_append_resize_printf(char ***parray, const char *fmt, ...) QX_PRINTF_LIKE(2, 3);

/* A new array of the same total size and free area with the same strings
 * in order; NULL when out of memory. Release it with free(). */
QX_API char **qx_array_copy(char **array);

/* A calloc'ed, NULL-terminated vector of the entry pointers of a, b and the
 * further arrays, in order, up to a NULL argument (a NULL b ends the list;
 * a NULL a counts as empty). The strings are borrowed, not copied: free only
 * the vector, and not after the arrays merged. Not an appendable array.
 * An empty array among the further ones is skipped. NULL when out of
 * memory. */
QX_API char **array_merge(char **a, char **b, ...) QX_SENTINEL;

/* The worker of the flattening functions: absolute 1 stores pointers,
 * 0 byte offsets. A count below -1 returns NULL and leaves *size_out
 * alone. */
QX_API char **qx_array_flatten_x(char **v, int count, size_t *size_out, int absolute);
/* One calloc'ed block: a table of count + 1 slots (count = -1: up to v's
 * NULL) followed by copies of the strings in order. NULL slots stay NULL;
 * slot count is NULL. The block's size goes to *size_out when size_out is
 * not NULL, even when the allocation then fails and NULL is returned.
 * Release it with one free(); it is not an appendable array. */
QX_API char **qx_array_flatten(char **v, int count, size_t *size_out);
/* As qx_array_flatten, but each non-NULL slot holds the byte offset of its
 * string from the block's start, so the block can be moved or stored. */
QX_API char **qx_array_flatten_raw(char **v, int count, size_t *size_out);

/* A new array of the fields of text cut at any byte of delims (text is not
 * changed): empty fields are kept, a trailing delimiter adds no empty field.
 * NULL when text yields no field (an empty text) or when out of memory
 * (nothing is then left allocated). Release it with free(). */
QX_API char **qx_string_to_array(const char *text, const char *delims);
/* A new calloc'ed string: the entries joined by sep (NULL: nothing between
 * them); an empty array gives an empty string. The separator in front of a
 * final empty entry is left out (deliberate: {"a", ""} joined by "," gives
 * "a"). NULL when out of memory. Release it with free(). */
QX_API char *qx_array_to_string(char **array, const char *sep);

/* A new array of the names of the rows for which (flags & mask) == value,
 * in table order (a row with mask and value 0 always matches); an empty or
 * NULL table gives an empty array. NULL when out of memory. Release it with
 * free(). */
QX_API char **flag2array(unsigned int flags, const qx_flag_entry *table);
/* The flag word the names of array stand for (case-insensitive; a later name
 * overrides an earlier one within the same mask); 0 for an empty array.
 * 0xFFFFFFFF for a name the table lacks, with *errstr (when errstr is not
 * NULL) set to "unknown flag" in one static buffer shared by all callers;
 * *errstr is untouched on success. That result cannot be told from an
 * all-ones flag word. */
QX_API unsigned int array2flag(char **array, const qx_flag_entry *table, const char **errstr);

#ifdef __cplusplus
}
#endif

#endif
