#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qxcommon-util/containers.h"
#include "qxcommon-util/string_utils.h"
#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;
constexpr uint32_t kLastIndex = 0xFFFFFFFFu;

char *heap_string(const char *text) {
    return qx_string_utils_get_copy(text);
}

std::vector<std::string> names_of(const qx_properties *p) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < qx_properties_get_count(p); ++i)
        out.emplace_back(qx_properties_get_name_at(p, i));
    return out;
}

} // namespace

// ---------------------------------------------------------------- qx_sentry

TEST(QxSentry, HoldsBothPointersWithoutCopying) {
    char key[] = "k";
    char value[] = "v";
    qx_sentry *entry = qx_sentry_new(key, value);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->key, key);
    EXPECT_EQ(entry->value, value);
    EXPECT_EQ(qx_sentry_get_key(entry), key);
    EXPECT_EQ(qx_sentry_get_value(entry), value);
    qx_sentry_delete(entry); // the strings live on the stack: freeing them would crash
    EXPECT_STREQ(key, "k");
}

TEST(QxSentry, AcceptsNullStrings) {
    qx_sentry *entry = qx_sentry_new(nullptr, nullptr);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(qx_sentry_get_key(entry), nullptr);
    EXPECT_EQ(qx_sentry_get_value(entry), nullptr);
    qx_sentry_delete(entry);
}

