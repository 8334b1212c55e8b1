// The crit-bit trie: tagged child pointers, one internal node per stored key
// beyond the first, keys copied into posix_memalign blocks.
#include "qxcommon-util/patricia.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace qx::detail {
namespace {

// Leaves and nodes are aligned to a pointer, so the lowest address bit is
// free to tell them apart.
constexpr std::size_t block_alignment = sizeof(void *);

bool is_internal(const void *p) noexcept {
    return (reinterpret_cast<std::uintptr_t>(p) & 1u) != 0;
}

patricia_node *as_node(void *p) noexcept {
    return reinterpret_cast<patricia_node *>(reinterpret_cast<std::uintptr_t>(p) - 1);
}

void *tagged(patricia_node *node) noexcept {
    return reinterpret_cast<void *>(reinterpret_cast<std::uintptr_t>(node) + 1);
}

const char *as_leaf(void *p) noexcept {
    return static_cast<const char *>(p);
}

// The key's byte at index, 0 at and past its NUL.
std::uint8_t byte_at(const char *key, std::size_t len, std::uint32_t index) noexcept {
    return index < len ? static_cast<std::uint8_t>(key[index]) : 0;
}

// 1 exactly when c has the node's critical bit set.
int direction_of(const patricia_node *node, std::uint8_t c) noexcept {
    return (1 + (node->otherbits | c)) >> 8;
}

int direction_for(const patricia_node *node, const char *key, std::size_t len) noexcept {
    return direction_of(node, byte_at(key, len, node->byte));
}

// Follows the key's bits from the root to the leaf that best matches them.
const char *descend(void *root, const char *key, std::size_t len) noexcept {
    void *p = root;
    while (is_internal(p)) {
        const patricia_node *node = as_node(p);
        p = node->child[direction_for(node, key, len)];
    }
    return as_leaf(p);
}

void *allocate_block(std::size_t bytes) noexcept {
    void *block = nullptr;
    if (posix_memalign(&block, block_alignment, bytes) != 0)
        return nullptr;
    return block;
}

char *copy_key(const char *key, std::size_t len) noexcept {
    auto *copy = static_cast<char *>(allocate_block(len + 1));
    if (copy != nullptr)
        std::memcpy(copy, key, len + 1);
    return copy;
}

// Where a new key parts from the leaf it descended to.
struct critical_position {
    std::uint32_t byte;
    std::uint8_t otherbits;
};

// Keeps only the most significant set bit of x (x is not 0).
std::uint32_t highest_bit(std::uint32_t x) noexcept {
    x |= x >> 1;
    x |= x >> 2;
    x |= x >> 4;
    return x & ~(x >> 1);
}

// Finds the first differing bit of leaf and key; false when they are equal.
bool find_critical_position(const char *leaf, const char *key, std::size_t len,
                            critical_position *out) noexcept {
    const auto *p = reinterpret_cast<const std::uint8_t *>(leaf);
    const auto *k = reinterpret_cast<const std::uint8_t *>(key);
    std::size_t newbyte = 0;
    std::uint32_t differing = 0;
    // The leaf cannot end before a difference: its NUL differs from the
    // key's byte there, so p[newbyte] is always inside the leaf.
    for (; newbyte < len; ++newbyte) {
        differing = p[newbyte] ^ k[newbyte];
        if (differing != 0)
            break;
    }
    if (newbyte == len) {
        if (p[len] == 0)
            return false;
        differing = p[len];
    }
    out->byte = static_cast<std::uint32_t>(newbyte);
    out->otherbits = static_cast<std::uint8_t>(highest_bit(differing) ^ 255u);
    return true;
}

// The slot in which a node at `at` belongs: the first one, on the key's path,
// that holds a leaf or a node whose critical position comes after `at`.
void **insertion_slot(patricia *tree, const char *key, std::size_t len,
                      critical_position at) noexcept {
    void **wherep = &tree->root;
    for (;;) {
        void *p = *wherep;
        if (!is_internal(p))
            return wherep;
        patricia_node *node = as_node(p);
        if (node->byte > at.byte || (node->byte == at.byte && node->otherbits > at.otherbits))
            return wherep;
        wherep = &node->child[direction_for(node, key, len)];
    }
}

void patricia_free_subtree(void *p) noexcept {
    if (is_internal(p)) {
        patricia_node *node = as_node(p);
        patricia_free_subtree(node->child[0]);
        patricia_free_subtree(node->child[1]);
        std::free(node);
    } else {
        std::free(p);
    }
}

// Deliberate: a lone leaf passes the handler's own result back; under a node only 0, 1, -1 do.
int patricia_walk_prefixed(void *p, int (*handler)(const char *, void *), void *arg) noexcept {
    if (!is_internal(p))
        return handler(as_leaf(p), arg);
    const patricia_node *node = as_node(p);
    for (void *child : node->child) {
        const int result = patricia_walk_prefixed(child, handler, arg);
        if (result == 0)
            return 0;
        if (result != 1)
            return -1;
    }
    return 1;
}

} // namespace
} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int patricia_contains(const patricia *tree, const char *key) {
    if (tree->root == nullptr)
        return 0;
    const char *leaf = descend(tree->root, key, std::strlen(key));
    return std::strcmp(leaf, key) == 0 ? 1 : 0;
}

