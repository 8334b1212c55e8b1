// The INI readers: line syntax, value cleaning, lookups, enumeration and
// browsing, observed through the C interface.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qxcommon-util/ini.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::write_file;

class IniReader : public ::testing::Test {
  protected:
    qx_test::temp_dir dir;
    std::string path = dir.file("settings.ini");

    void write(const std::string &content) { write_file(path, content); }

    // The value as ini_gets leaves it, after checking that the result is its
    // length and that no descriptor stayed open.
    std::string get(const char *section, const char *key, const char *def = "<default>",
                    int size = 512) {
        std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '@');
        qx_test::fd_snapshot fds;
        const int length = ini_gets(section, key, def, buffer.data(), size, path.c_str());
        EXPECT_TRUE(fds.unchanged());
        EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(buffer.data()));
        EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '@') << "wrote past the buffer";
        return buffer.data();
    }

    std::string section_at(int index, int size = 512) {
        std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '@');
        qx_test::fd_snapshot fds;
        const int length = ini_getsection(index, buffer.data(), size, path.c_str());
        EXPECT_TRUE(fds.unchanged());
        EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(buffer.data()));
        EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '@') << "wrote past the buffer";
        return buffer.data();
    }

    std::string key_at(const char *section, int index, int size = 512) {
        std::vector<char> buffer(static_cast<std::size_t>(size) + 1, '@');
        qx_test::fd_snapshot fds;
        const int length = ini_getkey(section, index, buffer.data(), size, path.c_str());
        EXPECT_TRUE(fds.unchanged());
        EXPECT_EQ(static_cast<std::size_t>(length), std::strlen(buffer.data()));
        EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '@') << "wrote past the buffer";
        return buffer.data();
    }
};

// What a browse callback saw: section, key, value ("<null>" for NULL).
struct browse_call {
    std::string section, key, value;
    bool operator==(const browse_call &) const = default;
};

void PrintTo(const browse_call &c, std::ostream *os) {
    *os << "{" << c.section << "|" << c.key << "|" << c.value << "}";
}

struct browse_log {
    std::vector<browse_call> calls;
    int stop_after = -1; // calls before the callback returns 0
};

int record_call(const char *section, const char *key, const char *value, void *user_data) {
    auto *log = static_cast<browse_log *>(user_data);
    log->calls.push_back(
        {section, key != nullptr ? key : "<null>", value != nullptr ? value : "<null>"});
    return log->stop_after < 0 || static_cast<int>(log->calls.size()) < log->stop_after;
}

// ---- value cleaning -------------------------------------------------------

TEST_F(IniReader, ValueEndsAtACommentAndLosesTrailingBlanks) {
    write("[s]\nkey = value ; note\n");
    EXPECT_EQ(get("s", "key"), "value");
}

TEST_F(IniReader, HashStartsACommentInAValueToo) {
    write("[s]\nkey=red#green\n");
    EXPECT_EQ(get("s", "key"), "red");
}

TEST_F(IniReader, QuotedValueKeepsCommentCharactersAndLosesItsQuotes) {
    write("[s]\nkey = \"a;b\" \n");
    EXPECT_EQ(get("s", "key"), "a;b");
}

TEST_F(IniReader, QuotedValueWithBackslashEscapedQuotesYieldsTheInnerText) {
    write("[s]\nkey = \"say \\\"hi\\\" #1\"\n");
    EXPECT_EQ(get("s", "key"), "say \"hi\" #1");
}

TEST_F(IniReader, DoubledQuotesInsideQuotesYieldOneQuote) {
    write("[s]\nkey=\"a\"\"b;c\"\n");
    EXPECT_EQ(get("s", "key"), "a\"b;c");
}

TEST_F(IniReader, QuotesInsideAnUnquotedValueStayAsTheyAre) {
    // The quotes toggle the comment rule but are not removed: the value does
    // not both begin and end with a quote.
    write("[s]\nkey=x \"a;b\" y ; comment\n");
    EXPECT_EQ(get("s", "key"), "x \"a;b\" y");
}

TEST_F(IniReader, UnbalancedQuoteKeepsTheRestOfTheLine) {
    write("[s]\nkey=\"abc;def\n");
    EXPECT_EQ(get("s", "key"), "\"abc;def");
}