TEST(QxSentry, NewReturnsNullWhenTheAllocationFails) {
    char key[] = "k";
    qx_sentry *entry =
        qx_test::call_with_failing_allocation(0, [&] { return qx_sentry_new(key, key); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(entry, nullptr);
}

TEST(QxSentry, SetValueReturnsTheOldValueWithoutFreeingIt) {
    char key[] = "k";
    char *old_value = heap_string("old");
    char new_value[] = "new";
    qx_sentry *entry = qx_sentry_new(key, old_value);
    ASSERT_NE(entry, nullptr);
    char *returned;
    {
        qx_test::free_log frees;
        returned = qx_sentry_set_value(entry, new_value);
        EXPECT_EQ(frees.count(), 0);
    }
    EXPECT_EQ(returned, old_value);
    EXPECT_STREQ(returned, "old"); // still readable: not freed
    EXPECT_EQ(qx_sentry_get_value(entry), new_value);
    EXPECT_EQ(qx_sentry_get_key(entry), key);
    std::free(returned);
    qx_sentry_delete(entry);
}

TEST(QxSentry, DeleteOfNullDoesNothing) {
    qx_sentry_delete(nullptr);
}

// ---------------------------------------------------------------- qx_slist

TEST(QxSlistNode, HoldsTheDataWithZeroLinks) {
    int data = 0;
    qx_slist_node *node = qx_slist_node_new(&data);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->data, &data);
    EXPECT_EQ(node->link.prev, nullptr);
    EXPECT_EQ(node->link.next, nullptr);
    EXPECT_EQ(reinterpret_cast<void *>(&node->link), reinterpret_cast<void *>(node));
    qx_slist_node_delete(node);
    qx_slist_node_delete(nullptr);
}

TEST(QxSlistNode, NewReturnsNullWhenTheAllocationFails) {
    qx_slist_node *node =
        qx_test::call_with_failing_allocation(0, [] { return qx_slist_node_new(nullptr); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(node, nullptr);
}

TEST(QxSlist, StartsEmpty) {
    qx_slist *list = qx_slist_new();
    ASSERT_NE(list, nullptr);
    ASSERT_NE(list->list, nullptr);
    EXPECT_EQ(qx_slist_get_count(list), 0u);
    EXPECT_EQ(qx_slist_is_empty(list), 1);
    EXPECT_EQ(qx_slist_get_at(list, 0), nullptr);
    qx_slist_delete(list);
}

TEST(QxSlist, NewFreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_slist *list = qx_test::call_with_failing_allocation(n, [] { return qx_slist_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(list, nullptr) << "failing allocation " << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            ASSERT_NE(list, nullptr);
            qx_slist_delete(list);
        }
    });
    EXPECT_EQ(allocations, 2); // the record and the linked list
}

TEST(QxSlist, AppendsAtTheEndAndReadsByIndex) {
    qx_slist *list = qx_slist_new();
    int a = 1, b = 2, c = 3;
    qx_slist_append(list, &a);
    qx_slist_append(list, &b);
    qx_slist_append(list, &c);
    EXPECT_EQ(qx_slist_get_count(list), 3u);
    EXPECT_EQ(llist_nodecount(list->list), 3u);
    EXPECT_EQ(qx_slist_is_empty(list), 0);
    EXPECT_EQ(qx_slist_get_at(list, 0), &a);
    EXPECT_EQ(qx_slist_get_at(list, 1), &b);
    EXPECT_EQ(qx_slist_get_at(list, 2), &c);
    // The nodes are the llist nodes.
    EXPECT_EQ(reinterpret_cast<qx_slist_node *>(llist_getlast(list->list))->data, &c);
    qx_slist_delete(list);
}

TEST(QxSlist, KeepsNullData) {
    qx_slist *list = qx_slist_new();
    qx_slist_append(list, nullptr);
    EXPECT_EQ(qx_slist_get_count(list), 1u);
    EXPECT_EQ(qx_slist_get_at(list, 0), nullptr);
    qx_slist_delete(list);
}

TEST(QxSlist, GetAtOutOfRangeIsNull) {
    qx_slist *list = qx_slist_new();
    int a = 1;
    qx_slist_append(list, &a);
    EXPECT_EQ(qx_slist_get_at(list, 1), nullptr);
    EXPECT_EQ(qx_slist_get_at(list, kLastIndex), nullptr);
    qx_slist_delete(list);
}

TEST(QxSlist, AppendThatCannotAllocateItsNodeAppendsNothing) {
    qx_slist *list = qx_slist_new();
    int a = 1, b = 2;
    qx_slist_append(list, &a);
    qx_test::call_with_failing_allocation(0, [&] { qx_slist_append(list, &b); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_slist_get_count(list), 1u);
    EXPECT_EQ(qx_slist_get_at(list, 0), &a);
    EXPECT_EQ(qx_slist_get_at(list, 1), nullptr);
    qx_slist_delete(list);
}

TEST(QxSlist, RemoveAtReturnsTheDataWithoutFreeingIt) {
    qx_slist *list = qx_slist_new();
    char *a = heap_string("a");
    char *b = heap_string("b");
    qx_slist_append(list, a);
    qx_slist_append(list, b);
    EXPECT_EQ(qx_slist_remove_at(list, 0), a);
    EXPECT_STREQ(a, "a");
    EXPECT_EQ(qx_slist_get_count(list), 1u);
    EXPECT_EQ(qx_slist_get_at(list, 0), b);
    EXPECT_EQ(qx_slist_remove_at(list, 0), b);
    EXPECT_EQ(qx_slist_is_empty(list), 1);
    std::free(a);
    std::free(b);
    qx_slist_delete(list);
}

TEST(QxSlist, RemoveAtOutOfRangeReturnsNullAndChangesNothing) {
    qx_slist *list = qx_slist_new();
    int a = 1, b = 2;
    qx_slist_append(list, &a);
    qx_slist_append(list, &b);
    EXPECT_EQ(qx_slist_remove_at(list, 2), nullptr);
    EXPECT_EQ(qx_slist_remove_at(list, kLastIndex), nullptr);
    EXPECT_EQ(qx_slist_get_count(list), 2u);
    EXPECT_EQ(qx_slist_get_at(list, 0), &a);
    EXPECT_EQ(qx_slist_get_at(list, 1), &b);
    qx_slist_delete(list);
}

TEST(QxSlist, EmptyDropsTheDataWithoutFreeingItAndReturnsOne) {
    qx_slist *list = qx_slist_new();
    char *a = heap_string("abc");
    qx_slist_append(list, a);
    qx_slist_append(list, a);
    {
        qx_test::free_log frees;
        EXPECT_EQ(qx_slist_empty(list), 1);
        EXPECT_EQ(frees.count(), 2);  // the two nodes...
        EXPECT_FALSE(frees.freed(a)); // ... and not the data
    }
    EXPECT_EQ(qx_slist_get_count(list), 0u);
    EXPECT_EQ(qx_slist_is_empty(list), 1);
    EXPECT_STREQ(a, "abc");
    std::free(a);
    // ... and the list is still usable.
    int b = 0;
    qx_slist_append(list, &b);
    EXPECT_EQ(qx_slist_get_at(list, 0), &b);
    EXPECT_EQ(qx_slist_empty(list), 1);
    EXPECT_EQ(qx_slist_empty(list), 1);
    qx_slist_delete(list);
}

TEST(QxSlist, DeleteReleasesNodesListAndRecordButNotTheData) {
    char *a = heap_string("a");
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_slist *list = qx_slist_new();
    qx_slist_append(list, a);
    qx_slist_append(list, a);
    {
        qx_test::free_log frees;
        qx_slist_delete(list);
        EXPECT_EQ(frees.count(), 4); // two nodes, the linked list, the record
        EXPECT_FALSE(frees.freed(a));
    }
    QX_EXPECT_HEAP_AT(before);
    EXPECT_STREQ(a, "a");
    std::free(a);
}

TEST(QxSlistDeathTest, DeleteMustNotBeGivenNull) {
    // The argument is not checked: NULL is dereferenced.
    EXPECT_DEATH(qx_slist_delete(nullptr), "");
}

// ---------------------------------------------------------------- qx_smap

TEST(QxSmap, StartsEmpty) {
    qx_smap *map = qx_smap_new();
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(qx_smap_get_count(map), 0u);
    EXPECT_EQ(qx_smap_is_empty(map), 1);
    EXPECT_EQ(qx_smap_get_key_at(map, 0), nullptr);
    EXPECT_EQ(qx_smap_get_value_at(map, 0), nullptr);
    qx_smap_delete(map);
}

TEST(QxSmap, NewFreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_smap *map = qx_test::call_with_failing_allocation(n, [] { return qx_smap_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(map, nullptr) << "failing allocation " << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            ASSERT_NE(map, nullptr);
            qx_smap_delete(map);
        }
    });
    EXPECT_EQ(allocations, 3); // the map, the string list and its linked list
}

TEST(QxSmap, KeepsPairsInOrderWithDuplicates) {
    qx_smap *map = qx_smap_new();
    char a[] = "a", one[] = "1", two[] = "2", b[] = "b";
    qx_smap_append(map, a, one);
    qx_smap_append(map, a, two);
    qx_smap_append(map, b, nullptr);
    EXPECT_EQ(qx_smap_get_count(map), 3u);
    EXPECT_EQ(qx_smap_is_empty(map), 0);
    EXPECT_EQ(qx_smap_get_key_at(map, 0), a);
    EXPECT_EQ(qx_smap_get_value_at(map, 0), one);
    EXPECT_EQ(qx_smap_get_key_at(map, 1), a);
    EXPECT_EQ(qx_smap_get_value_at(map, 1), two);
    EXPECT_EQ(qx_smap_get_key_at(map, 2), b);
    EXPECT_EQ(qx_smap_get_value_at(map, 2), nullptr);
    // The items of the underlying list are the entries.
    auto *entry = static_cast<qx_sentry *>(qx_slist_get_at(map->list, 1));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->value, two);
    qx_smap_delete(map);
}

TEST(QxSmap, IndexesOutOfRangeGiveNullAndRemoveNothing) {
    qx_smap *map = qx_smap_new();
    char k[] = "k", v[] = "v";
    qx_smap_append(map, k, v);
    for (uint32_t index : {1u, kLastIndex}) {
        EXPECT_EQ(qx_smap_get_key_at(map, index), nullptr);
        EXPECT_EQ(qx_smap_get_value_at(map, index), nullptr);
        qx_smap_remove_at(map, index);
        EXPECT_EQ(qx_smap_get_count(map), 1u);
        EXPECT_EQ(qx_smap_get_key_at(map, 0), k);
    }
    qx_smap_delete(map);
}

TEST(QxSmap, AppendEntryHandsTheEntryToTheMap) {
    qx_smap *map = qx_smap_new();
    char k[] = "k", v[] = "v";
    qx_sentry *entry = qx_sentry_new(k, v);
    qx_smap_append_entry(map, entry);
    EXPECT_EQ(qx_slist_get_at(map->list, 0), entry);
    EXPECT_EQ(qx_smap_get_key_at(map, 0), k);
    {
        qx_test::free_log frees;
        qx_smap_remove_at(map, 0); // frees the entry and its node, not the strings
        EXPECT_TRUE(frees.freed(entry));
        EXPECT_EQ(frees.count(), 2);
    }
    EXPECT_STREQ(k, "k");
    EXPECT_EQ(qx_smap_get_count(map), 0u);
    qx_smap_delete(map);
}

TEST(QxSmap, AppendEntryFreesTheEntryWhenItsNodeCannotBeAllocated) {
    qx_smap *map = qx_smap_new();
    char k[] = "k";
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_sentry *entry = qx_sentry_new(k, k);
    qx_test::free_log frees;
    qx_test::call_with_failing_allocation(0, [&] { qx_smap_append_entry(map, entry); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_smap_get_count(map), 0u);
    EXPECT_TRUE(frees.freed(entry));
    EXPECT_EQ(frees.count(), 1);
    QX_EXPECT_HEAP_AT(before);
    qx_smap_delete(map);
}

TEST(QxSmap, AppendThatFailsAppendsNothingAndLeavesNothingAllocated) {
    for (long n : {0L, 1L}) { // the entry, then the node
        qx_smap *map = qx_smap_new();
        char k[] = "k";
        const std::size_t before = qx_test::heap_bytes_in_use();
        qx_test::free_log frees;
        qx_test::call_with_failing_allocation(n, [&] { qx_smap_append(map, k, k); });
        EXPECT_TRUE(qx_test::allocation_was_failed());
        EXPECT_EQ(qx_smap_get_count(map), 0u) << n;
        EXPECT_EQ(frees.count(), n) << n; // the entry, when its node failed
        QX_EXPECT_HEAP_AT(before);
        qx_smap_delete(map);
    }
}

TEST(QxSmap, RemoveAtTakesThePairOutOfTheMiddle) {
    qx_smap *map = qx_smap_new();
    char a[] = "a", b[] = "b", c[] = "c";
    qx_smap_append(map, a, a);
    qx_smap_append(map, b, b);
    qx_smap_append(map, c, c);
    qx_smap_remove_at(map, 1);
    EXPECT_EQ(qx_smap_get_count(map), 2u);
    EXPECT_EQ(qx_smap_get_key_at(map, 0), a);
    EXPECT_EQ(qx_smap_get_key_at(map, 1), c);
    qx_smap_delete(map);
}

TEST(QxSmap, EmptyFreesTheEntriesButNotTheStringsAndReturnsOne) {
    char *k = heap_string("key");
    char *v = heap_string("value");
    qx_smap *map = qx_smap_new();
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_smap_append(map, k, v);
    qx_smap_append(map, v, k);
    {
        qx_test::free_log frees;
        EXPECT_EQ(qx_smap_empty(map), 1);
        EXPECT_EQ(frees.count(), 4); // two entries and their nodes
        EXPECT_FALSE(frees.freed(k));
        EXPECT_FALSE(frees.freed(v));
    }
    QX_EXPECT_HEAP_AT(before);
    EXPECT_EQ(qx_smap_is_empty(map), 1);
    EXPECT_STREQ(k, "key");
    EXPECT_STREQ(v, "value");
    qx_smap_delete(map);
    std::free(k);
    std::free(v);
}

TEST(QxSmap, DeleteOfNullDoesNothing) {
    qx_smap_delete(nullptr);
}

TEST(QxSmap, DeleteReleasesEverythingItAllocated) {
    char k[] = "k";
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_smap *map = qx_smap_new();
    qx_smap_append(map, k, k);
    qx_smap_append(map, k, k);
    {
        qx_test::free_log frees;
        qx_smap_delete(map);
        // Two entries, two nodes, the linked list, the string list, the map.
        EXPECT_EQ(frees.count(), 7);
    }
    QX_EXPECT_HEAP_AT(before);
}

// ---------------------------------------------------------------- qx_properties

TEST(QxProperties, NewKeepsTheStringsTheCallers) {
    qx_properties *p = qx_properties_new();
    ASSERT_NE(p, nullptr);
    ASSERT_NE(p->map, nullptr);
    EXPECT_EQ(p->owns_strings, 0u);
    EXPECT_EQ(qx_properties_get_count(p), 0u);
    EXPECT_EQ(qx_properties_is_empty(p), 1);
    qx_properties_delete(p);
}

TEST(QxProperties, NewExtRecordsOwnership) {
    qx_properties *p = qx_properties_new_ext(1);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->owns_strings, 1u);
    qx_properties_delete(p);
    p = qx_properties_new_ext(0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->owns_strings, 0u);
    qx_properties_delete(p);
}

TEST(QxProperties, NewFreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    for (unsigned owns : {0u, 1u}) {
        const long allocations = qx_test::sweep_allocation_failures([&](long n) {
            qx_properties *p = qx_test::call_with_failing_allocation(
                n, [&] { return qx_properties_new_ext(owns); });
            if (qx_test::allocation_was_failed()) {
                EXPECT_EQ(p, nullptr) << "failing allocation " << n;
                QX_EXPECT_HEAP_AT(before);
            } else {
                ASSERT_NE(p, nullptr);
                qx_properties_delete(p);
            }
        });
        EXPECT_EQ(allocations, 4); // properties, map, string list, linked list
    }
    qx_properties *p = qx_test::call_with_failing_allocation(3, [] { return qx_properties_new(); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(p, nullptr);
    QX_EXPECT_HEAP_AT(before);
}

TEST(QxProperties, FirstOfDuplicateNamesWinsUntilItIsRemoved) {
    qx_properties *p = qx_properties_new();
    char a[] = "a", one[] = "1", two[] = "2";
    qx_properties_append(p, a, one);
    qx_properties_append(p, a, two);
    EXPECT_EQ(qx_properties_get_count(p), 2u);
    EXPECT_EQ(qx_properties_find_value(p, "a"), one);
    EXPECT_EQ(qx_properties_find_index(p, "a"), 0u);
    qx_properties_remove_at(p, 0);
    EXPECT_EQ(qx_properties_find_value(p, "a"), two);
    EXPECT_EQ(qx_properties_find_index(p, "a"), 0u);
    EXPECT_EQ(qx_properties_get_count(p), 1u);
    qx_properties_delete(p);
}

TEST(QxProperties, FindMatchesNamesExactlyAndCaseSensitively) {
    qx_properties *p = qx_properties_new();
    char lower[] = "a", value[] = "v", longer[] = "ab", longer_value[] = "w";
    qx_properties_append(p, longer, longer_value);
    qx_properties_append(p, lower, value);
    EXPECT_EQ(qx_properties_find_value(p, "A"), nullptr);
    EXPECT_EQ(qx_properties_find_index(p, "A"), kNotFound);
    EXPECT_EQ(qx_properties_find_value(p, "a"), value);
    EXPECT_EQ(qx_properties_find_index(p, "a"), 1u);
    EXPECT_EQ(qx_properties_find_index(p, "ab"), 0u);
    EXPECT_EQ(qx_properties_find_index(p, "abc"), kNotFound);
    EXPECT_EQ(qx_properties_find_index(p, ""), kNotFound);
    qx_properties_delete(p);
}

TEST(QxProperties, FindOnEmptyPropertiesReportsTheMissingIndex) {
    qx_properties *p = qx_properties_new();
    EXPECT_EQ(qx_properties_find_index(p, "a"), 0xFFFFFFFFu);
    EXPECT_EQ(static_cast<int32_t>(qx_properties_find_index(p, "a")), -1);
    EXPECT_EQ(qx_properties_find_value(p, "a"), nullptr);
    qx_properties_delete(p);
}

TEST(QxProperties, FindOfANullNameMatchesNothing) {
    qx_properties *p = qx_properties_new();
    char a[] = "a";
    qx_properties_append(p, a, a);
    qx_properties_append(p, nullptr, a);
    EXPECT_EQ(qx_properties_find_index(p, nullptr), kNotFound);
    EXPECT_EQ(qx_properties_find_value(p, nullptr), nullptr);
    qx_properties_delete(p);
}

TEST(QxProperties, FindSkipsPairsWithoutAName) {
    qx_properties *p = qx_properties_new();
    char a[] = "a", v[] = "v";
    qx_properties_append(p, nullptr, v);
    qx_properties_append(p, a, v);
    EXPECT_EQ(qx_properties_find_index(p, "a"), 1u);
    qx_properties_delete(p);
}

TEST(QxProperties, FindsTheEmptyName) {
    qx_properties *p = qx_properties_new();
    char empty[] = "", x[] = "x";
    qx_properties_append(p, x, x);
    qx_properties_append(p, empty, x);
    EXPECT_EQ(qx_properties_find_index(p, ""), 1u);
    qx_properties_delete(p);
}

TEST(QxProperties, ReadsNamesAndValuesByIndexInInsertionOrder) {
    qx_properties *p = qx_properties_new();
    char n1[] = "host", v1[] = "mail", n2[] = "port", v2[] = "25";
    qx_properties_append(p, n1, v1);
    qx_properties_append(p, n2, v2);
    EXPECT_EQ(qx_properties_get_name_at(p, 0), n1);
    EXPECT_EQ(qx_properties_get_value_at(p, 0), v1);
    EXPECT_EQ(qx_properties_get_name_at(p, 1), n2);
    EXPECT_EQ(qx_properties_get_value_at(p, 1), v2);
    EXPECT_EQ(qx_properties_is_empty(p), 0);
    EXPECT_EQ(qx_smap_get_count(p->map), 2u);
    qx_properties_delete(p);
}

TEST(QxProperties, IndexAtTheCountGivesNullAndRemovesNothing) {
    for (unsigned owns : {0u, 1u}) {
        qx_properties *p = qx_properties_new_ext(owns);
        qx_properties_append(p, heap_string("n"), heap_string("v"));
        for (uint32_t index : {1u, kLastIndex}) {
            EXPECT_EQ(qx_properties_get_name_at(p, index), nullptr);
            EXPECT_EQ(qx_properties_get_value_at(p, index), nullptr);
            qx_test::free_log frees;
            qx_properties_remove_at(p, index);
            EXPECT_EQ(frees.count(), 0);
            EXPECT_EQ(qx_properties_get_count(p), 1u);
            EXPECT_STREQ(qx_properties_get_name_at(p, 0), "n");
            EXPECT_STREQ(qx_properties_get_value_at(p, 0), "v");
        }
        if (owns == 0) {
            std::free(qx_properties_get_name_at(p, 0));
            std::free(qx_properties_get_value_at(p, 0));
        }
        qx_properties_delete(p);
    }
}

TEST(QxProperties, WithOwnershipDeleteFreesBothStringsOfEachPair) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_properties *p = qx_properties_new_ext(1);
    char *strings[] = {heap_string("name1"), heap_string("value1"), heap_string("name2"),
                       heap_string("value2")};
    qx_properties_append(p, strings[0], strings[1]);
    qx_properties_append(p, strings[2], strings[3]);
    {
        qx_test::free_log frees;
        qx_properties_delete(p);
        for (char *s : strings)
            EXPECT_TRUE(frees.freed(s));
    }
    QX_EXPECT_HEAP_AT(before);
}

TEST(QxProperties, WithoutOwnershipDeleteFreesNoString) {
    char *name = heap_string("name");
    char *value = heap_string("value");
    const std::size_t with_strings = qx_test::heap_bytes_in_use();
    qx_properties *p = qx_properties_new();
    qx_properties_append(p, name, value);
    {
        qx_test::free_log frees;
        qx_properties_delete(p);
        EXPECT_FALSE(frees.freed(name));
        EXPECT_FALSE(frees.freed(value));
    }
    QX_EXPECT_HEAP_AT(with_strings);
    EXPECT_STREQ(name, "name");
    EXPECT_STREQ(value, "value");
    std::free(name);
    std::free(value);
}

TEST(QxProperties, WithOwnershipRemoveAtFreesNameAndValue) {
    qx_properties *p = qx_properties_new_ext(1);
    qx_properties_append(p, heap_string("keep"), heap_string("1"));
    const std::size_t before = qx_test::heap_bytes_in_use();
    char *name = heap_string("drop");
    char *value = heap_string("2");
    qx_properties_append(p, name, value);
    {
        qx_test::free_log frees;
        qx_properties_remove_at(p, 1);
        EXPECT_TRUE(frees.freed(name));
        EXPECT_TRUE(frees.freed(value));
        EXPECT_EQ(frees.count(), 4); // name, value, entry, node
    }
    QX_EXPECT_HEAP_AT(before);
    EXPECT_EQ(names_of(p), (std::vector<std::string>{"keep"}));
    qx_properties_delete(p);
}

TEST(QxProperties, WithOwnershipRemoveAtAcceptsNullStrings) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_properties *p = qx_properties_new_ext(1);
    qx_properties_append(p, heap_string("n"), nullptr);
    qx_properties_append(p, nullptr, heap_string("v"));
    qx_properties_remove_at(p, 0);
    qx_properties_remove_at(p, 0);
    EXPECT_EQ(qx_properties_get_count(p), 0u);
    qx_properties_delete(p);
    QX_EXPECT_HEAP_AT(before);
}

TEST(QxProperties, WithoutOwnershipRemoveAtLeavesTheStrings) {
    char *name = heap_string("n");
    qx_properties *p = qx_properties_new();
    qx_properties_append(p, name, name);
    {
        qx_test::free_log frees;
        qx_properties_remove_at(p, 0);
        EXPECT_FALSE(frees.freed(name));
        EXPECT_EQ(frees.count(), 2); // entry and node
    }
    EXPECT_STREQ(name, "n");
    EXPECT_EQ(qx_properties_is_empty(p), 1);
    std::free(name);
    qx_properties_delete(p);
}

TEST(QxProperties, EmptyRemovesEveryPairReturnsOneAndStaysUsable) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    qx_properties *p = qx_properties_new_ext(1);
    const std::size_t empty_size = qx_test::heap_bytes_in_use();
    char *strings[6];
    for (int i = 0; i < 6; i += 2) {
        strings[i] = heap_string("name");
        strings[i + 1] = heap_string("value");
        qx_properties_append(p, strings[i], strings[i + 1]);
    }
    {
        qx_test::free_log frees;
        EXPECT_EQ(qx_properties_empty(p), 1);
        for (char *s : strings)
            EXPECT_TRUE(frees.freed(s));
        EXPECT_EQ(frees.count(), 12); // six strings, three entries, three nodes
    }
    QX_EXPECT_HEAP_AT(empty_size);
    EXPECT_EQ(qx_properties_get_count(p), 0u);
    qx_properties_append(p, heap_string("d"), heap_string("4"));
    EXPECT_STREQ(qx_properties_find_value(p, "d"), "4");
    qx_properties_delete(p);
    QX_EXPECT_HEAP_AT(before);
}

