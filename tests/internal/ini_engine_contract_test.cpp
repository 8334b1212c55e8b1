// The INI engine's own contracts: the bounded copy in its three modes, the
// search in its two forms, and every assertion that guards a programming
// error, with its whole message. Most of these states cannot be reached
// through the C interface, so the engine's functions are called directly here
// (this suite compiles the engine source itself).
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "internal/guards.hpp"
#include "internal/ini_engine.hpp"
#include "qxcommon-util/ini.h"

namespace {

using qx::detail::cache_flush;
using qx::detail::getkeystring;
using qx::detail::quote_mode;
using qx::detail::save_strncpy;
using qx::detail::section_at;
using qx::detail::wanted_key;
using qx::detail::write_key_line;

// Escapes the characters that are special in an extended regular expression.
std::string literal(const std::string &text) {
    std::string pattern;
    for (const char c : text) {
        if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr)
            pattern += '\\';
        pattern += c;
    }
    return pattern;
}

// The whole report of a failed check, as the C library's assert prints it on
// standard error: the program, the engine's source file as it was compiled,
// the line, the bare function name and the expression as written. Only the
// line number is left open; nothing may come before or after the report.
std::string assertion(const std::string &function, const std::string &expression) {
    return "^" + literal(program_invocation_short_name) + ": " + literal(QX_INI_ENGINE_SOURCE) +
           ":[1-9][0-9]*: " + literal(function) + ": Assertion `" + literal(expression) +
           "' failed\\.\n$";
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

TEST(SaveStrncpy, DestinationJustBehindTheSourceRangeIsAllowed) {
    char buffer[16] = "abcdefgh";
    save_strncpy(buffer + 4, buffer, 4, quote_mode::plain);
    EXPECT_STREQ(buffer + 4, "abc");
}

TEST(Getkeystring, FindsValuesKeysAndSectionsWithTheSeamUnset) {
    qx::detail::ini_test_corrupt = nullptr;
    char buffer[16];
    FILE *fp = stream_of("[s]\nk = \"v\"\n[t]\n");
    EXPECT_TRUE(getkeystring(fp, "s", wanted_key::named("k"), buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "v");
    std::rewind(fp);
    EXPECT_TRUE(getkeystring(fp, section_at{1}, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "t");
    std::rewind(fp);
    EXPECT_TRUE(getkeystring(fp, "s", wanted_key::at(0), buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "k");
    std::fclose(fp);
}

TEST(Getkeystring, KeysBeforeTheFirstHeaderBelongToTheUnnamedSection) {
    char buffer[16];
    FILE *fp = stream_of("a = 1\n; note\nb : 2\n[s]\nc=3\n");
    for (const char *unnamed : {static_cast<const char *>(nullptr), ""}) {
        std::rewind(fp);
        EXPECT_TRUE(getkeystring(fp, unnamed, wanted_key::named("B"), buffer, sizeof buffer));
        EXPECT_STREQ(buffer, "2");
        std::rewind(fp);
        EXPECT_TRUE(getkeystring(fp, unnamed, wanted_key::at(1), buffer, sizeof buffer));
        EXPECT_STREQ(buffer, "b");
        std::rewind(fp);
        EXPECT_FALSE(getkeystring(fp, unnamed, wanted_key::named("c"), buffer, sizeof buffer));
        std::rewind(fp);
        EXPECT_FALSE(getkeystring(fp, unnamed, wanted_key::at(2), buffer, sizeof buffer));
    }
    std::fclose(fp);
}

TEST(Getkeystring, AKeyLineWithAnEmptyKeyEndsTheCountOfKeys) {
    char buffer[16];
    FILE *fp = stream_of("[s]\na=1\n=2\nb=3\n");
    EXPECT_TRUE(getkeystring(fp, "s", wanted_key::at(0), buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "a");
    std::rewind(fp);
    EXPECT_FALSE(getkeystring(fp, "s", wanted_key::at(1), buffer, sizeof buffer));
    std::rewind(fp);
    EXPECT_FALSE(getkeystring(fp, "s", wanted_key::at(2), buffer, sizeof buffer));
    std::rewind(fp);
    // By name the empty key is found like any other.
    EXPECT_TRUE(getkeystring(fp, "s", wanted_key::named(""), buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "2");
    std::fclose(fp);
}

TEST(Getkeystring, AHeaderWithAnEmptyNameEndsTheCountOfSections) {
    char buffer[16];
    FILE *fp = stream_of("[a]\n[b\n[]\n[c]\n");
    EXPECT_TRUE(getkeystring(fp, section_at{0}, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "a");
    std::rewind(fp);
    EXPECT_FALSE(getkeystring(fp, section_at{1}, buffer, sizeof buffer));
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

// ---- the stream guard of the engine's reads -----------------------------------

bool descriptor_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(FileGuard, ClosesItsStreamOnScopeExitAndKeepsErrno) {
    int fd = -1;
    {
        qx::detail::file_guard guard(std::tmpfile());
        ASSERT_TRUE(guard);
        fd = fileno(guard.get());
        EXPECT_TRUE(descriptor_open(fd));
        errno = ENOSPC;
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(descriptor_open(fd));
}

TEST(FileGuard, AnEmptyGuardClosesNothing) {
    qx::detail::file_guard guard;
    EXPECT_FALSE(guard);
    EXPECT_EQ(guard.get(), nullptr);
}

TEST(FileGuard, ReleaseGivesUpTheStreamWithoutClosingIt) {
    FILE *stream = nullptr;
    {
        qx::detail::file_guard guard(std::tmpfile());
        stream = guard.release();
        EXPECT_FALSE(guard);
    }
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(descriptor_open(fileno(stream)));
    EXPECT_EQ(std::fclose(stream), 0);
}

TEST(FileGuard, AMoveHandsTheStreamOverAndItIsClosedOnce) {
    int fd = -1;
    {
        qx::detail::file_guard outer;
        {
            qx::detail::file_guard inner(std::tmpfile());
            fd = fileno(inner.get());
            outer = std::move(inner);
            EXPECT_FALSE(inner);
        }
        EXPECT_TRUE(descriptor_open(fd));
        qx::detail::file_guard moved(std::move(outer));
        EXPECT_FALSE(outer);
        EXPECT_EQ(fileno(moved.get()), fd);
    }
    EXPECT_FALSE(descriptor_open(fd));
}

TEST(FileGuard, ResetClosesTheOldStreamAndTakesTheNewOne) {
    qx::detail::file_guard guard(std::tmpfile());
    const int first = fileno(guard.get());
    FILE *second = std::tmpfile();
    guard.reset(second);
    EXPECT_FALSE(descriptor_open(first));
    EXPECT_EQ(guard.get(), second);
}

// ---- the assertions ---------------------------------------------------------

// Every check of the engine: the function that reports it, its expression as
// callers see it in the report, and a call that breaks it.
struct engine_check {
    const char *name;
    const char *function;
    const char *expression;
    void (*violate)();
};

const engine_check engine_checks[] = {
    {"ZeroMaxlen", "save_strncpy", "maxlen > 0",
     [] {
         char buffer[4];
         save_strncpy(buffer, "abc", 0, quote_mode::plain);
     }},
    {"DestinationInsideTheSourceAboveIt", "save_strncpy",
     "dest <= source || dest >= source + maxlen",
     [] {
         char buffer[16] = "abcdefgh";
         save_strncpy(buffer + 3, buffer, 4, quote_mode::plain);
     }},
    {"UnknownQuoteMode", "save_strncpy", "0",
     [] {
         char buffer[4];
         save_strncpy(buffer, "abc", 4, static_cast<quote_mode>(3));
     }},
    {"KeyWantedByNoName", "getkeystring", "Key != NULL || idxKey >= 0",
     [] {
         char buffer[16];
         getkeystring(stream_of("[s]\nk=v\n"), "s", wanted_key::named(nullptr), buffer,
                      sizeof buffer);
     }},
    {"KeyWantedAtANegativePosition", "getkeystring", "Key != NULL || idxKey >= 0",
     [] {
         char buffer[16];
         getkeystring(stream_of("[s]\nk=v\n"), "s", wanted_key::at(-1), buffer, sizeof buffer);
     }},
    {"SectionNameNotEndingAtABracket", "getkeystring", "*ep == ']'",
     [] {
         qx::detail::ini_test_corrupt = [](char *checked) { *checked = '}'; };
         char buffer[16];
         getkeystring(stream_of("[first]\n"), section_at{0}, buffer, sizeof buffer);
     }},
    {"KeyNotEndingAtASeparator", "getkeystring", "*ep == '=' || *ep == ':'",
     [] {
         qx::detail::ini_test_corrupt = [](char *checked) { *checked = '~'; };
         char buffer[16];
         getkeystring(stream_of("[s]\nk=v\n"), "s", wanted_key::named("k"), buffer, sizeof buffer);
     }},
    {"MoreBytesThanPending", "cache_flush", "pos <= *size",
     [] {
         FILE *source = stream_of("hello\n");
         char buffer[qx::detail::ini_buffer_size];
         fpos_t mark;
         std::fgetpos(source, &mark);
         int pending = 3; // fewer bytes than the line holds
         cache_flush(buffer, &pending, source, std::tmpfile(), &mark);
     }},
    {"MissingValue", "write_key_line", "Value != NULL",
     [] {
         char buffer[qx::detail::ini_buffer_size];
         write_key_line(std::tmpfile(), "key", nullptr, buffer);
     }},
    {"MissingFileName", "ini_puts", "Filename != NULL", [] { ini_puts("s", "k", "v", nullptr); }},
};

// Names the check in a failure report.
void PrintTo(const engine_check &check, std::ostream *out) {
    *out << check.function << ": " << check.expression;
}

class IniEngineCheckDeathTest : public ::testing::TestWithParam<engine_check> {};

TEST_P(IniEngineCheckDeathTest, ReportsItsWholeMessageAndAborts) {
    const engine_check &check = GetParam();
    EXPECT_EXIT(check.violate(), ::testing::KilledBySignal(SIGABRT),
                assertion(check.function, check.expression));
}

INSTANTIATE_TEST_SUITE_P(Every, IniEngineCheckDeathTest, ::testing::ValuesIn(engine_checks),
                         [](const ::testing::TestParamInfo<engine_check> &info) {
                             return std::string(info.param.name);
                         });

// The expressions of the INI_ASSERT calls in the engine's source.
std::multiset<std::string> asserted_expressions() {
    std::ifstream in(QX_INI_ENGINE_SOURCE);
    std::stringstream text;
    text << in.rdbuf();
    const std::string source = text.str();
    const std::string call = "INI_ASSERT(";
    std::multiset<std::string> expressions;
    for (std::size_t at = source.find(call); at != std::string::npos;
         at = source.find(call, at + 1)) {
        if (at > 0 && source[at - 1] != ' ' && source[at - 1] != '\n')
            continue;
        std::size_t end = at + call.size();
        for (int depth = 1; end < source.size(); ++end) {
            depth += source[end] == '(' ? 1 : source[end] == ')' ? -1 : 0;
            if (depth == 0)
                break;
        }
        expressions.insert(source.substr(at + call.size(), end - at - call.size()));
    }
    expressions.erase("expression"); // the macro's own definition
    return expressions;
}

TEST(IniEngineChecks, EveryAssertionOfTheEngineIsPinnedAbove) {
    const std::multiset<std::string> found = asserted_expressions();
    ASSERT_FALSE(found.empty()) << "cannot read " << QX_INI_ENGINE_SOURCE;
    std::set<std::string> pinned;
    for (const engine_check &check : engine_checks)
        pinned.insert(check.expression);
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), pinned);
    EXPECT_EQ(found.size(), 9u) << "one check per assertion of the engine";
}

} // namespace
