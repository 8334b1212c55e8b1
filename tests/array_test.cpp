#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qxcommon-util/array.h"
#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

namespace {

constexpr std::size_t W = sizeof(char *);

struct free_block {
    void operator()(void *p) const { std::free(p); }
};
using block_ptr = std::unique_ptr<void, free_block>;

// Owns an array through the address the _resize functions update.
struct array_holder {
    char **array;
    explicit array_holder(char **a) : array(a) {}
    ~array_holder() { std::free(array); }
    array_holder(const array_holder &) = delete;
    array_holder &operator=(const array_holder &) = delete;
};

char *base(char **array) {
    return reinterpret_cast<char *>(array);
}

std::size_t offset_of(char **array, const char *p) {
    return static_cast<std::size_t>(p - base(array));
}

// The free count: the word after the terminator.
std::size_t free_count(char **array) {
    std::size_t n = 0;
    while (array[n] != nullptr)
        ++n;
    std::size_t count;
    std::memcpy(&count, array + n + 1, sizeof count);
    return count;
}

std::vector<std::string> entries(char **vector) {
    std::vector<std::string> out;
    for (; *vector != nullptr; ++vector)
        out.emplace_back(*vector);
    return out;
}

// The block's bytes, for "unchanged" checks.
std::string bytes_of(char **array, std::size_t size) {
    return std::string(base(array), size);
}

// An array holding the given strings, made with space free bytes to spare.
char **make_array(const std::vector<const char *> &strings, std::size_t spare = 0) {
    std::size_t space = spare;
    for (const char *s : strings)
        space += W + std::strlen(s) + 1;
    char **array = qx_array_new(space);
    for (const char *s : strings)
        EXPECT_EQ(qx_array_append(array, s, -1), 0);
    return array;
}

using strings = std::vector<std::string>;

// Called through pointers, so that no format check objects to a NULL format.
int (*const unchecked_append_printf)(char **, const char *, ...) = qx_array_append_printf;
int (*const unchecked_append_resize_printf)(char ***, const char *,
                                            ...) = qx_array_append_resize_printf;

} // namespace

// --- qx_array_new, qx_array_size, qx_array_count ----------------------------

TEST(QxArrayNew, MakesATerminatorAFreeCountAndZeroedFreeBytes) {
    array_holder a(qx_array_new(100));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(a.array[0], nullptr);
    EXPECT_EQ(free_count(a.array), 100u);
    EXPECT_EQ(qx_array_count(a.array), 0u);
    EXPECT_EQ(qx_array_size(a.array), 100 + 2 * W);
    const std::string free_area(base(a.array) + 2 * W, 100);
    EXPECT_EQ(free_area, std::string(100, '\0'));
}

TEST(QxArrayNew, OfOneHundredHasSize116OnA64BitTarget) {
    if (W != 8)
        GTEST_SKIP() << "64-bit figure";
    array_holder a(qx_array_new(100));
    EXPECT_EQ(qx_array_size(a.array), 116u);
}

TEST(QxArrayNew, OfZeroIsTwoWords) {
    array_holder a(qx_array_new(0));
    EXPECT_EQ(qx_array_size(a.array), 2 * W);
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(qx_array_count(a.array), 0u);
}

TEST(QxArrayNew, MakesOneAllocation) {
    char **a = qx_test::call_with_failing_allocation(1, [] { return qx_array_new(10); });
    array_holder holder(a);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_test::allocations_seen(), 1);
}

TEST(QxArrayNew, ReturnsNullWhenOutOfMemory) {
    char **a = qx_test::call_with_failing_allocation(0, [] { return qx_array_new(10); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(a, nullptr);
}

TEST(QxArrayNew, ReturnsNullWhenTheSizeCannotBeComputed) {
    EXPECT_EQ(qx_array_new(SIZE_MAX), nullptr);
    EXPECT_EQ(qx_array_new(SIZE_MAX - 2 * W + 1), nullptr);
}

// --- qx_array_append ---------------------------------------------------------

TEST(QxArrayAppend, OfAnEmptyStringToANewZeroArrayFailsForLackOfNineBytes) {
    array_holder a(qx_array_new(0));
    const std::string before = bytes_of(a.array, 2 * W);
    EXPECT_EQ(qx_array_append(a.array, "", -1), -1);
    EXPECT_EQ(bytes_of(a.array, 2 * W), before);
    EXPECT_EQ(qx_array_count(a.array), 0u);
}

TEST(QxArrayAppend, PacksTextsDownwardsFromTheEndOfTheBlock) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "a", -1), 0);
    EXPECT_EQ(qx_array_count(a.array), 1u);
    EXPECT_EQ(free_count(a.array), 100u - (W + 2));
    EXPECT_EQ(qx_array_size(a.array), 100 + 2 * W);
    EXPECT_EQ(offset_of(a.array, a.array[0]), 100 + 2 * W - 2);
    EXPECT_EQ(a.array[1], nullptr);

    ASSERT_EQ(qx_array_append(a.array, "bc", -1), 0);
    EXPECT_EQ(qx_array_count(a.array), 2u);
    EXPECT_EQ(free_count(a.array), 100u - (W + 2) - (W + 3));
    EXPECT_EQ(qx_array_size(a.array), 100 + 2 * W);
    EXPECT_STREQ(a.array[0], "a");
    EXPECT_STREQ(a.array[1], "bc");
    EXPECT_EQ(a.array[1] + 3, a.array[0]);
    EXPECT_EQ(offset_of(a.array, a.array[0]) + 2, qx_array_size(a.array));
    EXPECT_EQ(a.array[2], nullptr);
}

TEST(QxArrayAppend, OfAAndBcToNew100LeavesSeventyNineFreeInASizeOf116) {
    if (W != 8)
        GTEST_SKIP() << "64-bit figures";
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "a", -1), 0);
    ASSERT_EQ(qx_array_append(a.array, "bc", -1), 0);
    EXPECT_EQ(qx_array_count(a.array), 2u);
    EXPECT_EQ(free_count(a.array), 79u);
    EXPECT_EQ(qx_array_size(a.array), 116u);
    // Slots at 0 and 8, terminator at 16, free count at 24, 79 free bytes
    // from 32, then "bc\0" at 111 and "a\0" at 114.
    EXPECT_EQ(offset_of(a.array, a.array[1]), 111u);
    EXPECT_EQ(offset_of(a.array, a.array[0]), 114u);
    EXPECT_EQ(std::memcmp(base(a.array) + 111, "bc\0a\0", 5), 0);
}

