#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "qxcommon-util/escape.h"
#include "qxcommon-util/strbuf.h"
#include "support/alloc_fail.hpp"
#include "support/simd_path.hpp"

namespace {

using namespace std::string_literals;

std::string text_of(const strbuf &sb) {
    return std::string(sb.text, sb.length);
}

// A heap copy of exactly the characters and their NUL, so that a read past
// the terminator is caught by the address sanitizer.
std::vector<char> c_string(std::string_view s) {
    std::vector<char> out(s.begin(), s.end());
    out.push_back('\0');
    return out;
}

struct Buffer : ::testing::Test {
    strbuf sb{};
    ~Buffer() override { strbuf_free(&sb); }
    void set(std::string_view text) {
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_nappend(&sb, text.data(), text.size()), 0);
    }
};

// ---- strbuf_urlencode ----

using UrlEncode = Buffer;

TEST_F(UrlEncode, EncodesReservedBytesWithLowerCaseHex) {
    set("a b/c~");
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(text_of(sb), "a%20b%2fc~");
    EXPECT_EQ(sb.text[sb.length], '\0');
}

TEST_F(UrlEncode, EncodesAByteAbove127) {
    set("\xC3");
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(text_of(sb), "%c3");
}

TEST_F(UrlEncode, KeepsOnlyTheUnreservedCharacters) {
    for (int b = 1; b < 256; ++b) {
        const char c = static_cast<char>(b);
        set(std::string(1, c));
        ASSERT_EQ(strbuf_urlencode(&sb), 0);
        const bool unreserved = (b >= 'A' && b <= 'Z') || (b >= 'a' && b <= 'z') ||
                                (b >= '0' && b <= '9') || b == '-' || b == '.' || b == '_' ||
                                b == '~';
        char expected[4];
        std::snprintf(expected, sizeof expected, "%%%02x", b);
        EXPECT_EQ(text_of(sb), unreserved ? std::string(1, c) : std::string(expected)) << b;
    }
}

TEST_F(UrlEncode, EncodesEachByteInAnyPlaceOfALongText) {
    // Every position up to a little over three rounds of 32 bytes, each
    // byte value in turn among unreserved ones, so that a long text is taken
    // both in plain runs and around the byte that needs escaping.
    const std::string plain = "abcdefghijklmnopqrstuvwxyz-._~ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (std::size_t length = 1; length <= 100; ++length) {
        const std::string unreserved = (plain + plain).substr(0, length);
        for (std::size_t k = 0; k < length; k += 7) {
            for (int b = 1; b < 256; b += 13) {
                std::string text = unreserved;
                text[k] = static_cast<char>(b);
                set(text);
                ASSERT_EQ(strbuf_urlencode(&sb), 0);
                const bool kept = plain.find(static_cast<char>(b)) != std::string::npos;
                char escaped[4];
                std::snprintf(escaped, sizeof escaped, "%%%02x", b);
                const std::string expected =
                    unreserved.substr(0, k) +
                    (kept ? std::string(1, static_cast<char>(b)) : std::string(escaped)) +
                    unreserved.substr(k + 1);
                ASSERT_EQ(text_of(sb), expected) << length << " " << k << " " << b;
                ASSERT_EQ(sb.text[sb.length], '\0');
            }
        }
        set(unreserved);
        ASSERT_EQ(strbuf_urlencode(&sb), 0);
        EXPECT_EQ(text_of(sb), unreserved);
    }
}

TEST_F(UrlEncode, LeavesAnEmptyTextEmpty) {
    set("");
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
}

TEST_F(UrlEncode, GivesAZeroRecordAnEmptyText) {
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(sb.length, 0U);
    ASSERT_NE(sb.text, nullptr);
    EXPECT_STREQ(sb.text, "");
}

TEST_F(UrlEncode, EndsTheTextAtItsFirstNul) {
    set("a b\0c d"s);
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(text_of(sb), "a%20b");
}

TEST_F(UrlEncode, MakesRoomForThreeTimesTheLength) {
    set(std::string(400, '/'));
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(sb.length, 1200U);
    EXPECT_EQ(sb.size, 2047U);
    std::string expected;
    for (int i = 0; i < 400; ++i)
        expected += "%2f";
    EXPECT_EQ(text_of(sb), expected);
}

