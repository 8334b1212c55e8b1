/* qx_stack: a growable vector of untyped pointers used as a stack.
 *
 * The record is the caller's; a zero-filled record is an empty stack. Item 0
 * is the bottom. The vector always has a NULL after the last item, so
 * items can also be read as a NULL-terminated array. It grows by ten slots
 * at a time, deliberately linearly. Not thread-safe. */
#ifndef QXCOMMON_UTIL_STACK_H
#define QXCOMMON_UTIL_STACK_H

#include <stddef.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qx_stack {
    size_t count;                  /* number of items */
    size_t capacity;               /* item slots; the vector has one more */
    void **items;                  /* realloc'ed; NULL while capacity is 0 */
    void (*free_item)(void *item); /* set by the caller, used by qx_stack_free */
} qx_stack;

/* Stores item on top and returns it. A full vector is first realloc'ed to
 * ten more item slots. NULL when growth fails (the stack is unchanged).
 * Pushing NULL items makes success and failure look alike. */
QX_API void *qx_stack_push(qx_stack *stack, void *item);
/* Removes and returns the top item, setting its slot to NULL (the vector is
 * never shrunk); NULL when empty. */
QX_API void *qx_stack_pop(qx_stack *stack);
/* The first item from the bottom for which compar(item, key) is 0, or NULL. */
QX_API void *qx_stack_find(const qx_stack *stack, int (*compar)(const void *item, const void *key),
                           const void *key);
/* qx_stack_find with strcmp: the items are strings. */
QX_API void *qx_stack_find_string(const qx_stack *stack, const char *key);
/* qsort_r (GNU argument order) over the items; the comparator receives
 * pointers to item slots (void *const *) and arg. Not stable; nothing
 * happens when empty. */
QX_API void qx_stack_sort(qx_stack *stack, int (*compar)(const void *, const void *, void *),
                          void *arg);
/* Visits from the bottom while visitor returns 1. Returns the visitor's last
 * result, 1 after the last item, 0 for an empty stack. */
QX_API int qx_stack_foreach(qx_stack *stack, int (*visitor)(void *item, void *arg), void *arg);
/* Calls free_item (when set) on each item from the bottom, frees the vector
 * and leaves the record empty with free_item kept; the record itself is not
 * freed. NULL, and a stack that never grew, are left alone (free_item is not
 * called). */
QX_API void qx_stack_free(qx_stack *stack);

#ifdef __cplusplus
}
#endif

#endif