TEST(QxProperties, AppendThatFailsWithOwnershipFreesTheHandedOverStrings) {
    for (long n : {0L, 1L}) {
        qx_properties *p = qx_properties_new_ext(1);
        const std::size_t before = qx_test::heap_bytes_in_use();
        char *name = heap_string("n");
        char *value = heap_string("v");
        qx_test::free_log frees;
        qx_test::call_with_failing_allocation(n, [&] { qx_properties_append(p, name, value); });
        EXPECT_TRUE(qx_test::allocation_was_failed());
        EXPECT_EQ(qx_properties_get_count(p), 0u);
        EXPECT_TRUE(frees.freed(name)) << n;
        EXPECT_TRUE(frees.freed(value)) << n;
        QX_EXPECT_HEAP_AT(before);
        qx_properties_delete(p);
    }
}

TEST(QxProperties, AppendThatFailsWithoutOwnershipLeavesTheStringsAlone) {
    qx_properties *p = qx_properties_new();
    char name[] = "n";
    qx_test::free_log frees;
    qx_test::call_with_failing_allocation(0, [&] { qx_properties_append(p, name, name); });
    EXPECT_EQ(frees.count(), 0);
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_properties_get_count(p), 0u);
    EXPECT_STREQ(name, "n");
    qx_properties_delete(p);
}