TEST_F(UrlEncode, SizesTheRoomFromTheLengthAlone) {
    // strbuf_put of NULL leaves length 0 and the old bytes: the room asked
    // for is 0 bytes, and the 400 unreserved bytes walked fit where they are.
    set(std::string(400, 'a'));
    ASSERT_EQ(sb.size, 1023U);
    ASSERT_EQ(strbuf_put(&sb, nullptr), -1);
    ASSERT_EQ(sb.length, 0U);
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 400U);
    EXPECT_EQ(text_of(sb), std::string(400, 'a'));
    EXPECT_EQ(sb.text[400], '\0');
}

TEST_F(UrlEncode, SizesTheRoomFromTheLengthAloneAfterATranslationDeletedAll) {
    std::string text;
    std::string expected;
    for (int i = 0; i < 120; ++i) {
        text += "a b";
        expected += "a%20b";
    }
    set(text);
    ASSERT_EQ(sb.size, 1023U);
    ASSERT_EQ(strbuf_translate(&sb, "a b", nullptr), 0);
    ASSERT_EQ(sb.length, 0U);
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 600U);
    EXPECT_EQ(text_of(sb), expected);
    EXPECT_EQ(sb.text[600], '\0');
}

TEST_F(UrlEncode, GrowsToTheEncodedLengthWhenTheWalkOutrunsAShorterLength) {
    // A caller that shortened length by hand leaves the text's NUL far
    // behind it: 3 * 10 bytes are asked for, 3000 are written.
    set(std::string(1000, '/'));
    sb.length = 10;
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    std::string expected;
    for (int i = 0; i < 1000; ++i)
        expected += "%2f";
    EXPECT_EQ(sb.length, 3000U);
    EXPECT_EQ(text_of(sb), expected);
    EXPECT_EQ(sb.text[3000], '\0');
    EXPECT_EQ(sb.size, 3071U); // 3001 with the ten low bits set
}

TEST_F(UrlEncode, WalksOldBytesBeyondALengthOfZeroWithinItsRoom) {
    // A translation that deletes everything leaves length 0 and the old
    // bytes unterminated; the encoding walks them to their NUL, and as 1200
    // bytes do not fit in the block, grows it to hold them.
    set(std::string(400, '/'));
    ASSERT_EQ(strbuf_translate(&sb, "/", nullptr), 0);
    ASSERT_EQ(sb.length, 0U);
    EXPECT_EQ(strbuf_urlencode(&sb), 0);
    std::string expected;
    for (int i = 0; i < 400; ++i)
        expected += "%2f";
    EXPECT_EQ(sb.length, 1200U);
    EXPECT_EQ(text_of(sb), expected);
    EXPECT_EQ(sb.text[1200], '\0');
    EXPECT_EQ(sb.size, 2047U);
}

TEST_F(UrlEncode, EmptiesTheTextAndKeepsTheLengthOnMemoryFailure) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        set(std::string(400, '/'));
        const int result =
            qx_test::call_with_failing_allocation(n, [&] { return strbuf_urlencode(&sb); });
        if (!qx_test::allocation_was_failed())
            return;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(sb.text[0], '\0');
        EXPECT_EQ(sb.length, 400U);
        EXPECT_EQ(std::string(sb.text + 1, 399), std::string(399, '/'));
    });
    EXPECT_GE(allocations, 1); // at least the growth to 1200 bytes
}

TEST_F(UrlEncode, AFailedGrowthForOldBytesBeyondTheLengthEmptiesTheText) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        set(std::string(400, '/'));
        ASSERT_EQ(strbuf_translate(&sb, "/", nullptr), 0);
        ASSERT_EQ(sb.length, 0U);
        const int result =
            qx_test::call_with_failing_allocation(n, [&] { return strbuf_urlencode(&sb); });
        if (!qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(sb.length, 1200U);
            return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(sb.text[0], '\0');
        EXPECT_EQ(sb.length, 0U);
        EXPECT_EQ(sb.size, 1023U);
        EXPECT_EQ(std::string(sb.text + 1, 399), std::string(399, '/'));
    });
    EXPECT_GE(allocations, 1); // at least the growth to 1200 bytes
}

