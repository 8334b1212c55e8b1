/* llist: an intrusive doubly linked list.
 *
 * A caller's record carries an llist_node as its first member and is linked
 * as it is: the list never allocates or frees nodes, except through a free
 * function the caller passes. The list record holds two sentinel nodes, so
 * no operation tests for an empty list; no accessor ever returns a sentinel
 * (it becomes NULL). Insertion does not check that the new node is free or
 * that the reference node belongs to the list. Not thread-safe. */
#ifndef QXCOMMON_UTIL_LLIST_H
#define QXCOMMON_UTIL_LLIST_H

#include <stdint.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct llist_node {
    struct llist_node *prev; /* the head sentinel for the first node */
    struct llist_node *next; /* the tail sentinel for the last node */
} llist_node;

typedef struct llist {
    llist_node *head;         /* &head_sentinel */
    llist_node *tail;         /* &tail_sentinel */
    llist_node head_sentinel; /* prev always NULL; next = first node */
    llist_node tail_sentinel; /* prev = last node; next always NULL */
    uint32_t count;           /* number of nodes */
} llist;

/* A new empty list from malloc, or NULL. Release with llist_delete or
 * llist_delete_all. */
QX_API llist *llist_create(void);
/* Makes the record empty without touching the nodes; returns list. */
QX_API llist *llist_reset(llist *list);
/* Frees the record only; the nodes are left alone. */
QX_API void llist_delete(llist *list);

/* Links new_node directly after / before node, which must be in the list;
 * count + 1. Inserting a node that is already linked corrupts both
 * places. */
QX_API void llist_insert_after(llist *list, llist_node *node, llist_node *new_node);
QX_API void llist_insert_before(llist *list, llist_node *node, llist_node *new_node);
/* Links node first / last; count + 1. */
QX_API void llist_prepend(llist *list, llist_node *node);
QX_API void llist_append(llist *list, llist_node *node);

/* Unlinks node (its own prev and next keep their values), count - 1, and
 * returns the node that followed it, or NULL when it was the last. node
 * must be in the list. */
QX_API llist_node *llist_remove(llist *list, llist_node *node);
/* Unlink and return the first / last node; NULL and no change when empty. */
QX_API llist_node *llist_remove_first(llist *list);
QX_API llist_node *llist_remove_last(llist *list);

/* The number of nodes. */
QX_API uint32_t llist_nodecount(const llist *list);
/* The first / last node, or NULL when the list is empty. */
QX_API llist_node *llist_getfirst(const llist *list);
QX_API llist_node *llist_getlast(const llist *list);
/* The node after node, NULL after the last; a NULL node gives the first. */
QX_API llist_node *llist_getnext(const llist *list, const llist_node *node);
/* The node before node, NULL before the first; a NULL node gives the last. */
QX_API llist_node *llist_getprev(const llist *list, const llist_node *node);
/* The node at the zero-based index, walking from the first node (linear
 * time); NULL when index >= count. */
QX_API llist_node *llist_get_at(const llist *list, uint32_t index);
/* llist_get_at then llist_remove; the removed node, or NULL. */
QX_API llist_node *llist_remove_at(llist *list, uint32_t index);

/* Calls visitor on each node from the first, as long as it returns non-zero.
 * Returns the node on which it returned 0, or NULL. The next node is read
 * before the visitor runs, so the visitor may unlink and free its node. */
QX_API llist_node *llist_foreach(llist *list, int (*visitor)(llist_node *node, void *arg),
                                 void *arg);
/* Unlinks every node, first to last, and passes each to free_node (when not
 * NULL); the record is left empty. The node is already unlinked when
 * free_node gets it and the next one has been read, so free_node may free
 * it; unlinking it once more with llist_remove is harmless. */
QX_API void llist_free(llist *list, void (*free_node)(llist_node *node));
/* llist_free (when list is not NULL), then llist_delete; a NULL list calls
 * nothing. */
QX_API void llist_delete_all(llist *list, void (*free_node)(llist_node *node));

/* Reorders the nodes with qsort_r (GNU argument order). The comparator
 * receives pointers to two slots of a vector of node pointers
 * (llist_node *const *) and arg, and returns a negative, zero or positive
 * value. Not stable. When the vector cannot be allocated, the list is left
 * as it was and nothing is reported. */
QX_API void llist_sort(llist *list, int (*compar)(const void *, const void *, void *), void *arg);

#ifdef __cplusplus
}
#endif

#endif
