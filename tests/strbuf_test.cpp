// The string buffer: growth rules, the basic operations, the heap form.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <string>
#include <vector>
#include <unistd.h>

#include "qxcommon-util/strbuf.h"
#include "support/alloc_fail.hpp"

namespace {

// A caller's buffer, released at the end of the test.
struct owned_strbuf : strbuf {
    owned_strbuf() : strbuf{} {}
    ~owned_strbuf() { strbuf_free(this); }
    owned_strbuf(const owned_strbuf &) = delete;
    owned_strbuf &operator=(const owned_strbuf &) = delete;
    std::string bytes() const { return std::string(text, length); }
};

struct snapshot {
    const char *text;
    std::size_t length;
    std::size_t size;
    std::string content; // the bytes up to and including the NUL
    explicit snapshot(const strbuf &sb)
        : text(sb.text), length(sb.length), size(sb.size),
          content(sb.text != nullptr ? std::string(sb.text, sb.length + 1) : std::string()) {}
};

// Every short length from 0 to 40, after a prefix of each of several lengths
// so that the copies also start at different alignments. For each, add(sb, n)
// is handed a buffer that holds the prefix, with the room behind its NUL
// filled with '#', and adds n bytes; the bytes it added are then checked,
// with the NUL behind them and the marks behind that, which nothing may have
// touched.
template <typename Add> void check_short_copies(Add add) {
    constexpr std::size_t prefixes[] = {0, 1, 5, 13};
    for (const std::size_t prefix : prefixes) {
        for (std::size_t n = 0; n <= 40; ++n) {
            SCOPED_TRACE("prefix " + std::to_string(prefix) + ", length " + std::to_string(n));
            owned_strbuf sb;
            ASSERT_EQ(strbuf_append(&sb, std::string(prefix, 'p').c_str()), 0);
            std::memset(sb.text + prefix + 1, '#', sb.size - prefix - 1);
            const std::string added = add(sb, n);
            EXPECT_EQ(sb.length, prefix + n);
            EXPECT_EQ(sb.bytes(), std::string(prefix, 'p') + added);
            EXPECT_EQ(sb.text[prefix + n], '\0');
            EXPECT_EQ(std::string(sb.text + prefix + n + 1, 8), "########");
        }
    }
}

void expect_unchanged(const strbuf &sb, const snapshot &before) {
    EXPECT_EQ(sb.text, before.text);
    EXPECT_EQ(sb.length, before.length);
    EXPECT_EQ(sb.size, before.size);
    if (sb.text != nullptr) {
        EXPECT_EQ(std::string(sb.text, sb.length + 1), before.content);
    }
}

TEST(StrbufRecord, ZeroRecordIsAnEmptyBuffer) {
    strbuf sb{};
    EXPECT_EQ(strbuf_len(&sb), 0U);
    EXPECT_EQ(qx_string_is_empty(&sb), 1);
    strbuf_free(&sb);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
}

TEST(StrbufRecord, FieldsAreTextLengthSizeInThatOrder) {
    EXPECT_EQ(offsetof(strbuf, text), 0U);
    EXPECT_EQ(offsetof(strbuf, length), sizeof(char *));
    EXPECT_EQ(offsetof(strbuf, size), sizeof(char *) + sizeof(std::size_t));
}

TEST(StrbufAppend, EmptyStringOnZeroRecordAllocatesOneKibibyteLessOne) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, ""), 0);
    EXPECT_NE(sb.text, nullptr);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
}

TEST(StrbufAppend, StringThatFillsTheRoomExactlyDoesNotGrow) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    const char *before = sb.text;
    const std::string fill(sb.size - sb.length - 1, 'f'); // 1019 bytes
    ASSERT_EQ(strbuf_append(&sb, fill.c_str()), 0);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 1022U);
    EXPECT_EQ(sb.text[1022], '\0');
}

TEST(StrbufAppend, OneByteMoreThanTheRoomGrowsToNextKibibyteLessOne) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    const std::string fill(sb.size - sb.length, 'f'); // 1020 bytes
    ASSERT_EQ(strbuf_append(&sb, fill.c_str()), 0);
    // (1023 + 1020 + 1) with the ten low bits set
    EXPECT_EQ(sb.size, 2047U);
    EXPECT_EQ(sb.length, 1023U);
    EXPECT_EQ(sb.bytes(), "abc" + fill);
}