TEST(QxArrayAppend, UsesAnExactlyFittingFreeAreaToTheLastByte) {
    array_holder a(qx_array_new(W + 4));
    ASSERT_EQ(qx_array_append(a.array, "abc", -1), 0);
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(qx_array_size(a.array), 3 * W + 4);
    EXPECT_EQ(offset_of(a.array, a.array[0]), 3 * W);
    EXPECT_EQ(qx_array_append(a.array, "", -1), -1);
    EXPECT_EQ(entries(a.array), (strings{"abc"}));
}

TEST(QxArrayAppend, RefusesAStringOneByteTooLongAndLeavesTheArrayUnchanged) {
    array_holder a(qx_array_new(W + 3));
    const std::string before = bytes_of(a.array, qx_array_size(a.array));
    EXPECT_EQ(qx_array_append(a.array, "abc", -1), -1);
    EXPECT_EQ(bytes_of(a.array, 3 * W + 3), before);
    EXPECT_EQ(qx_array_append(a.array, "ab", -1), 0);
}

TEST(QxArrayAppend, NeverAllocates) {
    array_holder a(qx_array_new(0));
    int full =
        qx_test::call_with_failing_allocation(0, [&] { return qx_array_append(a.array, "x", -1); });
    EXPECT_EQ(full, -1);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_test::allocations_seen(), 0);
}

TEST(QxArrayAppend, TakesOnlyLenBytesOfALongerString) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "abcdef", 3), 0);
    EXPECT_STREQ(a.array[0], "abc");
    EXPECT_EQ(free_count(a.array), 100 - (W + 4));
    EXPECT_EQ(offset_of(a.array, a.array[0]), 100 + 2 * W - 4);
}

TEST(QxArrayAppend, TakesTheWholeStringForANegativeLen) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "abcdef", -5), 0);
    EXPECT_STREQ(a.array[0], "abcdef");
    EXPECT_EQ(free_count(a.array), 100 - (W + 7));
}

TEST(QxArrayAppend, HonoursAnEmbeddedEndButChargesLenBytes) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "ab\0cd", 5), 0);
    EXPECT_STREQ(a.array[0], "ab");
    EXPECT_EQ(free_count(a.array), 100 - (W + 6));
    EXPECT_EQ(offset_of(a.array, a.array[0]), 100 + 2 * W - 6);
    EXPECT_EQ(std::memcmp(a.array[0], "ab\0\0\0\0", 6), 0);
}

TEST(QxArrayAppend, OfLenZeroAddsAnEmptyString) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "abc", 0), 0);
    EXPECT_STREQ(a.array[0], "");
    EXPECT_EQ(free_count(a.array), 100 - (W + 1));
    EXPECT_EQ(offset_of(a.array, a.array[0]), 100 + 2 * W - 1);
}

TEST(QxArrayAppend, AcceptsDuplicates) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "x", -1), 0);
    ASSERT_EQ(qx_array_append(a.array, "x", -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"x", "x"}));
}

// --- qx_array_append_unique ----------------------------------------------------

TEST(QxArrayAppendUnique, RefusesTheFirstLenBytesWhenTheyEqualAnEntry) {
    array_holder a(make_array({"ab"}, 50));
    const std::size_t size = qx_array_size(a.array);
    const std::string before = bytes_of(a.array, size);
    EXPECT_EQ(qx_array_append_unique(a.array, "abc", 2), -1);
    EXPECT_EQ(bytes_of(a.array, size), before);
}

TEST(QxArrayAppendUnique, AcceptsAPrefixOfALongerEntry) {
    array_holder a(make_array({"abc"}, 50));
    EXPECT_EQ(qx_array_append_unique(a.array, "abc", 2), 0);
    EXPECT_EQ(entries(a.array), (strings{"abc", "ab"}));
}

TEST(QxArrayAppendUnique, AcceptsALongerStringStartingWithAnEntry) {
    array_holder a(make_array({"ab"}, 50));
    EXPECT_EQ(qx_array_append_unique(a.array, "abc", -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"ab", "abc"}));
}

TEST(QxArrayAppendUnique, ComparesCaseSensitively) {
    array_holder a(make_array({"ab"}, 50));
    EXPECT_EQ(qx_array_append_unique(a.array, "AB", -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"ab", "AB"}));
}

TEST(QxArrayAppendUnique, RefusesADuplicateOfAnyEntry) {
    array_holder a(make_array({"x", "y", "", "z"}, 50));
    EXPECT_EQ(qx_array_append_unique(a.array, "z", -1), -1);
    EXPECT_EQ(qx_array_append_unique(a.array, "", -1), -1);
    EXPECT_EQ(qx_array_append_unique(a.array, "x", 1), -1);
    EXPECT_EQ(qx_array_count(a.array), 4u);
    EXPECT_EQ(free_count(a.array), 50u);
}

TEST(QxArrayAppendUnique, ReportsLackOfRoomAsMinusOneToo) {
    array_holder a(make_array({"x"}));
    EXPECT_EQ(qx_array_append_unique(a.array, "new", -1), -1);
    EXPECT_EQ(entries(a.array), (strings{"x"}));
}

// --- qx_array_append_resize -------------------------------------------------------

TEST(QxArrayAppendResize, OfAnEmptyStringToANewZeroArrayGrowsToAFreeCountOfZero) {
    array_holder a(qx_array_new(0));
    char **old = a.array;
    qx_test::free_log frees;
    ASSERT_EQ(qx_array_append_resize(&a.array, "", -1), 0);
    EXPECT_TRUE(frees.freed(old));
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(qx_array_count(a.array), 1u);
    EXPECT_STREQ(a.array[0], "");
    EXPECT_EQ(qx_array_size(a.array), 3 * W + 1);
    EXPECT_EQ(offset_of(a.array, a.array[0]), 3 * W);
}

