// Entries, lists, maps and properties: each a thin layer on the one below,
// down to the intrusive linked list. Removal always goes through the lower
// layer, so each layer frees exactly what it allocated.
#include "qxcommon-util/containers.h"

#include <cstdlib>

#include "qxcommon-util/string_utils.h"
#include "internal/containers.hpp"

namespace qx::detail {

namespace {

constexpr uint32_t not_found = 0xFFFFFFFFu;

// Walks the indexes from 0 and fetches each name through the layers below,
// as every other reader does; each fetch walks the list from its first
// node, which is accepted for the small sets these objects hold. A NULL
// name, and pairs without a name, match nothing.
uint32_t find_index(const qx_properties *properties, const char *name) noexcept {
    if (name == nullptr)
        return not_found;
    const uint32_t count = qx_properties_get_count(properties);
    for (uint32_t index = 0; index < count; ++index) {
        const char *candidate = qx_properties_get_name_at(properties, index);
        if (candidate != nullptr && qx_string_utils_is_equal(name, candidate) != 0)
            return index;
    }
    return not_found;
}

} // namespace

bool slist_try_append(qx_slist *list, void *data) noexcept {
    qx_slist_node *node = qx_slist_node_new(data);
    if (node == nullptr)
        return false;
    llist_append(list->list, &node->link);
    return true;
}

bool smap_try_append(qx_smap *map, char *key, char *value) noexcept {
    qx_sentry *entry = qx_sentry_new(key, value);
    if (entry == nullptr)
        return false;
    if (!slist_try_append(map->list, entry)) {
        qx_sentry_delete(entry);
        return false;
    }
    return true;
}

} // namespace qx::detail

using qx::detail::allocate_record;

