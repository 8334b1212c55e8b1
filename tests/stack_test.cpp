#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <vector>

#include "qxcommon-util/stack.h"
#include "support/alloc_fail.hpp"

namespace {

// Frees a stack at the end of a test whatever it holds.
struct stack_guard {
    qx_stack *stack;
    ~stack_guard() { qx_stack_free(stack); }
};

int item_value(void *item) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(item));
}
void *value_item(int v) {
    return reinterpret_cast<void *>(static_cast<std::intptr_t>(v));
}

std::vector<int> item_values(const qx_stack &s) {
    std::vector<int> out;
    for (std::size_t i = 0; i < s.count; ++i)
        out.push_back(item_value(s.items[i]));
    return out;
}

} // namespace

TEST(QxStackPush, FirstPushIntoAZeroRecordAllocatesElevenSlots) {
    qx_stack s{};
    stack_guard g{&s};
    int a = 1;
    EXPECT_EQ(qx_stack_push(&s, &a), &a);
    EXPECT_EQ(s.count, 1u);
    EXPECT_EQ(s.capacity, 10u);
    ASSERT_NE(s.items, nullptr);
    EXPECT_EQ(s.items[0], &a);
    EXPECT_EQ(s.items[1], nullptr);
}

TEST(QxStackPush, FirstPushMakesOneAllocationOfElevenPointers) {
    qx_stack s{};
    stack_guard g{&s};
    qx_test::call_with_failing_allocation(1, [&] { return qx_stack_push(&s, &s); });
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_test::allocations_seen(), 1);
    // 11 * 8 bytes is an exact fit for the C library's chunks and for ASan.
    EXPECT_EQ(malloc_usable_size(s.items), 11 * sizeof(void *));
}

TEST(QxStackPush, TheEleventhPushGrowsToTwentyOneSlots) {
    qx_stack s{};
    stack_guard g{&s};
    for (int i = 1; i <= 10; ++i)
        ASSERT_EQ(qx_stack_push(&s, value_item(i)), value_item(i));
    EXPECT_EQ(s.capacity, 10u);
    EXPECT_EQ(s.count, 10u);
    EXPECT_EQ(s.items[10], nullptr);
    EXPECT_EQ(qx_stack_push(&s, value_item(11)), value_item(11));
    EXPECT_EQ(s.capacity, 20u);
    EXPECT_EQ(s.count, 11u);
    EXPECT_EQ(s.items[11], nullptr);
    EXPECT_EQ(malloc_usable_size(s.items), 21 * sizeof(void *));
    // All 21 slots are usable: fill them up to the terminator.
    for (int i = 12; i <= 20; ++i)
        qx_stack_push(&s, value_item(i));
    EXPECT_EQ(s.capacity, 20u);
    EXPECT_EQ(s.items[20], nullptr);
    std::vector<int> expected;
    for (int i = 1; i <= 20; ++i)
        expected.push_back(i);
    EXPECT_EQ(item_values(s), expected);
}

TEST(QxStackPush, GrowsTenSlotsAtATimeNeverDoubling) {
    qx_stack s{};
    stack_guard g{&s};
    for (int i = 1; i <= 95; ++i) {
        qx_stack_push(&s, value_item(i));
        EXPECT_EQ(s.capacity, static_cast<std::size_t>((i + 9) / 10 * 10));
        EXPECT_EQ(s.items[s.count], nullptr);
    }
}

