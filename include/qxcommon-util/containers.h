/* The qx_ object containers: entries, lists, maps and properties.
 *
 * Each is a thin layer on the one below: qx_properties on qx_smap on qx_slist
 * on llist. None of them copies the strings it is given; only properties
 * made with qx_properties_new_ext(1) free them. Indexes are unsigned 32-bit,
 * zero-based, in insertion order; an index out of range gives NULL or does
 * nothing. Every object is one calloc'ed record, released with its _delete.
 * Not thread-safe. */
#ifndef QXCOMMON_UTIL_CONTAINERS_H
#define QXCOMMON_UTIL_CONTAINERS_H

#include <stdint.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/llist.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One key/value pair of borrowed string pointers. */
typedef struct qx_sentry {
    char *key;
    char *value;
} qx_sentry;

/* The node of a qx_slist: the link first, so the node is the llist node. */
typedef struct qx_slist_node {
    llist_node link;
    void *data; /* borrowed */
} qx_slist_node;

typedef struct qx_slist {
    llist *list; /* owned */
} qx_slist;

typedef struct qx_smap {
    qx_slist *list; /* owned; its items are qx_sentry *, owned by the map */
} qx_smap;

typedef struct qx_properties {
    qx_smap *map;          /* owned */
    uint32_t owns_strings; /* non-zero: names and values are freed on removal */
} qx_properties;

/* A new entry holding both pointers (not copied); NULL when the allocation
 * fails. */
QX_API qx_sentry *qx_sentry_new(char *key, char *value);
/* Frees the entry only, not its strings. NULL is allowed. */
QX_API void qx_sentry_delete(qx_sentry *entry);
/* The key / value pointer as stored. */
QX_API char *qx_sentry_get_key(const qx_sentry *entry);
QX_API char *qx_sentry_get_value(const qx_sentry *entry);
/* Stores value and returns the previous value, which the caller disposes of
 * (it is not freed here). */
QX_API char *qx_sentry_set_value(qx_sentry *entry, char *value);

/* A node holding data with zero links; NULL when the allocation fails. */
QX_API qx_slist_node *qx_slist_node_new(void *data);
/* Frees the node only. NULL is allowed. */
QX_API void qx_slist_node_delete(qx_slist_node *node);
/* A new empty list, released with qx_slist_delete; NULL when an allocation
 * fails (nothing leaks). */
QX_API qx_slist *qx_slist_new(void);
/* The number of items. */
QX_API uint32_t qx_slist_get_count(const qx_slist *list);
/* 1 when the list has no item, else 0. */
QX_API int qx_slist_is_empty(const qx_slist *list);
/* The item's data, or NULL when index is out of range. */
QX_API void *qx_slist_get_at(const qx_slist *list, uint32_t index);
/* Appends data at the end. When the node cannot be allocated nothing is
 * appended and nothing is reported. */
QX_API void qx_slist_append(qx_slist *list, void *data);
/* Unlinks and frees the node and returns its data (not freed), or NULL when
 * index is out of range. */
QX_API void *qx_slist_remove_at(qx_slist *list, uint32_t index);
/* Removes every node; the data pointers are dropped, not freed. Returns 1. */
QX_API int qx_slist_empty(qx_slist *list);
/* Empties and frees the list. list must not be NULL: it is not checked. */
QX_API void qx_slist_delete(qx_slist *list);

/* A new empty map, released with qx_smap_delete; NULL when an allocation
 * fails (nothing leaks). */
QX_API qx_smap *qx_smap_new(void);
/* The number of entries. */
QX_API uint32_t qx_smap_get_count(const qx_smap *map);
/* 1 when the map has no entry, else 0. */
QX_API int qx_smap_is_empty(const qx_smap *map);
/* Key or value of the entry at index, or NULL when out of range. */
QX_API char *qx_smap_get_key_at(const qx_smap *map, uint32_t index);
QX_API char *qx_smap_get_value_at(const qx_smap *map, uint32_t index);
/* Appends entry at the end; the map owns it from now on (when the node
 * cannot be allocated, the entry is freed at once). */
QX_API void qx_smap_append_entry(qx_smap *map, qx_sentry *entry);
/* qx_sentry_new(key, value) then qx_smap_append_entry. No duplicate check.
 * When an allocation fails nothing is appended and nothing is reported. */
QX_API void qx_smap_append(qx_smap *map, char *key, char *value);
/* Removes the entry and frees it (not its strings); out of range does
 * nothing. */
QX_API void qx_smap_remove_at(qx_smap *map, uint32_t index);
/* Removes every entry (freeing the entries, not their strings); the map
 * stays usable. Returns 1. */
QX_API int qx_smap_empty(qx_smap *map);
/* Empties and frees the map and its list. NULL is allowed. */
QX_API void qx_smap_delete(qx_smap *map);

/* New empty properties. With owns_strings non-zero they take over the names
 * and values appended (which must come from malloc) and free them on
 * removal. NULL when an allocation fails; nothing leaks. */
QX_API qx_properties *qx_properties_new_ext(unsigned int owns_strings);
/* qx_properties_new_ext(0): the strings stay the caller's. */
QX_API qx_properties *qx_properties_new(void);
/* The number of pairs. */
QX_API uint32_t qx_properties_get_count(const qx_properties *properties);
/* 1 when there is no pair, else 0. */
QX_API int qx_properties_is_empty(const qx_properties *properties);
/* Name or value of the pair at index, or NULL when out of range. */
QX_API char *qx_properties_get_name_at(const qx_properties *properties, uint32_t index);
QX_API char *qx_properties_get_value_at(const qx_properties *properties, uint32_t index);
/* Appends the pair without copying and without a duplicate check. When an
 * allocation fails nothing is appended and nothing is reported; properties
 * with ownership then free name and value, which were handed over. */
QX_API void qx_properties_append(qx_properties *properties, char *name, char *value);
/* With ownership frees the name and the value, then removes the pair; out
 * of range does nothing. */
QX_API void qx_properties_remove_at(qx_properties *properties, uint32_t index);
/* Removes every pair (freeing owned strings); the properties stay usable.
 * Returns 1. */
QX_API int qx_properties_empty(qx_properties *properties);
/* Empties and frees the properties. NULL is allowed. */
QX_API void qx_properties_delete(qx_properties *properties);
/* Index of the first pair whose name equals name (strcmp, case-sensitive),
 * or 0xFFFFFFFF when none does. With duplicate names the earliest appended
 * pair wins. A NULL name matches nothing. */
QX_API uint32_t qx_properties_find_index(const qx_properties *properties, const char *name);
/* Value of the first pair whose name equals name, or NULL (also when that
 * pair's value is NULL). Lookups walk from the first pair for each index:
 * quadratic in the count, meant for small sets. */
QX_API char *qx_properties_find_value(const qx_properties *properties, const char *name);

#ifdef __cplusplus
}
#endif

#endif
