#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "qxcommon-util/rfc2231.h"
#include "support/alloc_fail.hpp"

namespace {

// Decodes through the library and hands the text back, freeing the block.
std::string decode(const std::string &value) {
    char *out = rfc2231_to_utf8(value.c_str());
    EXPECT_NE(out, nullptr);
    if (out == nullptr)
        return "<NULL>";
    std::string text(out);
    std::free(out);
    return text;
}

std::string encode(const std::string &text) {
    char *out = rfc2231_encode(text.c_str(), nullptr, 0);
    EXPECT_NE(out, nullptr);
    if (out == nullptr)
        return "<NULL>";
    std::string encoded(out);
    std::free(out);
    return encoded;
}

// ---- rfc2231_to_utf8 --------------------------------------------------------

TEST(Rfc2231ToUtf8, ConvertsAnIso88591ByteToItsTwoUtf8Bytes) {
    EXPECT_EQ(decode("iso-8859-1''%E9"), "\xC3\xA9");
}

TEST(Rfc2231ToUtf8, SkipsTheLanguageAndDecodesAnEscapedSpace) {
    EXPECT_EQ(decode("us-ascii'en'hello%20world"), "hello world");
}

TEST(Rfc2231ToUtf8, AValueWithoutApostropheDecodesToTheEmptyString) {
    EXPECT_EQ(decode("hello%20world"), "");
}

TEST(Rfc2231ToUtf8, AValueEndingBeforeTheSecondApostropheDecodesToTheEmptyString) {
    EXPECT_EQ(decode("us-ascii'en"), "");
    EXPECT_EQ(decode("us-ascii'"), "");
}

TEST(Rfc2231ToUtf8, AValueEndingRightAfterTheSecondApostropheDecodesToTheEmptyString) {
    EXPECT_EQ(decode("us-ascii'en'"), "");
    EXPECT_EQ(decode("''"), "");
}

TEST(Rfc2231ToUtf8, TheEmptyValueDecodesToTheEmptyString) {
    EXPECT_EQ(decode(""), "");
}

TEST(Rfc2231ToUtf8, CopiesUnescapedBytesAsTheyAre) {
    EXPECT_EQ(decode("us-ascii''a(b);c=d\"e/f"), "a(b);c=d\"e/f");
}

TEST(Rfc2231ToUtf8, AcceptsHexadecimalDigitsInEitherCase) {
    EXPECT_EQ(decode("utf-8''%c3%a9%C3%A9%c3%A9"), "\xC3\xA9\xC3\xA9\xC3\xA9");
}

TEST(Rfc2231ToUtf8, ANonHexadecimalDigitCountsAsZero) {
    // "%4z" is 0x40, "%z4" is 0x04.
    EXPECT_EQ(decode("us-ascii''%4z%z4!"), std::string("@\x04!"));
}

TEST(Rfc2231ToUtf8, PercentZzGivesANulThatEndsTheText) {
    EXPECT_EQ(decode("us-ascii''ab%zzcd"), "ab");
    EXPECT_EQ(decode("x-no-such-charset''ab%zzcd"), "ab");
}

TEST(Rfc2231ToUtf8, APercentAtTheVeryEndEndsDecodingWithoutOutput) {
    EXPECT_EQ(decode("us-ascii''ab%"), "ab");
}

TEST(Rfc2231ToUtf8, APercentAndOneDigitAtTheEndEndDecodingWithoutOutput) {
    EXPECT_EQ(decode("us-ascii''ab%4"), "ab");
}

TEST(Rfc2231ToUtf8, AnUnknownCharsetGivesTheDecodedBytesUnconverted) {
    EXPECT_EQ(decode("x-no-such-charset'fr'caf%E9%20cr%E8me"), "caf\xE9 cr\xE8me");
}

TEST(Rfc2231ToUtf8, AnUnknownCharsetStillDecodesNothingWithoutApostrophes) {
    EXPECT_EQ(decode("x-no-such-charset"), "");
}

TEST(Rfc2231ToUtf8, KeepsOnlyTheFirst31BytesOfTheCharset) {
    // iconv ignores the blanks in a name: cut after 31 bytes the name is a
    // known one; whole, with the letters behind it, it is not.
    const std::string charset31 = "iso-8859-1" + std::string(21, ' ');
    ASSERT_EQ(charset31.size(), 31u);
    EXPECT_EQ(decode(charset31 + "''%E9"), "\xC3\xA9");
    EXPECT_EQ(decode(charset31 + "zzz''%E9"), "\xC3\xA9");
    EXPECT_EQ(decode(charset31.substr(0, 30) + "zzz''%E9"), "\xE9");
}

TEST(Rfc2231ToUtf8, AVeryLongCharsetIsTreatedAsUnknown) {
    EXPECT_EQ(decode(std::string(200, 'x') + "''a%20b"), "a b");
}

TEST(Rfc2231ToUtf8, SkipsAByteThatIsInvalidInTheCharsetAndGoesOn) {
    EXPECT_EQ(decode("utf-8''a%FFb%C3%A9"), "ab\xC3\xA9");
    EXPECT_EQ(decode("us-ascii''a%E9b"), "ab");
}

TEST(Rfc2231ToUtf8, SkipsAnIncompleteSequenceAtTheEnd) {
    EXPECT_EQ(decode("utf-8''a%C3"), "a");
}

TEST(Rfc2231ToUtf8, DropsWhatDoesNotFitInTheRoomOfTheEncodedLength) {
    // 12 bytes of charset and apostrophes and 20 raw Latin-1 bytes give room
    // for 32 bytes: 16 two-byte letters.
    const std::string value = "iso-8859-1''" + std::string(20, '\xE9');
    std::string expected;
    for (int i = 0; i < 16; ++i)
        expected += "\xC3\xA9";
    EXPECT_EQ(decode(value), expected);
}

TEST(Rfc2231ToUtf8, ANarrowerCharacterStillFitsAfterAWideOneWasDropped) {
    // Room 27: 13 letters take 26 bytes, the 14th does not fit, "x" does.
    const std::string value = "iso-8859-1''" + std::string(14, '\xE9') + "x";
    std::string expected;
    for (int i = 0; i < 13; ++i)
        expected += "\xC3\xA9";
    EXPECT_EQ(decode(value), expected + "x");
}

TEST(Rfc2231ToUtf8, ConvertsFromAMultiByteCharset) {
    // U+4E2D: two UTF-16 bytes, neither of them zero (a zero would end the
    // decoded bytes), three UTF-8 bytes.
    EXPECT_EQ(decode("utf-16be''%4E%2D"), "\xE4\xB8\xAD");
}

TEST(Rfc2231ToUtf8, GivesNullWhenTheOutputCannotBeAllocated) {
    char *out =
        qx_test::call_with_failing_allocation(0, [] { return rfc2231_to_utf8("iso-8859-1''%E9"); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(out, nullptr);
}

TEST(Rfc2231ToUtf8, GivesNullOrTheRightTextWhateverAllocationFails) {
    std::free(rfc2231_to_utf8("iso-8859-1''%E9")); // loads the converter tables once
    const long clean = qx_test::sweep_allocation_failures([](long n) {
        char *out = qx_test::call_with_failing_allocation(
            n, [] { return rfc2231_to_utf8("iso-8859-1''caf%E9"); });
        if (out != nullptr)
            EXPECT_STREQ(out, "caf\xC3\xA9") << n;
        else
            EXPECT_TRUE(qx_test::allocation_was_failed()) << n;
        std::free(out);
    });
    EXPECT_GE(clean, 2);
}

// ---- rfc2231_encode ---------------------------------------------------------

TEST(Rfc2231Encode, EncodesASpaceAsPercent20) {
    EXPECT_EQ(encode("a b"), "UTF-8''a%20b");
}

TEST(Rfc2231Encode, EncodesACommaAndLeavesASemicolon) {
    EXPECT_EQ(encode(","), "UTF-8''%2C");
    EXPECT_EQ(encode(";"), "UTF-8'';");
}

TEST(Rfc2231Encode, LeavesParenthesesSlashEqualsQuestionMarkAndDoubleQuoteAsTheyAre) {
    EXPECT_EQ(encode("(a);b/c=d?\"e\""), "UTF-8''(a);b/c=d?\"e\"");
}

TEST(Rfc2231Encode, EncodesTheStarThePercentAndTheApostrophe) {
    EXPECT_EQ(encode("*%'"), "UTF-8''%2A%25%27");
}

TEST(Rfc2231Encode, LeavesOtherPrintableAsciiAsItIs) {
    const std::string plain = "!\"#$&()+-./0123456789:;<=>?@AZ[\\]^_`az{|}~";
    EXPECT_EQ(encode(plain), "UTF-8''" + plain);
}

TEST(Rfc2231Encode, EncodesControlBytesDelAndBytesFrom0x80InUpperCaseHex) {
    EXPECT_EQ(encode("\t\x1F\x7F"), "UTF-8''%09%1F%7F");
    EXPECT_EQ(encode("caf\xC3\xA9"), "UTF-8''caf%C3%A9");
    EXPECT_EQ(encode("\x80\xFF"), "UTF-8''%80%FF");
}

TEST(Rfc2231Encode, EncodesTheEmptyText) {
    EXPECT_EQ(encode(""), "UTF-8''");
}

TEST(Rfc2231Encode, ABufferOfSize8HoldsOnlyTheCharsetAndApostrophes) {
    char buf[16];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(rfc2231_encode("a b", buf, 8), buf);
    EXPECT_STREQ(buf, "UTF-8''");
    EXPECT_EQ(buf[8], 'X');
}

TEST(Rfc2231Encode, ASizeOf1GivesTheEmptyString) {
    char buf[4] = {'X', 'X', 'X', 'X'};
    EXPECT_EQ(rfc2231_encode("abc", buf, 1), buf);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 'X');
}

TEST(Rfc2231Encode, ASizeOf0WritesNothing) {
    char buf[2] = {'X', 'X'};
    EXPECT_EQ(rfc2231_encode("abc", buf, 0), buf);
    EXPECT_EQ(buf[0], 'X');
}

TEST(Rfc2231Encode, CutsTheCharsetWhenEvenThatDoesNotFit) {
    char buf[8];
    std::memset(buf, 'X', sizeof buf);
    rfc2231_encode("abc", buf, 4);
    EXPECT_STREQ(buf, "UTF");
    EXPECT_EQ(buf[4], 'X');
}

TEST(Rfc2231Encode, LeavesOutAPercentSequenceThatDoesNotFitButWritesALaterPlainByte) {
    char buf[16];
    std::memset(buf, 'X', sizeof buf);
    rfc2231_encode("a b", buf, 10);
    EXPECT_STREQ(buf, "UTF-8''ab");
    EXPECT_EQ(buf[10], 'X');
}

TEST(Rfc2231Encode, WritesAPercentSequenceThatFitsExactly) {
    char buf[16];
    std::memset(buf, 'X', sizeof buf);
    rfc2231_encode("a b", buf, 12);
    EXPECT_STREQ(buf, "UTF-8''a%20");
    EXPECT_EQ(buf[12], 'X');
}

TEST(Rfc2231Encode, StopsAtSizeLessOneAndTerminates) {
    char buf[16];
    std::memset(buf, 'X', sizeof buf);
    rfc2231_encode("abcdefghij", buf, 12);
    EXPECT_STREQ(buf, "UTF-8''abcd");
    EXPECT_EQ(buf[12], 'X');
}

TEST(Rfc2231Encode, ANewBufferHoldsTextThatIsEscapedThroughout) {
    // Three bytes escaped take 7 + 9 bytes and the NUL: 3 * 3 + 8.
    char *out = rfc2231_encode("\x01\x02\x03", nullptr, 0);
    ASSERT_NE(out, nullptr);
    EXPECT_STREQ(out, "UTF-8''%01%02%03");
    EXPECT_EQ(std::strlen(out), 3u * 3u + 7u);
    std::free(out);
}

TEST(Rfc2231Encode, GivesNullWhenTheNewBufferCannotBeAllocated) {
    char *out =
        qx_test::call_with_failing_allocation(0, [] { return rfc2231_encode("a b", nullptr, 0); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(out, nullptr);
}

TEST(Rfc2231Encode, RoundTripsThroughTheDecoder) {
    const std::string text = "na\xC3\xAFve, 100% 'r\xC3\xA9sum\xC3\xA9'*;";
    char *encoded = rfc2231_encode(text.c_str(), nullptr, 0);
    ASSERT_NE(encoded, nullptr);
    EXPECT_EQ(decode(encoded), text);
    std::free(encoded);
}

} // namespace