TEST_F(IniReader, LoneQuoteAndBackslashInsideQuotesAreCopiedAsTheyAre) {
    write("[s]\na=\"x\"y\"\nb=\"c:\\dir\"\n");
    EXPECT_EQ(get("s", "a"), "x\"y");
    EXPECT_EQ(get("s", "b"), "c:\\dir");
}

TEST_F(IniReader, EmptyQuotedValueIsEmpty) {
    write("[s]\nkey=\"\"\nother=\"\n");
    EXPECT_EQ(get("s", "key"), "");
    EXPECT_EQ(get("s", "other"), "");
}

TEST_F(IniReader, QuotedValueKeepsItsInnerBlanks) {
    write("[s]\nkey=\"  padded  \"\n");
    EXPECT_EQ(get("s", "key"), "  padded  ");
}

// ---- separators and keys --------------------------------------------------

TEST_F(IniReader, EqualsSignWinsOverAnEarlierColon) {
    write("[s]\na:b=c\n");
    EXPECT_EQ(get("s", "a:b"), "c");
    EXPECT_EQ(get("s", "a"), "<default>");
    EXPECT_EQ(key_at("s", 0), "a:b");
}

TEST_F(IniReader, ColonSeparatesWhenThereIsNoEqualsSign) {
    write("[s]\nk: v\n");
    EXPECT_EQ(get("s", "k"), "v");
    EXPECT_EQ(key_at("s", 0), "k");
}

TEST_F(IniReader, ValueMayHoldFurtherSeparators) {
    write("[s]\nurl = http://host:80/a=b\n");
    EXPECT_EQ(get("s", "url"), "http://host:80/a=b");
}

TEST_F(IniReader, KeysAndSectionsCompareIgnoringCase) {
    write("[Net]\nHostName = gw\n");
    EXPECT_EQ(get("net", "hostname"), "gw");
    EXPECT_EQ(get("NET", "HOSTNAME"), "gw");
}

TEST_F(IniReader, KeyMustHaveTheWholeLength) {
    write("[s]\nkeyx=1\nke=2\nkey=3\n");
    EXPECT_EQ(get("s", "key"), "3");
}

TEST_F(IniReader, BlanksAroundKeyAndValueAreRemoved) {
    write("[s]\n \t key \t=\t value \t\r\n");
    EXPECT_EQ(get("s", "key"), "value");
}

TEST_F(IniReader, CarriageReturnsOfLineEndsAreBlanks) {
    write("[s]\r\nkey=value\r\nnext=2\r\n");
    EXPECT_EQ(get("s", "key"), "value");
    EXPECT_EQ(get("s", "next"), "2");
    EXPECT_EQ(section_at(0), "s");
}

TEST_F(IniReader, ValueOrKeyEndingInAUtf8CharacterLosesItsBytes) {
    // "\xc3\xa9" is e-acute: both bytes are blanks at the edges.
    write("[s]\ncaf\xc3\xa9 = cr\xc3\xa8me br\xc3\xbbl\xc3\xa9\n");
    EXPECT_EQ(get("s", "caf"), "cr\xc3\xa8me br\xc3\xbbl");
    EXPECT_EQ(get("s", "caf\xc3\xa9"), "<default>");
    EXPECT_EQ(key_at("s", 0), "caf");
}

TEST_F(IniReader, LeadingNonAsciiBytesOfAValueAreRemovedLikeSpaces) {
    write("[s]\nk=\xc2\xa0\xc3\xa9t\xc3\xa9 x\n");
    EXPECT_EQ(get("s", "k"), "t\xc3\xa9 x");
}

TEST_F(IniReader, CommentLinesAreNotKeys) {
    write("[s]\n;key=1\n  # key=2\nkey=3\n");
    EXPECT_EQ(get("s", "key"), "3");
    EXPECT_EQ(key_at("s", 0), "key");
}

TEST_F(IniReader, FirstMatchingKeyWins) {
    write("[s]\nkey=first\nKEY=second\n");
    EXPECT_EQ(get("s", "key"), "first");
}

TEST_F(IniReader, EmptyValueIsFoundAndEmpty) {
    write("[s]\nkey=\nkey2 =   ; nothing\n");
    EXPECT_EQ(get("s", "key"), "");
    EXPECT_EQ(get("s", "key2"), "");
}