TEST(StrbufAppend, GrowthIsComputedFromTheOldSizeNotTheLength) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, std::string(1500, 'a').c_str()), 0);
    EXPECT_EQ(sb.size, 2047U); // (0 + 1500 + 1) | 1023
    ASSERT_EQ(strbuf_append(&sb, std::string(600, 'b').c_str()), 0);
    EXPECT_EQ(sb.size, 3071U); // (2047 + 600 + 1) | 1023
    EXPECT_EQ(sb.length, 2100U);
}

// Large buffers grow like small ones: every growth asks realloc for exactly
// the new size, and the allocator keeps no more than its own rounding, which
// is less than a page.
TEST(StrbufNappend, LargeBuffersAskReallocForExactlyTheNewSizeOnEveryGrowth) {
    owned_strbuf sb;
    const std::string first(70000, 'a');
    const std::string second(20000, 'b');
    const std::string third(1135, 'c');
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

    ASSERT_EQ(strbuf_nappend(&sb, first.data(), first.size()), 0);
    EXPECT_EQ(sb.size, 70655U); // (0 + 70000 + 1) | 1023

    ASSERT_EQ(strbuf_nappend(&sb, second.data(), second.size()), 0);
    EXPECT_EQ(sb.size, 91135U); // (70655 + 20000 + 1) | 1023
    EXPECT_GE(malloc_usable_size(sb.text), sb.size);
    EXPECT_LT(malloc_usable_size(sb.text), sb.size + page);

    // 1135 bytes do not fit in the room of 1135: one more realloc.
    {
        const qx_test::failing_allocation count_only(LONG_MAX);
        ASSERT_EQ(strbuf_nappend(&sb, third.data(), third.size()), 0);
        EXPECT_EQ(qx_test::allocations_seen(), 1);
    }
    EXPECT_EQ(sb.size, 93183U); // (91135 + 1135 + 1) | 1023
    EXPECT_EQ(sb.length, 91135U);
    EXPECT_GE(malloc_usable_size(sb.text), sb.size);
    EXPECT_LT(malloc_usable_size(sb.text), sb.size + page);
    EXPECT_TRUE(sb.bytes() == first + second + third); // no dump of 90 kB on failure
    EXPECT_EQ(sb.text[sb.length], '\0');
}

// The same growth failing: -1 and the buffer as it was, although the block
// the allocator handed out before may well have held the new size.
TEST(StrbufNappend, AFailedReallocOfALargeBufferLeavesItUnchanged) {
    owned_strbuf sb;
    const std::string first(70000, 'a');
    const std::string second(20000, 'b');
    const std::string third(1135, 'c');
    ASSERT_EQ(strbuf_nappend(&sb, first.data(), first.size()), 0);
    ASSERT_EQ(strbuf_nappend(&sb, second.data(), second.size()), 0);
    const char *text = sb.text;
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_nappend(&sb, third.data(), third.size()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, text);
    EXPECT_EQ(sb.length, 90000U);
    EXPECT_EQ(sb.size, 91135U);
    EXPECT_TRUE(std::string(sb.text, sb.length + 1) == first + second + std::string(1, '\0'));
}

TEST(StrbufAppend, CopiesEveryShortLengthWithItsNulAndNoByteMore) {
    check_short_copies([](strbuf &sb, std::size_t n) {
        // Exactly n + 1 bytes: a read past the NUL is caught by the
        // sanitizer and valgrind runs.
        std::vector<char> str(n + 1, '\0');
        for (std::size_t i = 0; i < n; ++i)
            str[i] = static_cast<char>('a' + i % 26);
        EXPECT_EQ(strbuf_append(&sb, str.data()), 0);
        return std::string(str.data(), n);
    });
}

TEST(StrbufAppend, NullStringFailsAndChangesNothing) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "keep"), 0);
    const snapshot before(sb);
    EXPECT_EQ(strbuf_append(&sb, nullptr), -1);
    expect_unchanged(sb, before);
}

TEST(StrbufAppend, FailedGrowthLeavesTheBufferUnchanged) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    const snapshot before(sb);
    const std::string big(2000, 'x');
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_append(&sb, big.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    expect_unchanged(sb, before);
}

TEST(StrbufAppend, FirstAllocationFailureLeavesAZeroRecord) {
    strbuf sb{};
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_append(&sb, "x"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);
}

TEST(StrbufNappend, KeepsEmbeddedNulBytes) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "a\0b", 3), 0);
    EXPECT_EQ(sb.length, 3U);
    EXPECT_EQ(sb.bytes(), std::string("a\0b", 3));
    EXPECT_EQ(sb.text[3], '\0');
    EXPECT_EQ(qx_string_is_empty(&sb), 0);
    EXPECT_EQ(std::strlen(sb.text), 1U);
}

