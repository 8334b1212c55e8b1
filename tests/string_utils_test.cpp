#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qxcommon-util/string_utils.h"
#include "support/alloc_fail.hpp"

namespace {

// The bytes of a buffer, terminators and all.
std::string bytes(const char *buf, std::size_t n) {
    return std::string(buf, n);
}

} // namespace

TEST(QxStringUtilsIsEmpty, IsOneOnlyForTheEmptyString) {
    EXPECT_EQ(qx_string_utils_is_empty(""), 1);
    EXPECT_EQ(qx_string_utils_is_empty(" "), 0);
    EXPECT_EQ(qx_string_utils_is_empty("a"), 0);
}

TEST(QxStringUtilsHasValue, IsZeroForNullAndEmptyAndOneForABlank) {
    EXPECT_EQ(qx_string_utils_has_value(nullptr), 0);
    EXPECT_EQ(qx_string_utils_has_value(""), 0);
    EXPECT_EQ(qx_string_utils_has_value(" "), 1);
    EXPECT_EQ(qx_string_utils_has_value("x"), 1);
}

TEST(QxStringUtilsIsEqual, ComparesCaseSensitively) {
    EXPECT_EQ(qx_string_utils_is_equal("A", "a"), 0);
    EXPECT_EQ(qx_string_utils_is_equal("abc", "abc"), 1);
    EXPECT_EQ(qx_string_utils_is_equal("", ""), 1);
    EXPECT_EQ(qx_string_utils_is_equal("abc", "ab"), 0);
    EXPECT_EQ(qx_string_utils_is_equal("ab", "abc"), 0);
}

TEST(QxStringUtilsGetCopy, ReturnsAFreshCopyOfTheText) {
    const char original[] = "key = value";
    char *copy = qx_string_utils_get_copy(original);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, original);
    EXPECT_STREQ(copy, original);
    std::free(copy);
}

TEST(QxStringUtilsGetCopy, CopiesTheEmptyString) {
    char *copy = qx_string_utils_get_copy("");
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy[0], '\0');
    std::free(copy);
}

TEST(QxStringUtilsGetCopy, OfNullIsNull) {
    EXPECT_EQ(qx_string_utils_get_copy(nullptr), nullptr);
}

TEST(QxStringUtilsGetCopy, GivesNullWhenTheAllocationFails) {
    char *copy =
        qx_test::call_with_failing_allocation(0, [] { return qx_string_utils_get_copy("abc"); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(copy, nullptr);
}

TEST(QxStringUtilsTrim, LeavesTheInnerTextAtTheSameAddress) {
    char s[] = "  a b \t\n";
    char *const address = s;
    qx_string_utils_trim(s);
    EXPECT_EQ(s, address);
    EXPECT_STREQ(s, "a b");
    // Right trim wrote NULs over " \t\n", then "a b" moved two bytes down.
    EXPECT_EQ(bytes(s, sizeof s), std::string("a b\0b\0\0\0\0", 9));
}

TEST(QxStringUtilsTrim, RemovesEveryCLocaleWhiteSpaceByte) {
    char s[] = " \t\n\v\f\rmid\r\f\v\n\t ";
    qx_string_utils_trim(s);
    EXPECT_STREQ(s, "mid");
}

TEST(QxStringUtilsTrim, OfNullAndEmptyDoesNothing) {
    qx_string_utils_trim(nullptr);
    char s[] = "";
    qx_string_utils_trim(s);
    EXPECT_EQ(s[0], '\0');
}

TEST(QxStringUtilsTrim, OfOnlyWhiteSpaceLeavesTheEmptyString) {
    char s[] = " \t ";
    qx_string_utils_trim(s);
    EXPECT_STREQ(s, "");
}

TEST(QxStringUtilsTrimLeft, OfOnlyBlanksLeavesTheEmptyString) {
    char s[] = "   ";
    qx_string_utils_trim_left(s);
    EXPECT_STREQ(s, "");
    // Only the first byte is rewritten.
    EXPECT_EQ(bytes(s, sizeof s), std::string("\0  \0", 4));
}

TEST(QxStringUtilsTrimLeft, MovesTheRestToTheStartAndTerminatesIt) {
    char s[] = "\t  ab c ";
    qx_string_utils_trim_left(s);
    EXPECT_STREQ(s, "ab c ");
    EXPECT_EQ(bytes(s, sizeof s), std::string("ab c \0c \0", 9));
}

TEST(QxStringUtilsTrimLeft, LeavesAStringWithoutLeadingWhiteSpaceAlone) {
    char s[] = "ab  ";
    qx_string_utils_trim_left(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string("ab  \0", 5));
}

TEST(QxStringUtilsTrimLeft, OfNullAndEmptyDoesNothing) {
    qx_string_utils_trim_left(nullptr);
    char s[] = "\0x";
    qx_string_utils_trim_left(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string("\0x\0", 3));
}

TEST(QxStringUtilsTrimRight, OfASingleLetterLeavesIt) {
    char s[] = "x";
    qx_string_utils_trim_right(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string("x\0", 2));
}

TEST(QxStringUtilsTrimRight, OfEmptyAndOfNullDoesNothing) {
    qx_string_utils_trim_right(nullptr);
    char s[] = "\0 ";
    qx_string_utils_trim_right(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string("\0 \0", 3));
}

TEST(QxStringUtilsTrimRight, OverwritesEachTrailingWhiteSpaceByteWithNul) {
    char s[] = " a b\r\n ";
    qx_string_utils_trim_right(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string(" a b\0\0\0\0", 8));
}

TEST(QxStringUtilsTrimRight, OfOnlyWhiteSpaceClearsEveryByte) {
    char s[] = " \t\n";
    qx_string_utils_trim_right(s);
    EXPECT_EQ(bytes(s, sizeof s), std::string("\0\0\0\0", 4));
}

TEST(QxStringUtilsTrim, KeepsBytesAboveAsciiInTheCLocale) {
    std::setlocale(LC_CTYPE, "C");
    // 0xA0 (a no-break space in Latin-1) and 0xFF are not white space here.
    char s[] = "\xA0 x \xFF";
    qx_string_utils_trim(s);
    EXPECT_STREQ(s, "\xA0 x \xFF");
}