TEST(QxArrayAppendResize, DoesNotReallocateWhileThereIsRoom) {
    array_holder a(qx_array_new(100));
    char **before = a.array;
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return qx_array_append_resize(&a.array, "abc", -1); });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(a.array, before);
    EXPECT_EQ(free_count(a.array), 100 - (W + 4));
}

TEST(QxArrayAppendResize, GrowsAFullArrayByExactlyTheShortfall) {
    array_holder a(qx_array_new(5));
    ASSERT_EQ(qx_array_append_resize(&a.array, "abc", -1), 0);
    // Needed W + 4, had 5: the block grew by W - 1.
    EXPECT_EQ(qx_array_size(a.array), 2 * W + 5 + (W - 1));
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(offset_of(a.array, a.array[0]), 3 * W);

    ASSERT_EQ(qx_array_append_resize(&a.array, "de", -1), 0);
    EXPECT_EQ(qx_array_size(a.array), 4 * W + 4 + 3);
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(entries(a.array), (strings{"abc", "de"}));
    EXPECT_EQ(offset_of(a.array, a.array[0]), 4 * W + 3);
    EXPECT_EQ(offset_of(a.array, a.array[1]), 4 * W);
}

TEST(QxArrayAppendResize, ReallocatesOnEveryAppendToAFullArray) {
    array_holder a(qx_array_new(0));
    for (int i = 0; i < 5; ++i) {
        char **before = a.array;
        qx_test::free_log frees;
        const int result = qx_test::call_with_failing_allocation(
            1, [&] { return qx_array_append_resize(&a.array, "word", -1); });
        EXPECT_EQ(result, 0);
        EXPECT_FALSE(qx_test::allocation_was_failed());
        EXPECT_EQ(qx_test::allocations_seen(), 1);
        EXPECT_TRUE(frees.freed(before));
        EXPECT_EQ(free_count(a.array), 0u);
        EXPECT_EQ(qx_array_size(a.array), 2 * W + (i + 1) * (W + 5));
    }
    EXPECT_EQ(qx_array_count(a.array), 5u);
}

TEST(QxArrayAppendResize, KeepsTheOldFreeAreaAndAddsOnlyWhatIsMissing) {
    array_holder a(make_array({"one", "two"}, 3));
    ASSERT_EQ(qx_array_append_resize(&a.array, "three", -1), 0);
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(entries(a.array), (strings{"one", "two", "three"}));
    EXPECT_EQ(qx_array_size(a.array), 2 * W + 3 * W + 4 + 4 + 6);
    // Texts keep their order from the end of the block.
    EXPECT_EQ(offset_of(a.array, a.array[0]) + 4, qx_array_size(a.array));
    EXPECT_EQ(a.array[1] + 4, a.array[0]);
    EXPECT_EQ(a.array[2] + 6, a.array[1]);
}

TEST(QxArrayAppendResize, CanAppendAnEntryOfTheArrayItselfWhenItGrows) {
    array_holder a(make_array({"self"}));
    ASSERT_EQ(qx_array_append_resize(&a.array, a.array[0], -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"self", "self"}));
}

TEST(QxArrayAppendResize, FailsWhenGrowingFailsAndLeavesTheArrayAsItWas) {
    array_holder a(make_array({"a", "bc"}));
    char **before = a.array;
    const std::size_t size = qx_array_size(a.array);
    const std::string bytes = bytes_of(a.array, size);
    qx_test::free_log frees;
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return qx_array_append_resize(&a.array, "d", -1); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(a.array, before);
    EXPECT_FALSE(frees.freed(before));
    EXPECT_EQ(bytes_of(a.array, size), bytes);
}

// --- qx_array_append_resize_unique -----------------------------------------------

TEST(QxArrayAppendResizeUnique, RefusesADuplicateWithoutGrowing) {
    array_holder a(make_array({"a", "bc"}));
    char **before = a.array;
    const std::size_t size = qx_array_size(a.array);
    const std::string bytes = bytes_of(a.array, size);
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return qx_array_append_resize_unique(&a.array, "bcd", 2); });
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(a.array, before);
    EXPECT_EQ(bytes_of(a.array, size), bytes);
}

TEST(QxArrayAppendResizeUnique, GrowsForANewString) {
    array_holder a(make_array({"a", "bc"}));
    ASSERT_EQ(qx_array_append_resize_unique(&a.array, "bcd", -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"a", "bc", "bcd"}));
    EXPECT_EQ(free_count(a.array), 0u);
}

// --- qx_array_append_x -------------------------------------------------------------

TEST(QxArrayAppendX, TakesItsModeBitsSeparately) {
    array_holder a(make_array({"x"}));
    EXPECT_EQ(qx_array_append_x(&a.array, "y", -1, 0), -1);
    EXPECT_EQ(qx_array_append_x(&a.array, "x", -1, QX_ARRAY_MAY_GROW | QX_ARRAY_UNIQUE), -1);
    EXPECT_EQ(qx_array_append_x(&a.array, "x", -1, QX_ARRAY_MAY_GROW), 0);
    EXPECT_EQ(qx_array_append_x(&a.array, "y", -1, QX_ARRAY_MAY_GROW | QX_ARRAY_UNIQUE), 0);
    EXPECT_EQ(entries(a.array), (strings{"x", "x", "y"}));
    EXPECT_EQ(QX_ARRAY_MAY_GROW, 1);
    EXPECT_EQ(QX_ARRAY_UNIQUE, 2);
}

// --- the printf forms -----------------------------------------------------------------

TEST(QxArrayAppendPrintf, AppendsTheFormattedText) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append_printf(a.array, "%s-%d", "x", 42), 0);
    EXPECT_STREQ(a.array[0], "x-42");
    EXPECT_EQ(free_count(a.array), 100 - (W + 5));
}