TEST(QxProperties, DeleteOfNullDoesNothing) {
    qx_properties_delete(nullptr);
}

TEST(QxContainers, OnEmptyObjectsIndexZeroAndTheLastIndexGiveNullAndRemoveNothing) {
    qx_slist *list = qx_slist_new();
    qx_smap *map = qx_smap_new();
    qx_properties *p = qx_properties_new_ext(1);
    ASSERT_NE(list, nullptr);
    ASSERT_NE(map, nullptr);
    ASSERT_NE(p, nullptr);
    for (uint32_t index : {0u, kLastIndex}) {
        qx_test::free_log frees;
        EXPECT_EQ(qx_slist_get_at(list, index), nullptr);
        EXPECT_EQ(qx_slist_remove_at(list, index), nullptr);
        EXPECT_EQ(qx_smap_get_key_at(map, index), nullptr);
        EXPECT_EQ(qx_smap_get_value_at(map, index), nullptr);
        qx_smap_remove_at(map, index);
        EXPECT_EQ(qx_properties_get_name_at(p, index), nullptr);
        EXPECT_EQ(qx_properties_get_value_at(p, index), nullptr);
        qx_properties_remove_at(p, index);
        EXPECT_EQ(frees.count(), 0) << index;
    }
    EXPECT_EQ(qx_slist_get_count(list), 0u);
    EXPECT_EQ(qx_smap_get_count(map), 0u);
    EXPECT_EQ(qx_properties_get_count(p), 0u);
    EXPECT_EQ(llist_nodecount(list->list), 0u);
    qx_slist_delete(list);
    qx_smap_delete(map);
    qx_properties_delete(p);
}

TEST(QxContainers, EmptyingAnEmptyObjectReturnsOneAndFreesNothing) {
    qx_slist *list = qx_slist_new();
    qx_smap *map = qx_smap_new();
    qx_properties *p = qx_properties_new_ext(1);
    {
        qx_test::free_log frees;
        EXPECT_EQ(qx_slist_empty(list), 1);
        EXPECT_EQ(qx_smap_empty(map), 1);
        EXPECT_EQ(qx_properties_empty(p), 1);
        EXPECT_EQ(frees.count(), 0);
    }
    qx_slist_delete(list);
    qx_smap_delete(map);
    qx_properties_delete(p);
}