TEST(UrlRoundTrip, GivesBackAnyNulFreeBytesOfEveryLengthUpTo300) {
    std::mt19937 generator(3986);
    std::uniform_int_distribution<int> byte(1, 255);
    for (std::size_t n = 0; n <= 300; ++n) {
        std::string input(n, '\0');
        for (auto &c : input)
            c = static_cast<char>(byte(generator));
        strbuf sb{};
        ASSERT_EQ(strbuf_nappend(&sb, input.data(), n), 0);
        ASSERT_EQ(strbuf_urlencode(&sb), 0);
        EXPECT_EQ(std::string(sb.text).find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~%"),
                  std::string::npos);
        ASSERT_EQ(strbuf_urldecode(&sb), 0);
        EXPECT_EQ(text_of(sb), input) << n;
        strbuf_free(&sb);
    }
}

// ---- strbuf_urldecode ----

using UrlDecode = Buffer;

TEST_F(UrlDecode, DecodesEscapesOfEitherCaseAndPlus) {
    set("a+b%2Fc%41");
    EXPECT_EQ(strbuf_urldecode(&sb), 0);
    EXPECT_EQ(text_of(sb), "a b/cA");
    EXPECT_EQ(sb.text[6], '\0');
    set("%c3%A9%2f");
    EXPECT_EQ(strbuf_urldecode(&sb), 0);
    EXPECT_EQ(text_of(sb), "\xC3\xA9/");
}

TEST_F(UrlDecode, RejectsAPercentWithoutTwoHexDigits) {
    for (const char *bad : {"100%", "%g1", "%4", "%", "a%4g", "ok%%41"}) {
        set(bad);
        const std::size_t size = sb.size;
        EXPECT_EQ(strbuf_urldecode(&sb), -1) << bad;
        EXPECT_EQ(text_of(sb), bad);
        EXPECT_EQ(sb.text[sb.length], '\0');
        EXPECT_EQ(sb.size, size);
    }
}

TEST_F(UrlDecode, DoesNotReadPastAPercentAtTheEnd) {
    // A text that fills its whole block: strdup copies exactly that much.
    set("");
    sb.text = static_cast<char *>(std::realloc(sb.text, 4));
    std::memcpy(sb.text, "ab%", 4);
    sb.length = 3;
    sb.size = 4;
    EXPECT_EQ(strbuf_urldecode(&sb), -1);
    EXPECT_EQ(text_of(sb), "ab%");
}

TEST_F(UrlDecode, CountsADecodedNulAsAByte) {
    set("a%00b");
    EXPECT_EQ(strbuf_urldecode(&sb), 0);
    EXPECT_EQ(sb.length, 3U);
    EXPECT_EQ(std::string(sb.text, 4), "a\0b\0"s);
}

TEST_F(UrlDecode, KeepsOtherBytes) {
    set("~!*'();:@&=$,/?#[] \xFF");
    EXPECT_EQ(strbuf_urldecode(&sb), 0);
    EXPECT_EQ(text_of(sb), "~!*'();:@&=$,/?#[] \xFF");
}

TEST_F(UrlDecode, LeavesAZeroRecordAlone) {
    EXPECT_EQ(strbuf_urldecode(&sb), 0);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);
}

TEST_F(UrlDecode, LeavesTheBufferUnchangedOnMemoryFailure) {
    // The copy is made with strdup, whose allocation the sanitizer's own
    // allocator hides; without it, the sweep still checks every failure seen.
    qx_test::sweep_allocation_failures([&](long n) {
        set("a%20b");
        const int result =
            qx_test::call_with_failing_allocation(n, [&] { return strbuf_urldecode(&sb); });
        if (!qx_test::allocation_was_failed()) {
            EXPECT_EQ(text_of(sb), "a b");
            return;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(text_of(sb), "a%20b");
    });
}

// ---- strbuf_append_xmlencoded ----

using XmlEncoded = Buffer;

TEST_F(XmlEncoded, EscapesMarkupAndLeavesQuotes) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "a<b & c"), 0);
    EXPECT_EQ(text_of(sb), "a&lt;b &amp; c");
    set("");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\"it's\" > 'x'"), 0);
    EXPECT_EQ(text_of(sb), "\"it's\" &gt; 'x'");
}

TEST_F(XmlEncoded, WritesAUtf8SequenceAsAHexReference) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xC3\xA9"), 0);
    EXPECT_EQ(text_of(sb), "&#xE9;");
    set("");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xE2\x82\xAC 5 \xF0\x9F\x98\x80!"), 0);
    EXPECT_EQ(text_of(sb), "&#x20AC; 5 &#x1F600;!");
}