TEST(QxArrayAppendPrintf, AppendsAnEmptyStringForANullFormat) {
    array_holder a(qx_array_new(100));
    const char *no_format = nullptr;
    ASSERT_EQ(unchecked_append_printf(a.array, no_format), 0);
    EXPECT_EQ(qx_array_count(a.array), 1u);
    EXPECT_STREQ(a.array[0], "");
    EXPECT_EQ(free_count(a.array), 100 - (W + 1));
}

TEST(QxArrayAppendPrintf, AppendsAnEmptyStringWhenFormattingGivesNoText) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append_printf(a.array, "%s", ""), 0);
    EXPECT_STREQ(a.array[0], "");
    EXPECT_EQ(free_count(a.array), 100 - (W + 1));
}

TEST(QxArrayAppendPrintf, AppendsAnEmptyStringWhenFormattingRunsOutOfMemory) {
    array_holder a(qx_array_new(100));
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return qx_array_append_printf(a.array, "%d", 12345); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(entries(a.array), (strings{""}));
    EXPECT_EQ(free_count(a.array), 100 - (W + 1));
}

TEST(QxArrayAppendPrintf, FailsWithoutRoomAndLeavesTheArrayUnchanged) {
    array_holder a(make_array({"abc"}, W));
    const std::size_t size = qx_array_size(a.array);
    const std::string bytes = bytes_of(a.array, size);
    EXPECT_EQ(qx_array_append_printf(a.array, "%d", 1), -1);
    EXPECT_EQ(bytes_of(a.array, size), bytes);
    EXPECT_EQ(qx_array_append_printf(a.array, "%s", ""), -1);
    EXPECT_EQ(bytes_of(a.array, size), bytes);
}

TEST(QxArrayAppendResizePrintf, GrowsForTheFormattedText) {
    array_holder a(qx_array_new(0));
    ASSERT_EQ(qx_array_append_resize_printf(&a.array, "%d", 7), 0);
    EXPECT_EQ(entries(a.array), (strings{"7"}));
    EXPECT_EQ(qx_array_size(a.array), 3 * W + 2);
    EXPECT_EQ(free_count(a.array), 0u);
    ASSERT_EQ(qx_array_append_resize_printf(&a.array, "%s=%s", "k", "v"), 0);
    EXPECT_EQ(entries(a.array), (strings{"7", "k=v"}));
    EXPECT_EQ(qx_array_size(a.array), 4 * W + 2 + 4);
}

TEST(QxArrayAppendResizePrintf, AppendsAnEmptyStringForANullFormat) {
    array_holder a(qx_array_new(0));
    const char *no_format = nullptr;
    ASSERT_EQ(unchecked_append_resize_printf(&a.array, no_format), 0);
    EXPECT_EQ(entries(a.array), (strings{""}));
}

TEST(QxArrayAppendResizePrintf, UnderAllocationFailureAppendsTheTextAnEmptyStringOrNothing) {
    // A failed format leaves no text, so an empty string is appended; a
    // failed growth appends nothing.
    const long clean = qx_test::sweep_allocation_failures([](long n) {
        array_holder a(make_array({"x"}));
        const std::size_t size = qx_array_size(a.array);
        const std::string bytes = bytes_of(a.array, size);
        char **before = a.array;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return qx_array_append_resize_printf(&a.array, "%s%d", "y", 2); });
        if (!qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(entries(a.array), (strings{"x", "y2"}));
        } else if (result == 0) {
            // The C library's formatter tolerates some failed allocations
            // of its own and still delivers the text.
            const strings got = entries(a.array);
            EXPECT_TRUE(got == (strings{"x", ""}) || got == (strings{"x", "y2"})) << n;
        } else {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(a.array, before);
            EXPECT_EQ(bytes_of(a.array, size), bytes);
        }
    });
    EXPECT_GE(clean, 1);
}

// --- qx_array_resize ---------------------------------------------------------------

TEST(QxArrayResize, ByZeroReturnsNullAndLeavesTheArrayValid) {
    array_holder a(make_array({"a", "bc"}, 10));
    const std::size_t size = qx_array_size(a.array);
    const std::string bytes = bytes_of(a.array, size);
    qx_test::free_log frees;
    char **resized =
        qx_test::call_with_failing_allocation(0, [&] { return qx_array_resize(a.array, 0); });
    EXPECT_EQ(resized, nullptr);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(frees.count(), 0);
    EXPECT_EQ(bytes_of(a.array, size), bytes);
    EXPECT_EQ(qx_array_append(a.array, "d", -1), 0);
}

TEST(QxArrayResize, AddsMoreToTheFreeAreaAndKeepsEntriesInOrder) {
    char **a = qx_array_new(100);
    ASSERT_EQ(qx_array_append(a, "a", -1), 0);
    ASSERT_EQ(qx_array_append(a, "bc", -1), 0);
    qx_test::free_log frees;
    array_holder r(qx_array_resize(a, 20));
    ASSERT_NE(r.array, nullptr);
    EXPECT_TRUE(frees.freed(a));
    EXPECT_EQ(entries(r.array), (strings{"a", "bc"}));
    EXPECT_EQ(free_count(r.array), 100 - (W + 2) - (W + 3) + 20);
    EXPECT_EQ(qx_array_size(r.array), 100 + 2 * W + 20);
    EXPECT_EQ(offset_of(r.array, r.array[0]), 100 + 2 * W + 20 - 2);
    EXPECT_EQ(r.array[1] + 3, r.array[0]);
}

TEST(QxArrayResize, OfAnEmptyArrayAddsToItsFreeArea) {
    char **a = qx_array_new(3);
    array_holder r(qx_array_resize(a, 4));
    ASSERT_NE(r.array, nullptr);
    EXPECT_EQ(free_count(r.array), 7u);
    EXPECT_EQ(qx_array_size(r.array), 2 * W + 7);
}