// ---- sections -------------------------------------------------------------

TEST_F(IniReader, KeysBeforeTheFirstHeaderBelongToTheUnnamedSection) {
    write("top=1\n[s]\ntop=2\n");
    EXPECT_EQ(get(nullptr, "top"), "1");
    EXPECT_EQ(get("", "top"), "1");
    EXPECT_EQ(get("s", "top"), "2");
}

TEST_F(IniReader, UnnamedSectionEndsAtTheFirstHeader) {
    write("[s]\nk=1\n");
    EXPECT_EQ(get(nullptr, "k"), "<default>");
}

TEST_F(IniReader, KeyOutsideItsSectionIsNotSeen) {
    write("[a]\nx=1\n[b]\ny=2\n");
    EXPECT_EQ(get("a", "y"), "<default>");
    EXPECT_EQ(get("b", "x"), "<default>");
    EXPECT_EQ(get("c", "x"), "<default>");
}

TEST_F(IniReader, LineStartingWithABracketEndsTheSectionEvenWithoutClosingBracket) {
    write("[a]\nx=1\n[oops\ny=2\n");
    EXPECT_EQ(get("a", "x"), "1");
    EXPECT_EQ(get("a", "y"), "<default>");
}

TEST_F(IniReader, SectionNameIsTakenAsItStandsInsideTheBrackets) {
    write("  [ spaced ] trailing text\nk=1\n");
    EXPECT_EQ(get(" spaced ", "k"), "1");
    EXPECT_EQ(get("spaced", "k"), "<default>");
    EXPECT_EQ(section_at(0), " spaced ");
}

TEST_F(IniReader, SectionNameEndsAtTheFirstClosingBracket) {
    write("[a]b]\nk=1\n");
    EXPECT_EQ(get("a", "k"), "1");
    EXPECT_EQ(section_at(0), "a");
}

TEST_F(IniReader, SameSectionTwiceLookupsSeeOnlyTheFirstOccurrence) {
    write("[s]\na=1\n[t]\nb=2\n[S]\na=3\nc=4\n");
    EXPECT_EQ(get("s", "a"), "1");
    EXPECT_EQ(get("s", "c"), "<default>");
    EXPECT_EQ(key_at("s", 1), "");
}

TEST_F(IniReader, SameSectionTwiceBrowsingReportsBoth) {
    write("[s]\na=1\n[t]\nb=2\n[S]\na=3\nc=4\n");
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    const std::vector<browse_call> expected{
        {"s", "a", "1"}, {"t", "b", "2"}, {"S", "a", "3"}, {"S", "c", "4"}};
    EXPECT_EQ(log.calls, expected);
}

// ---- defaults and guards --------------------------------------------------

TEST_F(IniReader, MissingFileGivesTheDefault) {
    EXPECT_EQ(get("s", "k", "fallback"), "fallback");
}

TEST_F(IniReader, EmptyFileGivesTheDefault) {
    write("");
    EXPECT_EQ(get("s", "k", "fallback"), "fallback");
    EXPECT_EQ(get(nullptr, "k", "fallback"), "fallback");
}

TEST_F(IniReader, DefaultIsTruncatedToTheBuffer) {
    EXPECT_EQ(get("s", "k", "abcdef", 4), "abc");
    EXPECT_EQ(get("s", "k", "abcdef", 1), "");
}

TEST_F(IniReader, ValueIsTruncatedToTheBuffer) {
    write("[s]\nk=abcdef\nq=\"ab\\\"cd\"\n");
    EXPECT_EQ(get("s", "k", "", 4), "abc");
    EXPECT_EQ(get("s", "k", "", 7), "abcdef");
    EXPECT_EQ(get("s", "q", "", 4), "ab\"");
}