TEST(StrbufNappend, CopiesEveryShortLengthExactlyAndTerminatesIt) {
    check_short_copies([](strbuf &sb, std::size_t n) {
        // n bytes with a NUL at every seventh place; an empty vector may hand
        // out a null pointer, which nappend refuses.
        std::vector<char> data(n);
        for (std::size_t i = 0; i < n; ++i)
            data[i] = i % 7 == 6 ? '\0' : static_cast<char>('A' + i % 26);
        EXPECT_EQ(strbuf_nappend(&sb, n == 0 ? "" : data.data(), n), 0);
        return std::string(data.begin(), data.end());
    });
}

TEST(StrbufNappend, NullDataFails) {
    owned_strbuf sb;
    EXPECT_EQ(strbuf_nappend(&sb, nullptr, 3), -1);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
}

TEST(StrbufNappend, ZeroBytesOnZeroRecordAllocatesAndTerminates) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "ignored", 0), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.text[0], '\0');
}

TEST(StrbufNappend, FailedGrowthLeavesTheBufferUnchanged) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "a\0b", 3), 0);
    const snapshot before(sb);
    const std::string big(1021, 'n'); // one more than the room of 1020
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_nappend(&sb, big.data(), big.size()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    expect_unchanged(sb, before);
}

TEST(StrbufNappend, SizeThatWouldWrapAroundFailsUnchanged) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    const snapshot before(sb);
    // The data is never read: the size check fails first.
    EXPECT_EQ(strbuf_nappend(&sb, "x", SIZE_MAX - 5), -1);
    EXPECT_EQ(strbuf_nappend(&sb, "x", SIZE_MAX), -1);
    expect_unchanged(sb, before);
}

TEST(StrbufPrepend, PutsTheStringInFront) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "cd"), 0);
    ASSERT_EQ(strbuf_prepend(&sb, "ab"), 0);
    EXPECT_STREQ(sb.text, "abcd");
    EXPECT_EQ(sb.length, 4U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufPrepend, NullStringReturnsZeroAndChangesNothing) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "cd"), 0);
    const snapshot before(sb);
    EXPECT_EQ(strbuf_prepend(&sb, nullptr), 0);
    expect_unchanged(sb, before);
}

TEST(StrbufPrepend, WorksOnAZeroRecord) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_prepend(&sb, "only"), 0);
    EXPECT_STREQ(sb.text, "only");
    EXPECT_EQ(sb.length, 4U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufPrepend, EmptyStringOnAZeroRecordAllocates) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_prepend(&sb, ""), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
}

TEST(StrbufPrepend, GrowsWithRuleAAndMovesTheOldText) {
    owned_strbuf sb;
    const std::string tail(1000, 't');
    const std::string head(100, 'h');
    ASSERT_EQ(strbuf_append(&sb, tail.c_str()), 0);
    ASSERT_EQ(strbuf_prepend(&sb, head.c_str()), 0);
    EXPECT_EQ(sb.size, 2047U); // (1023 + 100 + 1) | 1023
    EXPECT_EQ(sb.bytes(), head + tail);
    EXPECT_EQ(sb.text[1100], '\0');
}

TEST(StrbufPrepend, FailedGrowthLeavesTheBufferUnchanged) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, std::string(1000, 't').c_str()), 0);
    const snapshot before(sb);
    const std::string head(100, 'h');
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_prepend(&sb, head.c_str()); });
    EXPECT_EQ(result, -1);
    expect_unchanged(sb, before);
}

TEST(StrbufPut, ReplacesTheText) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "hello"), 0);
    ASSERT_EQ(strbuf_put(&sb, "hi"), 0);
    EXPECT_STREQ(sb.text, "hi");
    EXPECT_EQ(sb.length, 2U);
}

TEST(StrbufPut, NullStringFailsWithLengthZeroAndTheOldBytesInPlace) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "hello"), 0);
    EXPECT_EQ(strbuf_put(&sb, nullptr), -1);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "hello");
}

TEST(StrbufPut, FailedGrowthLeavesLengthZeroAndTheOldBytesInPlace) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "hello"), 0);
    const char *before = sb.text;
    const std::string big(1023, 'p'); // needs 1024 bytes with its NUL
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_put(&sb, big.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_STREQ(sb.text, "hello");
}