TEST(QxArrayResize, ReturnsNullAndKeepsTheOldArrayWhenOutOfMemory) {
    array_holder a(make_array({"a", "bc"}));
    const std::size_t size = qx_array_size(a.array);
    const std::string bytes = bytes_of(a.array, size);
    qx_test::free_log frees;
    char **resized =
        qx_test::call_with_failing_allocation(0, [&] { return qx_array_resize(a.array, 5); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(resized, nullptr);
    EXPECT_FALSE(frees.freed(a.array));
    EXPECT_EQ(bytes_of(a.array, size), bytes);
}

TEST(QxArrayResize, ReturnsNullForAGrowthBeyondTheAddressSpace) {
    array_holder a(make_array({"a"}));
    EXPECT_EQ(qx_array_resize(a.array, SIZE_MAX), nullptr);
    EXPECT_EQ(entries(a.array), (strings{"a"}));
}

// --- qx_array_size, qx_array_count -------------------------------------------------

TEST(QxArraySize, ReadsTheFirstEntrysTextWhichEndsTheBlock) {
    array_holder a(qx_array_new(40));
    ASSERT_EQ(qx_array_append(a.array, "first", -1), 0);
    ASSERT_EQ(qx_array_append(a.array, "second", -1), 0);
    EXPECT_EQ(qx_array_size(a.array), 40 + 2 * W);
    // The size is derived from the first text's length, as documented.
    a.array[0][3] = '\0';
    EXPECT_EQ(qx_array_size(a.array), 40 + 2 * W - 2);
    a.array[0][3] = 's';
}

TEST(QxArrayCount, CountsEntriesBeforeTheNull) {
    array_holder a(make_array({"a", "", "c"}, 0));
    EXPECT_EQ(qx_array_count(a.array), 3u);
}

// --- qx_array_copy ---------------------------------------------------------------

TEST(QxArrayCopy, HasTheSameSizeFreeAreaAndStringsAtTheSameOffsets) {
    array_holder a(qx_array_new(100));
    ASSERT_EQ(qx_array_append(a.array, "a", -1), 0);
    ASSERT_EQ(qx_array_append(a.array, "bc", -1), 0);
    const std::string bytes = bytes_of(a.array, qx_array_size(a.array));
    array_holder c(qx_array_copy(a.array));
    ASSERT_NE(c.array, nullptr);
    EXPECT_NE(c.array, a.array);
    EXPECT_EQ(entries(c.array), (strings{"a", "bc"}));
    EXPECT_EQ(qx_array_size(c.array), qx_array_size(a.array));
    EXPECT_EQ(free_count(c.array), free_count(a.array));
    EXPECT_EQ(offset_of(c.array, c.array[0]), offset_of(a.array, a.array[0]));
    EXPECT_EQ(offset_of(c.array, c.array[1]), offset_of(a.array, a.array[1]));
    EXPECT_EQ(bytes_of(a.array, qx_array_size(a.array)), bytes);
    // The copy is appendable with the same room.
    EXPECT_EQ(qx_array_append(c.array, "d", -1), 0);
    EXPECT_EQ(entries(a.array), (strings{"a", "bc"}));
}

TEST(QxArrayCopy, OfAnEmptyArrayKeepsItsFreeArea) {
    array_holder a(qx_array_new(7));
    array_holder c(qx_array_copy(a.array));
    ASSERT_NE(c.array, nullptr);
    EXPECT_EQ(c.array[0], nullptr);
    EXPECT_EQ(free_count(c.array), 7u);
    EXPECT_EQ(qx_array_size(c.array), 2 * W + 7);
}

TEST(QxArrayCopy, OfAFullArrayIsFullToo) {
    array_holder a(make_array({"x", "yz"}));
    array_holder c(qx_array_copy(a.array));
    ASSERT_NE(c.array, nullptr);
    EXPECT_EQ(free_count(c.array), 0u);
    EXPECT_EQ(qx_array_size(c.array), 4 * W + 2 + 3);
}

TEST(QxArrayCopy, ReturnsNullWhenOutOfMemory) {
    array_holder a(make_array({"x"}));
    char **c = qx_test::call_with_failing_allocation(0, [&] { return qx_array_copy(a.array); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"x"}));
}

// --- array_merge -------------------------------------------------------------------

TEST(ArrayMerge, BorrowsTheEntryPointersOfEveryArrayInOrder) {
    array_holder a(make_array({"x", "y"}));
    array_holder b(make_array({"z"}));
    array_holder c(qx_array_new(0));
    array_holder d(make_array({"w"}));
    block_ptr merged(
        array_merge(a.array, b.array, c.array, d.array, static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m[0], a.array[0]);
    EXPECT_EQ(m[1], a.array[1]);
    EXPECT_EQ(m[2], b.array[0]);
    EXPECT_EQ(m[3], d.array[0]);
    EXPECT_EQ(m[4], nullptr);
}

TEST(ArrayMerge, OfTwoArraysStopsAtTheNullArgument) {
    array_holder a(make_array({"a"}));
    array_holder b(make_array({"b", "c"}));
    block_ptr merged(array_merge(a.array, b.array, static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(entries(m), (strings{"a", "b", "c"}));
    EXPECT_EQ(m[1], b.array[0]);
}

TEST(ArrayMerge, OfEmptyArraysIsAVectorHoldingOnlyTheTerminator) {
    array_holder a(qx_array_new(0));
    array_holder b(qx_array_new(0));
    block_ptr merged(array_merge(a.array, b.array, static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m[0], nullptr);
}

TEST(ArrayMerge, AcceptsPlainStringVectors) {
    const char *first[] = {"p", nullptr};
    const char *second[] = {"q", "r", nullptr};
    block_ptr merged(array_merge(const_cast<char **>(first), const_cast<char **>(second),
                                 static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m[0], first[0]);
    EXPECT_EQ(m[2], second[1]);
    EXPECT_EQ(m[3], nullptr);
}

TEST(ArrayMerge, TakesANullFirstArgumentAsEmpty) {
    array_holder b(make_array({"b"}));
    block_ptr merged(array_merge(nullptr, b.array, static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m[0], b.array[0]);
    EXPECT_EQ(m[1], nullptr);
}

// Two arguments only: the terminator is b itself, which the sentinel
// check of the declaration does not foresee.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wsentinel"
#else
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#endif
TEST(ArrayMerge, EndsAtANullSecondArgument) {
    array_holder a(make_array({"a"}));
    block_ptr merged(array_merge(a.array, static_cast<char **>(nullptr)));
    auto m = static_cast<char **>(merged.get());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(entries(m), (strings{"a"}));
}
#if defined(__clang__)
#pragma clang diagnostic pop
#else
#pragma GCC diagnostic pop
#endif

TEST(ArrayMerge, MakesOneAllocationAndReturnsNullWhenItFails) {
    array_holder a(make_array({"a"}));
    array_holder b(make_array({"b"}));
    void *m = qx_test::call_with_failing_allocation(
        0, [&] { return array_merge(a.array, b.array, static_cast<char **>(nullptr)); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(m, nullptr);
    block_ptr ok(qx_test::call_with_failing_allocation(
        1, [&] { return array_merge(a.array, b.array, static_cast<char **>(nullptr)); }));
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(qx_test::allocations_seen(), 1);
    EXPECT_NE(ok.get(), nullptr);
}

// --- qx_array_flatten, qx_array_flatten_raw -----------------------------------------

TEST(QxArrayFlattenRaw, OfXUpToTheNullIsEighteenBytesWithOffsetSixteen) {
    if (W != 8)
        GTEST_SKIP() << "64-bit figures";
    const char *v[] = {"x", nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten_raw(const_cast<char **>(v), -1, &size));
    auto slots = static_cast<char **>(block.get());
    ASSERT_NE(slots, nullptr);
    EXPECT_EQ(size, 18u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(slots[0]), 16u);
    EXPECT_EQ(slots[1], nullptr);
    EXPECT_EQ(std::memcmp(static_cast<char *>(block.get()) + 16, "x", 2), 0);
}

TEST(QxArrayFlatten, KeepsANullSlotWithinCountAndCopiesTheOthers) {
    const char *v[] = {"a", nullptr, "cc", "not taken", nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten(const_cast<char **>(v), 3, &size));
    auto slots = static_cast<char **>(block.get());
    ASSERT_NE(slots, nullptr);
    EXPECT_EQ(size, 4 * W + 2 + 3);
    char *start = static_cast<char *>(block.get());
    EXPECT_EQ(slots[0], start + 4 * W);
    EXPECT_EQ(slots[1], nullptr);
    EXPECT_EQ(slots[2], start + 4 * W + 2);
    EXPECT_EQ(slots[3], nullptr);
    EXPECT_STREQ(slots[0], "a");
    EXPECT_STREQ(slots[2], "cc");
    EXPECT_NE(slots[0], v[0]);
    EXPECT_EQ(std::memcmp(start + 4 * W, "a\0cc\0", 5), 0);
}

TEST(QxArrayFlattenRaw, StoresByteOffsetsAndKeepsNullSlots) {
    const char *v[] = {"a", nullptr, "cc"};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten_raw(const_cast<char **>(v), 3, &size));
    auto slots = static_cast<std::uintptr_t *>(block.get());
    ASSERT_NE(slots, nullptr);
    EXPECT_EQ(size, 4 * W + 2 + 3);
    EXPECT_EQ(slots[0], 4 * W);
    EXPECT_EQ(slots[1], 0u);
    EXPECT_EQ(slots[2], 4 * W + 2);
    EXPECT_EQ(slots[3], 0u);
}

TEST(QxArrayFlattenRaw, CanBeReadBackAtAnotherAddress) {
    const char *v[] = {"alpha", "", "gamma", nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten_raw(const_cast<char **>(v), -1, &size));
    ASSERT_NE(block.get(), nullptr);
    std::vector<unsigned char> moved(static_cast<unsigned char *>(block.get()),
                                     static_cast<unsigned char *>(block.get()) + size);
    block.reset();
    strings read;
    for (std::size_t i = 0;; ++i) {
        std::uintptr_t slot;
        std::memcpy(&slot, moved.data() + i * W, W);
        if (slot == 0)
            break;
        read.emplace_back(reinterpret_cast<const char *>(moved.data() + slot));
    }
    EXPECT_EQ(read, (strings{"alpha", "", "gamma"}));
    EXPECT_EQ(size, 4 * W + 6 + 1 + 6);
}

TEST(QxArrayFlatten, OfCountZeroIsOneNullWord) {
    const char *v[] = {"a", nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten(const_cast<char **>(v), 0, &size));
    ASSERT_NE(block.get(), nullptr);
    EXPECT_EQ(size, W);
    EXPECT_EQ(static_cast<char **>(block.get())[0], nullptr);
}

TEST(QxArrayFlatten, OfAnEmptyVectorUpToItsNullIsOneNullWord) {
    char *v[] = {nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten(v, -1, &size));
    ASSERT_NE(block.get(), nullptr);
    EXPECT_EQ(size, W);
    EXPECT_EQ(static_cast<char **>(block.get())[0], nullptr);
}

TEST(QxArrayFlatten, CountsUpToTheNullForMinusOne) {
    array_holder a(make_array({"one", "two"}));
    std::size_t size = 0;
    block_ptr block(qx_array_flatten(a.array, -1, &size));
    auto slots = static_cast<char **>(block.get());
    ASSERT_NE(slots, nullptr);
    EXPECT_EQ(size, 3 * W + 4 + 4);
    EXPECT_EQ(entries(slots), (strings{"one", "two"}));
    EXPECT_EQ(slots[0], static_cast<char *>(block.get()) + 3 * W);
    EXPECT_EQ(slots[1], slots[0] + 4);
}

TEST(QxArrayFlatten, TakesOnlyCountSlots) {
    const char *v[] = {"a", "b", "c", nullptr};
    std::size_t size = 0;
    block_ptr block(qx_array_flatten(const_cast<char **>(v), 2, &size));
    auto slots = static_cast<char **>(block.get());
    ASSERT_NE(slots, nullptr);
    EXPECT_EQ(size, 3 * W + 4);
    EXPECT_EQ(entries(slots), (strings{"a", "b"}));
}

TEST(QxArrayFlatten, AcceptsANullSizeOut) {
    const char *v[] = {"a", nullptr};
    block_ptr block(qx_array_flatten(const_cast<char **>(v), -1, nullptr));
    ASSERT_NE(block.get(), nullptr);
    EXPECT_STREQ(static_cast<char **>(block.get())[0], "a");
}

TEST(QxArrayFlatten, ReturnsNullWhenOutOfMemoryAfterStoringTheSize) {
    const char *v[] = {"a", nullptr};
    std::size_t size = 0;
    char **block = qx_test::call_with_failing_allocation(
        0, [&] { return qx_array_flatten(const_cast<char **>(v), -1, &size); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(size, 2 * W + 2);
}

TEST(QxArrayFlattenX, ChoosesPointersOrOffsetsByAbsolute) {
    const char *v[] = {"q", nullptr};
    block_ptr absolute(qx_array_flatten_x(const_cast<char **>(v), -1, nullptr, 1));
    block_ptr raw(qx_array_flatten_x(const_cast<char **>(v), -1, nullptr, 0));
    ASSERT_NE(absolute.get(), nullptr);
    ASSERT_NE(raw.get(), nullptr);
    EXPECT_EQ(static_cast<char **>(absolute.get())[0], static_cast<char *>(absolute.get()) + 2 * W);
    EXPECT_EQ(static_cast<std::uintptr_t *>(raw.get())[0], 2 * W);
}

// --- qx_string_to_array --------------------------------------------------------------

TEST(QxStringToArray, KeepsEmptyFieldsButNoTrailingOne) {
    array_holder a(qx_string_to_array("a,,b,", ","));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"a", "", "b"}));
    // Starts with ten free bytes: "a" fits exactly, each later field grows
    // the array by its shortfall.
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(qx_array_size(a.array), 2 * W + 3 * W + 2 + 1 + 2);
}

TEST(QxStringToArray, OfAnEmptyTextIsNull) {
    EXPECT_EQ(qx_string_to_array("", ","), nullptr);
}

TEST(QxStringToArray, OfANullTextIsNull) {
    EXPECT_EQ(qx_string_to_array(nullptr, ","), nullptr);
}

TEST(QxStringToArray, KeepsALeadingEmptyField) {
    array_holder a(qx_string_to_array(",a", ","));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"", "a"}));
}

TEST(QxStringToArray, OfADelimiterAloneIsOneEmptyField) {
    array_holder a(qx_string_to_array(",", ","));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{""}));
}

TEST(QxStringToArray, CutsAtAnyOfTheDelimitersAndLeavesTheTextAlone) {
    const char text[] = "k=v;x y";
    array_holder a(qx_string_to_array(text, "=; "));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"k", "v", "x", "y"}));
    EXPECT_STREQ(text, "k=v;x y");
}