extern "C" {

// qx_sentry

QX_API qx_sentry *qx_sentry_new(char *key, char *value) {
    auto *entry = allocate_record<qx_sentry>();
    if (entry == nullptr)
        return nullptr;
    entry->key = key;
    entry->value = value;
    return entry;
}

QX_API void qx_sentry_delete(qx_sentry *entry) {
    std::free(entry);
}

QX_API char *qx_sentry_get_key(const qx_sentry *entry) {
    return entry->key;
}

QX_API char *qx_sentry_get_value(const qx_sentry *entry) {
    return entry->value;
}

QX_API char *qx_sentry_set_value(qx_sentry *entry, char *value) {
    char *previous = entry->value;
    entry->value = value;
    return previous;
}

// qx_slist

QX_API qx_slist_node *qx_slist_node_new(void *data) {
    auto *node = allocate_record<qx_slist_node>();
    if (node == nullptr)
        return nullptr;
    node->data = data;
    return node;
}

QX_API void qx_slist_node_delete(qx_slist_node *node) {
    std::free(node);
}

QX_API qx_slist *qx_slist_new(void) {
    auto *list = allocate_record<qx_slist>();
    if (list == nullptr)
        return nullptr;
    list->list = llist_create();
    if (list->list == nullptr) {
        std::free(list);
        return nullptr;
    }
    return list;
}

QX_API uint32_t qx_slist_get_count(const qx_slist *list) {
    return llist_nodecount(list->list);
}

QX_API int qx_slist_is_empty(const qx_slist *list) {
    return qx_slist_get_count(list) == 0 ? 1 : 0;
}

QX_API void *qx_slist_get_at(const qx_slist *list, uint32_t index) {
    llist_node *node = llist_get_at(list->list, index);
    return node == nullptr ? nullptr : reinterpret_cast<qx_slist_node *>(node)->data;
}

QX_API void qx_slist_append(qx_slist *list, void *data) {
    qx::detail::slist_try_append(list, data);
}

QX_API void *qx_slist_remove_at(qx_slist *list, uint32_t index) {
    llist_node *node = llist_remove_at(list->list, index);
    if (node == nullptr)
        return nullptr;
    auto *slist_node = reinterpret_cast<qx_slist_node *>(node);
    void *data = slist_node->data;
    qx_slist_node_delete(slist_node);
    return data;
}

QX_API int qx_slist_empty(qx_slist *list) {
    while (qx_slist_get_count(list) > 0)
        qx_slist_remove_at(list, 0);
    return 1;
}

QX_API void qx_slist_delete(qx_slist *list) {
    qx_slist_empty(list);
    llist_delete(list->list);
    std::free(list);
}

// qx_smap

QX_API qx_smap *qx_smap_new(void) {
    auto *map = allocate_record<qx_smap>();
    if (map == nullptr)
        return nullptr;
    map->list = qx_slist_new();
    if (map->list == nullptr) {
        std::free(map);
        return nullptr;
    }
    return map;
}

QX_API uint32_t qx_smap_get_count(const qx_smap *map) {
    return qx_slist_get_count(map->list);
}

QX_API int qx_smap_is_empty(const qx_smap *map) {
    return qx_slist_is_empty(map->list);
}

QX_API char *qx_smap_get_key_at(const qx_smap *map, uint32_t index) {
    auto *entry = static_cast<qx_sentry *>(qx_slist_get_at(map->list, index));
    return entry == nullptr ? nullptr : entry->key;
}

QX_API char *qx_smap_get_value_at(const qx_smap *map, uint32_t index) {
    auto *entry = static_cast<qx_sentry *>(qx_slist_get_at(map->list, index));
    return entry == nullptr ? nullptr : entry->value;
}

QX_API void qx_smap_append_entry(qx_smap *map, qx_sentry *entry) {
    // The map owns the entry from the call on, kept or not.
    if (!qx::detail::slist_try_append(map->list, entry))
        qx_sentry_delete(entry);
}

QX_API void qx_smap_append(qx_smap *map, char *key, char *value) {
    qx::detail::smap_try_append(map, key, value);
}

QX_API void qx_smap_remove_at(qx_smap *map, uint32_t index) {
    qx_sentry_delete(static_cast<qx_sentry *>(qx_slist_remove_at(map->list, index)));
}

QX_API int qx_smap_empty(qx_smap *map) {
    while (qx_smap_get_count(map) > 0)
        qx_smap_remove_at(map, 0);
    return 1;
}

QX_API void qx_smap_delete(qx_smap *map) {
    if (map == nullptr)
        return;
    qx_smap_empty(map);
    qx_slist_delete(map->list);
    std::free(map);
}

// qx_properties

QX_API qx_properties *qx_properties_new_ext(unsigned int owns_strings) {
    auto *properties = allocate_record<qx_properties>();
    if (properties == nullptr)
        return nullptr;
    properties->map = qx_smap_new();
    if (properties->map == nullptr) {
        std::free(properties);
        return nullptr;
    }
    properties->owns_strings = owns_strings;
    return properties;
}

QX_API qx_properties *qx_properties_new(void) {
    return qx_properties_new_ext(0);
}

QX_API uint32_t qx_properties_get_count(const qx_properties *properties) {
    return qx_smap_get_count(properties->map);
}

QX_API int qx_properties_is_empty(const qx_properties *properties) {
    return qx_smap_is_empty(properties->map);
}

QX_API char *qx_properties_get_name_at(const qx_properties *properties, uint32_t index) {
    return qx_smap_get_key_at(properties->map, index);
}

QX_API char *qx_properties_get_value_at(const qx_properties *properties, uint32_t index) {
    return qx_smap_get_value_at(properties->map, index);
}

QX_API void qx_properties_append(qx_properties *properties, char *name, char *value) {
    if (qx::detail::smap_try_append(properties->map, name, value))
        return;
    // The strings were handed over; with ownership nobody else will free them.
    if (properties->owns_strings != 0) {
        std::free(name);
        std::free(value);
    }
}

QX_API void qx_properties_remove_at(qx_properties *properties, uint32_t index) {
    if (index >= qx_properties_get_count(properties))
        return;
    if (properties->owns_strings != 0) {
        std::free(qx_properties_get_name_at(properties, index));
        std::free(qx_properties_get_value_at(properties, index));
    }
    qx_smap_remove_at(properties->map, index);
}

QX_API int qx_properties_empty(qx_properties *properties) {
    while (qx_properties_get_count(properties) > 0)
        qx_properties_remove_at(properties, 0);
    return 1;
}

QX_API void qx_properties_delete(qx_properties *properties) {
    if (properties == nullptr)
        return;
    qx_properties_empty(properties);
    qx_smap_delete(properties->map);
    std::free(properties);
}

QX_API uint32_t qx_properties_find_index(const qx_properties *properties, const char *name) {
    return qx::detail::find_index(properties, name);
}

QX_API char *qx_properties_find_value(const qx_properties *properties, const char *name) {
    const uint32_t index = qx::detail::find_index(properties, name);
    return index == qx::detail::not_found ? nullptr : qx_properties_get_value_at(properties, index);
}

} // extern "C"
