#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "qxcommon-util/llist.h"
#include "support/alloc_fail.hpp"

namespace {

// A caller's record: the link first, then its own data.
struct item {
    llist_node link;
    int value;
};

item *as_item(llist_node *node) {
    return reinterpret_cast<item *>(node);
}

item *new_item(int value) {
    auto *it = static_cast<item *>(std::malloc(sizeof(item)));
    it->link.prev = nullptr;
    it->link.next = nullptr;
    it->value = value;
    return it;
}

void free_item(llist_node *node) {
    std::free(node);
}

// The values from first to last, walking forwards.
std::vector<int> values(const llist *list) {
    std::vector<int> out;
    for (llist_node *n = llist_getfirst(list); n != nullptr; n = llist_getnext(list, n))
        out.push_back(as_item(n)->value);
    return out;
}

// The values from last to first, walking backwards.
std::vector<int> values_backwards(const llist *list) {
    std::vector<int> out;
    for (llist_node *n = llist_getlast(list); n != nullptr; n = llist_getprev(list, n))
        out.push_back(as_item(n)->value);
    return out;
}

void expect_empty_record(const llist *list) {
    EXPECT_EQ(list->head, &list->head_sentinel);
    EXPECT_EQ(list->tail, &list->tail_sentinel);
    EXPECT_EQ(list->head_sentinel.prev, nullptr);
    EXPECT_EQ(list->head_sentinel.next, &list->tail_sentinel);
    EXPECT_EQ(list->tail_sentinel.prev, &list->head_sentinel);
    EXPECT_EQ(list->tail_sentinel.next, nullptr);
    EXPECT_EQ(list->count, 0u);
}

// A list that owns malloc'ed items and releases them at the end of a test.
class owned_list {
  public:
    owned_list() : list_(llist_create()) {}
    explicit owned_list(std::initializer_list<int> init) : owned_list() {
        for (int v : init)
            llist_append(list_, &new_item(v)->link);
    }
    ~owned_list() { llist_delete_all(list_, free_item); }
    owned_list(const owned_list &) = delete;
    owned_list &operator=(const owned_list &) = delete;
    llist *get() const { return list_; }

  private:
    llist *list_;
};

} // namespace

TEST(LlistCreate, GivesAnEmptyRecordWhoseSentinelsPointAtEachOther) {
    llist *list = llist_create();
    ASSERT_NE(list, nullptr);
    expect_empty_record(list);
    EXPECT_EQ(llist_nodecount(list), 0u);
    EXPECT_EQ(llist_getfirst(list), nullptr);
    EXPECT_EQ(llist_getlast(list), nullptr);
    llist_delete(list);
}