TEST(QxStringToArray, KeepsTheFreeAreaOfTenWhenTheFieldsFit) {
    array_holder a(qx_string_to_array("a", ","));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(qx_array_size(a.array), 2 * W + 10);
    EXPECT_EQ(free_count(a.array), 10 - (W + 2));
}

TEST(QxStringToArray, ReturnsNullAndLeaksNothingWhenOutOfMemory) {
    const long clean = qx_test::sweep_allocation_failures([](long n) {
        char **a = qx_test::call_with_failing_allocation(
            n, [] { return qx_string_to_array("one,two,three", ","); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(a, nullptr) << n;
        } else {
            ASSERT_NE(a, nullptr);
            EXPECT_EQ(entries(a), (strings{"one", "two", "three"}));
        }
        std::free(a);
    });
    // One block, then one reallocation for each of the three fields (ten
    // bytes hold none of them).
    EXPECT_EQ(clean, 4);
}

// --- qx_array_to_string ---------------------------------------------------------------

namespace {

std::string joined(const std::vector<const char *> &items, const char *sep) {
    array_holder a(make_array(items));
    char *text = qx_array_to_string(a.array, sep);
    EXPECT_NE(text, nullptr);
    std::string out = text != nullptr ? text : "<null>";
    std::free(text);
    return out;
}

} // namespace

TEST(QxArrayToString, WithANullSeparatorConcatenates) {
    EXPECT_EQ(joined({"a", "b"}, nullptr), "ab");
}

TEST(QxArrayToString, LeavesOutTheSeparatorInFrontOfAFinalEmptyEntry) {
    EXPECT_EQ(joined({"a", ""}, ","), "a");
    EXPECT_EQ(joined({"a", "", ""}, ","), "a,");
    EXPECT_EQ(joined({"a", "b", ""}, ","), "a,b");
    EXPECT_EQ(joined({"a", ""}, ";;"), "a");
    EXPECT_EQ(joined({"", ""}, ","), "");
}

TEST(QxArrayToString, JoinsWithTheSeparatorOtherwise) {
    EXPECT_EQ(joined({"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(joined({"", "a"}, ","), ",a");
    EXPECT_EQ(joined({"", "", "x"}, ","), ",,x");
    EXPECT_EQ(joined({"a", "", "b"}, "-"), "a--b");
    EXPECT_EQ(joined({"only"}, ","), "only");
}

TEST(QxArrayToString, WithAnEmptySeparatorConcatenates) {
    EXPECT_EQ(joined({"a", "b", "c"}, ""), "abc");
}

TEST(QxArrayToString, OfAnEmptyArrayIsANewEmptyString) {
    array_holder a(qx_array_new(0));
    char *text = qx_array_to_string(a.array, ",");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    std::free(text);
}

TEST(QxArrayToString, OfEmptyEntriesWithoutSeparatorIsANewEmptyString) {
    EXPECT_EQ(joined({"", ""}, nullptr), "");
}

TEST(QxArrayToString, ReturnsNullWhenOutOfMemory) {
    array_holder a(make_array({"a", "b"}));
    char *text =
        qx_test::call_with_failing_allocation(0, [&] { return qx_array_to_string(a.array, ","); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(text, nullptr);
}

// --- flag2array, array2flag --------------------------------------------------------------

namespace {

const qx_flag_entry access_flags[] = {
    {"read", 0x1, 0x1}, {"write", 0x2, 0x2}, {"rdonly", 0x3, 0x1},
    {"none", 0x3, 0x0}, {"any", 0x0, 0x0},   {nullptr, 0, 0},
};

const qx_flag_entry mode_flags[] = {
    {"rdonly", 0x3, 0x1}, {"wronly", 0x3, 0x2}, {"rdwr", 0x3, 0x3},
    {"append", 0x8, 0x8}, {nullptr, 0, 0},
};

// Two rows named alike: the first one counts.
const qx_flag_entry doubled_flags[] = {{"rdonly", 0x3, 0x1}, {"RDONLY", 0x3, 0x2}, {nullptr, 0, 0}};

const qx_flag_entry empty_table[] = {{nullptr, 0, 0}};

} // namespace

TEST(Flag2array, NamesEveryRowWhoseMaskedBitsEqualItsValueInTableOrder) {
    array_holder a(flag2array(0x1, access_flags));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"read", "rdonly", "any"}));
}

TEST(Flag2array, AlwaysMatchesARowWithMaskAndValueZero) {
    array_holder a(flag2array(0x0, access_flags));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"none", "any"}));
    array_holder b(flag2array(0x3, access_flags));
    EXPECT_EQ(entries(b.array), (strings{"read", "write", "any"}));
}