TEST_F(XmlEncoded, DropsTheByteAfterABadLeadByte) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xC3"
                                            "AB"),
              0);
    EXPECT_EQ(text_of(sb), "&#195;B");
    set("");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xE2\x82(x"), 0);
    EXPECT_EQ(text_of(sb), "&#226;x");
}

TEST_F(XmlEncoded, WritesALoneContinuationByteAsADecimalReference) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xA9"), 0);
    EXPECT_EQ(text_of(sb), "&#169;");
    set("");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xA9x"), 0);
    EXPECT_EQ(text_of(sb), "&#169;x");
}

TEST_F(XmlEncoded, StopsAtTheNulAfterATruncatedSequence) {
    for (const char *truncated : {"\xC3", "\xE2\x82", "\xF0\x9F\x98"}) {
        set("");
        const auto in = c_string(truncated);
        EXPECT_EQ(strbuf_append_xmlencoded(&sb, in.data()), 0);
        EXPECT_EQ(text_of(sb),
                  "&#" + std::to_string(static_cast<unsigned char>(truncated[0])) + ";");
    }
}

TEST_F(XmlEncoded, TreatsASequenceDecodingToZeroAsAFailure) {
    // The overlong form of NUL decodes to 0: the lead is written in decimal
    // and the byte after the sequence goes with it.
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\xC0\x80xy"), 0);
    EXPECT_EQ(text_of(sb), "&#192;y");
    set("");
    const auto in = c_string("\xC0\x80");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, in.data()), 0);
    EXPECT_EQ(text_of(sb), "&#192;");
}

TEST_F(XmlEncoded, WritesACarriageReturnAsAReference) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "a\rb"), 0);
    EXPECT_EQ(text_of(sb), "a&#13;b");
}

TEST_F(XmlEncoded, DropsAVerticalTab) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\v"), 0);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "a\vb\tc\nd"), 0);
    EXPECT_EQ(text_of(sb), "ab\tc\nd");
}

TEST_F(XmlEncoded, HandlesEverySingleByteValue) {
    for (int b = 1; b < 256; ++b) {
        set("");
        const char in[2] = {static_cast<char>(b), '\0'};
        ASSERT_EQ(strbuf_append_xmlencoded(&sb, in), 0) << b;
        std::string expected;
        if (b == '&')
            expected = "&amp;";
        else if (b == '<')
            expected = "&lt;";
        else if (b == '>')
            expected = "&gt;";
        else if (b == '\t' || b == '\n' || (b >= 32 && b <= 127))
            expected = std::string(1, static_cast<char>(b));
        else if (b == '\r' || b >= 128)
            expected = "&#" + std::to_string(b) + ";"; // alone, no byte >= 128 decodes
        EXPECT_EQ(text_of(sb), expected) << b;
    }
}

TEST_F(XmlEncoded, AppendsAfterTheText) {
    set("<p>");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "1 < 2"), 0);
    EXPECT_EQ(text_of(sb), "<p>1 &lt; 2");
}

TEST_F(XmlEncoded, ReturnsAtOnceForAnEmptyString) {
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, ""), 0);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
}

TEST_F(XmlEncoded, RefusesANullString) {
    set("kept");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, nullptr), -1);
    EXPECT_EQ(text_of(sb), "kept");
}

TEST_F(XmlEncoded, PassesOnAFailedAppendAndEndsTheWalk) {
    EXPECT_EQ(qx_test::call_with_failing_allocation(
                  0, [&] { return strbuf_append_xmlencoded(&sb, "a"); }),
              -1);
    EXPECT_EQ(sb.text, nullptr);

    // Room for one more byte: "a" fits, "b" needs growth, which fails.
    set(std::string(1021, '.'));
    EXPECT_EQ(qx_test::call_with_failing_allocation(
                  0, [&] { return strbuf_append_xmlencoded(&sb, "ab<"); }),
              -1);
    EXPECT_EQ(text_of(sb), std::string(1021, '.') + "a");
}

