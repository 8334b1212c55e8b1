// Formatted output, times and template substitution into a strbuf.
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "qxcommon-util/strbuf.h"
#include "qxcommon-util/strbuf_format.h"
#include "support/alloc_fail.hpp"

namespace {

struct owned_strbuf : strbuf {
    owned_strbuf() : strbuf{} {}
    explicit owned_strbuf(const char *initial) : strbuf{} {
        if (strbuf_append(this, initial) != 0)
            std::abort();
    }
    ~owned_strbuf() { strbuf_free(this); }
    owned_strbuf(const owned_strbuf &) = delete;
    owned_strbuf &operator=(const owned_strbuf &) = delete;
    std::string str() const { return text == nullptr ? std::string() : std::string(text, length); }
};

int vappendf_helper(strbuf *sb, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    const int result = strbuf_vappendf(sb, format, ap);
    va_end(ap);
    return result;
}

TEST(StrbufAppendf, FormatsIntoAZeroRecord) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_appendf(&sb, "%d", 42), 0);
    EXPECT_STREQ(sb.text, "42");
    EXPECT_EQ(sb.length, 2U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufAppendf, AppendsAfterTheExistingText) {
    owned_strbuf sb("n=");
    ASSERT_EQ(strbuf_appendf(&sb, "%s-%05d", "x", 12), 0);
    EXPECT_STREQ(sb.text, "n=x-00012");
    EXPECT_EQ(sb.length, 9U);
}

TEST(StrbufAppendf, OutputOfRoomMinusOneBytesFitsInPlace) {
    owned_strbuf sb("abc");
    const char *before = sb.text;
    const std::string fill(1019, 'f'); // room is 1020
    ASSERT_EQ(strbuf_appendf(&sb, "%s", fill.c_str()), 0);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 1022U);
    EXPECT_EQ(sb.str(), "abc" + fill);
}

TEST(StrbufAppendf, OneByteMoreReallocatesAndFormatsAgain) {
    owned_strbuf sb("abc");
    const std::string fill(1020, 'f');
    ASSERT_EQ(strbuf_appendf(&sb, "%s", fill.c_str()), 0);
    EXPECT_EQ(sb.size, 2047U); // (1020 + 1023 + 1) | 1023
    EXPECT_EQ(sb.length, 1023U);
    EXPECT_EQ(sb.str(), "abc" + fill);
    EXPECT_EQ(sb.text[1023], '\0');
}

TEST(StrbufAppendf, GrowthFromAZeroRecordUsesTheCountAlone) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_appendf(&sb, "%s", std::string(3000, 'z').c_str()), 0);
    EXPECT_EQ(sb.size, 3071U); // (3000 + 0 + 1) | 1023
    EXPECT_EQ(sb.length, 3000U);
}

TEST(StrbufAppendf, FailedGrowthReturnsMinusOneAndKeepsTheText) {
    owned_strbuf sb("abc");
    const char *before = sb.text;
    const std::string big(2000, 'x');
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_appendf(&sb, "%s", big.c_str()); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.length, 3U);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_STREQ(sb.text, "abc");
}