TEST(Flag2array, CopiesTheNamesIntoAnExactlyFittingArray) {
    array_holder a(flag2array(0x1, access_flags));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(free_count(a.array), 0u);
    EXPECT_EQ(qx_array_size(a.array), 2 * W + (W + 5) + (W + 7) + (W + 4));
    EXPECT_NE(a.array[0], access_flags[0].name);
    EXPECT_EQ(offset_of(a.array, a.array[0]) + 5, qx_array_size(a.array));
}

TEST(Flag2array, OfAnEmptyTableIsAnEmptyArray) {
    array_holder a(flag2array(0xFFFFFFFFu, empty_table));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(a.array[0], nullptr);
    EXPECT_EQ(qx_array_size(a.array), 2 * W);
    EXPECT_EQ(free_count(a.array), 0u);
}

TEST(Flag2array, ReturnsNullAndLeaksNothingWhenOutOfMemory) {
    const long clean = qx_test::sweep_allocation_failures([](long n) {
        char **a =
            qx_test::call_with_failing_allocation(n, [] { return flag2array(0x1, access_flags); });
        if (qx_test::allocation_was_failed())
            EXPECT_EQ(a, nullptr) << n;
        else
            EXPECT_EQ(entries(a), (strings{"read", "rdonly", "any"}));
        std::free(a);
    });
    // The empty array, then one reallocation per name.
    EXPECT_EQ(clean, 4);
}