TEST_F(XmlEncoded, ReturnsAFailedHexReferenceWhenItIsTheLastAppend) {
    EXPECT_EQ(qx_test::call_with_failing_allocation(
                  0, [&] { return strbuf_append_xmlencoded(&sb, "\xC3\xA9"); }),
              -1);
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
}

TEST_F(XmlEncoded, GoesOnAfterAFailedHexReference) {
    // The reference is missing; the appends after it are made, and the
    // last of them gives the result.
    EXPECT_EQ(qx_test::call_with_failing_allocation(
                  0, [&] { return strbuf_append_xmlencoded(&sb, "\xC3\xA9<a"); }),
              0);
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(text_of(sb), "&lt;a");
}

TEST_F(XmlEncoded, ADroppedControlByteDoesNotChangeTheResult) {
    // Nothing is appended for the vertical tab, so the failed reference is
    // still the last append made.
    EXPECT_EQ(qx_test::call_with_failing_allocation(
                  0, [&] { return strbuf_append_xmlencoded(&sb, "\xC3\xA9\v"); }),
              -1);
    EXPECT_EQ(sb.text, nullptr);
    set("");
    EXPECT_EQ(strbuf_append_xmlencoded(&sb, "\v\x01\x1F"), 0);
    EXPECT_EQ(sb.length, 0U);
}

// ---- strbuf_quote ----

using Quote = Buffer;

TEST_F(Quote, PutsABackslashBeforeSpecialCharacters) {
    set("a:b");
    EXPECT_EQ(strbuf_quote(&sb, ":"), 0);
    EXPECT_EQ(text_of(sb), "a\\:b");
    set("k=v; x=\"y\"\xC3\xA9");
    EXPECT_EQ(strbuf_quote(&sb, "=\"\xA9"), 0);
    EXPECT_EQ(text_of(sb), "k\\=v; x\\=\\\"y\\\"\xC3\\\xA9");
}

TEST_F(Quote, WritesDefaultSpecialsAsUnicodeEscapes) {
    set("\n");
    EXPECT_EQ(strbuf_quote(&sb, nullptr), 0);
    EXPECT_EQ(text_of(sb), "\\u000a");
    set("a/b");
    EXPECT_EQ(strbuf_quote(&sb, nullptr), 0);
    EXPECT_EQ(text_of(sb), "a\\u002fb");
    set("\"\\\x7F\x1F \xC3\xA9~");
    EXPECT_EQ(strbuf_quote(&sb, nullptr), 0);
    EXPECT_EQ(text_of(sb), "\\u0022\\u005c\\u007f\\u001f \xC3\xA9~");
}

TEST_F(Quote, EscapesEveryByteBelow32ByDefault) {
    for (int b = 1; b < 256; ++b) {
        set(std::string(1, static_cast<char>(b)));
        ASSERT_EQ(strbuf_quote(&sb, nullptr), 0);
        char expected[8];
        std::snprintf(expected, sizeof expected, "\\u%04x", b);
        const bool escaped = b < 32 || b == '"' || b == '/' || b == '\\' || b == 127;
        EXPECT_EQ(text_of(sb), escaped ? std::string(expected) : std::string(1, char(b))) << b;
    }
}

TEST_F(Quote, QuotesNulBytesWithinTheLength) {
    set("a\0b"s);
    EXPECT_EQ(strbuf_quote(&sb, nullptr), 0);
    EXPECT_EQ(text_of(sb), "a\\u0000b");
}

TEST_F(Quote, CutsTheResultAtAnUnquotedNul) {
    // With a special set a NUL byte is copied, and the text is replaced up
    // to it.
    set("a:\0b"s);
    EXPECT_EQ(strbuf_quote(&sb, ":"), 0);
    EXPECT_EQ(text_of(sb), "a\\:");
}

TEST_F(Quote, EscapesNothingWithAnEmptySet) {
    set("a:b\n\"/");
    EXPECT_EQ(strbuf_quote(&sb, ""), 0);
    EXPECT_EQ(text_of(sb), "a:b\n\"/");
}

TEST_F(Quote, DoesNothingForAnEmptyText) {
    EXPECT_EQ(strbuf_quote(&sb, nullptr), 0);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
}

TEST_F(Quote, FailsWithoutScratchMemoryAndLeavesTheBufferAlone) {
    set("a/b");
    EXPECT_EQ(qx_test::call_with_failing_allocation(0, [&] { return strbuf_quote(&sb, nullptr); }),
              -1);
    EXPECT_EQ(text_of(sb), "a/b");
    EXPECT_EQ(sb.size, 1023U);
}