TEST(StrbufAppendf, FormatErrorShortensTheLengthByOneAndStillReturnsZero) {
    // A wide character that the C locale cannot convert makes vsnprintf
    // fail; the second pass is trusted as it stands.
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    owned_strbuf sb("abc");
    const wchar_t bad[] = {static_cast<wchar_t>(0x20AC), 0};
    EXPECT_EQ(strbuf_appendf(&sb, "%ls", bad), 0);
    EXPECT_EQ(sb.length, 2U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufVappendf, TakesAVaList) {
    owned_strbuf sb;
    ASSERT_EQ(vappendf_helper(&sb, "%s:%u", "port", 25U), 0);
    EXPECT_STREQ(sb.text, "port:25");
}

TEST(StrbufVappendf, ZeroRecordWithEmptyOutputAllocates) {
    owned_strbuf sb;
    ASSERT_EQ(vappendf_helper(&sb, "%s", ""), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
}

TEST(StrbufPutf, ReplacesTheText) {
    owned_strbuf sb("old text");
    ASSERT_EQ(strbuf_putf(&sb, "%d-%d", 1, 2), 0);
    EXPECT_STREQ(sb.text, "1-2");
    EXPECT_EQ(sb.length, 3U);
}

TEST(StrbufPutf, FailureLeavesLengthZeroAndTheOldBytesInPlace) {
    owned_strbuf sb("old text");
    const char *before = sb.text;
    const std::string big(3000, 'x');
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_putf(&sb, "%s", big.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.size, 1023U);
    // As with strbuf_put: no NUL is written at position 0.
    EXPECT_EQ(std::string(sb.text, 9), std::string("old text\0", 9));
}

TEST(StrbufPutf, GrowsFromTheOldSizeLikeAnAppend) {
    owned_strbuf sb("old text");
    const std::string big(3000, 'x');
    ASSERT_EQ(strbuf_putf(&sb, "%s", big.c_str()), 0);
    EXPECT_EQ(sb.size, 4095U); // (3000 + 1023 + 1) with the ten low bits set
    EXPECT_EQ(sb.length, 3000U);
    EXPECT_EQ(sb.str(), big);
    EXPECT_EQ(sb.text[3000], '\0');
}

TEST(StrbufPutf, OnAZeroRecordAllocatesOneKibibyteLessOne) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_putf(&sb, "%s", "x"), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_STREQ(sb.text, "x");
}

TEST(StrbufPutf, TextOfSizeMinusOneBytesFitsInPlace) {
    owned_strbuf sb("old");
    const char *before = sb.text;
    ASSERT_EQ(strbuf_putf(&sb, "%s", std::string(1022, 'y').c_str()), 0);
    EXPECT_EQ(sb.text, before);
    EXPECT_EQ(sb.size, 1023U);
    ASSERT_EQ(strbuf_putf(&sb, "%s", std::string(1023, 'y').c_str()), 0);
    EXPECT_EQ(sb.size, 2047U); // (1023 + 1023 + 1) with the ten low bits set
    EXPECT_EQ(sb.length, 1023U);
}

TEST(StrbufPrependf, PutsFormattedTextInFront) {
    owned_strbuf sb("bc");
    ASSERT_EQ(strbuf_prependf(&sb, "%s:", "a"), 0);
    EXPECT_STREQ(sb.text, "a:bc");
    EXPECT_EQ(sb.length, 4U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufPrependf, OnAZeroRecordGivesTheFormattedText) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_prependf(&sb, "%s:", "a"), 0);
    EXPECT_STREQ(sb.text, "a:");
    EXPECT_EQ(sb.length, 2U);
}

TEST(StrbufPrependf, CapacityIsThatOfAFreshBufferForTheWholeText) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_setlength(&sb, 5000), 0); // size 5119
    ASSERT_EQ(strbuf_setlength(&sb, 2), 0);
    sb.text[0] = 'b';
    sb.text[1] = 'c';
    ASSERT_EQ(strbuf_prependf(&sb, "%c", 'a'), 0);
    EXPECT_STREQ(sb.text, "abc");
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufPrependf, KeepsEmbeddedNulBytesOfTheOldText) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_nappend(&sb, "x\0y", 3), 0);
    ASSERT_EQ(strbuf_prependf(&sb, "%d", 7), 0);
    EXPECT_EQ(sb.str(), std::string("7x\0y", 4));
}

TEST(StrbufPrependf, FailuresLeaveTheCallersBufferUnchanged) {
    // Allocation 0 is the scratch buffer's, 1 its growth for the old text.
    const std::string tail(1500, 't');
    for (long n = 0; n < 2; ++n) {
        owned_strbuf sb(tail.c_str());
        const char *before = sb.text;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_prependf(&sb, "%s", "head"); });
        EXPECT_TRUE(qx_test::allocation_was_failed());
        EXPECT_EQ(result, -1) << "allocation " << n;
        EXPECT_EQ(sb.text, before);
        EXPECT_EQ(sb.length, 1500U);
        EXPECT_EQ(sb.size, 2047U);
        EXPECT_EQ(sb.str(), tail);
    }
}

TEST(QxStringAppendInt, SignedValues) {
    owned_strbuf sb;
    ASSERT_EQ(qx_string_append_lsint(&sb, -5), 0);
    EXPECT_STREQ(sb.text, "-5");
    ASSERT_EQ(qx_string_append_lsint(&sb, LONG_MIN), 0);
    EXPECT_STREQ(sb.text, "-5-9223372036854775808");
}

TEST(QxStringAppendInt, UnsignedValuesWithAllTwentyDigits) {
    owned_strbuf sb;
    ASSERT_EQ(qx_string_append_luint(&sb, 18446744073709551615UL), 0);
    EXPECT_STREQ(sb.text, "18446744073709551615");
    EXPECT_EQ(sb.length, 20U);
}

struct tm sample_tm() {
    struct tm tm {};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 1;
    tm.tm_mday = 29;
    tm.tm_hour = 13;
    tm.tm_min = 5;
    tm.tm_sec = 9;
    return tm;
}

