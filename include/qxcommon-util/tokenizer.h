/* Tokenizers: cutting text into fields, and looking a word up in a table.
 *
 * A cursor is the caller's char pointer, passed by address; each call starts
 * at the cursor and advances it. delims and word must not be NULL. No shared
 * state. */
#ifndef QXCOMMON_UTIL_TOKENIZER_H
#define QXCOMMON_UTIL_TOKENIZER_H

#include <stddef.h>
#include <stdint.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A row of the table of strswitch; a NULL name ends it. */
typedef struct qx_switch_entry {
    intptr_t value;
    const char *name;
} qx_switch_entry;

/* Non-destructive: the start of the next field (not terminated) with its
 * length in *len, the cursor moved past the delimiter that ends it (or onto
 * the text's NUL). NULL, with *len 0 and the cursor unchanged, when the
 * cursor is NULL or the text at it is empty: a trailing delimiter therefore
 * gives no empty last field, while a leading one gives an empty first
 * field. An empty delims makes the whole rest one field. Never fails. */
QX_API const char *strnsep(const char **cursor, const char *delims, size_t *len);
/* Destructive: the next field, NUL-terminated in place, with double quotes
 * and single quotes opening a field and backslash escapes (also inside
 * quotes) removed by shifting the rest of the text left. Only the field's
 * first character opens quotes; an unclosed quote runs to the end. The
 * cursor moves past the delimiter, past every following delimiter as well
 * (each overwritten with NUL) when collapse is 1, and becomes NULL at the
 * end of the text; an empty text gives one empty field. NULL when the
 * cursor is NULL. Backslash escapes inside single quotes are deliberate. */
QX_API char *qx_strsepstr_x(char **cursor, const char *delims, int collapse);
/* qx_strsepstr_x without collapsing: every delimiter ends one field. */
QX_API char *my_strsep(char **cursor, const char *delims);
/* qx_strsepstr_x collapsing runs of delimiters. */
QX_API char *qx_strsepstr(char **cursor, const char *delims);
/* The value of the first row whose name equals word (case-sensitive); 0 when
 * none does. */
QX_API intptr_t strswitch(const char *word, const qx_switch_entry *table);

#ifdef __cplusplus
}
#endif

#endif