TEST(Array2flag, MatchesNamesIgnoringCase) {
    char **names = make_array({"Read"});
    array_holder a(names);
    const qx_flag_entry table[] = {{"read", 0x1, 0x1}, {nullptr, 0, 0}};
    EXPECT_EQ(array2flag(a.array, table, nullptr), 0x1u);
}

TEST(Array2flag, CombinesNamesOfDifferentMasks) {
    array_holder a(make_array({"rdwr", "append"}));
    EXPECT_EQ(array2flag(a.array, mode_flags, nullptr), 0xBu);
}

TEST(Array2flag, LetsALaterNameOverrideAnEarlierOneWithinTheSameMask) {
    array_holder a(make_array({"rdwr", "rdonly"}));
    EXPECT_EQ(array2flag(a.array, mode_flags, nullptr), 0x1u);
    array_holder b(make_array({"rdonly", "wronly"}));
    EXPECT_EQ(array2flag(b.array, mode_flags, nullptr), 0x2u);
}

TEST(Array2flag, UsesTheFirstRowWhoseNameMatches) {
    array_holder a(make_array({"RdOnly"}));
    EXPECT_EQ(array2flag(a.array, doubled_flags, nullptr), 0x1u);
    array_holder b(make_array({"RDONLY"}));
    EXPECT_EQ(array2flag(b.array, doubled_flags, nullptr), 0x1u);
}

TEST(Array2flag, OfAnEmptyArrayIsZeroWithoutConsultingTheTable) {
    array_holder a(qx_array_new(0));
    const char *err = "untouched";
    EXPECT_EQ(array2flag(a.array, nullptr, &err), 0u);
    EXPECT_STREQ(err, "untouched");
}

TEST(Array2flag, ReturnsAllOnesForAnUnknownNameEvenWithoutErrstr) {
    array_holder a(make_array({"read", "execute"}));
    EXPECT_EQ(array2flag(a.array, access_flags, nullptr), 0xFFFFFFFFu);
}

TEST(Array2flag, PointsErrstrAtUnknownFlagInOneStaticBuffer) {
    const char *first = nullptr;
    {
        array_holder a(make_array({"bogus"}));
        EXPECT_EQ(array2flag(a.array, access_flags, &first), 0xFFFFFFFFu);
    }
    ASSERT_NE(first, nullptr);
    // The text outlives the array and is not the caller's to free.
    EXPECT_STREQ(first, "unknown flag");
    const char *second = nullptr;
    array_holder b(make_array({"read", "other"}));
    EXPECT_EQ(array2flag(b.array, access_flags, &second), 0xFFFFFFFFu);
    EXPECT_EQ(second, first);
    EXPECT_STREQ(second, "unknown flag");
}

TEST(Array2flag, LeavesErrstrAloneOnSuccess) {
    array_holder a(make_array({"read"}));
    const char *err = "untouched";
    EXPECT_EQ(array2flag(a.array, access_flags, &err), 0x1u);
    EXPECT_STREQ(err, "untouched");
}

TEST(Array2flag, ReturnsAllOnesForAnyNameWithAnEmptyTable) {
    array_holder a(make_array({"read"}));
    const char *err = nullptr;
    EXPECT_EQ(array2flag(a.array, empty_table, &err), 0xFFFFFFFFu);
    EXPECT_STREQ(err, "unknown flag");
}

TEST(Array2flag, ReadsBackWhatFlag2arrayWrote) {
    array_holder a(flag2array(0xA, mode_flags));
    ASSERT_NE(a.array, nullptr);
    EXPECT_EQ(entries(a.array), (strings{"wronly", "append"}));
    EXPECT_EQ(array2flag(a.array, mode_flags, nullptr), 0xAu);
}