TEST(StrbufAppendfTm, AppendsTheStrftimeText) {
    owned_strbuf sb("at ");
    const struct tm tm = sample_tm();
    ASSERT_EQ(strbuf_appendf_tm(&sb, "%Y-%m-%d %H:%M:%S", &tm), 0);
    EXPECT_STREQ(sb.text, "at 2024-02-29 13:05:09");
}

TEST(StrbufAppendfTm, EmptyFormatFailsAndAppendsNothing) {
    owned_strbuf sb("x");
    const struct tm tm = sample_tm();
    EXPECT_EQ(strbuf_appendf_tm(&sb, "", &tm), -1);
    EXPECT_STREQ(sb.text, "x");
    EXPECT_EQ(sb.length, 1U);
}

TEST(StrbufAppendfTm, TextOf999BytesFitsAndOf1000BytesFails) {
    owned_strbuf sb;
    const struct tm tm = sample_tm();
    const std::string fits(999, 'k');
    ASSERT_EQ(strbuf_appendf_tm(&sb, fits.c_str(), &tm), 0);
    EXPECT_EQ(sb.length, 999U);
    const std::string too_long(1000, 'k');
    EXPECT_EQ(strbuf_appendf_tm(&sb, too_long.c_str(), &tm), -1);
    EXPECT_EQ(sb.length, 999U);
}

TEST(StrbufAppendfTime, GmtimeFormatsTheEpoch) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_appendf_gmtime(&sb, "%Y-%m-%dT%H:%M:%SZ", 0), 0);
    EXPECT_STREQ(sb.text, "1970-01-01T00:00:00Z");
    ASSERT_EQ(strbuf_appendf_gmtime(&sb, " %s", 86400 + 3661), 0);
    EXPECT_STREQ(sb.text, "1970-01-01T00:00:00Z 90061");
}

TEST(StrbufAppendfTime, LocaltimeUsesTheLocalZone) {
    const char *old = std::getenv("TZ");
    const std::string saved = old != nullptr ? old : "";
    setenv("TZ", "UTC-2", 1); // two hours east of UTC
    tzset();
    owned_strbuf sb;
    ASSERT_EQ(strbuf_appendf_localtime(&sb, "%H:%M", 0), 0);
    EXPECT_STREQ(sb.text, "02:00");
    if (old != nullptr)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

struct tm *no_conversion(const time_t *) {
    return nullptr;
}

const time_t *seen_time = nullptr;
time_t seen_value = 0;
struct tm *recording_conversion(const time_t *t) {
    seen_time = t;
    seen_value = *t;
    return gmtime(t);
}

TEST(StrbufAppendfTime, ConversionThatFailsGivesMinusOne) {
    owned_strbuf sb("x");
    EXPECT_EQ(strbuf_appendf_time_t(&sb, "%Y", 0, no_conversion), -1);
    EXPECT_STREQ(sb.text, "x");
}

TEST(StrbufAppendfTime, ConversionReceivesACopyOfTheTime) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_appendf_time_t(&sb, "%Y", 31536000, recording_conversion), 0);
    EXPECT_NE(seen_time, nullptr);
    EXPECT_EQ(seen_value, 31536000);
    EXPECT_STREQ(sb.text, "1971");
}

// Template substitution.

TEST(StrbufSubstitute, ReplacesANamedPlaceholder) {
    owned_strbuf sb("Hello $name$!");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "name", "World", nullptr), 1);
    EXPECT_STREQ(sb.text, "Hello World!");
    EXPECT_EQ(sb.length, 12U);
}