TEST(StrbufPut, GrowsFromTheOldSize) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "hello"), 0);
    ASSERT_EQ(strbuf_put(&sb, std::string(1023, 'p').c_str()), 0);
    EXPECT_EQ(sb.size, 2047U); // (1023 + 1023 + 1) | 1023
    EXPECT_EQ(sb.length, 1023U);
}

TEST(StrbufSetlength, ShorterLengthCutsWithANul) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abcdef"), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 2), 0);
    EXPECT_EQ(sb.length, 2U);
    EXPECT_STREQ(sb.text, "ab");
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufSetlength, LongerLengthKeepsOldBytesAndTerminatesTheNewEnd) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abcdef"), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 2), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 5), 0);
    EXPECT_EQ(sb.length, 5U);
    // The bytes between are not cleared: the old "cde" (and the NUL written
    // over 'c' by the cut) are still there.
    EXPECT_EQ(sb.bytes(), std::string("ab\0de", 5));
    EXPECT_EQ(sb.text[5], '\0');
}

TEST(StrbufSetlength, GrowsWithRuleBFromTheRequestedLengthAlone) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 5000), 0);
    EXPECT_EQ(sb.size, 5119U); // 5001 | 1023
    EXPECT_EQ(sb.length, 5000U);
    EXPECT_EQ(sb.text[5000], '\0');
    EXPECT_EQ(std::string(sb.text, 3), "abc");
    // Exactly size - 1 fits without growth.
    ASSERT_EQ(strbuf_setlength(&sb, 5118), 0);
    EXPECT_EQ(sb.size, 5119U);
    ASSERT_EQ(strbuf_setlength(&sb, 5119), 0);
    EXPECT_EQ(sb.size, 6143U); // 5120 | 1023
}

TEST(StrbufSetlength, ZeroOnAZeroRecordAllocates) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_setlength(&sb, 0), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.text[0], '\0');
}

TEST(StrbufSetlength, FailedGrowthLeavesTheBufferUnchanged) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
    const snapshot before(sb);
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_setlength(&sb, 4000); });
    EXPECT_EQ(result, -1);
    expect_unchanged(sb, before);
    EXPECT_EQ(strbuf_setlength(&sb, SIZE_MAX), -1);
    expect_unchanged(sb, before);
}

TEST(StrbufChomp, RemovesTrailingWhiteSpace) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "line \r\n"), 0);
    strbuf_chomp(&sb);
    EXPECT_STREQ(sb.text, "line");
    EXPECT_EQ(sb.length, 4U);
}

TEST(StrbufChomp, WhiteSpaceOnlyLeavesAnEmptyText) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, " \t\n\v\f\r"), 0);
    strbuf_chomp(&sb);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
    // Every removed byte was overwritten with a NUL.
    EXPECT_EQ(std::string(sb.text, 6), std::string(6, '\0'));
}

TEST(StrbufChomp, ZeroRecordIsLeftAlone) {
    strbuf sb{};
    strbuf_chomp(&sb);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
}

TEST(StrbufChomp, StopsAtTheFirstNonSpaceFromTheEnd) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, " a b \n"), 0);
    strbuf_chomp(&sb);
    EXPECT_STREQ(sb.text, " a b");
}

TEST(StrbufChomp, NeverTakesByte0xFFForWhiteSpace) {
    // As a signed char, 0xFF is EOF to isspace: it stops the chomp like
    // any other text.
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "a\xFF \t\n"), 0);
    strbuf_chomp(&sb);
    EXPECT_EQ(sb.length, 2U);
    EXPECT_STREQ(sb.text, "a\xFF");
    strbuf_chomp(&sb);
    EXPECT_STREQ(sb.text, "a\xFF");
}

TEST(StrbufTruncAt, CutsAtTheFirstOfTheCharacters) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "key=1 # note"), 0);
    char *cut = strbuf_trunc_at(&sb, "#;");
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(cut, sb.text + 6);
    EXPECT_EQ(*cut, '\0');
    EXPECT_STREQ(sb.text, "key=1 ");
    EXPECT_EQ(sb.length, 6U);
}

TEST(StrbufTruncAt, NoMatchReturnsNullAndChangesNothing) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "key=1"), 0);
    const snapshot before(sb);
    EXPECT_EQ(strbuf_trunc_at(&sb, "#;"), nullptr);
    expect_unchanged(sb, before);
}

