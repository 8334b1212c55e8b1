#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qxcommon-util/tokenizer.h"

namespace {

// A writable copy of a text, with room to see what the splitter left behind
// the text's end.
struct text_buffer {
    std::vector<char> bytes;
    explicit text_buffer(const char *text) : bytes(text, text + std::strlen(text) + 1) {}
    char *data() { return bytes.data(); }
};

struct scanned {
    std::string text;
    std::size_t offset;
};

// Every field strnsep gives for text, with its offset in text.
std::vector<scanned> scan_all(const char *text, const char *delims) {
    std::vector<scanned> fields;
    const char *cursor = text;
    std::size_t len = 99;
    while (const char *field = strnsep(&cursor, delims, &len))
        fields.push_back({std::string(field, len), static_cast<std::size_t>(field - text)});
    EXPECT_EQ(len, 0u);
    return fields;
}

// Every field of the in-place splitter for a copy of text.
std::vector<std::string> split_all(const char *text, const char *delims, int collapse) {
    text_buffer buffer(text);
    char *cursor = buffer.data();
    std::vector<std::string> fields;
    while (char *field = qx_strsepstr_x(&cursor, delims, collapse)) {
        fields.emplace_back(field);
        if (fields.size() > 100)
            break;
    }
    EXPECT_EQ(cursor, nullptr);
    return fields;
}

using strings = std::vector<std::string>;

bool operator==(const scanned &a, const scanned &b) {
    return a.text == b.text && a.offset == b.offset;
}

} // namespace

// --- strnsep -----------------------------------------------------------