TEST(StrbufSubstitute, ClosingDelimiterOfAnUnknownPlaceholderCanOpenTheNext) {
    owned_strbuf sb("$x$y$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "y", "Y", nullptr), 1);
    EXPECT_STREQ(sb.text, "$xY");
}

TEST(StrbufSubstitute, TouchingPlaceholdersAreNotBothReplaced) {
    owned_strbuf sb("$a$$b$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "A", "b", "B", nullptr), 1);
    EXPECT_STREQ(sb.text, "A$b$");
}

TEST(StrbufSubstitute, PlaceholdersSeparatedByOneByteAreBothReplaced) {
    owned_strbuf sb("$a$-$b$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "A", "b", "B", nullptr), 2);
    EXPECT_STREQ(sb.text, "A-B");
}

TEST(StrbufSubstitute, NullValueRemovesThePlaceholder) {
    owned_strbuf sb("[$v$]");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "v", nullptr, nullptr), 1);
    EXPECT_STREQ(sb.text, "[]");
}

TEST(StrbufSubstitute, FirstMatchingPairInArgumentOrderWins) {
    owned_strbuf a("$a$");
    EXPECT_EQ(strbuf_substitute(&a, "$", "ab", "1", "a", "2", nullptr), 1);
    EXPECT_STREQ(a.text, "2");
    owned_strbuf ab("$ab$");
    EXPECT_EQ(strbuf_substitute(&ab, "$", "ab", "1", "a", "2", nullptr), 1);
    EXPECT_STREQ(ab.text, "1");
    owned_strbuf twice("$k$");
    EXPECT_EQ(strbuf_substitute(&twice, "$", "k", "first", "k", "second", nullptr), 1);
    EXPECT_STREQ(twice.text, "first");
}

TEST(StrbufSubstitute, TemplateWithoutDelimiterIsUnchangedButNewlyAllocated) {
    owned_strbuf sb;
    ASSERT_EQ(strbuf_setlength(&sb, 4000), 0); // size 4095
    ASSERT_EQ(strbuf_put(&sb, "plain text"), 0);
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "A", nullptr), 0);
    EXPECT_STREQ(sb.text, "plain text");
    EXPECT_EQ(sb.length, 10U);
    EXPECT_EQ(sb.size, 1023U); // a fresh buffer, not the old 4095
}

TEST(StrbufSubstitute, MultiByteDelimiterWorksTheSameWay) {
    owned_strbuf sb("${x${ and ${y${");
    EXPECT_EQ(strbuf_substitute(&sb, "${", "x", "1", "y", "2", nullptr), 2);
    EXPECT_STREQ(sb.text, "1 and 2");
}

TEST(StrbufSubstitute, UnknownPlaceholdersStayAsTheyAre) {
    owned_strbuf sb("$unknown$ and $known$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "known", "K", nullptr), 1);
    EXPECT_STREQ(sb.text, "$unknown$ and K");
}

TEST(StrbufSubstitute, ValuesAreNeverScannedAgain) {
    owned_strbuf sb("$a$ $b$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "$b$", "b", "B", nullptr), 2);
    EXPECT_STREQ(sb.text, "$b$ B");
}

TEST(StrbufSubstitute, SamePlaceholderManyTimes) {
    owned_strbuf sb("$n$+$n$=2$n$");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "n", "one", nullptr), 3);
    EXPECT_STREQ(sb.text, "one+one=2one");
}

TEST(StrbufSubstitute, EmptyNameMatchesTwoDelimitersInARow) {
    owned_strbuf sb("a$$b");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "", "-", nullptr), 1);
    EXPECT_STREQ(sb.text, "a-b");
}

TEST(StrbufSubstitute, UnterminatedPlaceholderAtTheEndStays) {
    owned_strbuf sb("cost: $price");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "price", "5", nullptr), 0);
    EXPECT_STREQ(sb.text, "cost: $price");
}

TEST(StrbufSubstitute, EmptyTemplateGivesAnEmptyAllocatedText) {
    owned_strbuf sb("");
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "A", nullptr), 0);
    ASSERT_NE(sb.text, nullptr);
    EXPECT_STREQ(sb.text, "");
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 1023U);
}

TEST(StrbufSubstitute, NullDelimiterFails) {
    owned_strbuf sb("$a$");
    const char *before = sb.text;
    EXPECT_EQ(strbuf_substitute(&sb, nullptr, "a", "A", nullptr), -1);
    EXPECT_EQ(sb.text, before);
    EXPECT_STREQ(sb.text, "$a$");
}

TEST(StrbufSubstitute, NullTextFails) {
    strbuf sb{};
    EXPECT_EQ(strbuf_substitute(&sb, "$", "a", "A", nullptr), -1);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
}

int vasubstitute_helper(strbuf *sb, const char *delimiter, ...) {
    va_list ap;
    va_start(ap, delimiter);
    const int result = strbuf_vasubstitute(sb, delimiter, ap);
    va_end(ap);
    return result;
}

TEST(StrbufVasubstitute, TakesAVaListOfPairs) {
    owned_strbuf sb("%user%@%host%");
    EXPECT_EQ(vasubstitute_helper(&sb, "%", "host", "example.org", "user", "root", nullptr), 2);
    EXPECT_STREQ(sb.text, "root@example.org");
}

TEST(StrbufSubstitute, FailedAppendWithNoLaterSuccessLeavesTheBufferUnchanged) {
    owned_strbuf sb("x $a$");
    const char *before = sb.text;
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_substitute(&sb, "$", "a", "A", nullptr); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, before);
    EXPECT_STREQ(sb.text, "x $a$");
}