TEST(QxStackPush, LeavesTheStackUnchangedWhenGrowthFails) {
    qx_stack s{};
    stack_guard g{&s};
    for (int i = 1; i <= 10; ++i)
        qx_stack_push(&s, value_item(i));
    void **items_before = s.items;
    void *r =
        qx_test::call_with_failing_allocation(0, [&] { return qx_stack_push(&s, value_item(99)); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(s.count, 10u);
    EXPECT_EQ(s.capacity, 10u);
    EXPECT_EQ(s.items, items_before);
    EXPECT_EQ(s.items[10], nullptr);
    EXPECT_EQ(item_values(s), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

TEST(QxStackPush, FailsWithoutAllocatingWhenTheNewSizeCannotBeComputed) {
    void *slot[1] = {nullptr};
    for (std::size_t capacity :
         {SIZE_MAX, SIZE_MAX - 10, SIZE_MAX - 11, SIZE_MAX / sizeof(void *)}) {
        qx_stack s{capacity, capacity, slot, nullptr};
        void *r = qx_test::call_with_failing_allocation(0, [&] { return qx_stack_push(&s, slot); });
        EXPECT_FALSE(qx_test::allocation_was_failed()) << capacity;
        EXPECT_EQ(r, nullptr) << capacity;
        EXPECT_EQ(s.count, capacity);
        EXPECT_EQ(s.capacity, capacity);
        EXPECT_EQ(s.items, slot);
    }
}

TEST(QxStackPush, OfANullItemStoresItAndReturnsNullLikeAFailure) {
    qx_stack s{};
    stack_guard g{&s};
    EXPECT_EQ(qx_stack_push(&s, nullptr), nullptr);
    EXPECT_EQ(s.count, 1u);
    EXPECT_EQ(s.capacity, 10u);
    EXPECT_EQ(s.items[0], nullptr);
    EXPECT_EQ(s.items[1], nullptr);
}

TEST(QxStackPop, OnAnEmptyStackReturnsNull) {
    qx_stack s{};
    EXPECT_EQ(qx_stack_pop(&s), nullptr);
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.items, nullptr);
}

TEST(QxStackPop, ReturnsItemsLastInFirstOutThenNull) {
    qx_stack s{};
    stack_guard g{&s};
    int a = 0, b = 0;
    qx_stack_push(&s, &a);
    qx_stack_push(&s, &b);
    EXPECT_EQ(qx_stack_pop(&s), &b);
    EXPECT_EQ(s.count, 1u);
    EXPECT_EQ(s.items[1], nullptr);
    EXPECT_EQ(qx_stack_pop(&s), &a);
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.items[0], nullptr);
    EXPECT_EQ(qx_stack_pop(&s), nullptr);
    EXPECT_EQ(s.capacity, 10u); // popping never shrinks
}

namespace {

int compare_int_item(const void *item, const void *key) {
    return item_value(const_cast<void *>(item)) == *static_cast<const int *>(key) ? 0 : 1;
}

} // namespace

TEST(QxStackFind, ReturnsTheFirstMatchFromTheBottom) {
    qx_stack s{};
    stack_guard g{&s};
    for (int v : {5, 6, 7})
        qx_stack_push(&s, value_item(v));
    int key = 6;
    EXPECT_EQ(qx_stack_find(&s, compare_int_item, &key), value_item(6));
    key = 8;
    EXPECT_EQ(qx_stack_find(&s, compare_int_item, &key), nullptr);
}

TEST(QxStackFind, OnAnEmptyStackReturnsNull) {
    qx_stack s{};
    int key = 0;
    EXPECT_EQ(qx_stack_find(&s, compare_int_item, &key), nullptr);
    EXPECT_EQ(qx_stack_find_string(&s, "x"), nullptr);
}

TEST(QxStackFindString, ReturnsTheBottomMostEqualString) {
    qx_stack s{};
    stack_guard g{&s};
    char first[] = "same";
    char other[] = "other";
    char second[] = "same";
    qx_stack_push(&s, other);
    qx_stack_push(&s, first);
    qx_stack_push(&s, second);
    EXPECT_EQ(qx_stack_find_string(&s, "same"), first);
    EXPECT_EQ(qx_stack_find_string(&s, "other"), other);
    EXPECT_EQ(qx_stack_find_string(&s, "Same"), nullptr);
    EXPECT_EQ(qx_stack_find_string(&s, "sam"), nullptr);
}

namespace {

struct sort_log {
    int calls = 0;
    bool descending = false;
};

// qsort_r comparator: receives pointers to the item slots.
int compare_slots(const void *a, const void *b, void *arg) {
    auto *log = static_cast<sort_log *>(arg);
    ++log->calls;
    const char *sa = *static_cast<char *const *>(a);
    const char *sb = *static_cast<char *const *>(b);
    const int order = std::strcmp(sa, sb);
    return log->descending ? -order : order;
}

} // namespace

TEST(QxStackSort, SortsTheItemsInPlaceWithSlotPointers) {
    qx_stack s{};
    stack_guard g{&s};
    char pear[] = "pear", apple[] = "apple", fig[] = "fig", kiwi[] = "kiwi";
    for (char *f : {pear, apple, fig, kiwi})
        qx_stack_push(&s, f);
    void **items_before = s.items;
    sort_log log;
    qx_stack_sort(&s, compare_slots, &log);
    EXPECT_GT(log.calls, 0);
    EXPECT_EQ(s.items, items_before);
    EXPECT_EQ(s.count, 4u);
    EXPECT_EQ(s.items[0], apple);
    EXPECT_EQ(s.items[1], fig);
    EXPECT_EQ(s.items[2], kiwi);
    EXPECT_EQ(s.items[3], pear);
    EXPECT_EQ(s.items[4], nullptr);
    log.descending = true;
    qx_stack_sort(&s, compare_slots, &log);
    EXPECT_EQ(s.items[0], pear);
    EXPECT_EQ(s.items[3], apple);
    EXPECT_EQ(s.items[4], nullptr);
}

TEST(QxStackSort, DoesNothingWhenEmpty) {
    qx_stack s{};
    sort_log log;
    qx_stack_sort(&s, compare_slots, &log);
    EXPECT_EQ(log.calls, 0);
    EXPECT_EQ(s.items, nullptr);
}

namespace {

struct visit_log {
    std::vector<int> seen;
    int answer = 1;
};

int visitor(void *item, void *arg) {
    auto *log = static_cast<visit_log *>(arg);
    log->seen.push_back(item_value(item));
    return log->answer;
}

} // namespace

TEST(QxStackForeach, AVisitorReturningTwoStopsAfterTheFirstItemWithTwo) {
    qx_stack s{};
    stack_guard g{&s};
    for (int v : {1, 2, 3})
        qx_stack_push(&s, value_item(v));
    visit_log log;
    log.answer = 2;
    EXPECT_EQ(qx_stack_foreach(&s, visitor, &log), 2);
    EXPECT_EQ(log.seen, (std::vector<int>{1}));
}

TEST(QxStackForeach, AVisitorReturningZeroStopsWithZero) {
    qx_stack s{};
    stack_guard g{&s};
    for (int v : {1, 2})
        qx_stack_push(&s, value_item(v));
    visit_log log;
    log.answer = 0;
    EXPECT_EQ(qx_stack_foreach(&s, visitor, &log), 0);
    EXPECT_EQ(log.seen, (std::vector<int>{1}));
}

TEST(QxStackForeach, VisitsFromTheBottomAndGivesOneWhenNeverStopped) {
    qx_stack s{};
    stack_guard g{&s};
    for (int v : {1, 2, 3})
        qx_stack_push(&s, value_item(v));
    visit_log log;
    EXPECT_EQ(qx_stack_foreach(&s, visitor, &log), 1);
    EXPECT_EQ(log.seen, (std::vector<int>{1, 2, 3}));
}

TEST(QxStackForeach, OnAnEmptyStackReturnsZeroWithoutCallingTheVisitor) {
    qx_stack s{};
    visit_log log;
    EXPECT_EQ(qx_stack_foreach(&s, visitor, &log), 0);
    EXPECT_TRUE(log.seen.empty());
}

namespace {

std::vector<std::string> freed_items;

void record_and_free(void *item) {
    freed_items.emplace_back(static_cast<char *>(item));
    std::free(item);
}

} // namespace

TEST(QxStackFree, CallsFreeItemOnEachItemFromTheBottomAndEmptiesTheRecord) {
    qx_stack s{};
    s.free_item = record_and_free;
    for (const char *t : {"bottom", "middle", "top"})
        qx_stack_push(&s, strdup(t));
    freed_items.clear();
    qx_stack_free(&s);
    EXPECT_EQ(freed_items, (std::vector<std::string>{"bottom", "middle", "top"}));
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.capacity, 0u);
    EXPECT_EQ(s.items, nullptr);
    EXPECT_EQ(s.free_item, record_and_free);
    // The record is reusable.
    char again[] = "again";
    EXPECT_EQ(qx_stack_push(&s, again), again);
    s.free_item = nullptr;
    qx_stack_free(&s);
}

TEST(QxStackFree, OnANeverPushedStackDoesNotCallFreeItem) {
    qx_stack s{};
    s.free_item = record_and_free;
    freed_items.clear();
    qx_stack_free(&s);
    EXPECT_TRUE(freed_items.empty());
    EXPECT_EQ(s.free_item, record_and_free);
}

TEST(QxStackFree, OfNullDoesNothing) {
    qx_stack_free(nullptr);
}

TEST(QxStackFree, WithoutFreeItemReleasesOnlyTheVector) {
    qx_stack s{};
    char a[] = "a";
    qx_stack_push(&s, a);
    qx_stack_free(&s); // a is on the stack; freeing it would crash
    EXPECT_STREQ(a, "a");
    EXPECT_EQ(s.items, nullptr);
    EXPECT_EQ(s.count, 0u);
}

TEST(QxStackFree, AfterPoppingEverythingReleasesTheVectorWithoutCallingFreeItem) {
    qx_stack s{};
    s.free_item = record_and_free;
    char a[] = "a";
    qx_stack_push(&s, a);
    qx_stack_pop(&s);
    freed_items.clear();
    qx_stack_free(&s);
    EXPECT_TRUE(freed_items.empty());
    EXPECT_EQ(s.capacity, 0u);
    EXPECT_EQ(s.items, nullptr);
}