TEST(Strnsep, OnAnEmptyTextReturnsNullWithZeroLengthAndTheCursorUnchanged) {
    const char text[] = "";
    const char *cursor = text;
    std::size_t len = 42;
    EXPECT_EQ(strnsep(&cursor, ",", &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(cursor, text);
}

TEST(Strnsep, OnANullCursorReturnsNullWithZeroLength) {
    const char *cursor = nullptr;
    std::size_t len = 42;
    EXPECT_EQ(strnsep(&cursor, ",", &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(cursor, nullptr);
}

TEST(Strnsep, ReturnsAFieldWithoutDelimiterWholeAndLeavesTheCursorOnTheNul) {
    const char text[] = "abc";
    const char *cursor = text;
    std::size_t len = 0;
    EXPECT_EQ(strnsep(&cursor, ";", &len), text);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(cursor, text + 3);
    EXPECT_EQ(strnsep(&cursor, ";", &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(cursor, text + 3);
}

TEST(Strnsep, MovesTheCursorPastTheDelimiterThatEndsAField) {
    const char text[] = "ab,cd";
    const char *cursor = text;
    std::size_t len = 0;
    EXPECT_EQ(strnsep(&cursor, ",", &len), text);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(cursor, text + 3);
}

TEST(Strnsep, KeepsEmptyFieldsBetweenDelimiters) {
    EXPECT_EQ(scan_all("a,,b", ","), (std::vector<scanned>{{"a", 0}, {"", 2}, {"b", 3}}));
}

TEST(Strnsep, GivesAnEmptyFirstFieldForALeadingDelimiter) {
    EXPECT_EQ(scan_all(",a", ","), (std::vector<scanned>{{"", 0}, {"a", 1}}));
}

TEST(Strnsep, GivesNoEmptyLastFieldForATrailingDelimiter) {
    EXPECT_EQ(scan_all("a,", ","), (std::vector<scanned>{{"a", 0}}));
    EXPECT_EQ(scan_all("a,,", ","), (std::vector<scanned>{{"a", 0}, {"", 2}}));
}

TEST(Strnsep, EndsFieldsAtAnyOfSeveralDelimiters) {
    EXPECT_EQ(scan_all("a;b,c d", ",; "),
              (std::vector<scanned>{{"a", 0}, {"b", 2}, {"c", 4}, {"d", 6}}));
}

TEST(Strnsep, WithEmptyDelimitersTakesTheWholeRestAsOneField) {
    EXPECT_EQ(scan_all("a,b c", ""), (std::vector<scanned>{{"a,b c", 0}}));
}

TEST(Strnsep, TreatsQuotesAndBackslashesAsPlainText) {
    EXPECT_EQ(scan_all("\"a,b\",c\\,d", ","),
              (std::vector<scanned>{{"\"a", 0}, {"b\"", 3}, {"c\\", 6}, {"d", 9}}));
}

TEST(Strnsep, NeverWritesIntoTheText) {
    char text[] = "x,,y;z,";
    const std::string before(text, sizeof text);
    scan_all(text, ",;");
    EXPECT_EQ(std::string(text, sizeof text), before);
}

// --- my_strsep, qx_strsepstr, qx_strsepstr_x -------------------------------

TEST(QxStrsepstrX, ReturnsNullForANullCursor) {
    char *cursor = nullptr;
    EXPECT_EQ(qx_strsepstr_x(&cursor, ",", 0), nullptr);
    EXPECT_EQ(qx_strsepstr_x(&cursor, ",", 1), nullptr);
    EXPECT_EQ(my_strsep(&cursor, ","), nullptr);
    EXPECT_EQ(qx_strsepstr(&cursor, ","), nullptr);
    EXPECT_EQ(cursor, nullptr);
}

TEST(MyStrsep, ReturnsAnEmptyTextOnceThenNull) {
    char text[] = "";
    char *cursor = text;
    EXPECT_EQ(my_strsep(&cursor, ","), text);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(my_strsep(&cursor, ","), nullptr);
}

TEST(MyStrsep, EndsEachFieldAtOneDelimiterInPlace) {
    char text[] = "a,,b";
    char *cursor = text;
    EXPECT_EQ(my_strsep(&cursor, ","), text);
    EXPECT_STREQ(text, "a");
    EXPECT_EQ(cursor, text + 2);
    EXPECT_EQ(my_strsep(&cursor, ","), text + 2);
    EXPECT_STREQ(text + 2, "");
    EXPECT_EQ(cursor, text + 3);
    EXPECT_EQ(my_strsep(&cursor, ","), text + 3);
    EXPECT_STREQ(text + 3, "b");
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(my_strsep(&cursor, ","), nullptr);
    EXPECT_EQ(std::memcmp(text, "a\0\0b", 5), 0);
}

TEST(MyStrsep, GivesAnEmptyLastFieldForATrailingDelimiter) {
    EXPECT_EQ(split_all("a,", ",", 0), (strings{"a", ""}));
}

TEST(QxStrsepstr, CollapsesARunOfDelimiters) {
    char text[] = "a,,b";
    char *cursor = text;
    EXPECT_EQ(qx_strsepstr(&cursor, ","), text);
    EXPECT_EQ(cursor, text + 3);
    EXPECT_EQ(std::memcmp(text, "a\0\0b", 5), 0);
    EXPECT_EQ(qx_strsepstr(&cursor, ","), text + 3);
    EXPECT_EQ(cursor, nullptr);
}

TEST(QxStrsepstr, StillGivesOneEmptyFieldForLeadingDelimiters) {
    EXPECT_EQ(split_all(",a", ",", 1), (strings{"", "a"}));
    EXPECT_EQ(split_all(",,a", ",", 1), (strings{"", "a"}));
}

TEST(QxStrsepstr, StopsOnTheEmptyRemainderAfterTrailingDelimiters) {
    char text[] = "a,,";
    char *cursor = text;
    EXPECT_EQ(qx_strsepstr(&cursor, ","), text);
    EXPECT_STREQ(text, "a");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(cursor, text + 3);
    EXPECT_EQ(qx_strsepstr(&cursor, ","), text + 3);
    EXPECT_STREQ(text + 3, "");
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(qx_strsepstr(&cursor, ","), nullptr);
}

TEST(QxStrsepstr, CollapsesRunsMixingSeveralDelimiterCharacters) {
    EXPECT_EQ(split_all("a, ;b ,c", ", ;", 1), (strings{"a", "b", "c"}));
    EXPECT_EQ(split_all("a, ;b ,c", ", ;", 0), (strings{"a", "", "", "b", "", "c"}));
}

TEST(QxStrsepstrX, TakesCollapseFromItsArgument) {
    EXPECT_EQ(split_all("x  y", " ", 0), (strings{"x", "", "y"}));
    EXPECT_EQ(split_all("x  y", " ", 1), (strings{"x", "y"}));
}

TEST(QxStrsepstrX, JoinsADoubleQuotedStartWithTheTextAfterTheClosingQuote) {
    EXPECT_EQ(split_all("\"a b\"c d", " ", 0), (strings{"a bc", "d"}));
}

TEST(QxStrsepstrX, KeepsAnEscapedDelimiterInPlainText) {
    EXPECT_EQ(split_all("a\\ b c", " ", 0), (strings{"a b", "c"}));
    EXPECT_EQ(split_all("a\\,b,c", ",", 0), (strings{"a,b", "c"}));
}

TEST(MyStrsep, KeepsDelimitersInsideSingleQuotes) {
    EXPECT_EQ(split_all("'x,y',z", ",", 0), (strings{"x,y", "z"}));
}

TEST(QxStrsepstrX, KeepsDelimitersAndTheOtherQuoteInsideDoubleQuotes) {
    EXPECT_EQ(split_all("\"it's, here\",z", ",", 0), (strings{"it's, here", "z"}));
    EXPECT_EQ(split_all("'say \"hi\", then',z", ",", 0), (strings{"say \"hi\", then", "z"}));
}

TEST(QxStrsepstrX, OpensQuotesOnlyAtTheFieldsFirstCharacter) {
    EXPECT_EQ(split_all("a\"b,c\"", ",", 0), (strings{"a\"b", "c\""}));
    EXPECT_EQ(split_all("a'b,c'", ",", 0), (strings{"a'b", "c'"}));
}

TEST(QxStrsepstrX, OpensQuotesAtTheFirstCharacterOfEveryField) {
    EXPECT_EQ(split_all("a,\"b,c\",'d,e'", ",", 0), (strings{"a", "b,c", "d,e"}));
}

TEST(QxStrsepstrX, TreatsAQuoteAfterARemovedBackslashAsLiteral) {
    EXPECT_EQ(split_all("\\\"a,b\"", ",", 0), (strings{"\"a", "b\""}));
}

TEST(QxStrsepstrX, HonoursBackslashEscapesInsideDoubleQuotes) {
    EXPECT_EQ(split_all("\"a\\\"b,c\",d", ",", 0), (strings{"a\"b,c", "d"}));
}

TEST(QxStrsepstrX, HonoursBackslashEscapesInsideSingleQuotesToo) {
    EXPECT_EQ(split_all("'a\\'b,c',d", ",", 0), (strings{"a'b,c", "d"}));
    EXPECT_EQ(split_all("'a\\\\b'", ",", 0), (strings{"a\\b"}));
}

TEST(QxStrsepstrX, KeepsAnEscapedBackslashOnce) {
    EXPECT_EQ(split_all("a\\\\b,c", ",", 0), (strings{"a\\b", "c"}));
}

TEST(QxStrsepstrX, RunsAnUnclosedQuoteToTheEndOfTheText) {
    EXPECT_EQ(split_all("\"a,b", ",", 0), (strings{"a,b"}));
    EXPECT_EQ(split_all("'a,b", ",", 1), (strings{"a,b"}));
}

TEST(QxStrsepstrX, RemovesABackslashThatEndsTheTextAndEndsTheField) {
    char text[] = "ab\\";
    char *cursor = text;
    EXPECT_EQ(qx_strsepstr_x(&cursor, ",", 0), text);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(cursor, nullptr);
}

TEST(QxStrsepstrX, WithEmptyDelimitersReturnsTheWholeRestProcessed) {
    char text[] = "\"a, b\" c\\'d,e";
    char *cursor = text;
    EXPECT_EQ(qx_strsepstr_x(&cursor, "", 0), text);
    EXPECT_STREQ(text, "a, b c'd,e");
    EXPECT_EQ(cursor, nullptr);
    char other[] = "x y";
    cursor = other;
    EXPECT_EQ(qx_strsepstr_x(&cursor, "", 1), other);
    EXPECT_STREQ(other, "x y");
    EXPECT_EQ(cursor, nullptr);
}

TEST(QxStrsepstrX, ShiftsTheRestOfTheTextLeftOverEachRemovedCharacter) {
    char text[] = "\"ab\",c";
    char *cursor = text;
    EXPECT_EQ(qx_strsepstr_x(&cursor, ",", 0), text);
    // Two quotes removed: the rest moved two places left, its NUL too; the
    // bytes it left behind keep what they held (the old NUL and a copy of
    // it).
    EXPECT_EQ(cursor, text + 3);
    EXPECT_EQ(std::memcmp(text, "ab\0c\0\0\0", 7), 0);
    EXPECT_EQ(qx_strsepstr_x(&cursor, ",", 0), text + 3);
    EXPECT_STREQ(text + 3, "c");
}

TEST(QxStrsepstrX, LeavesAnEmptyQuotedFieldEmpty) {
    EXPECT_EQ(split_all("\"\",x", ",", 0), (strings{"", "x"}));
    EXPECT_EQ(split_all("'',,x", ",", 1), (strings{"", "x"}));
}

// --- strswitch -----------------------------------------------------------

TEST(Strswitch, ReturnsZeroForATableWhoseFirstNameIsNull) {
    const qx_switch_entry table[] = {{7, nullptr}};
    EXPECT_EQ(strswitch("anything", table), 0);
    EXPECT_EQ(strswitch("", table), 0);
}

TEST(Strswitch, ReturnsTheValueOfTheMatchingName) {
    const qx_switch_entry table[] = {{1, "start"}, {2, "stop"}, {3, "status"}, {0, nullptr}};
    EXPECT_EQ(strswitch("start", table), 1);
    EXPECT_EQ(strswitch("stop", table), 2);
    EXPECT_EQ(strswitch("status", table), 3);
}

TEST(Strswitch, ReturnsZeroWhenNoNameMatches) {
    const qx_switch_entry table[] = {{1, "start"}, {2, "stop"}, {0, nullptr}};
    EXPECT_EQ(strswitch("restart", table), 0);
    EXPECT_EQ(strswitch("sta", table), 0);
    EXPECT_EQ(strswitch("", table), 0);
}

TEST(Strswitch, ComparesCaseSensitively) {
    const qx_switch_entry table[] = {{1, "start"}, {0, nullptr}};
    EXPECT_EQ(strswitch("Start", table), 0);
}

TEST(Strswitch, ReturnsTheFirstOfTwoRowsWithTheSameName) {
    const qx_switch_entry table[] = {{5, "x"}, {6, "x"}, {0, nullptr}};
    EXPECT_EQ(strswitch("x", table), 5);
}

TEST(Strswitch, CarriesPointerSizedValues) {
    const qx_switch_entry table[] = {{INTPTR_MAX, "max"}, {-2, "minus"}, {0, nullptr}};
    EXPECT_EQ(strswitch("max", table), INTPTR_MAX);
    EXPECT_EQ(strswitch("minus", table), -2);
    static_assert(sizeof(strswitch("", table)) == sizeof(void *));
}

TEST(Strswitch, StopsAtTheNullNameAndIgnoresRowsAfterIt) {
    const qx_switch_entry table[] = {{1, "a"}, {0, nullptr}, {2, "b"}};
    EXPECT_EQ(strswitch("b", table), 0);
}