TEST(StrbufWrite, WritesExactlyLengthBytesInOneCall) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "a\0bc", 4), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(strbuf_write(&sb, fds[1]), 4);
    char got[8] = {};
    EXPECT_EQ(read(fds[0], got, sizeof got), 4);
    EXPECT_EQ(std::string(got, 4), std::string("a\0bc", 4));
    close(fds[0]);
    close(fds[1]);
}

TEST(StrbufWrite, ReturnsTheWriteErrorAsItIs) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_append(&sb, "x"), 0);
    errno = 0;
    EXPECT_EQ(strbuf_write(&sb, -1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(StrbufLen, ReturnsTheLengthField) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "abc\0", 4), 0);
    EXPECT_EQ(strbuf_len(&sb), 4U);
}

TEST(StrbufFree, ReleasesAndClearsTheRecordForReuse) {
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "text"), 0);
    strbuf_free(&sb);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);
    ASSERT_EQ(strbuf_append(&sb, "again"), 0);
    EXPECT_STREQ(sb.text, "again");
    strbuf_free(&sb);
}

TEST(StrbufFree, RecordWithSizeZeroIsNotFreedButCleared) {
    char borrowed[] = "not owned";
    strbuf sb{borrowed, 9, 0};
    strbuf_free(&sb); // freeing a stack array would crash or be reported
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);
    EXPECT_STREQ(borrowed, "not owned");
}

TEST(StrbufWipefree, ZeroesExactlyLengthBytesBeforeFreeing) {
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "secretXYZ"), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 6), 0); // "secret", NUL, then "YZ" beyond
    qx_test::watch_free(sb.text, 10);
    strbuf_wipefree(&sb);
    ASSERT_TRUE(qx_test::watched_block_was_freed());
    const std::string seen(reinterpret_cast<const char *>(qx_test::watched_block_contents()), 10);
    EXPECT_EQ(seen, std::string("\0\0\0\0\0\0\0YZ\0", 10));
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);
}

TEST(StrbufWipefree, ZeroesEvenWhenTheTextIsNotOwned) {
    char borrowed[] = "pin1234";
    strbuf sb{borrowed, 3, 0};
    strbuf_wipefree(&sb);
    EXPECT_EQ(std::string(borrowed, 7), std::string("\0\0\0"
                                                    "1234",
                                                    7));
    EXPECT_EQ(sb.text, nullptr);
}

TEST(QxString, NewGivesAZeroFilledHeapRecord) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    EXPECT_EQ(sb->text, nullptr);
    EXPECT_EQ(sb->length, 0U);
    EXPECT_EQ(sb->size, 0U);
    qx_string_delete(sb);
}

TEST(QxString, NewReturnsNullWhenMemoryIsExhausted) {
    strbuf *sb = qx_test::call_with_failing_allocation(0, [] { return qx_string_new(); });
    EXPECT_EQ(sb, nullptr);
}

TEST(QxString, DeleteAcceptsNull) {
    qx_string_delete(nullptr);
}

TEST(QxString, DeleteFreesTheTextEvenWhenSizeIsZero) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    sb->text = strdup("heap text"); // size stays 0
    sb->length = 9;
    qx_test::watch_free(sb->text, 0);
    qx_string_delete(sb);
    EXPECT_TRUE(qx_test::watched_block_was_freed());
}

TEST(QxString, EmptinessLooksAtTheFirstByteNotTheLength) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    EXPECT_EQ(qx_string_is_empty(sb), 1);
    EXPECT_EQ(qx_string_has_value(sb), 0);
    ASSERT_EQ(strbuf_nappend(sb, "\0x", 2), 0);
    EXPECT_EQ(qx_string_is_empty(sb), 1);
    EXPECT_EQ(qx_string_has_value(sb), 0);
    ASSERT_EQ(strbuf_put(sb, "v"), 0);
    EXPECT_EQ(qx_string_is_empty(sb), 0);
    EXPECT_EQ(qx_string_has_value(sb), 1);
    qx_string_delete(sb);
}

TEST(QxString, IsEqualComparesTheText) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    ASSERT_EQ(strbuf_append(sb, "abc"), 0);
    EXPECT_EQ(qx_string_is_equal(sb, "abc"), 1);
    EXPECT_EQ(qx_string_is_equal(sb, "abd"), 0);
    EXPECT_EQ(qx_string_is_equal(sb, "ab"), 0);
    qx_string_delete(sb);
}

