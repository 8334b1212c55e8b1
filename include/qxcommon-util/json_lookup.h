/* Lookups by member name in a json-parser tree.
 *
 * The search is depth-first in document order and looks at a member's name
 * before looking inside the member's value, so the first match at any depth
 * wins: a match nested inside an earlier member is preferred over a direct
 * member of the same object that comes later. That order is deliberate.
 *
 * Nothing is allocated or copied: every result points into the caller's
 * tree. Read-only, so safe in parallel on a tree nobody changes. */
#ifndef QXCOMMON_UTIL_JSON_LOOKUP_H
#define QXCOMMON_UTIL_JSON_LOOKUP_H

#include <json-parser/json.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The value of the first member named exactly name (strcmp, case-sensitive)
 * anywhere below value, searching objects and arrays, or NULL. A NULL value
 * or name gives NULL. */
QX_API json_value *json_get_value_by_name(json_value *value, const char *name);

/* Follows a path: each name is searched (at any depth) below the previous
 * result. The names end with a NULL pointer:
 *   json_get_value_by_name_ex(root, "server", "port", (char *)NULL)
 * Returns the value reached, NULL as soon as one name is not found (later
 * names are not looked at), or value itself when the list is empty. */
QX_API json_value *json_get_value_by_name_ex(json_value *value, ...) QX_SENTINEL;

/* The text of the found value when it is a string (pointing into the tree),
 * else NULL. */
QX_API char *json_get_string_by_name(json_value *value, const char *name);

/* The text of the value reached by the path (names ending with a NULL
 * pointer) when it is a string, else NULL. */
QX_API char *json_get_string_by_name_ex(json_value *value, ...) QX_SENTINEL;

/* Finds name and stores through result: an integer's low 32 bits as a
 * signed int, or for a string strtol(text, NULL, 10) narrowed to int (text
 * that is not a number stores 0 and still succeeds: deliberately lenient).
 * Returns 0, or -1 with nothing stored when nothing is found, the value has
 * another type, or result is NULL. */
QX_API int json_get_int_by_name(json_value *value, const char *name, int *result);

#ifdef __cplusplus
}
#endif

#endif