TEST_F(Quote, FailsWhenTheTextCannotGrowAndLeavesTheBufferAlone) {
    // 200 line feeds quote to 1200 bytes: the scratch buffer grows (the
    // second allocation), then the text itself (the third).
    set(std::string(200, '\n'));
    EXPECT_EQ(qx_test::call_with_failing_allocation(2, [&] { return strbuf_quote(&sb, nullptr); }),
              -1);
    EXPECT_EQ(text_of(sb), std::string(200, '\n'));
    EXPECT_EQ(sb.text[200], '\0');
    EXPECT_EQ(sb.size, 1023U);
}

TEST_F(Quote, DoesNotReportAFailedSingleAppend) {
    // 170 escapes fit the 1023 bytes of scratch; the growth for the 171st
    // fails and that one is missing, the later ones grow it again.
    set(std::string(200, '\n'));
    EXPECT_EQ(qx_test::call_with_failing_allocation(1, [&] { return strbuf_quote(&sb, nullptr); }),
              0);
    std::string expected;
    for (int i = 0; i < 199; ++i)
        expected += "\\u000a";
    EXPECT_EQ(text_of(sb), expected);
}

// ---- strbuf_translate ----

using Translate = Buffer;

TEST_F(Translate, LetsTheLastReplacementStandForTheRest) {
    set("hello");
    EXPECT_EQ(strbuf_translate(&sb, "lo", "L"), 0);
    EXPECT_EQ(text_of(sb), "heLLL");
}

TEST_F(Translate, DeletesWithoutReplacements) {
    set("hello");
    EXPECT_EQ(strbuf_translate(&sb, "lo", nullptr), 0);
    EXPECT_EQ(text_of(sb), "he");
    set("hello");
    EXPECT_EQ(strbuf_translate(&sb, "lo", ""), 0);
    EXPECT_EQ(text_of(sb), "he");
}

TEST_F(Translate, ReplacesByPosition) {
    set("cab");
    EXPECT_EQ(strbuf_translate(&sb, "abc", "xyz"), 0);
    EXPECT_EQ(text_of(sb), "zxy");
    set("a-b");
    EXPECT_EQ(strbuf_translate(&sb, "aa-", "xy_"), 0); // the first place of a counts
    EXPECT_EQ(text_of(sb), "x_b");
}

TEST_F(Translate, RefusesANullFrom) {
    set("hello");
    EXPECT_EQ(strbuf_translate(&sb, nullptr, "x"), -1);
    EXPECT_EQ(text_of(sb), "hello");
}

TEST_F(Translate, LeavesTheOldBytesWhenEverythingIsDeleted) {
    set("aaa");
    EXPECT_EQ(strbuf_translate(&sb, "a", nullptr), 0);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(std::string(sb.text, 4), "aaa\0"s);
}

TEST_F(Translate, AcceptsAnEmptyText) {
    EXPECT_EQ(strbuf_translate(&sb, "a", "b"), 0);
    EXPECT_EQ(sb.text, nullptr);
    set("xyz");
    sb.length = 0;
    EXPECT_EQ(strbuf_translate(&sb, "x", "a"), 0);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(std::string(sb.text, 3), "xyz");
}

TEST_F(Translate, CutsTheResultAtANulByte) {
    set("a\0b"s);
    EXPECT_EQ(strbuf_translate(&sb, "b", "c"), 0);
    EXPECT_EQ(text_of(sb), "a");
}

TEST_F(Translate, TranslatesBytesAbove127) {
    set("\xE9t\xE9");
    EXPECT_EQ(strbuf_translate(&sb, "\xE9", "e"), 0);
    EXPECT_EQ(text_of(sb), "ete");
}

TEST_F(Translate, LeavesTheBufferUnchangedOnMemoryFailure) {
    set("hello");
    EXPECT_EQ(
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_translate(&sb, "l", "L"); }),
        -1);
    EXPECT_EQ(text_of(sb), "hello");
    EXPECT_EQ(sb.size, 1023U);
}

// ---- strbuf_unescape ----

using Unescape = Buffer;

