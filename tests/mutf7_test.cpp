#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qxcommon-util/mutf7.h"
#include "qxcommon-util/strbuf.h"
#include "support/alloc_fail.hpp"

namespace {

// The encoding of the units, which the helper ends with a 0 unit.
std::string encode(std::vector<std::uint16_t> units) {
    units.push_back(0);
    strbuf sb{};
    utf16_to_mutf7_enc(&sb, units.data());
    std::string out = sb.text == nullptr ? std::string() : std::string(sb.text, sb.length);
    if (sb.text != nullptr) {
        EXPECT_EQ(sb.text[sb.length], '\0');
    }
    strbuf_free(&sb);
    return out;
}

TEST(Mutf7, LeavesPrintableAsciiAsItIs) {
    EXPECT_EQ(encode({0x48, 0x69}), "Hi");
    EXPECT_EQ(encode({0x7E, 0x70}), "~p");
    EXPECT_EQ(encode({' ', '/', '+', ',', '-', '='}), " /+,-=");
}

TEST(Mutf7, WritesTheAmpersandAsAmpersandDash) {
    EXPECT_EQ(encode({'&'}), "&-");
    EXPECT_EQ(encode({'a', '&', 'b'}), "a&-b");
    EXPECT_EQ(encode({'&', '&'}), "&-&-");
}

TEST(Mutf7, MapsEveryPrintableUnitOtherThanTheAmpersandToItself) {
    for (std::uint16_t unit = 0x20; unit <= 0x7E; ++unit) {
        if (unit != '&') {
            EXPECT_EQ(encode({unit}), std::string(1, static_cast<char>(unit))) << unit;
        }
    }
}

TEST(Mutf7, EncodesOneUnitAsThreeCharacters) {
    EXPECT_EQ(encode({0x00E4}), "&AOQ-");
}

TEST(Mutf7, EncodesARunOfUnitsTogether) {
    EXPECT_EQ(encode({0x00E4, 0x00E4}), "&AOQA5A-");
    EXPECT_EQ(encode({0x00E4, 0x00E4, 0x00E4}), "&AOQA5ADk-");
}

TEST(Mutf7, UsesACommaWhereBase64HasASlash) {
    EXPECT_EQ(encode({0x53F0, 0x5317}), "&U,BTFw-");
    EXPECT_EQ(encode({0xFFFF}), "&,,8-");
}

TEST(Mutf7, EncodesControlUnitsAndDelete) {
    EXPECT_EQ(encode({0x09}), "&AAk-");
    EXPECT_EQ(encode({0x7F}), "&AH8-");
    EXPECT_EQ(encode({'a', 0x0A, 'b'}), "a&AAo-b");
}

TEST(Mutf7, EndsARunAtAnAmpersand) {
    EXPECT_EQ(encode({0x00E4, '&'}), "&AOQ-&-");
}

TEST(Mutf7, EncodesTheUnitsOfASurrogatePairAsTheyStand) {
    EXPECT_EQ(encode({0xD83D, 0xDE00}), "&2D3eAA-");
}

TEST(Mutf7, EncodesTheMailboxNameOfTheImapExample) {
    // "~peter/mail/" then U+53F0 U+5317, "/", then U+65E5 U+672C U+8A9E.
    const std::vector<std::uint16_t> name = {'~',    'p',    'e', 't',    'e',    'r',
                                             '/',    'm',    'a', 'i',    'l',    '/',
                                             0x53F0, 0x5317, '/', 0x65E5, 0x672C, 0x8A9E};
    EXPECT_EQ(encode(name), "~peter/mail/&U,BTFw-/&ZeVnLIqe-");
}

TEST(Mutf7, NeverSplitsOneRunIntoTwo) {
    // The five characters together form one run, not "&U,BTFw-&ZeVnLIqe-".
    EXPECT_EQ(encode({0x53F0, 0x5317, 0x65E5, 0x672C, 0x8A9E}), "&U,BTF2XlZyyKng-");
}

TEST(Mutf7, AppendsAfterTheText) {
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "INBOX."), 0);
    const std::uint16_t units[] = {'K', 0x00E4, 's', 'e', 0};
    utf16_to_mutf7_enc(&sb, units);
    EXPECT_EQ(std::string(sb.text, sb.length), "INBOX.K&AOQ-se");
    strbuf_free(&sb);
}

TEST(Mutf7, AppendsNothingForAnEmptyArrayOrANullPointer) {
    strbuf sb{};
    const std::uint16_t empty[] = {0};
    utf16_to_mutf7_enc(&sb, empty);
    utf16_to_mutf7_enc(&sb, nullptr);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);

    ASSERT_EQ(strbuf_append(&sb, "kept"), 0);
    char *const text = sb.text;
    utf16_to_mutf7_enc(&sb, empty);
    utf16_to_mutf7_enc(&sb, nullptr);
    EXPECT_EQ(sb.text, text);
    EXPECT_EQ(std::string(sb.text, sb.length + 1), std::string("kept", 5));
    EXPECT_EQ(sb.size, 1023U);
    strbuf_free(&sb);
}

TEST(Mutf7, LeavesTheOutputIncompleteWhenMemoryRunsOut) {
    const std::uint16_t units[] = {0x00E4, 0};
    strbuf sb{};
    // The run's scratch buffer cannot be had: the run is empty.
    qx_test::call_with_failing_allocation(0, [&] { utf16_to_mutf7_enc(&sb, units); });
    EXPECT_EQ(std::string(sb.text, sb.length), "&-");
    strbuf_free(&sb);
    // The output's first growth fails: "&" is missing, the rest follows.
    qx_test::call_with_failing_allocation(1, [&] { utf16_to_mutf7_enc(&sb, units); });
    EXPECT_EQ(std::string(sb.text, sb.length), "AOQ-");
    strbuf_free(&sb);
}

} // namespace
