/* patricia: a set of NUL-terminated strings kept as a crit-bit trie.
 *
 * Every internal node records the first bit at which the keys of its two
 * subtrees differ; the leaves are the stored strings themselves. The trie
 * owns copies of its keys. Membership, insertion and deletion take time
 * proportional to the key's length; the keys that begin with a prefix are
 * visited in ascending strcmp order (unsigned bytes).
 *
 * The record is the caller's: a patricia whose root is NULL is an empty
 * tree. Release everything with patricia_clear. Keys cannot contain a NUL
 * byte; the empty string is a valid key. Not thread-safe.
 *
 * The root and the children are tagged pointers. A leaf pointer is the
 * address of a stored key (a copy from posix_memalign at pointer alignment,
 * so its lowest bit is 0). An internal-node pointer is the address of a
 * patricia_node plus 1 (lowest bit 1); internal nodes also come from
 * posix_memalign at pointer alignment. */
#ifndef QXCOMMON_UTIL_PATRICIA_H
#define QXCOMMON_UTIL_PATRICIA_H

#include <stdint.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct patricia_node {
    void *child[2];    /* tagged pointers: child 0 (critical bit clear), child 1 (set) */
    uint32_t byte;     /* index of the byte that holds the critical bit */
    uint8_t otherbits; /* 255 with the critical bit cleared */
} patricia_node;

typedef struct patricia {
    void *root; /* tagged pointer; NULL for an empty tree */
} patricia;

/* 1 if key is stored (an exact strcmp match), else 0. */
QX_API int patricia_contains(const patricia *tree, const char *key);
/* Stores a copy of key (strlen(key) + 1 bytes, the tree's to free): 2
 * inserted; 1 already present; 0 out of memory. On 1 and 0 the tree is
 * unchanged. */
QX_API int patricia_insert(patricia *tree, const char *key);
/* 1 removed (its copy and one internal node are freed); 0 not present. */
QX_API int patricia_delete(patricia *tree, const char *key);
/* Frees every node and stored key and sets the root to NULL; the record
 * itself stays the caller's. Harmless on an empty tree. */
QX_API void patricia_clear(patricia *tree);
/* Hands every stored key that begins with prefix to handler, in ascending
 * strcmp order, as long as handler returns 1. The empty prefix visits the
 * whole tree. Returns 1 when every matching key was handled (or none
 * matched), 0 when a handler returned 0, -1 when it returned anything else.
 * Deliberately asymmetric: when a single key lies under the prefix, the
 * handler's own result is returned as it is (7 gives 7). The handler must
 * not change the tree. */
QX_API int patricia_allprefixed(const patricia *tree, const char *prefix,
                                int (*handler)(const char *key, void *arg), void *arg);

#ifdef __cplusplus
}
#endif

#endif
