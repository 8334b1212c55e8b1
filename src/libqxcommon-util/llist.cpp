// The intrusive doubly linked list with its two sentinels.
#include "qxcommon-util/llist.h"

#include <cstdlib>

#include "internal/guards.hpp"

namespace qx::detail {
namespace {

// The sentinels live in the record; callers never see them.
llist_node *visible(const llist *list, llist_node *node) noexcept {
    return node == &list->head_sentinel || node == &list->tail_sentinel ? nullptr : node;
}

void link_between(llist_node *before, llist_node *after, llist_node *node) noexcept {
    node->prev = before;
    node->next = after;
    before->next = node;
    after->prev = node;
}

} // namespace
} // namespace qx::detail

using qx::detail::link_between;
using qx::detail::visible;

extern "C" {

QX_API llist *llist_create(void) {
    auto *list = static_cast<llist *>(std::malloc(sizeof(llist)));
    if (list == nullptr)
        return nullptr;
    return llist_reset(list);
}

QX_API llist *llist_reset(llist *list) {
    list->head = &list->head_sentinel;
    list->tail = &list->tail_sentinel;
    list->head_sentinel.prev = nullptr;
    list->head_sentinel.next = list->tail;
    list->tail_sentinel.prev = list->head;
    list->tail_sentinel.next = nullptr;
    list->count = 0;
    return list;
}

QX_API void llist_delete(llist *list) {
    std::free(list);
}

QX_API void llist_insert_after(llist *list, llist_node *node, llist_node *new_node) {
    link_between(node, node->next, new_node);
    ++list->count;
}

QX_API void llist_insert_before(llist *list, llist_node *node, llist_node *new_node) {
    link_between(node->prev, node, new_node);
    ++list->count;
}

QX_API void llist_prepend(llist *list, llist_node *node) {
    llist_insert_after(list, list->head, node);
}

QX_API void llist_append(llist *list, llist_node *node) {
    llist_insert_before(list, list->tail, node);
}

QX_API llist_node *llist_remove(llist *list, llist_node *node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    --list->count;
    return visible(list, node->next);
}

QX_API llist_node *llist_remove_first(llist *list) {
    llist_node *first = llist_getfirst(list);
    if (first != nullptr)
        llist_remove(list, first);
    return first;
}

QX_API llist_node *llist_remove_last(llist *list) {
    llist_node *last = llist_getlast(list);
    if (last != nullptr)
        llist_remove(list, last);
    return last;
}

QX_API uint32_t llist_nodecount(const llist *list) {
    return list->count;
}

QX_API llist_node *llist_getfirst(const llist *list) {
    return visible(list, list->head->next);
}

QX_API llist_node *llist_getlast(const llist *list) {
    return visible(list, list->tail->prev);
}

QX_API llist_node *llist_getnext(const llist *list, const llist_node *node) {
    return node == nullptr ? llist_getfirst(list) : visible(list, node->next);
}

QX_API llist_node *llist_getprev(const llist *list, const llist_node *node) {
    return node == nullptr ? llist_getlast(list) : visible(list, node->prev);
}

QX_API llist_node *llist_get_at(const llist *list, uint32_t index) {
    if (index >= list->count)
        return nullptr;
    llist_node *node = list->head->next;
    for (; index > 0; --index)
        node = node->next;
    return node;
}

QX_API llist_node *llist_remove_at(llist *list, uint32_t index) {
    llist_node *node = llist_get_at(list, index);
    if (node != nullptr)
        llist_remove(list, node);
    return node;
}

QX_API llist_node *llist_foreach(llist *list, int (*visitor)(llist_node *, void *), void *arg) {
    for (llist_node *node = list->head->next; node != list->tail;) {
        llist_node *next = node->next; // the visitor may unlink and free node
        if (visitor(node, arg) == 0)
            return node;
        node = next;
    }
    return nullptr;
}

QX_API void llist_free(llist *list, void (*free_node)(llist_node *)) {
    for (llist_node *node = list->head->next; node != list->tail;) {
        llist_node *next = node->next; // free_node may unlink and free node
        llist_remove(list, node);
        const uint32_t remaining = list->count;
        if (free_node != nullptr)
            free_node(node);
        // A free function that unlinks its node again leaves the links as
        // they are but takes one more off the count: put the count back.
        list->count = remaining;
        node = next;
    }
}

QX_API void llist_delete_all(llist *list, void (*free_node)(llist_node *)) {
    if (list != nullptr)
        llist_free(list, free_node);
    llist_delete(list);
}

QX_API void llist_sort(llist *list, int (*compar)(const void *, const void *, void *), void *arg) {
    const uint32_t count = list->count;
    if (count == 0)
        return;
    qx::detail::unique_malloc<llist_node *> vector(
        static_cast<llist_node **>(std::malloc((std::size_t{count} + 1) * sizeof(llist_node *))));
    if (!vector)
        return;
    llist_node **slots = vector.get();
    std::size_t filled = 0;
    for (llist_node *node = list->head->next; node != list->tail; node = node->next)
        slots[filled++] = node;
    slots[filled] = nullptr;
    qsort_r(slots, count, sizeof(llist_node *), compar, arg);
    llist_reset(list);
    for (std::size_t i = 0; i < count; ++i)
        llist_append(list, slots[i]);
}

} // extern "C"
