// The INI engine's own contracts: the bounded copy in its three modes, and
// every assertion that guards a programming error. Most of these states
// cannot be reached through the C interface, so the engine's functions are
// called directly here (this suite compiles the engine source itself).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "internal/ini_engine.hpp"

namespace {

using qx::detail::cache_flush;
using qx::detail::getkeystring;
using qx::detail::quote_mode;
using qx::detail::save_strncpy;
using qx::detail::write_key_line;

// The C library's assertion report for a check of the engine.
std::string assertion(const std::string &function, const std::string &expression_pattern) {
    return "ini_engine\\.cpp:[0-9]+: " + function + ": Assertion `" + expression_pattern +
           "' failed\\.";
}

std::string copy(const char *source, std::size_t maxlen, quote_mode mode) {
    char buffer[64];
    std::memset(buffer, '@', sizeof buffer);
    save_strncpy(buffer, source, maxlen, mode);
    EXPECT_LE(std::strlen(buffer) + 1, maxlen);
    EXPECT_EQ(buffer[maxlen], '@') << "wrote past maxlen";
    return buffer;
}

// A read stream over the given text, closed by the caller.
FILE *stream_of(const std::string &text) {
    FILE *fp = std::tmpfile();
    std::fwrite(text.data(), 1, text.size(), fp);
    std::rewind(fp);
    return fp;
}

TEST(SaveStrncpy, PlainCopiesAtMostMaxlenLessOneBytes) {
    EXPECT_EQ(copy("abcdef", 4, quote_mode::plain), "abc");
    EXPECT_EQ(copy("abc", 4, quote_mode::plain), "abc");
    EXPECT_EQ(copy("ab", 10, quote_mode::plain), "ab");
    EXPECT_EQ(copy("abc", 1, quote_mode::plain), "");
    EXPECT_EQ(copy("a\"b", 10, quote_mode::plain), "a\"b");
}

TEST(SaveStrncpy, EnquoteWrapsInQuotesAndEscapesQuotes) {
    EXPECT_EQ(copy("a\"b", 10, quote_mode::enquote), "\"a\\\"b\"");
    EXPECT_EQ(copy("plain text", 20, quote_mode::enquote), "\"plain text\"");
}

TEST(SaveStrncpy, EnquoteWithMaxlenThreeOrAnEmptySourceGivesTwoQuotes) {
    EXPECT_EQ(copy("abc", 3, quote_mode::enquote), "\"\"");
    EXPECT_EQ(copy("", 10, quote_mode::enquote), "\"\"");
}

TEST(SaveStrncpy, EnquoteWithMaxlenTwoOrLessIsPlain) {
    EXPECT_EQ(copy("abc", 2, quote_mode::enquote), "a");
    EXPECT_EQ(copy("abc", 1, quote_mode::enquote), "");
}

TEST(SaveStrncpy, EnquoteCopiesWhileTheOutputPositionIsBelowMaxlenLessTwo) {
    // Output positions 1..maxlen-3 take bytes, then the closing quote and zero.
    EXPECT_EQ(copy("abcdef", 6, quote_mode::enquote), "\"abc\"");
    EXPECT_EQ(copy("abc", 5, quote_mode::enquote), "\"ab\"");
}

TEST(SaveStrncpy, EnquoteEndsAtAQuoteWhoseEscapeWouldGoAtMaxlenLessThreeOrLater) {
    // maxlen 5: the escape of the quote would go at position 2 = maxlen - 3.
    EXPECT_EQ(copy("a\"b", 5, quote_mode::enquote), "\"a\"");
    // maxlen 6: the escape fits at position 2, the quote at 3; then no room.
    EXPECT_EQ(copy("a\"b", 6, quote_mode::enquote), "\"a\\\"\"");
    EXPECT_EQ(copy("\"", 4, quote_mode::enquote), "\"\"");
    EXPECT_EQ(copy("\"", 5, quote_mode::enquote), "\"\\\"\"");
}

TEST(SaveStrncpy, DequoteTurnsBothEscapesIntoOneQuote) {
    EXPECT_EQ(copy("a\\\"b\"\"c", 20, quote_mode::dequote), "a\"b\"c");
    EXPECT_EQ(copy("lone\" \\n", 20, quote_mode::dequote), "lone\" \\n");
    EXPECT_EQ(copy("\\\"\\\"", 2, quote_mode::dequote), "\"");
    EXPECT_EQ(copy("ab\"\"cd", 4, quote_mode::dequote), "ab\"");
}

TEST(SaveStrncpy, CopiesTowardsLowerAddressesInsideOneBuffer) {
    char buffer[16] = "..abc\\\"d";
    save_strncpy(buffer, buffer + 2, 14, quote_mode::dequote);
    EXPECT_STREQ(buffer, "abc\"d");
}

TEST(SaveStrncpyDeathTest, ZeroMaxlenEndsTheProcess) {
    char buffer[4];
    EXPECT_DEATH(save_strncpy(buffer, "abc", 0, quote_mode::plain),
                 assertion("save_strncpy", "maxlen > 0"));
}

TEST(SaveStrncpyDeathTest, DestinationInsideTheSourceAboveItEndsTheProcess) {
    char buffer[16] = "abcdefgh";
    EXPECT_DEATH(save_strncpy(buffer + 3, buffer, 4, quote_mode::plain),
                 assertion("save_strncpy", "dest <= source \\|\\| dest >= source \\+ maxlen"));
}

TEST(SaveStrncpy, DestinationJustBehindTheSourceRangeIsAllowed) {
    char buffer[16] = "abcdefgh";
    save_strncpy(buffer + 4, buffer, 4, quote_mode::plain);
    EXPECT_STREQ(buffer + 4, "abc");
}

TEST(SaveStrncpyDeathTest, UnknownModeEndsTheProcess) {
    char buffer[4];
    EXPECT_DEATH(save_strncpy(buffer, "abc", 4, static_cast<quote_mode>(3)),
                 assertion("save_strncpy", "0"));
}

TEST(GetkeystringDeathTest, NeitherKeyNorKeyIndexEndsTheProcess) {
    EXPECT_DEATH(
        {
            FILE *fp = stream_of("[s]\nk=v\n");
            char buffer[16];
            getkeystring(fp, "s", nullptr, -1, -1, buffer, sizeof buffer);
        },
        assertion("getkeystring", "Key != NULL \\|\\| idxKey >= 0"));
}

TEST(GetkeystringDeathTest, SectionNameNotEndingAtABracketEndsTheProcess) {
    EXPECT_DEATH(
        {
            qx::detail::ini_test_corrupt = [](char *checked) { *checked = '}'; };
            FILE *fp = stream_of("[first]\n");
            char buffer[16];
            getkeystring(fp, nullptr, nullptr, 0, 0, buffer, sizeof buffer);
        },
        assertion("getkeystring", "\\*ep == '\\]'"));
}

TEST(GetkeystringDeathTest, KeyNotEndingAtASeparatorEndsTheProcess) {
    EXPECT_DEATH(
        {
            qx::detail::ini_test_corrupt = [](char *checked) { *checked = '~'; };
            FILE *fp = stream_of("[s]\nk=v\n");
            char buffer[16];
            getkeystring(fp, "s", "k", -1, -1, buffer, sizeof buffer);
        },
        assertion("getkeystring", "\\*ep == '=' \\|\\| \\*ep == ':'"));
}

TEST(Getkeystring, FindsValuesKeysAndSectionsWithTheSeamUnset) {
    qx::detail::ini_test_corrupt = nullptr;
    char buffer[16];
    FILE *fp = stream_of("[s]\nk = \"v\"\n[t]\n");
    EXPECT_TRUE(getkeystring(fp, "s", "k", -1, -1, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "v");
    std::rewind(fp);
    EXPECT_TRUE(getkeystring(fp, nullptr, nullptr, 1, 0, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "t");
    std::rewind(fp);
    EXPECT_TRUE(getkeystring(fp, "s", nullptr, -1, 0, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "k");
    std::fclose(fp);
}

TEST(CacheFlush, WritesThePendingBytesAndReportsTheFinalLineFeed) {
    FILE *source = stream_of("one\ntwo\nthree");
    FILE *target = std::tmpfile();
    char buffer[qx::detail::ini_buffer_size];
    fpos_t mark;
    std::fgetpos(source, &mark);
    int pending = 8;
    EXPECT_EQ(cache_flush(buffer, &pending, source, target, &mark), 1);
    EXPECT_EQ(pending, 0);
    pending = 5;
    EXPECT_EQ(cache_flush(buffer, &pending, source, target, &mark), 0);
    EXPECT_EQ(cache_flush(buffer, &pending, source, target, &mark), 0); // nothing pending
    std::rewind(target);
    char written[32] = {};
    EXPECT_EQ(std::fread(written, 1, sizeof written, target), 13u);
    EXPECT_STREQ(written, "one\ntwo\nthree");
    std::fclose(source);
    std::fclose(target);
}

TEST(CacheFlushDeathTest, ReadingMoreThanThePendingCountEndsTheProcess) {
    EXPECT_DEATH(
        {
            FILE *source = stream_of("hello\n");
            FILE *target = std::tmpfile();
            char buffer[qx::detail::ini_buffer_size];
            fpos_t mark;
            std::fgetpos(source, &mark);
            int pending = 3; // fewer bytes than the line holds
            cache_flush(buffer, &pending, source, target, &mark);
        },
        assertion("cache_flush", "pos <= \\*size"));
}

TEST(WriteKeyLineDeathTest, MissingValueEndsTheProcess) {
    EXPECT_DEATH(
        {
            FILE *target = std::tmpfile();
            char buffer[qx::detail::ini_buffer_size];
            write_key_line(target, "key", nullptr, buffer);
        },
        assertion("write_key_line", "Value != NULL"));
}

} // namespace