TEST_F(Unescape, StopsAtTheFirstUnescapedQuote) {
    set("a\\tb\\u00e9\\\"c\"rest of the line");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "a\tb\xC3\xA9\"c");
    EXPECT_EQ(sb.text[sb.length], '\0');
}

TEST_F(Unescape, JoinsASurrogatePair) {
    set("\\uD83D\\uDE00");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "\xF0\x9F\x98\x80");
    set("<\\udbff\\udfff>");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "<\xF4\x8F\xBF\xBF>");
}

TEST_F(Unescape, KeepsTheDigitsOfAZeroEscape) {
    set("\\u0000x");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "0000x");
}

TEST_F(Unescape, GivesAnEmptyTextForALeadingQuote) {
    set("\"abc\"");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_STREQ(sb.text, "");
}

TEST_F(Unescape, ResolvesTheSingleCharacterEscapes) {
    set("\\b\\f\\n\\r\\t\\\\\\/\\'\\q");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "\b\f\n\r\t\\/'q");
}

TEST_F(Unescape, WritesCodePointsAsOneToThreeBytes) {
    set("\\u0041\\u007F\\u0080\\u07ff\\u0800\\u20AC\\uFFFF\\uD7FF\\uE000");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "A\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF"
                           "\xED\x9F\xBF\xEE\x80\x80");
}

TEST_F(Unescape, CopiesTheDigitsOfAnInvalidEscape) {
    set("\\u12G4|\\u12|\\uDC00|\\u");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "12G4|12|DC00|");
}

TEST_F(Unescape, TreatsAHighSurrogateWithoutItsPairAsInvalid) {
    set("\\uD83Dx");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "D83Dx");
    set("\\uD83D\\u0041");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "D83DA");
    set("\\uD83D\\uD83D");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "D83DD83D");
    set("\\uD83D\\uDE0");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "D83DDE0");
    set("\\uD83D \\uDE00");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "D83D DE00");
}

TEST_F(Unescape, EndsAtTheFirstNul) {
    set("ab\0cd"s);
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "ab");
}

TEST_F(Unescape, DropsALoneBackslashAtTheEnd) {
    set("ab\\");
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(text_of(sb), "ab");
}

TEST_F(Unescape, LeavesAZeroRecordAlone) {
    EXPECT_EQ(strbuf_unescape(&sb), 0);
    EXPECT_EQ(sb.text, nullptr);
}

// ---- utf8toint ----

