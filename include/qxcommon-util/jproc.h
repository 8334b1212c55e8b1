/* jproc: extracts values from a JSON document by a small pattern.
 *
 * A pattern is compiled once with jproc_prepare, a document is opened (from
 * a json_value tree, from memory or from a file), and jproc_step is called
 * until it returns 0. Each step fills the numbered argument slots with the
 * values the pattern's placeholders point at, for one combination of array
 * positions, like nested loops over the arrays the pattern walks: the
 * innermost array varies fastest, and among sibling arrays under one object
 * the one listed last varies fastest.
 *
 * Pattern language (blanks are spaces only, never tabs):
 *   ?  or  ?N           placeholder; "?" takes the next number (0, 1, ...),
 *                       "?N" takes N and sets the argument count to N + 1
 *   [ pattern ]         every element of an array
 *   { 'name': pattern, 'other': pattern }
 *                       members of an object (names in single quotes, no
 *                       escapes, may be empty; at least one member)
 * Text after the root pattern is ignored. Two forms are tolerated: a member
 * whose pattern does not parse ends the object there (the member is kept
 * without a pattern and the rest of the text is ignored), and "[ ]" is an
 * array pattern without an element pattern.
 *
 * Every pointer obtained from the slots points into the document and stays
 * valid until the next open or jproc_free; the caller never frees it.
 * A state is used by one thread at a time. */
#ifndef QXCOMMON_UTIL_JPROC_H
#define QXCOMMON_UTIL_JPROC_H

#include <stdint.h>

#include <json-parser/json.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Kind tags of the compiled pattern nodes. */
enum { JPROC_PATTERN_OBJECT = 0, JPROC_PATTERN_ARRAY = 1, JPROC_PATTERN_PLACEHOLDER = 2 };

/* Bits of jproc.flags. */
enum {
    /* The document belongs to the caller and is never freed by jproc. */
    JPROC_FLAG_BORROWED = 1
};

struct jproc_pattern;

/* One member of an object pattern; members are kept in pattern order. */
typedef struct jproc_member {
    char *name;                    /* owned */
    struct jproc_pattern *pattern; /* owned; NULL when the member kept none */
    struct jproc_member *next;
} jproc_member;

/* The iterator of an array pattern. */
typedef struct jproc_iterator {
    struct jproc_iterator *next;   /* next iterator on the state's stack */
    json_value *array;             /* the JSON array being walked */
    uint32_t index;                /* current position, from 0 */
    struct jproc_pattern *pattern; /* owned element pattern; NULL for "[ ]" */
} jproc_iterator;

/* A compiled pattern node. */
typedef struct jproc_pattern {
    int kind; /* JPROC_PATTERN_* */
    union {
        jproc_member *members;    /* object pattern */
        jproc_iterator *iterator; /* array pattern (owned) */
        int index;                /* placeholder: argument slot */
    } u;
} jproc_pattern;

/* The state, from jproc_prepare to jproc_free. Read-only for callers. */
typedef struct jproc {
    jproc_pattern *root;       /* owned */
    json_value *document;      /* NULL until a document is open */
    jproc_iterator *iterators; /* reached in the current step, most recent first */
    int argc;                  /* number of argument slots */
    int done;                  /* set once the last combination was delivered */
    int flags;                 /* JPROC_FLAG_* */
    json_value **args;         /* argc slots, NULL when argc is 0 */
} jproc;

/* Compiles a pattern. Returns a new state without a document, released with
 * jproc_free, or NULL when the pattern is NULL or does not parse, or memory
 * runs out (nothing stays allocated).
 *
 * "?N" sets the argument count to N + 1 even when an earlier placeholder had
 * a larger number, so a later smaller number lowers the count (deliberate).
 * A pattern in
 * which a placeholder that stays in the compiled pattern would then fall
 * outside the slots ("{'a': ?3, 'b': ?1}", "{'a': ?, 'b': ?, 'c': ?0}") is
 * rejected with NULL; so is a number too large for an int slot count. */
QX_API jproc *jproc_prepare(const char *pattern);

/* Frees the pattern, the slots, the document unless it is borrowed, and the
 * state. NULL is allowed. */
QX_API void jproc_free(jproc *state);

/* Goes back to the first combination: clears the slots and the done flag
 * and rewinds every array. The document and the pattern stay. NULL is
 * allowed. */
QX_API void jproc_reset(jproc *state);

/* Installs a caller's tree, which jproc will never free (borrowed). Rewinds
 * first. Returns 0, or -1 when root is NULL (the current document stays).
 * A document owned by the state is freed, unless root is that very tree, which
 * then stays owned by the state. */
QX_API int jproc_open_json(jproc *state, json_value *root);

/* Parses length bytes of text (a negative length: strlen(text)) into a
 * document owned by the state, after rewinding and freeing the current owned
 * document. Returns 0, or -1 when the text is NULL or does not parse; the
 * state then has no document (a borrowed one is left to its owner). */
QX_API int jproc_open_mem(jproc *state, const char *text, int length);

/* Maps the file read-only and parses it like jproc_open_mem. Returns -1 when
 * the file cannot be opened (the current document stays), when it cannot be
 * mapped (prints "mmap: <system error>" on standard error, as perror does;
 * an empty file fails here; the current document stays), or when it does
 * not parse (the state then has no document). errno tells the system error. */
QX_API int jproc_open_file(jproc *state, const char *path);

/* Clears the slots and fills them with the next combination. Returns 1 when
 * the slots hold one, 0 when all were delivered (and for a NULL state). A
 * pattern without arrays, or a document whose walked arrays are empty or
 * missing, gives exactly one step; slots under missing parts stay NULL, and
 * without a document every slot stays NULL. An array pattern without an
 * element pattern still steps through its elements but fills nothing; a
 * member without a pattern is skipped. */
QX_API int jproc_step(jproc *state);

/* The argument count (the number of slots); 0 for a NULL state. */
QX_API int jproc_arguments(jproc *state);

/* An index is out of range when it is negative or not below the count. The
 * getters treat a NULL state as out of range. */

/* The slot's value, NULL when empty or out of range. */
QX_API json_value *jproc_get_json(jproc *state, int index);
/* The slot's JSON type (json_type), 0 when empty or out of range. */
QX_API int jproc_get_type(jproc *state, int index);
/* 1 when the slot holds an integer, else 0. */
QX_API int jproc_is_integer(jproc *state, int index);
/* 1 when the slot holds a string, else 0. */
QX_API int jproc_is_string(jproc *state, int index);
/* The low 32 bits of the slot's integer as a signed value (deliberately
 * narrowed: 4294967297 gives 1); -1 when empty, out of range or not an
 * integer, so a stored -1 cannot be told from an error. */
QX_API long jproc_get_integer(jproc *state, int index);
/* The text of the slot's string, NULL when empty, out of range or not a
 * string. */
QX_API char *jproc_get_string(jproc *state, int index);

/* For a slot holding an array whose elements are all strings: a new
 * malloc'ed NULL-terminated array of pointers to their texts, and the
 * element count through count when it is not NULL. NULL (count untouched)
 * when the slot is empty, out of range, not an array, holds an element of
 * another type, or memory runs out. Free only the array. */
QX_API char **jproc_get_string_array(jproc *state, int index, unsigned int *count);
/* The same for an array of integers: the entries point at the document's
 * 64-bit integer values. */
QX_API json_int_t **jproc_get_int_array(jproc *state, int index, unsigned int *count);

#ifdef __cplusplus
}
#endif

#endif