TEST(QxString, ClearOnANeverGrownRecordAllocates) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    ASSERT_EQ(qx_string_clear(sb), 0);
    EXPECT_EQ(sb->size, 1023U);
    EXPECT_EQ(sb->length, 0U);
    EXPECT_STREQ(sb->text, "");
    ASSERT_EQ(strbuf_append(sb, "abc"), 0);
    ASSERT_EQ(qx_string_clear(sb), 0);
    EXPECT_STREQ(sb->text, "");
    EXPECT_EQ(sb->length, 0U);
    qx_string_delete(sb);
}

TEST(QxString, ClearThatCannotAllocateFailsAndLeavesTheRecordZero) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return qx_string_clear(sb); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb->text, nullptr);
    EXPECT_EQ(sb->length, 0U);
    EXPECT_EQ(sb->size, 0U);
    qx_string_delete(sb);
}

TEST(QxString, ClearKeepsTheCapacity) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    ASSERT_EQ(strbuf_append(sb, std::string(3000, 'c').c_str()), 0);
    const char *before = sb->text;
    ASSERT_EQ(qx_string_clear(sb), 0);
    EXPECT_EQ(sb->text, before);
    EXPECT_EQ(sb->size, 3071U);
    EXPECT_EQ(sb->length, 0U);
    EXPECT_EQ(qx_string_is_empty(sb), 1);
    qx_string_delete(sb);
}

TEST(QxString, MixesFreelyWithTheStrbufFunctions) {
    strbuf *sb = qx_string_new();
    ASSERT_NE(sb, nullptr);
    ASSERT_EQ(strbuf_append(sb, "b"), 0);
    ASSERT_EQ(strbuf_prepend(sb, "a"), 0);
    EXPECT_EQ(qx_string_is_equal(sb, "ab"), 1);
    EXPECT_EQ(strbuf_len(sb), 2U);
    qx_string_delete(sb);
}

// ---- allocation-failure sweeps ----------------------------------------------

TEST(StrbufSweep, EveryGrowingCallFailsCleanlyOnItsAllocation) {
    const std::string big(2000, 'g');
    struct growing_call {
        const char *name;
        std::function<int(strbuf *)> call;
        std::string expected; // the text after the call succeeded
    };
    const std::vector<growing_call> calls{
        {"append", [&](strbuf *sb) { return strbuf_append(sb, big.c_str()); }, "abc" + big},
        {"nappend", [&](strbuf *sb) { return strbuf_nappend(sb, big.data(), big.size()); },
         "abc" + big},
        {"prepend", [&](strbuf *sb) { return strbuf_prepend(sb, big.c_str()); }, big + "abc"},
    };
    for (const growing_call &c : calls) {
        const long allocations = qx_test::sweep_allocation_failures([&](long n) {
            owned_strbuf sb;
            ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
            const snapshot before(sb);
            const int result =
                qx_test::call_with_failing_allocation(n, [&] { return c.call(&sb); });
            if (qx_test::allocation_was_failed()) {
                EXPECT_EQ(result, -1) << c.name;
                expect_unchanged(sb, before);
            } else {
                EXPECT_EQ(result, 0) << c.name;
                EXPECT_EQ(sb.bytes(), c.expected) << c.name;
                EXPECT_EQ(sb.size, 3071U) << c.name; // (2000 + 1023 + 1) | 1023
            }
        });
        EXPECT_EQ(allocations, 1) << c.name;
    }
}

TEST(StrbufSweep, SetLengthBeyondTheCapacityFailsCleanly) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb;
        ASSERT_EQ(strbuf_append(&sb, "abc"), 0);
        const snapshot before(sb);
        const int result =
            qx_test::call_with_failing_allocation(n, [&] { return strbuf_setlength(&sb, 4000); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            expect_unchanged(sb, before);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.length, 4000U);
            EXPECT_EQ(sb.size, 4095U); // 4001 with the ten low bits set
            EXPECT_EQ(std::string(sb.text, 3), "abc");
        }
    });
    EXPECT_EQ(allocations, 1);
}

TEST(StrbufSweep, QxStringNewFailsWithNullAndThenGivesAZeroRecord) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        strbuf *sb = qx_test::call_with_failing_allocation(n, [] { return qx_string_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(sb, nullptr);
        } else {
            ASSERT_NE(sb, nullptr);
            EXPECT_EQ(sb->text, nullptr);
            EXPECT_EQ(sb->size, 0U);
        }
        qx_string_delete(sb);
    });
    EXPECT_EQ(allocations, 1);
}

} // namespace