TEST(StrbufSubstitute, LaterSuccessCountsUpFromMinusOne) {
    // The first substitution loses its allocation (count -1); the second
    // succeeds and brings the count back to 0, so the call "succeeds" with
    // the text before and the value of the first placeholder lost.
    owned_strbuf sb("$a$ $b$");
    const int result = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_substitute(&sb, "$", "a", "A", "b", "B", nullptr); });
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(sb.text, " B");
}

// ---- allocation-failure sweeps ----------------------------------------------
// Each call is run with its 1st, 2nd, ... allocation failing until a run
// makes none fail; a failing run must leave the caller's buffer as it was.

TEST(StrbufAppendfSweep, EveryFailedGrowthLeavesTheTextAndReturnsMinusOne) {
    const std::string big(2000, 'x');
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb("abc");
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_appendf(&sb, "%s", big.c_str()); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1) << "allocation " << n;
            EXPECT_EQ(sb.str(), "abc");
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.str(), "abc" + big);
            EXPECT_EQ(sb.size, 3071U); // (2000 + 1023 + 1) | 1023
        }
    });
    EXPECT_EQ(allocations, 1); // the one realloc of the growth
}

TEST(StrbufVappendfSweep, EveryFailedAllocationOfAZeroRecordLeavesItZero) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return vappendf_helper(&sb, "%s-%d", "port", 25); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, nullptr);
            EXPECT_EQ(sb.length, 0U);
            EXPECT_EQ(sb.size, 0U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_STREQ(sb.text, "port-25");
            EXPECT_EQ(sb.size, 1023U);
        }
    });
    EXPECT_EQ(allocations, 1);
}

TEST(StrbufPutfSweep, EveryFailureLeavesLengthZeroAndTheBlockInPlace) {
    const std::string big(1500, 'p');
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb("old");
        const char *before = sb.text;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_putf(&sb, "%s", big.c_str()); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, before);
            EXPECT_EQ(sb.length, 0U);
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.str(), big);
        }
    });
    EXPECT_EQ(allocations, 1);
}

TEST(StrbufPrependfSweep, EveryFailureLeavesTheCallersBufferUnchanged) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb("tail");
        const char *before = sb.text;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_prependf(&sb, "%d:", 12); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, before);
            EXPECT_EQ(sb.str(), "tail");
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.str(), "12:tail");
        }
    });
    // The scratch buffer's first allocation; the old text then fits in it.
    EXPECT_EQ(allocations, 1);
}

TEST(QxStringAppendIntSweep, FailedAllocationsLeaveAZeroRecordZero) {
    for (int is_signed = 0; is_signed < 2; ++is_signed) {
        const long allocations = qx_test::sweep_allocation_failures([&](long n) {
            owned_strbuf sb;
            const int result = qx_test::call_with_failing_allocation(n, [&] {
                return is_signed != 0 ? qx_string_append_lsint(&sb, -42)
                                      : qx_string_append_luint(&sb, 42UL);
            });
            if (qx_test::allocation_was_failed()) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(sb.text, nullptr);
                EXPECT_EQ(sb.size, 0U);
            } else {
                EXPECT_EQ(result, 0);
                EXPECT_EQ(sb.str(), is_signed != 0 ? "-42" : "42");
            }
        });
        EXPECT_EQ(allocations, 1) << (is_signed != 0 ? "lsint" : "luint");
    }
}

TEST(StrbufAppendfTimeSweep, FailedAppendOfTheGmtimeTextLeavesTheBufferUnchanged) {
    {
        // A first call outside the sweep, so that whatever the C library
        // sets up once for time conversion is not counted.
        owned_strbuf warm;
        ASSERT_EQ(strbuf_appendf_gmtime(&warm, "%Y", 0), 0);
    }
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_appendf_gmtime(&sb, "%Y-%m-%d", 0); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, nullptr);
            EXPECT_EQ(sb.size, 0U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.str(), "1970-01-01");
        }
    });
    EXPECT_EQ(allocations, 1);
}

TEST(StrbufAppendfTmSweep, FailedGrowthAppendsNothing) {
    struct tm tm {};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 1;
    tm.tm_mday = 29;
    const std::string head(1020, 'h');
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        owned_strbuf sb(head.c_str()); // size 1023: the date does not fit
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_appendf_tm(&sb, "%Y-%m-%d", &tm); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.str(), head);
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.str(), head + "2024-02-29");
            EXPECT_EQ(sb.size, 2047U);
        }
    });
    EXPECT_EQ(allocations, 1);
}

} // namespace