TEST_F(IniReader, GetsWithoutRoomKeyOrBufferReturnsZeroAndLeavesTheBuffer) {
    write("[s]\nk=v\n");
    char buffer[8] = "keep";
    EXPECT_EQ(ini_gets("s", "k", "d", buffer, 0, path.c_str()), 0);
    EXPECT_EQ(ini_gets("s", "k", "d", buffer, -5, path.c_str()), 0);
    EXPECT_EQ(ini_gets("s", nullptr, "d", buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(ini_gets("s", "k", "d", nullptr, 8, path.c_str()), 0);
}

TEST_F(IniReader, DefaultMayLieAboveTheBufferInsideIt) {
    // Copying towards lower addresses inside one buffer is allowed.
    char buffer[16] = "xxabcdef";
    EXPECT_EQ(ini_gets("s", "k", buffer + 2, buffer, sizeof buffer, path.c_str()), 6);
    EXPECT_STREQ(buffer, "abcdef");
}

TEST_F(IniReader, ReadersLeaveNoDescriptorOpenOnAnyPath) {
    write("[s]\nk=1\n");
    qx_test::fd_snapshot fds;
    char buffer[32];
    ini_gets("s", "k", "", buffer, sizeof buffer, path.c_str());
    ini_gets("s", "missing", "", buffer, sizeof buffer, path.c_str());
    ini_gets("s", "k", "", buffer, sizeof buffer, dir.file("absent.ini").c_str());
    ini_getl("s", "k", 0, path.c_str());
    ini_getf("s", "k", 0, path.c_str());
    ini_getbool("s", "k", 0, path.c_str());
    ini_getsection(0, buffer, sizeof buffer, path.c_str());
    ini_getsection(9, buffer, sizeof buffer, path.c_str());
    ini_getkey("s", 0, buffer, sizeof buffer, path.c_str());
    ini_getkey("s", 9, buffer, sizeof buffer, path.c_str());
    browse_log log;
    ini_browse(record_call, &log, path.c_str());
    log.stop_after = 1;
    ini_browse_with_section_cb(record_call, &log, path.c_str());
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(IniReader, ALookupAllocatesNothingButTheStreamRecord) {
    write("[s]\n" + std::string(3000, ';') + "\nk=1\n");
    char buffer[32];
    int length = -1;
    {
        qx_test::failing_allocation arm(1, true); // the first one is fopen's FILE
        length = ini_gets("s", "k", "", buffer, sizeof buffer, path.c_str());
    }
    EXPECT_EQ(qx_test::allocations_seen(), 1);
    EXPECT_FALSE(qx_test::allocation_was_failed());
    EXPECT_EQ(length, 1);
    EXPECT_STREQ(buffer, "1");
}

TEST_F(IniReader, FileThatCannotBeOpenedForLackOfMemoryGivesTheDefault) {
    write("[s]\nk=1\n");
    char buffer[32];
    int length = -1;
    {
        qx_test::failing_allocation arm(0, true);
        length = ini_gets("s", "k", "dflt", buffer, sizeof buffer, path.c_str());
    }
    EXPECT_EQ(length, 4);
    EXPECT_STREQ(buffer, "dflt");
}

// ---- allocation-failure sweeps ------------------------------------------------
// Every reading function makes one allocation, fopen's stream record; with
// it failing the file counts as unreadable, which is the same as empty.

TEST_F(IniReader, EveryGetterSweptThroughItsAllocationsGivesTheDefaultOrTheValue) {
    write("[first]\nk=42\nflag=true\npi=3.25\n[second]\nname=v\n");
    const char *f = path.c_str();
    std::vector<long> counts;
    const auto sweep = [&](auto call, auto on_failure, auto on_success) {
        counts.push_back(qx_test::sweep_allocation_failures([&](long n) {
            const auto result = qx_test::call_with_failing_allocation(n, call);
            if (qx_test::allocation_was_failed())
                on_failure(result);
            else
                on_success(result);
        }));
    };
    sweep([&] { return ini_getl("first", "k", -7, f); }, [](long r) { EXPECT_EQ(r, -7); },
          [](long r) { EXPECT_EQ(r, 42); });
    sweep([&] { return ini_getbool("first", "flag", -1, f); }, [](int r) { EXPECT_EQ(r, -1); },
          [](int r) { EXPECT_EQ(r, 1); });
    sweep([&] { return ini_getf("first", "pi", 0.5f, f); },
          [](float r) { EXPECT_FLOAT_EQ(r, 0.5f); }, [](float r) { EXPECT_FLOAT_EQ(r, 3.25f); });

    char buffer[32];
    sweep(
        [&] {
            std::memset(buffer, '@', sizeof buffer);
            return ini_getsection(1, buffer, sizeof buffer, f);
        },
        [&](int r) {
            EXPECT_EQ(r, 0);
            EXPECT_STREQ(buffer, "");
        },
        [&](int r) {
            EXPECT_EQ(r, 6);
            EXPECT_STREQ(buffer, "second");
        });
    sweep(
        [&] {
            std::memset(buffer, '@', sizeof buffer);
            return ini_getkey("first", 1, buffer, sizeof buffer, f);
        },
        [&](int r) {
            EXPECT_EQ(r, 0);
            EXPECT_STREQ(buffer, "");
        },
        [&](int r) {
            EXPECT_EQ(r, 4);
            EXPECT_STREQ(buffer, "flag");
        });
    browse_log log;
    log.calls.reserve(8); // the log must not allocate while the sweep counts
    sweep(
        [&] {
            log.calls.clear();
            return ini_browse(record_call, &log, f);
        },
        [&](int r) {
            EXPECT_EQ(r, 0);
            EXPECT_TRUE(log.calls.empty());
        },
        [&](int r) {
            EXPECT_EQ(r, 1);
            EXPECT_EQ(log.calls.size(), 4U);
        });
    EXPECT_EQ(counts, std::vector<long>(6, 1L));
}

// ---- long lines -----------------------------------------------------------

TEST_F(IniReader, LinesLongerThan511BytesAreSplitAndTheTailIsALineOfItsOwn) {
    // The first read takes 511 bytes: "long=" and 506 x; the rest of the
    // physical line is read as the line "tail=7".
    write("[s]\nlong=" + std::string(506, 'x') + "tail=7\nafter=8\n");
    EXPECT_EQ(get("s", "long"), std::string(506, 'x'));
    EXPECT_EQ(get("s", "tail"), "7");
    EXPECT_EQ(get("s", "after"), "8");
    EXPECT_EQ(key_at("s", 1), "tail");
}

TEST_F(IniReader, TailOfALongLineCanStartASection) {
    write("k=" + std::string(509, 'v') + "[hidden]\nh=1\n");
    EXPECT_EQ(get("hidden", "h"), "1");
    EXPECT_EQ(section_at(0), "hidden");
}

TEST_F(IniReader, ValueOfALineOfExactly511BytesIsWhole) {
    const std::string value(507, 'v'); // "k=" + value + "\n" is 510 bytes
    write("[s]\nk=" + value + "\nq=" + std::string(509, 'w') + "\nz=1\n");
    EXPECT_EQ(get("s", "k"), value);
    EXPECT_EQ(get("s", "q"), std::string(509, 'w'));
    EXPECT_EQ(get("s", "z"), "1");
}

// ---- conversions ----------------------------------------------------------

TEST_F(IniReader, GetlReadsDecimalAndHexadecimal) {
    write("[n]\nhex=0x1F\nbad=1x\nneg=-0x10\ndec=-42\nbig=0XfF\nword=abc\nempty=\n"
          "spaced = 12 apples\n");
    const char *f = path.c_str();
    EXPECT_EQ(ini_getl("n", "hex", -1, f), 31);
    EXPECT_EQ(ini_getl("n", "big", -1, f), 255);
    EXPECT_EQ(ini_getl("n", "bad", -1, f), 1); // base 16 for "1x"
    EXPECT_EQ(ini_getl("n", "neg", -1, f), 0); // base 10 stops at "x"
    EXPECT_EQ(ini_getl("n", "dec", -1, f), -42);
    EXPECT_EQ(ini_getl("n", "word", -1, f), 0); // what strtol gives
    EXPECT_EQ(ini_getl("n", "empty", -1, f), -1);
    EXPECT_EQ(ini_getl("n", "missing", 77, f), 77);
    EXPECT_EQ(ini_getl("n", "spaced", -1, f), 12);
    EXPECT_EQ(ini_getl("n", "hex", 5, dir.file("absent").c_str()), 5);
}

TEST_F(IniReader, GetlSaturatesLikeStrtol) {
    write("[n]\nhuge=99999999999999999999999\n");
    EXPECT_EQ(ini_getl("n", "huge", 0, path.c_str()), LONG_MAX);
}

TEST_F(IniReader, GetfReadsFloatingPointValues) {
    write("[f]\npi=3.25\nneg=-1e3\nword=x\nempty=\n");
    const char *f = path.c_str();
    EXPECT_FLOAT_EQ(ini_getf("f", "pi", 0.0f, f), 3.25f);
    EXPECT_FLOAT_EQ(ini_getf("f", "neg", 0.0f, f), -1000.0f);
    EXPECT_FLOAT_EQ(ini_getf("f", "word", 9.0f, f), 0.0f);
    EXPECT_FLOAT_EQ(ini_getf("f", "empty", 9.0f, f), 9.0f);
    EXPECT_FLOAT_EQ(ini_getf("f", "missing", 2.5f, f), 2.5f);
}

TEST_F(IniReader, GetboolJudgesWordsByTheirFirstLetter) {
    write("[b]\nyes=Yes\ntrue=True\none=1\nt=t\nno=no\nfalse=False\nzero=0\nf=f\n"
          "on=on\noff=off\nempty=\nquoted=\"yes\"\n");
    const char *f = path.c_str();
    EXPECT_EQ(ini_getbool("b", "yes", -1, f), 1);
    EXPECT_EQ(ini_getbool("b", "true", -1, f), 1);
    EXPECT_EQ(ini_getbool("b", "one", -1, f), 1);
    EXPECT_EQ(ini_getbool("b", "t", -1, f), 1);
    EXPECT_EQ(ini_getbool("b", "quoted", -1, f), 1);
    EXPECT_EQ(ini_getbool("b", "no", -1, f), 0);
    EXPECT_EQ(ini_getbool("b", "false", -1, f), 0);
    EXPECT_EQ(ini_getbool("b", "zero", -1, f), 0);
    EXPECT_EQ(ini_getbool("b", "f", -1, f), 0);
    EXPECT_EQ(ini_getbool("b", "on", -1, f), -1);
    EXPECT_EQ(ini_getbool("b", "off", 7, f), 7);
    EXPECT_EQ(ini_getbool("b", "empty", 3, f), 3);
    EXPECT_EQ(ini_getbool("b", "missing", 5, f), 5);
}

// ---- enumeration ----------------------------------------------------------

TEST_F(IniReader, GetsectionCountsHeadersInFileOrder) {
    write("top=1\n[first]\na=1\n; [comment]\n[second]\n  [third]  \n[nobracket\n");
    EXPECT_EQ(section_at(0), "first");
    EXPECT_EQ(section_at(1), "second");
    EXPECT_EQ(section_at(2), "third");
    EXPECT_EQ(section_at(3), "");
}

TEST_F(IniReader, GetsectionPastTheLastHeaderEmptiesTheBuffer) {
    write("[a]\n[b]\n");
    char buffer[16] = "stale";
    EXPECT_EQ(ini_getsection(2, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "");
}

TEST_F(IniReader, GetsectionCannotReachPastAHeaderWithAnEmptyName) {
    write("[a]\n[]\n[b]\n");
    EXPECT_EQ(section_at(0), "a");
    char buffer[16] = "stale";
    EXPECT_EQ(ini_getsection(1, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(section_at(2), "");
}

TEST_F(IniReader, GetsectionOnAMissingFileEmptiesTheBuffer) {
    char buffer[16] = "stale";
    EXPECT_EQ(ini_getsection(0, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "");
}

TEST_F(IniReader, GetsectionTruncatesTheNameToTheBuffer) {
    write("[abcdef]\n");
    EXPECT_EQ(section_at(0, 4), "abc");
}

TEST_F(IniReader, GetsectionGuardsLeaveTheBufferUntouched) {
    write("[a]\n");
    char buffer[8] = "keep";
    EXPECT_EQ(ini_getsection(-1, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_EQ(ini_getsection(0, buffer, 0, path.c_str()), 0);
    EXPECT_EQ(ini_getsection(0, buffer, -1, path.c_str()), 0);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(ini_getsection(0, nullptr, 8, path.c_str()), 0);
}

TEST_F(IniReader, GetkeyCountsOnlyKeyLinesOfTheSection) {
    write("u=0\n[s]\n; c=1\n# d=2\nnoseparator\n\n first = 1\nsecond:2\n  third  =3\n[t]\nx=1\n");
    EXPECT_EQ(key_at("s", 0), "first");
    EXPECT_EQ(key_at("s", 1), "second");
    EXPECT_EQ(key_at("s", 2), "third");
    EXPECT_EQ(key_at("s", 3), "");
    EXPECT_EQ(key_at(nullptr, 0), "u");
    EXPECT_EQ(key_at("", 1), "");
    EXPECT_EQ(key_at("t", 0), "x");
    EXPECT_EQ(key_at("missing", 0), "");
}

TEST_F(IniReader, GetkeyStopsAtAKeyLineWithAnEmptyKey) {
    write("[s]\na=1\n=2\nb=3\n");
    EXPECT_EQ(key_at("s", 0), "a");
    char buffer[16] = "stale";
    EXPECT_EQ(ini_getkey("s", 1, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(key_at("s", 2), "");
}

TEST_F(IniReader, GetkeyGuardsLeaveTheBufferUntouched) {
    write("[s]\na=1\n");
    char buffer[8] = "keep";
    EXPECT_EQ(ini_getkey("s", -1, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_EQ(ini_getkey("s", 0, buffer, 0, path.c_str()), 0);
    EXPECT_EQ(ini_getkey("s", 0, buffer, -3, path.c_str()), 0);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(ini_getkey("s", 0, nullptr, 8, path.c_str()), 0);
}

TEST_F(IniReader, GetkeyOnAMissingFileEmptiesTheBuffer) {
    char buffer[16] = "stale";
    EXPECT_EQ(ini_getkey("s", 0, buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_STREQ(buffer, "");
}

// ---- browsing -------------------------------------------------------------

TEST_F(IniReader, BrowseReportsEveryKeyLineWithItsSectionInOrder) {
    write("top = 1\n; comment\n# also\n\n[Alpha]\n k : v ; note\nq=\"a;b\"\nnosep\n"
          "[beta]\nx=\n");
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    const std::vector<browse_call> expected{
        {"", "top", "1"}, {"Alpha", "k", "v"}, {"Alpha", "q", "a;b"}, {"beta", "x", ""}};
    EXPECT_EQ(log.calls, expected);
}

TEST_F(IniReader, BrowseWithSectionCallbackAlsoReportsHeaders) {
    write("top=1\n[a]\nk=v\n[]\n[b]\n");
    browse_log log;
    EXPECT_EQ(ini_browse_with_section_cb(record_call, &log, path.c_str()), 1);
    const std::vector<browse_call> expected{{"", "top", "1"},
                                            {"a", "<null>", "<null>"},
                                            {"a", "k", "v"},
                                            {"", "<null>", "<null>"},
                                            {"b", "<null>", "<null>"}};
    EXPECT_EQ(log.calls, expected);
}

TEST_F(IniReader, BrowseIntExaminesOnlyBitZeroOfTheFlags) {
    write("[a]\nk=v\n");
    browse_log without, with;
    EXPECT_EQ(ini_browse_int(record_call, &without, path.c_str(), 2), 1);
    EXPECT_EQ(ini_browse_int(record_call, &with, path.c_str(), 3), 1);
    EXPECT_EQ(without.calls, (std::vector<browse_call>{{"a", "k", "v"}}));
    EXPECT_EQ(with.calls, (std::vector<browse_call>{{"a", "<null>", "<null>"}, {"a", "k", "v"}}));
}

TEST_F(IniReader, BrowseStopsWhenTheCallbackReturnsZeroAndStillReportsOne) {
    write("[a]\nk=1\nl=2\nm=3\n");
    browse_log log;
    log.stop_after = 2;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    EXPECT_EQ(log.calls, (std::vector<browse_call>{{"a", "k", "1"}, {"a", "l", "2"}}));

    browse_log at_header;
    at_header.stop_after = 1;
    EXPECT_EQ(ini_browse_with_section_cb(record_call, &at_header, path.c_str()), 1);
    EXPECT_EQ(at_header.calls, (std::vector<browse_call>{{"a", "<null>", "<null>"}}));
}

TEST_F(IniReader, BrowseWithoutCallbackOrFileReportsZero) {
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 0);
    write("[a]\nk=1\n");
    EXPECT_EQ(ini_browse(nullptr, &log, path.c_str()), 0);
    EXPECT_EQ(ini_browse_with_section_cb(nullptr, &log, path.c_str()), 0);
    EXPECT_TRUE(log.calls.empty());
}

TEST_F(IniReader, BrowseOfAnEmptyFileCallsNothing) {
    write("");
    browse_log log;
    EXPECT_EQ(ini_browse_with_section_cb(record_call, &log, path.c_str()), 1);
    EXPECT_TRUE(log.calls.empty());
}

TEST_F(IniReader, BrowseTreatsABracketWithoutClosingBracketAsAPossibleKeyLine) {
    write("[a]\n[odd=1\n[nosep\n");
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    EXPECT_EQ(log.calls, (std::vector<browse_call>{{"a", "[odd", "1"}}));
}

TEST_F(IniReader, BrowseReadsInSmallerPiecesAfterALongSectionName) {
    // A 500-byte name leaves 11 bytes for each read: 10 bytes of line.
    const std::string name(500, 'n');
    write("[" + name + "]\nkey=value\nabcdefgh=12345\nz=9\n");
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    // "abcdefgh=12345\n" is read as "abcdefgh=1" and "2345\n" (no separator).
    const std::vector<browse_call> expected{
        {name, "key", "value"}, {name, "abcdefgh", "1"}, {name, "z", "9"}};
    EXPECT_EQ(log.calls, expected);
}

TEST_F(IniReader, BrowseHandsOutValuesCleanedAndDequoted) {
    write("[s]\n k\xc3\xa9 = \"a \\\"b\\\"\" ; c\n");
    browse_log log;
    EXPECT_EQ(ini_browse(record_call, &log, path.c_str()), 1);
    EXPECT_EQ(log.calls, (std::vector<browse_call>{{"s", "k", "a \"b\""}}));
}

TEST_F(IniReader, BrowseOfACrLfFileSeesNoCarriageReturns) {
    write("[s]\r\nk=v\r\n");
    browse_log log;
    EXPECT_EQ(ini_browse_with_section_cb(record_call, &log, path.c_str()), 1);
    EXPECT_EQ(log.calls, (std::vector<browse_call>{{"s", "<null>", "<null>"}, {"s", "k", "v"}}));
}

// ---- malformed input ------------------------------------------------------

TEST_F(IniReader, NulBytesEndTheTextOfALineOnly) {
    write(std::string("[s]\nk=a\0b\nl=2\n", 14));
    EXPECT_EQ(get("s", "k"), "a");
    EXPECT_EQ(get("s", "l"), "2");
}

TEST_F(IniReader, RandomBytesNeverCrashAReaderNorOverrunItsBuffers) {
    std::mt19937 random(20261121);
    const std::string alphabet = "[]=:;#\"\\ \t\r\nabAB\x80\xff";
    for (int round = 0; round < 300; ++round) {
        std::string content;
        const int length = static_cast<int>(random() % 1500);
        for (int i = 0; i < length; ++i)
            content += (random() % 4 == 0) ? static_cast<char>(random() % 256)
                                           : alphabet[random() % alphabet.size()];
        write(content);
        const int size = 1 + static_cast<int>(random() % 40);
        get("a", "b", "d", size);
        get(nullptr, "A", "d", size);
        section_at(static_cast<int>(random() % 4), size);
        key_at("a", static_cast<int>(random() % 4), size);
        key_at(nullptr, static_cast<int>(random() % 4), size);
        browse_log log;
        EXPECT_EQ(ini_browse_with_section_cb(record_call, &log, path.c_str()), 1);
        for (const browse_call &c : log.calls)
            EXPECT_LT(c.section.size() + c.key.size() + c.value.size(), 512u);
    }
}

// ---- assertions -----------------------------------------------------------

TEST_F(IniReader, DefaultOverlappingTheBufferFromBelowEndsTheProcess) {
    EXPECT_DEATH(
        {
            char buffer[32] = "abcdefgh";
            ini_gets("s", "k", buffer, buffer + 2, 10, path.c_str());
        },
        "ini_engine\\.cpp:[0-9]+: save_strncpy: Assertion `dest <= source \\|\\| dest >= source "
        "\\+ maxlen' failed");
}

} // namespace