TEST(LlistCreate, ReturnsNullWhenTheAllocationFails) {
    llist *list = qx_test::call_with_failing_allocation(0, [] { return llist_create(); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(list, nullptr);
}

TEST(LlistCreate, SweptThroughItsAllocationsGivesNullOrAnEmptyRecord) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        llist *list = qx_test::call_with_failing_allocation(n, [] { return llist_create(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(list, nullptr);
            return;
        }
        ASSERT_NE(list, nullptr);
        expect_empty_record(list);
        llist_delete(list);
    });
    EXPECT_EQ(allocations, 1);
}

TEST(LlistReset, EmptiesTheRecordWithoutTouchingTheNodes) {
    llist list;
    EXPECT_EQ(llist_reset(&list), &list);
    item a{{nullptr, nullptr}, 1};
    item b{{nullptr, nullptr}, 2};
    llist_append(&list, &a.link);
    llist_append(&list, &b.link);
    EXPECT_EQ(llist_reset(&list), &list);
    expect_empty_record(&list);
    // The nodes still point where they pointed.
    EXPECT_EQ(a.link.prev, &list.head_sentinel);
    EXPECT_EQ(a.link.next, &b.link);
    EXPECT_EQ(b.link.prev, &a.link);
    EXPECT_EQ(b.link.next, &list.tail_sentinel);
}

TEST(LlistDelete, FreesTheRecordButLeavesTheNodesAlone) {
    llist *list = llist_create();
    item a{{nullptr, nullptr}, 7};
    llist_append(list, &a.link);
    llist_delete(list); // a lives on the stack; freeing it would crash here
    EXPECT_EQ(a.value, 7);
}

TEST(LlistAppend, LinksTheNodeLastBetweenTheSentinels) {
    owned_list l;
    llist *list = l.get();
    item *a = new_item(1);
    llist_append(list, &a->link);
    EXPECT_EQ(list->count, 1u);
    EXPECT_EQ(a->link.prev, &list->head_sentinel);
    EXPECT_EQ(a->link.next, &list->tail_sentinel);
    EXPECT_EQ(list->head_sentinel.next, &a->link);
    EXPECT_EQ(list->tail_sentinel.prev, &a->link);
    item *b = new_item(2);
    llist_append(list, &b->link);
    EXPECT_EQ(list->count, 2u);
    EXPECT_EQ(llist_getlast(list), &b->link);
    EXPECT_EQ(values(list), (std::vector<int>{1, 2}));
    EXPECT_EQ(values_backwards(list), (std::vector<int>{2, 1}));
}

TEST(LlistPrepend, LinksTheNodeFirst) {
    owned_list l;
    llist *list = l.get();
    for (int v : {1, 2, 3})
        llist_prepend(list, &new_item(v)->link);
    EXPECT_EQ(llist_nodecount(list), 3u);
    EXPECT_EQ(values(list), (std::vector<int>{3, 2, 1}));
    EXPECT_EQ(values_backwards(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(list->head_sentinel.prev, nullptr);
    EXPECT_EQ(list->tail_sentinel.next, nullptr);
}

TEST(LlistInsertAfter, LinksDirectlyAfterTheGivenNode) {
    owned_list l{1, 3};
    llist *list = l.get();
    llist_insert_after(list, llist_getfirst(list), &new_item(2)->link);
    llist_insert_after(list, llist_getlast(list), &new_item(4)->link);
    EXPECT_EQ(llist_nodecount(list), 4u);
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(values_backwards(list), (std::vector<int>{4, 3, 2, 1}));
}

TEST(LlistInsertBefore, LinksDirectlyBeforeTheGivenNode) {
    owned_list l{2, 4};
    llist *list = l.get();
    llist_insert_before(list, llist_getfirst(list), &new_item(1)->link);
    llist_insert_before(list, llist_getlast(list), &new_item(3)->link);
    EXPECT_EQ(llist_nodecount(list), 4u);
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(values_backwards(list), (std::vector<int>{4, 3, 2, 1}));
}

TEST(LlistGetnext, OfNullOnAnEmptyListIsNull) {
    owned_list l;
    EXPECT_EQ(llist_getnext(l.get(), nullptr), nullptr);
    EXPECT_EQ(llist_getprev(l.get(), nullptr), nullptr);
}

TEST(LlistGetnext, OfNullIsTheFirstNodeAndAfterTheLastIsNull) {
    owned_list l{1, 2, 3};
    llist *list = l.get();
    llist_node *first = llist_getnext(list, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, llist_getfirst(list));
    EXPECT_EQ(as_item(first)->value, 1);
    EXPECT_EQ(llist_getnext(list, llist_getlast(list)), nullptr);
}

TEST(LlistGetprev, OfNullIsTheLastNodeAndBeforeTheFirstIsNull) {
    owned_list l{1, 2, 3};
    llist *list = l.get();
    llist_node *last = llist_getprev(list, nullptr);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(as_item(last)->value, 3);
    EXPECT_EQ(llist_getprev(list, llist_getfirst(list)), nullptr);
}

TEST(LlistRemove, OfTheLastNodeReturnsNull) {
    owned_list l{1, 2};
    llist *list = l.get();
    llist_node *last = llist_getlast(list);
    EXPECT_EQ(llist_remove(list, last), nullptr);
    EXPECT_EQ(llist_nodecount(list), 1u);
    EXPECT_EQ(values(list), (std::vector<int>{1}));
    EXPECT_EQ(list->tail_sentinel.prev, llist_getfirst(list));
    free_item(last);
}

TEST(LlistRemove, OfAnyOtherNodeReturnsItsSuccessor) {
    owned_list l{1, 2, 3};
    llist *list = l.get();
    llist_node *first = llist_getfirst(list);
    llist_node *second = llist_getnext(list, first);
    llist_node *third = llist_getnext(list, second);
    EXPECT_EQ(llist_remove(list, second), third);
    EXPECT_EQ(values(list), (std::vector<int>{1, 3}));
    EXPECT_EQ(values_backwards(list), (std::vector<int>{3, 1}));
    EXPECT_EQ(llist_nodecount(list), 2u);
    free_item(second);
    EXPECT_EQ(llist_remove(list, first), third);
    free_item(first);
    EXPECT_EQ(values(list), (std::vector<int>{3}));
}

TEST(LlistRemove, LeavesTheRemovedNodesOwnLinksAsTheyWere) {
    owned_list l{1, 2, 3};
    llist *list = l.get();
    llist_node *first = llist_getfirst(list);
    llist_node *second = llist_get_at(list, 1);
    llist_node *third = llist_get_at(list, 2);
    llist_remove(list, second);
    EXPECT_EQ(second->prev, first);
    EXPECT_EQ(second->next, third);
    free_item(second);
}

TEST(LlistRemove, OfTheOnlyNodeLeavesAnEmptyRecord) {
    owned_list l{5};
    llist *list = l.get();
    llist_node *only = llist_getfirst(list);
    EXPECT_EQ(llist_remove(list, only), nullptr);
    expect_empty_record(list);
    free_item(only);
}

TEST(LlistRemoveFirst, OnAnEmptyListReturnsNullAndKeepsTheCountAtZero) {
    owned_list l;
    EXPECT_EQ(llist_remove_first(l.get()), nullptr);
    EXPECT_EQ(llist_nodecount(l.get()), 0u);
    expect_empty_record(l.get());
}

TEST(LlistRemoveLast, OnAnEmptyListReturnsNullAndKeepsTheCountAtZero) {
    owned_list l;
    EXPECT_EQ(llist_remove_last(l.get()), nullptr);
    EXPECT_EQ(llist_nodecount(l.get()), 0u);
    expect_empty_record(l.get());
}

TEST(LlistRemoveFirst, UnlinksAndReturnsTheFirstNode) {
    owned_list l{1, 2, 3};
    llist_node *node = llist_remove_first(l.get());
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(as_item(node)->value, 1);
    EXPECT_EQ(llist_nodecount(l.get()), 2u);
    EXPECT_EQ(values(l.get()), (std::vector<int>{2, 3}));
    free_item(node);
}

TEST(LlistRemoveLast, UnlinksAndReturnsTheLastNode) {
    owned_list l{1, 2, 3};
    llist_node *node = llist_remove_last(l.get());
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(as_item(node)->value, 3);
    EXPECT_EQ(llist_nodecount(l.get()), 2u);
    EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{2, 1}));
    free_item(node);
}

TEST(LlistGetAt, WalksFromTheFirstNode) {
    owned_list l{10, 20, 30};
    for (uint32_t i = 0; i < 3; ++i) {
        llist_node *node = llist_get_at(l.get(), i);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(as_item(node)->value, static_cast<int>(10 * (i + 1)));
    }
}

TEST(LlistGetAt, AtTheCountOrBeyondReturnsNull) {
    owned_list l{10, 20, 30};
    EXPECT_EQ(llist_get_at(l.get(), 3), nullptr);
    EXPECT_EQ(llist_get_at(l.get(), 0xFFFFFFFFu), nullptr);
    owned_list empty;
    EXPECT_EQ(llist_get_at(empty.get(), 0), nullptr);
}

TEST(LlistRemoveAt, RemovesAndReturnsTheNodeAtTheIndex) {
    owned_list l{10, 20, 30};
    llist_node *node = llist_remove_at(l.get(), 1);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(as_item(node)->value, 20);
    EXPECT_EQ(values(l.get()), (std::vector<int>{10, 30}));
    EXPECT_EQ(llist_nodecount(l.get()), 2u);
    free_item(node);
}

TEST(LlistRemoveAt, OutOfRangeReturnsNullAndChangesNothing) {
    owned_list l{10, 20};
    EXPECT_EQ(llist_remove_at(l.get(), 2), nullptr);
    EXPECT_EQ(llist_remove_at(l.get(), 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(llist_nodecount(l.get()), 2u);
    EXPECT_EQ(values(l.get()), (std::vector<int>{10, 20}));
}

namespace {

struct visit_log {
    std::vector<int> seen;
    int stop_at = -1; // value on which the visitor returns 0
};

int logging_visitor(llist_node *node, void *arg) {
    auto *log = static_cast<visit_log *>(arg);
    log->seen.push_back(as_item(node)->value);
    return as_item(node)->value == log->stop_at ? 0 : 1;
}

} // namespace

TEST(LlistForeach, StoppingOnTheThirdNodeReturnsItAndSkipsTheFourth) {
    owned_list l{1, 2, 3, 4, 5};
    visit_log log;
    log.stop_at = 3;
    llist_node *stopped = llist_foreach(l.get(), logging_visitor, &log);
    EXPECT_EQ(stopped, llist_get_at(l.get(), 2));
    EXPECT_EQ(log.seen, (std::vector<int>{1, 2, 3}));
}

TEST(LlistForeach, VisitsEveryNodeInOrderAndReturnsNullWhenNeverStopped) {
    owned_list l{1, 2, 3};
    visit_log log;
    EXPECT_EQ(llist_foreach(l.get(), logging_visitor, &log), nullptr);
    EXPECT_EQ(log.seen, (std::vector<int>{1, 2, 3}));
}

TEST(LlistForeach, OnAnEmptyListCallsNothingAndReturnsNull) {
    owned_list l;
    visit_log log;
    EXPECT_EQ(llist_foreach(l.get(), logging_visitor, &log), nullptr);
    EXPECT_TRUE(log.seen.empty());
}

namespace {

struct unlinking_visit {
    llist *list;
    std::vector<int> seen;
};

// Removes the odd values from the list and frees them while being walked.
int unlink_odd_values(llist_node *node, void *arg) {
    auto *visit = static_cast<unlinking_visit *>(arg);
    visit->seen.push_back(as_item(node)->value);
    if (as_item(node)->value % 2 != 0) {
        llist_remove(visit->list, node);
        free_item(node);
    }
    return 1;
}

} // namespace

TEST(LlistForeach, LetsTheVisitorUnlinkAndFreeTheNodeItIsGiven) {
    owned_list l{1, 2, 3, 4, 5};
    unlinking_visit visit{l.get(), {}};
    EXPECT_EQ(llist_foreach(l.get(), unlink_odd_values, &visit), nullptr);
    EXPECT_EQ(visit.seen, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(values(l.get()), (std::vector<int>{2, 4}));
    EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{4, 2}));
    EXPECT_EQ(llist_nodecount(l.get()), 2u);
}

namespace {

std::vector<int> freed_values;

void record_and_free(llist_node *node) {
    freed_values.push_back(as_item(node)->value);
    free_item(node);
}

llist *list_being_freed;

void unlink_record_and_free(llist_node *node) {
    freed_values.push_back(as_item(node)->value);
    llist_remove(list_being_freed, node);
    free_item(node);
}

void must_not_be_called(llist_node *) {
    ADD_FAILURE() << "free function called";
}

} // namespace

TEST(LlistFree, PassesEveryNodeFirstToLastAndLeavesTheRecordEmpty) {
    llist *list = llist_create();
    for (int v : {1, 2, 3})
        llist_append(list, &new_item(v)->link);
    freed_values.clear();
    llist_free(list, record_and_free);
    EXPECT_EQ(freed_values, (std::vector<int>{1, 2, 3}));
    expect_empty_record(list);
    llist_delete(list);
}

TEST(LlistFree, LetsTheFreeFunctionUnlinkTheNodeItIsGiven) {
    llist *list = llist_create();
    for (int v : {1, 2, 3, 4})
        llist_append(list, &new_item(v)->link);
    freed_values.clear();
    list_being_freed = list;
    llist_free(list, unlink_record_and_free);
    EXPECT_EQ(freed_values, (std::vector<int>{1, 2, 3, 4}));
    expect_empty_record(list);
    llist_delete(list);
}

namespace {

struct seen_while_freeing {
    int value;
    uint32_t count;
    bool first_is_the_node;
    bool head_skips_the_node;
};

std::vector<seen_while_freeing> free_views;

// Looks at the list from inside the free function before freeing the node.
void inspect_and_free(llist_node *node) {
    llist_node *first = llist_getfirst(list_being_freed);
    free_views.push_back({as_item(node)->value, llist_nodecount(list_being_freed), first == node,
                          list_being_freed->head_sentinel.next != node});
    free_item(node);
}

} // namespace

TEST(LlistFree, UnlinksEachNodeBeforePassingItOn) {
    llist *list = llist_create();
    for (int v : {1, 2, 3})
        llist_append(list, &new_item(v)->link);
    free_views.clear();
    list_being_freed = list;
    llist_free(list, inspect_and_free);
    ASSERT_EQ(free_views.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(free_views[i].value, static_cast<int>(i + 1));
        EXPECT_EQ(free_views[i].count, 2 - i) << "nodes still linked while freeing " << i + 1;
        EXPECT_FALSE(free_views[i].first_is_the_node);
        EXPECT_TRUE(free_views[i].head_skips_the_node);
    }
    expect_empty_record(list);
    llist_delete(list);
}

TEST(LlistFree, KeepsTheCountRightWhenTheFreeFunctionUnlinksAgain) {
    llist *list = llist_create();
    for (int v : {1, 2, 3})
        llist_append(list, &new_item(v)->link);
    freed_values.clear();
    list_being_freed = list;
    llist_free(list, unlink_record_and_free);
    EXPECT_EQ(freed_values, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(llist_nodecount(list), 0u);
    // The record is usable at once.
    item *again = new_item(9);
    llist_append(list, &again->link);
    EXPECT_EQ(values(list), (std::vector<int>{9}));
    EXPECT_EQ(llist_nodecount(list), 1u);
    llist_delete_all(list, free_item);
}

TEST(LlistFree, OfAnEmptyListCallsNothing) {
    llist *list = llist_create();
    llist_free(list, must_not_be_called);
    expect_empty_record(list);
    llist_delete(list);
}

TEST(LlistFree, WithoutAFreeFunctionOnlyEmptiesTheRecord) {
    llist list;
    llist_reset(&list);
    item a{{nullptr, nullptr}, 1};
    item b{{nullptr, nullptr}, 2};
    llist_append(&list, &a.link);
    llist_append(&list, &b.link);
    llist_free(&list, nullptr);
    expect_empty_record(&list);
    EXPECT_EQ(a.value, 1);
    EXPECT_EQ(b.value, 2);
}

TEST(LlistDeleteAll, OfNullFreesNothingAndDoesNotCallTheFreeFunction) {
    llist_delete_all(nullptr, must_not_be_called);
}

TEST(LlistDeleteAll, FreesEveryNodeAndTheRecord) {
    llist *list = llist_create();
    for (int v : {4, 5, 6})
        llist_append(list, &new_item(v)->link);
    freed_values.clear();
    llist_delete_all(list, record_and_free); // LeakSanitizer checks the rest
    EXPECT_EQ(freed_values, (std::vector<int>{4, 5, 6}));
}

TEST(LlistDeleteAll, AcceptsAFreeFunctionThatUnlinksTheNode) {
    llist *list = llist_create();
    for (int v : {7, 8})
        llist_append(list, &new_item(v)->link);
    freed_values.clear();
    list_being_freed = list;
    llist_delete_all(list, unlink_record_and_free);
    EXPECT_EQ(freed_values, (std::vector<int>{7, 8}));
}

namespace {

struct compare_log {
    int calls = 0;
    bool descending = false;
};

// A qsort_r comparator: it is handed pointers to the vector's slots.
int compare_slots(const void *a, const void *b, void *arg) {
    auto *log = static_cast<compare_log *>(arg);
    ++log->calls;
    const llist_node *na = *static_cast<llist_node *const *>(a);
    const llist_node *nb = *static_cast<llist_node *const *>(b);
    const int va = reinterpret_cast<const item *>(na)->value;
    const int vb = reinterpret_cast<const item *>(nb)->value;
    const int order = (va > vb) - (va < vb);
    return log->descending ? -order : order;
}

} // namespace

TEST(LlistSort, OrdersTheNodesWithAComparatorOnVectorSlots) {
    owned_list l{5, 3, 9, 1, 7};
    compare_log log;
    llist_sort(l.get(), compare_slots, &log);
    EXPECT_GT(log.calls, 0);
    EXPECT_EQ(values(l.get()), (std::vector<int>{1, 3, 5, 7, 9}));
    EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{9, 7, 5, 3, 1}));
    EXPECT_EQ(llist_nodecount(l.get()), 5u);
}

TEST(LlistSort, PassesTheCallersArgumentToTheComparator) {
    owned_list l{2, 8, 4};
    compare_log log;
    log.descending = true;
    llist_sort(l.get(), compare_slots, &log);
    EXPECT_EQ(values(l.get()), (std::vector<int>{8, 4, 2}));
}

TEST(LlistSort, KeepsTheSameNodesRelinked) {
    owned_list l{3, 1, 2};
    llist_node *three = llist_get_at(l.get(), 0);
    llist_node *one = llist_get_at(l.get(), 1);
    llist_node *two = llist_get_at(l.get(), 2);
    compare_log log;
    llist_sort(l.get(), compare_slots, &log);
    EXPECT_EQ(llist_get_at(l.get(), 0), one);
    EXPECT_EQ(llist_get_at(l.get(), 1), two);
    EXPECT_EQ(llist_get_at(l.get(), 2), three);
    EXPECT_EQ(one->prev, &l.get()->head_sentinel);
    EXPECT_EQ(three->next, &l.get()->tail_sentinel);
}

TEST(LlistSort, OfOneNodeLeavesItAsItIs) {
    owned_list l{42};
    llist_node *only = llist_getfirst(l.get());
    compare_log log;
    llist_sort(l.get(), compare_slots, &log);
    EXPECT_EQ(llist_getfirst(l.get()), only);
    EXPECT_EQ(llist_getlast(l.get()), only);
    EXPECT_EQ(llist_nodecount(l.get()), 1u);
    EXPECT_EQ(only->prev, &l.get()->head_sentinel);
    EXPECT_EQ(only->next, &l.get()->tail_sentinel);
}

TEST(LlistSort, OfAnEmptyListAllocatesNothingAndCallsNothing) {
    owned_list l;
    compare_log log;
    qx_test::call_with_failing_allocation(0, [&] { llist_sort(l.get(), compare_slots, &log); });
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(log.calls, 0);
    expect_empty_record(l.get());
}

TEST(LlistSort, LeavesTheListUnchangedWhenTheVectorCannotBeAllocated) {
    owned_list l{5, 3, 9};
    compare_log log;
    qx_test::call_with_failing_allocation(0, [&] { llist_sort(l.get(), compare_slots, &log); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(log.calls, 0);
    EXPECT_EQ(values(l.get()), (std::vector<int>{5, 3, 9}));
    EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{9, 3, 5}));
    EXPECT_EQ(llist_nodecount(l.get()), 3u);
}

TEST(LlistSort, SweptThroughItsAllocationsEitherSortsOrLeavesTheListAlone) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_list l{5, 3, 9, 1};
        compare_log log;
        qx_test::call_with_failing_allocation(n, [&] { llist_sort(l.get(), compare_slots, &log); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(log.calls, 0);
            EXPECT_EQ(values(l.get()), (std::vector<int>{5, 3, 9, 1}));
            EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{1, 9, 3, 5}));
        } else {
            EXPECT_EQ(values(l.get()), (std::vector<int>{1, 3, 5, 9}));
            EXPECT_EQ(values_backwards(l.get()), (std::vector<int>{9, 5, 3, 1}));
        }
        EXPECT_EQ(llist_nodecount(l.get()), 4u);
    });
    EXPECT_EQ(allocations, 1); // the vector of node pointers
}

TEST(LlistSort, AgreesWithStdSortOnRandomLists) {
    std::mt19937 rng(20261121);
    for (int round = 0; round < 50; ++round) {
        const int n = std::uniform_int_distribution<int>(1, 300)(rng);
        owned_list l;
        std::vector<int> expected;
        for (int i = 0; i < n; ++i) {
            const int v = std::uniform_int_distribution<int>(-1000, 1000)(rng);
            expected.push_back(v);
            llist_append(l.get(), &new_item(v)->link);
        }
        compare_log log;
        llist_sort(l.get(), compare_slots, &log);
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(values(l.get()), expected);
        std::reverse(expected.begin(), expected.end());
        ASSERT_EQ(values_backwards(l.get()), expected);
        ASSERT_EQ(llist_nodecount(l.get()), static_cast<uint32_t>(n));
    }
}