QX_API int patricia_insert(patricia *tree, const char *key) {
    const std::size_t len = std::strlen(key);
    if (tree->root == nullptr) {
        char *copy = copy_key(key, len);
        if (copy == nullptr)
            return 0;
        tree->root = copy;
        return 2;
    }

    const char *leaf = descend(tree->root, key, len);
    critical_position at{};
    if (!find_critical_position(leaf, key, len, &at))
        return 1;
    const int newdirection = (1 + (at.otherbits | static_cast<std::uint8_t>(leaf[at.byte]))) >> 8;

    auto *node = static_cast<patricia_node *>(allocate_block(sizeof(patricia_node)));
    if (node == nullptr)
        return 0;
    char *copy = copy_key(key, len);
    if (copy == nullptr) {
        std::free(node);
        return 0;
    }
    node->byte = at.byte;
    node->otherbits = at.otherbits;
    node->child[1 - newdirection] = copy;

    void **wherep = insertion_slot(tree, key, len, at);
    node->child[newdirection] = *wherep;
    *wherep = tagged(node);
    return 2;
}

QX_API int patricia_delete(patricia *tree, const char *key) {
    if (tree->root == nullptr)
        return 0;
    const std::size_t len = std::strlen(key);
    void **wherep = &tree->root;
    void **whereq = nullptr;
    patricia_node *q = nullptr;
    int direction = 0;
    while (is_internal(*wherep)) {
        whereq = wherep;
        q = as_node(*wherep);
        direction = direction_for(q, key, len);
        wherep = &q->child[direction];
    }
    if (std::strcmp(as_leaf(*wherep), key) != 0)
        return 0;

    std::free(*wherep);
    if (q == nullptr) {
        tree->root = nullptr;
        return 1;
    }
    *whereq = q->child[1 - direction];
    std::free(q);
    return 1;
}

QX_API void patricia_clear(patricia *tree) {
    if (tree->root != nullptr)
        patricia_free_subtree(tree->root);
    tree->root = nullptr;
}

QX_API int patricia_allprefixed(const patricia *tree, const char *prefix,
                                int (*handler)(const char *, void *), void *arg) {
    if (tree->root == nullptr)
        return 1;
    const std::size_t len = std::strlen(prefix);
    void *p = tree->root;
    void *top = p;
    // Past the prefix's length the direction is always 0, and every key
    // below such a node shares the bytes before it: top stops moving there.
    while (is_internal(p)) {
        const patricia_node *node = as_node(p);
        p = node->child[direction_for(node, prefix, len)];
        if (node->byte < len)
            top = p;
    }
    if (std::strncmp(as_leaf(p), prefix, len) != 0)
        return 1;
    return patricia_walk_prefixed(top, handler, arg);
}

} // extern "C"