// The UTF-8 form of a code point, surrogates included, built here.
std::string utf8_of(unsigned int cp) {
    std::string s;
    if (cp < 0x80) {
        s += static_cast<char>(cp);
    } else if (cp < 0x800) {
        s += static_cast<char>(0xC0 | (cp >> 6));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        s += static_cast<char>(0xF0 | (cp >> 18));
        s += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return s;
}

// Decodes the bytes; gives the code point and how far the pointer moved.
std::pair<unsigned int, long> decode(std::string_view bytes) {
    const auto in = c_string(bytes);
    const char *p = in.data();
    const unsigned int cp = utf8toint(&p);
    return {cp, p - in.data()};
}

TEST(Utf8ToInt, DecodesAThreeByteSequence) {
    EXPECT_EQ(decode("\xE2\x82\xAC"), std::make_pair(0x20ACU, 3L));
}

TEST(Utf8ToInt, StopsOnAByteThatDoesNotContinue) {
    EXPECT_EQ(decode("\xE2\x28"), std::make_pair(0U, 1L));
    EXPECT_EQ(decode("\xE2\x82\x28"), std::make_pair(0U, 2L));
    EXPECT_EQ(decode("\xF0\x9F\x98\xC3"), std::make_pair(0U, 3L));
    EXPECT_EQ(decode("\xC3\xC3\xA9"), std::make_pair(0U, 1L));
}

TEST(Utf8ToInt, StopsOnTheNulOfATruncatedSequence) {
    EXPECT_EQ(decode("\xC3"), std::make_pair(0U, 1L));
    EXPECT_EQ(decode("\xE2\x82"), std::make_pair(0U, 2L));
    EXPECT_EQ(decode("\xF0\x9F\x98"), std::make_pair(0U, 3L));
}

TEST(Utf8ToInt, LeavesThePointerOnAContinuationByte) {
    for (int b = 0x80; b <= 0xBF; ++b)
        EXPECT_EQ(decode(std::string(1, static_cast<char>(b)) + "\x80"), std::make_pair(0U, 0L));
}

TEST(Utf8ToInt, AdvancesOverAsciiAndTheNul) {
    EXPECT_EQ(decode("A"), std::make_pair(65U, 1L));
    EXPECT_EQ(decode(""), std::make_pair(0U, 1L));
    EXPECT_EQ(decode("\x7F"), std::make_pair(0x7FU, 1L));
}

TEST(Utf8ToInt, DecodesEveryCodePoint) {
    for (unsigned int cp = 1; cp <= 0x10FFFF; ++cp) {
        const std::string bytes = utf8_of(cp);
        const char *p = bytes.c_str();
        const unsigned int decoded = utf8toint(&p);
        if (decoded != cp || p != bytes.c_str() + bytes.size()) {
            ADD_FAILURE() << std::hex << "U+" << cp << " gave " << decoded << " after "
                          << (p - bytes.c_str()) << " bytes";
            break;
        }
    }
}

TEST(Utf8ToInt, AcceptsOverlongFormsAndValuesBeyondUnicode) {
    EXPECT_EQ(decode("\xC0\x80"), std::make_pair(0U, 2L)); // 0 with the pointer moved
    EXPECT_EQ(decode("\xC1\xBF"), std::make_pair(0x7FU, 2L));
    EXPECT_EQ(decode("\xE0\x80\xAF"), std::make_pair(0x2FU, 3L));
    EXPECT_EQ(decode("\xF4\x90\x80\x80"), std::make_pair(0x110000U, 4L));
    EXPECT_EQ(decode("\xF7\xBF\xBF\xBF"), std::make_pair(0x1FFFFFU, 4L));
}

TEST(Utf8ToInt, TakesLeadsFrom0xF8AsFourByteLeads) {
    EXPECT_EQ(decode("\xF8\x80\x80\x81"), std::make_pair(1U, 4L));
    EXPECT_EQ(decode("\xFF\xBF\xBF\xBF"), std::make_pair(0x1FFFFFU, 4L));
    EXPECT_EQ(decode("\xFC\x41"), std::make_pair(0U, 1L));
}

// ---- allocation-failure sweeps ----
// Each call runs with its 1st, 2nd, ... allocation failing until a run
// makes none fail.

TEST(XmlEncodedSweep, AFailedFirstAppendEndsTheWalkWithMinusOne) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        strbuf sb{};
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_append_xmlencoded(&sb, "a<b & c"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, nullptr);
            EXPECT_EQ(sb.length, 0U);
            EXPECT_EQ(sb.size, 0U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(text_of(sb), "a&lt;b &amp; c");
        }
        strbuf_free(&sb);
    });
    // The first append allocates 1023 bytes, which hold the rest.
    EXPECT_EQ(allocations, 1);
}

TEST(XmlEncodedSweep, AFailedDecimalReferenceForABadLeadByteEndsTheWalk) {
    // 1020 bytes fill all but two of the 1023: "&#195;" needs the buffer to
    // grow, and that growth is the only allocation.
    const std::string head(1020, '.');
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        strbuf sb{};
        ASSERT_EQ(strbuf_append(&sb, head.c_str()), 0);
        const int result = qx_test::call_with_failing_allocation(n, [&] {
            return strbuf_append_xmlencoded(&sb, "\xC3"
                                                 "A<");
        });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(text_of(sb), head);
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            // The byte after the bad lead byte is passed over and lost.
            EXPECT_EQ(text_of(sb), head + "&#195;&lt;");
        }
        strbuf_free(&sb);
    });
    EXPECT_EQ(allocations, 1);
}

TEST(TranslateSweep, EveryFailureLeavesTheBufferUnchanged) {
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        strbuf sb{};
        ASSERT_EQ(strbuf_append(&sb, "hello world"), 0);
        const char *before = sb.text;
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return strbuf_translate(&sb, "lo", "L0"); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(sb.text, before);
            EXPECT_EQ(text_of(sb), "hello world");
            EXPECT_EQ(sb.size, 1023U);
        } else {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(text_of(sb), "heLL0 w0rLd");
        }
        strbuf_free(&sb);
    });
    // The scratch buffer; the result then fits the caller's block.
    EXPECT_EQ(allocations, 1);
}

} // namespace
