// The INI writer: every resulting file is compared byte for byte with the
// expected content, and every write is read back through the readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "qxcommon-util/ini.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/io_faults.hpp"
#include "support/scratch_fs.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::file_exists;
using qx_test::read_file;
using qx_test::write_file;

class IniWriter : public ::testing::Test {
  protected:
    qx_test::temp_dir dir;
    std::string path = dir.file("app.ini");
    std::string temp_path = dir.file("app.in~");

    void write(const std::string &content) { write_file(path, content); }
    std::string content() { return read_file(path); }

    // ini_puts, checking that no descriptor stays open and no temporary
    // file is left behind.
    int put(const char *section, const char *key, const char *value) {
        qx_test::fd_snapshot fds;
        const int result = ini_puts(section, key, value, path.c_str());
        EXPECT_TRUE(fds.unchanged());
        EXPECT_FALSE(file_exists(temp_path));
        return result;
    }

    std::string get(const char *section, const char *key) {
        char buffer[600];
        ini_gets(section, key, "<missing>", buffer, sizeof buffer, path.c_str());
        return buffer;
    }

    std::string first_key(const char *section) {
        char buffer[600];
        ini_getkey(section, 0, buffer, sizeof buffer, path.c_str());
        return buffer;
    }

    // Writes content, applies one ini_puts, checks the whole result and
    // reads back: a set key gives its value, a deleted key is missing, a
    // deleted section has no key. `read_back` overrides what is expected
    // (the value, or the section's first key).
    void expect_rewrite(const std::string &before, const char *section, const char *key,
                        const char *value, const std::string &after,
                        const char *read_back = nullptr) {
        write(before);
        EXPECT_EQ(put(section, key, value), 1);
        EXPECT_EQ(content(), after);
        if (key == nullptr)
            EXPECT_EQ(first_key(section), read_back != nullptr ? read_back : "");
        else
            EXPECT_EQ(get(section, key), read_back != nullptr ? read_back
                                         : value != nullptr   ? value
                                                              : "<missing>");
    }
};

std::string numbered_lines(int first, int last, const std::string &prefix = "key") {
    std::string lines;
    for (int i = first; i <= last; ++i)
        lines += prefix + std::to_string(i) + "=value number " + std::to_string(i) + "\n";
    return lines;
}

// ---- setting keys ---------------------------------------------------------

TEST_F(IniWriter, ReplacesTheValueOfAnExistingKey) {
    expect_rewrite("[s]\na=1\nb=2\n", "s", "a", "9", "[s]\na=9\nb=2\n");
    EXPECT_EQ(get("s", "a"), "9");
    EXPECT_EQ(get("s", "b"), "2");
}

TEST_F(IniWriter, ReplacedLineIsWrittenAsKeyEqualsValueWithTheGivenKey) {
    expect_rewrite("; top\n[S]\n  A = 1 ; old\nb=2\n", "s", "a", "x y", "; top\n[S]\na=x y\nb=2\n");
    EXPECT_EQ(get("s", "A"), "x y");
}

TEST_F(IniWriter, ReplacesOnlyTheFirstMatchInTheFirstMatchingSection) {
    expect_rewrite("[s]\na=1\na=2\n[t]\na=3\n[s]\na=4\n", "s", "a", "new",
                   "[s]\na=new\na=2\n[t]\na=3\n[s]\na=4\n");
}

TEST_F(IniWriter, ReplacesAKeyWrittenWithAColon) {
    expect_rewrite("[s]\nk : old\n", "s", "k", "new", "[s]\nk=new\n");
    EXPECT_EQ(get("s", "k"), "new");
}

TEST_F(IniWriter, NewKeyGoesBehindTheSectionsLastLineBeforeTheNextHeader) {
    expect_rewrite("[s]\na=1\n\n; comment\n[t]\nx=1\n", "s", "n", "v",
                   "[s]\na=1\n\n; comment\nn=v\n[t]\nx=1\n");
    EXPECT_EQ(get("s", "n"), "v");
    EXPECT_EQ(get("t", "x"), "1");
}

TEST_F(IniWriter, NewKeyGoesBeforeALineStartingWithABracketWithoutClosingBracket) {
    expect_rewrite("[s]\na=1\n [broken\n", "s", "n", "v", "[s]\na=1\nn=v\n [broken\n");
}

TEST_F(IniWriter, NewKeyInTheLastSectionIsAppended) {
    expect_rewrite("[s]\na=1\n", "s", "n", "v", "[s]\na=1\nn=v\n");
    EXPECT_EQ(get("s", "n"), "v");
}

TEST_F(IniWriter, NewKeyAfterALastLineWithoutLineFeedStartsALineOfItsOwn) {
    expect_rewrite("[s]\na=1", "s", "n", "v", "[s]\na=1\nn=v\n");
    EXPECT_EQ(get("s", "a"), "1");
    EXPECT_EQ(get("s", "n"), "v");
}

TEST_F(IniWriter, ReplacingTheLastLineWithoutLineFeedEndsTheFileWithOne) {
    expect_rewrite("[s]\na=1", "s", "a", "2", "[s]\na=2\n");
}

TEST_F(IniWriter, KeyInAMissingSectionAppendsTheSectionAtTheEnd) {
    expect_rewrite("[s]\na=1\n", "t", "k", "v", "[s]\na=1\n[t]\nk=v\n");
    EXPECT_EQ(get("t", "k"), "v");
}

TEST_F(IniWriter, MissingSectionAfterALastLineWithoutLineFeedIsPrecededByOne) {
    expect_rewrite("[s]\na=1", "t", "k", "v", "[s]\na=1\n[t]\nk=v\n");
    EXPECT_EQ(get("s", "a"), "1");
    EXPECT_EQ(get("t", "k"), "v");
}

TEST_F(IniWriter, KeyInASectionWhoseHeaderIsTheLastLineFollowsAnEmptyLine) {
    expect_rewrite("a=1\n[s]\n", "s", "k", "v", "a=1\n[s]\n\nk=v\n");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, KeyInASectionWhoseHeaderIsTheLastLineWithoutLineFeed) {
    expect_rewrite("[s]", "s", "k", "v", "[s]\nk=v\n");
}

TEST_F(IniWriter, KeyInAnEmptySectionBeforeAnotherGoesRightBehindTheHeader) {
    expect_rewrite("[s]\n[t]\n", "s", "k", "v", "[s]\nk=v\n[t]\n");
}

TEST_F(IniWriter, KeyInAnExistingFileOfZeroLengthFollowsAnEmptyFirstLine) {
    expect_rewrite("", "s", "k", "v", "\n[s]\nk=v\n");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, UnnamedKeyInAnExistingFileOfZeroLengthFollowsAnEmptyFirstLine) {
    expect_rewrite("", nullptr, "k", "v", "\nk=v\n");
    EXPECT_EQ(get(nullptr, "k"), "v");
}

TEST_F(IniWriter, UnnamedKeyGoesBeforeTheFirstHeader) {
    expect_rewrite("[s]\na=1\n", nullptr, "k", "v", "k=v\n[s]\na=1\n");
    EXPECT_EQ(get("", "k"), "v");
    expect_rewrite("top=1\n; c\n[s]\n", "", "k", "v", "top=1\n; c\nk=v\n[s]\n");
    expect_rewrite("top=1\n", "", "top", "2", "top=2\n");
}

TEST_F(IniWriter, UnnamedKeyInAFileWithoutHeadersIsAppended) {
    expect_rewrite("a=1\nb=2", nullptr, "c", "3", "a=1\nb=2\nc=3\n");
}

TEST_F(IniWriter, SectionNameMatchesIgnoringCaseAndKeepsItsSpelling) {
    expect_rewrite("[Net]\nHost=a\n", "NET", "host", "b", "[Net]\nhost=b\n");
}

TEST_F(IniWriter, MissingFileIsCreatedWithTheSectionAndTheKey) {
    EXPECT_EQ(put("s", "k", "v"), 1);
    EXPECT_EQ(content(), "[s]\nk=v\n");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, MissingFileIsCreatedWithOnlyTheKeyForTheUnnamedSection) {
    EXPECT_EQ(put(nullptr, "k", "v"), 1);
    EXPECT_EQ(content(), "k=v\n");
    std::remove(path.c_str());
    EXPECT_EQ(put("", "k", "v"), 1);
    EXPECT_EQ(content(), "k=v\n");
    EXPECT_EQ(get(nullptr, "k"), "v");
}

TEST_F(IniWriter, FileThatCannotBeCreatedGivesZero) {
    const std::string nowhere = dir.file("missing-dir/app.ini");
    EXPECT_EQ(ini_puts("s", "k", "v", nowhere.c_str()), 0);
    EXPECT_FALSE(file_exists(nowhere));
}

TEST_F(IniWriter, DeletingInAFileThatDoesNotExistGivesOneAndCreatesNothing) {
    EXPECT_EQ(put("s", "k", nullptr), 1);
    EXPECT_EQ(put("s", nullptr, nullptr), 1);
    EXPECT_EQ(put(nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(put("s", nullptr, "v"), 1);
    EXPECT_FALSE(file_exists(path));
    const std::string nowhere = dir.file("missing-dir/app.ini");
    EXPECT_EQ(ini_puts("s", "k", nullptr, nowhere.c_str()), 1);
}

// ---- the same value -------------------------------------------------------

class IniWriterSameValue : public IniWriter {
  protected:
    struct stat before_ {};

    void age_the_file() {
        const timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old, 0), 0);
        ASSERT_EQ(stat(path.c_str(), &before_), 0);
    }

    void expect_untouched(const std::string &expected) {
        struct stat after {};
        ASSERT_EQ(stat(path.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before_.st_ino);
        EXPECT_EQ(after.st_mtim.tv_sec, before_.st_mtim.tv_sec);
        EXPECT_EQ(after.st_mtim.tv_nsec, before_.st_mtim.tv_nsec);
        EXPECT_EQ(content(), expected);
    }
};

TEST_F(IniWriterSameValue, SettingAKeyToItsValueLeavesTheFileUntouched) {
    const std::string text = "[s]\n  k = same ; comment\r\n";
    write(text);
    age_the_file();
    EXPECT_EQ(put("s", "K", "same"), 1);
    expect_untouched(text);
}

TEST_F(IniWriterSameValue, ComparisonIsWithTheValueAsReadBack) {
    const std::string text = "[s]\nk=\"a \\\"b\\\" \"\n";
    write(text);
    age_the_file();
    EXPECT_EQ(put("s", "k", "a \"b\" "), 1);
    expect_untouched(text);
}

TEST_F(IniWriterSameValue, ComparisonIsCaseSensitive) {
    write("[s]\nk=Same\n");
    age_the_file();
    EXPECT_EQ(put("s", "k", "same"), 1);
    EXPECT_EQ(content(), "[s]\nk=same\n");
}

TEST_F(IniWriterSameValue, WritingAQuotedValueTwiceChangesNothingTheSecondTime) {
    write("[s]\n");
    EXPECT_EQ(put("s", "k", "trailing "), 1);
    EXPECT_EQ(content(), "[s]\n\nk=\"trailing \"\n");
    age_the_file();
    EXPECT_EQ(put("s", "k", "trailing "), 1);
    expect_untouched("[s]\n\nk=\"trailing \"\n");
}

// ---- quoting --------------------------------------------------------------

TEST_F(IniWriter, ValueWithATrailingSpaceIsQuotedAndReadsBackWithTheSpace) {
    expect_rewrite("[s]\n", "s", "k", "v ", "[s]\n\nk=\"v \"\n");
    EXPECT_EQ(get("s", "k"), "v ");
}

TEST_F(IniWriter, ValueWithLeadingSpacesIsUnquotedAndReadsBackWithoutThem) {
    expect_rewrite("[s]\nk=1\n", "s", "k", "  v", "[s]\nk=  v\n", "v");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, ValueWithATrailingTabIsUnquotedAndLosesTheTabOnReading) {
    expect_rewrite("[s]\nk=1\n", "s", "k", "v\t", "[s]\nk=v\t\n", "v");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, ValuesWithCommentCharactersOrQuotesAreQuotedAndReadBackAsGiven) {
    write("[s]\n");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"a;b", "\"a;b\""},         {"#1", "\"#1\""},   {"say \"hi\"", "\"say \\\"hi\\\"\""},
        {"\"lead", "\"\\\"lead\""}, {"plain", "plain"}, {"", ""},
    };
    for (const auto &[value, written] : cases) {
        EXPECT_EQ(put("s", "k", value.c_str()), 1);
        EXPECT_EQ(content(), "[s]\n\nk=" + written + "\n") << value;
        EXPECT_EQ(get("s", "k"), value);
    }
}

TEST_F(IniWriter, KeyAndValueAreLimitedToOneLineOf510Bytes) {
    const std::string key(600, 'k');
    const std::string value(600, 'v');
    write("");
    EXPECT_EQ(put(nullptr, key.c_str(), value.c_str()), 1);
    // The key keeps 508 bytes; "=" and a value fill the line up to 509 bytes.
    EXPECT_EQ(content(), "\n" + std::string(508, 'k') + "=\n");
    EXPECT_EQ(get(nullptr, std::string(508, 'k').c_str()), "");
    write("");
    EXPECT_EQ(put(nullptr, "k", value.c_str()), 1);
    EXPECT_EQ(content(), "\nk=" + std::string(507, 'v') + "\n");
    EXPECT_EQ(get(nullptr, "k"), std::string(507, 'v'));
    write("");
    EXPECT_EQ(put(nullptr, "k", (std::string(600, 'q') + ";").c_str()), 1);
    EXPECT_EQ(content(), "\nk=\"" + std::string(505, 'q') + "\"\n");
    EXPECT_EQ(get(nullptr, "k"), std::string(505, 'q'));
}

TEST_F(IniWriter, SectionNameIsLimitedTo507Bytes) {
    const std::string name(600, 'n');
    EXPECT_EQ(put(name.c_str(), "k", "v"), 1);
    EXPECT_EQ(content(), "[" + std::string(507, 'n') + "]\nk=v\n");
    EXPECT_EQ(get(std::string(507, 'n').c_str(), "k"), "v");
}

TEST_F(IniWriter, PutlWritesDecimalDigits) {
    write("[n]\n");
    const std::vector<std::pair<long, std::string>> cases{
        {0, "0"},
        {7, "7"},
        {-17, "-17"},
        {1234567890L, "1234567890"},
        {LONG_MAX, "9223372036854775807"},
        {LONG_MIN, "-9223372036854775808"},
    };
    for (const auto &[number, text] : cases) {
        EXPECT_EQ(ini_putl("n", "v", number, path.c_str()), 1);
        EXPECT_EQ(content(), "[n]\n\nv=" + text + "\n");
        EXPECT_EQ(ini_getl("n", "v", 42, path.c_str()), number);
    }
}

TEST_F(IniWriter, PutfWritesSixDecimals) {
    write("[f]\n");
    EXPECT_EQ(ini_putf("f", "v", 1.5f, path.c_str()), 1);
    EXPECT_EQ(content(), "[f]\n\nv=1.500000\n");
    EXPECT_FLOAT_EQ(ini_getf("f", "v", 0.0f, path.c_str()), 1.5f);
    EXPECT_EQ(ini_putf("f", "v", -0.25f, path.c_str()), 1);
    EXPECT_EQ(content(), "[f]\n\nv=-0.250000\n");
    EXPECT_EQ(ini_putf("f", "v", 1e10f, path.c_str()), 1);
    EXPECT_EQ(content(), "[f]\n\nv=10000000000.000000\n");
}

// ---- deleting -------------------------------------------------------------

TEST_F(IniWriter, DeletesTheFirstMatchingKeyLineOfTheSection) {
    expect_rewrite("[s]\na=1\nb=2\na=3\n[t]\na=4\n", "s", "A", nullptr, "[s]\nb=2\na=3\n[t]\na=4\n",
                   "3");
    EXPECT_EQ(get("s", "a"), "3");
    EXPECT_EQ(get("t", "a"), "4");
}

TEST_F(IniWriter, DeletingAMissingKeyKeepsTheFileAsItWas) {
    const std::string text = "[s]\r\na=1\r\n; c\n[t]\nb=2";
    expect_rewrite(text, "s", "zz", nullptr, text);
    expect_rewrite(text, "none", "a", nullptr, text);
}

TEST_F(IniWriter, DeletesAKeyOfTheUnnamedSection) {
    expect_rewrite("a=1\nb=2\n[s]\na=3\n", nullptr, "a", nullptr, "b=2\n[s]\na=3\n");
    EXPECT_EQ(get(nullptr, "a"), "<missing>");
}

TEST_F(IniWriter, DeletingASectionRemovesItsCommentAndBlankLinesUpToTheNextBracket) {
    expect_rewrite("top=1\n[s]\na=1\n; comment\n\nnoise\n[t]\nb=2\n", "s", nullptr, nullptr,
                   "top=1\n[t]\nb=2\n");
    EXPECT_EQ(get("s", "a"), "<missing>");
    EXPECT_EQ(get("t", "b"), "2");
}

TEST_F(IniWriter, DeletingTheLastSectionRemovesEverythingBehindItsHeader) {
    expect_rewrite("[a]\nx=1\n[b]\ny=2\n\n", "B", nullptr, nullptr, "[a]\nx=1\n");
}

TEST_F(IniWriter, DeletingASectionStopsAtALineStartingWithABracket) {
    expect_rewrite("[s]\na=1\n[broken\nb=2\n", "s", nullptr, nullptr, "[broken\nb=2\n");
}

TEST_F(IniWriter, DeletingASectionStopsBehindALineStartingWithItsSeparator) {
    // Deliberate: with no key the wanted key is empty, and "=v" matches it.
    expect_rewrite("[s]\na=1\n=v\nb=2\n[t]\n", "s", nullptr, nullptr, "b=2\n[t]\n");
}

TEST_F(IniWriter, DeletingOnlyTheFirstOfTwoSectionsWithTheSameName) {
    expect_rewrite("[s]\na=1\n[t]\n[S]\nb=2\n", "s", nullptr, nullptr, "[t]\n[S]\nb=2\n", "b");
    EXPECT_EQ(get("s", "b"), "2");
}

TEST_F(IniWriter, DeletingAMissingSectionKeepsTheFileAsItWas) {
    expect_rewrite("[s]\na=1", "t", nullptr, nullptr, "[s]\na=1");
    EXPECT_EQ(get("s", "a"), "1");
}

TEST_F(IniWriter, DeletingTheUnnamedSectionOfAFileThatBeginsWithAHeader) {
    expect_rewrite("[s]\na=1\n\n; c\n[t]\nb=2\n", nullptr, nullptr, nullptr, "[t]\nb=2\n");
    EXPECT_EQ(get("s", "a"), "<missing>");
    EXPECT_EQ(get("t", "b"), "2");
}

TEST_F(IniWriter, DeletingTheUnnamedSectionRemovesItsLines) {
    expect_rewrite("top=1\n; c\nnext=2\n[s]\na=1\n", "", nullptr, nullptr, "[s]\na=1\n");
}

TEST_F(IniWriter, DeletingTheUnnamedSectionAlwaysRemovesTheFirstLine) {
    // The first line goes whatever it is; "=second" matches the empty key and
    // ends the deletion.
    expect_rewrite("=first\n=second\nthird=3\n", nullptr, nullptr, nullptr, "third=3\n", "third");
    expect_rewrite("", nullptr, nullptr, nullptr, "");
}

// ---- line ends, long lines, large files -----------------------------------

TEST_F(IniWriter, CarriageReturnsOfTheOldFileAreCopiedAndNewLinesEndWithALineFeedOnly) {
    expect_rewrite("[s]\r\na=1\r\nb=2\r\n[t]\r\nc=3\r\n", "s", "a", "9",
                   "[s]\r\na=9\nb=2\r\n[t]\r\nc=3\r\n");
    EXPECT_EQ(get("s", "a"), "9");
    expect_rewrite("[s]\r\na=1\r\n", "s", "n", "v", "[s]\r\na=1\r\nn=v\n");
    expect_rewrite("[s]\r\na=1\r\n", "u", "n", "v", "[s]\r\na=1\r\n[u]\nn=v\n");
    expect_rewrite("[s]\r\na=1\r\n[t]\r\nc=3\r\n", "s", nullptr, nullptr, "[t]\r\nc=3\r\n");
    EXPECT_EQ(get("t", "c"), "3");
}

TEST_F(IniWriter, LinesLongerThan511BytesAreCopiedUnchanged) {
    const std::string comment = "; " + std::string(1500, 'c') + "\n";
    const std::string big = "big=" + std::string(700, 'b') + "\n";
    const std::string before = "[s]\n" + comment + big + "a=1\n" + comment + "[t]\n" + big;
    expect_rewrite(before, "s", "a", "2",
                   "[s]\n" + comment + big + "a=2\n" + comment + "[t]\n" + big);
    EXPECT_EQ(get("s", "a"), "2");
    expect_rewrite(before, "t", "n", "v", before + "n=v\n");
    expect_rewrite(before, "s", "a", nullptr, "[s]\n" + comment + big + comment + "[t]\n" + big);
    expect_rewrite(before, "u", "n", "v", before + "[u]\nn=v\n");
}

TEST_F(IniWriter, ReplacingAKeyOnALongLineReplacesOnlyTheFirst511Bytes) {
    // The line is read as "k=" and 509 x, then the rest of the line: only the
    // first piece is the key line, the rest is copied as a line of its own.
    const std::string before = "[s]\nk=" + std::string(600, 'x') + "\nz=1\n";
    expect_rewrite(before, "s", "k", "short", "[s]\nk=short\n" + std::string(91, 'x') + "\nz=1\n");
    EXPECT_EQ(get("s", "k"), "short");
    EXPECT_EQ(get("s", "z"), "1");
}

TEST_F(IniWriter, LineOfExactly511BytesAndItsNeighboursAreCopiedUnchanged) {
    const std::string line511 = "; " + std::string(508, 'c') + "\n";
    const std::string line510 = "; " + std::string(507, 'c') + "\n";
    const std::string before = "[s]\n" + line510 + "x\n" + line511 + "a=1\n" + line511 + line510;
    expect_rewrite(before, "s", "a", "2",
                   "[s]\n" + line510 + "x\n" + line511 + "a=2\n" + line511 + line510);
}

TEST_F(IniWriter, WorksOnFilesLargerThan511Bytes) {
    const std::string head = "[first]\n" + numbered_lines(0, 60);
    const std::string tail = "[second]\n" + numbered_lines(61, 120);
    ASSERT_GT(head.size(), 2 * 511u);
    const std::string before = head + tail;
    const std::string replaced_line = "key20=value number 20\n";
    std::string expected = before;
    expected.replace(expected.find(replaced_line), replaced_line.size(), "key20=changed\n");
    expect_rewrite(before, "first", "key20", "changed", expected);
    EXPECT_EQ(get("first", "key20"), "changed");

    expect_rewrite(before, "first", "added", "yes", head + "added=yes\n" + tail);
    expect_rewrite(before, "second", "added", "yes", before + "added=yes\n");
    expect_rewrite(before, "first", nullptr, nullptr, tail);
    expect_rewrite(before, "second", nullptr, nullptr, head);
    expected = before;
    const std::string deleted_line = "key120=value number 120\n";
    expected.erase(expected.find(deleted_line), deleted_line.size());
    expect_rewrite(before, "second", "key120", nullptr, expected);
    EXPECT_EQ(get("second", "key120"), "<missing>");
    EXPECT_EQ(get("second", "key119"), "value number 119");
}

TEST_F(IniWriter, CopiesKeptLinesInPiecesOfAtMost511Bytes) {
    const std::string before = "[s]\n" + numbered_lines(1, 120) + "; " + std::string(1500, 'c') +
                               "\n" + numbered_lines(121, 140);
    write(before);
    qx_test::restrict_io_faults_to(dir.path() + "/");
    qx_test::start_io_stats();
    const int result = put("s", "new", "v");
    qx_test::stop_io_stats();
    qx_test::restrict_io_faults_to("");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(content(), before + "new=v\n");
    // Every kept byte is copied once, in pieces that fit the line buffer; a
    // 511-byte piece of the long line fills one piece alone.
    const qx_test::io_stats copied = qx_test::io_stats_of(qx_test::io_fn::fwrite);
    EXPECT_EQ(copied.bytes, before.size());
    EXPECT_EQ(copied.largest, 511u);
    EXPECT_GE(static_cast<std::size_t>(copied.calls), (before.size() + 510) / 511);
}

TEST_F(IniWriter, NulBytesInTheFileAreCopiedUnchanged) {
    const std::string binary("; a\0b\n", 6);
    const std::string before = "[s]\n" + binary + std::string(600, '\0') + "\na=1\n" + binary;
    expect_rewrite(before, "s", "a", "2",
                   "[s]\n" + binary + std::string(600, '\0') + "\na=2\n" + binary);
}

// ---- the temporary file ---------------------------------------------------

class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::string &path) : old_(open(".", O_RDONLY | O_DIRECTORY)) {
        EXPECT_EQ(chdir(path.c_str()), 0);
    }
    ~WorkingDirectory() {
        EXPECT_EQ(fchdir(old_), 0);
        close(old_);
    }

  private:
    int old_;
};

TEST_F(IniWriter, TemporaryNameReplacesTheLastByteWithATilde) {
    // A directory in the way of the temporary file makes the write fail.
    write("[s]\nk=1\n");
    ASSERT_EQ(mkdir(temp_path.c_str(), 0700), 0);
    EXPECT_EQ(ini_puts("s", "k", "2", path.c_str()), 0);
    EXPECT_EQ(content(), "[s]\nk=1\n");
    ASSERT_EQ(rmdir(temp_path.c_str()), 0);
}

TEST_F(IniWriter, TemporaryNameOfAFileNamedXIsATilde) {
    WorkingDirectory here(dir.path());
    write_file("x", "[s]\nk=1\n");
    ASSERT_EQ(mkdir("~", 0700), 0);
    EXPECT_EQ(ini_puts("s", "k", "2", "x"), 0);
    EXPECT_EQ(read_file("x"), "[s]\nk=1\n");
    ASSERT_EQ(rmdir("~"), 0);
    EXPECT_EQ(ini_puts("s", "k", "2", "x"), 1);
    EXPECT_EQ(read_file("x"), "[s]\nk=2\n");
    EXPECT_EQ(ini_getl("s", "k", 0, "x"), 2);
    EXPECT_FALSE(file_exists("~"));
}

TEST_F(IniWriter, ReportsSuccessEvenWhenRemoveAndRenameFail) {
    // Every rename fails: the fallback removes the file and renames again,
    // which fails too. Neither result is examined, and the new content is
    // kept under the temporary name rather than thrown away.
    write("[s]\nk=1\n");
    qx_test::restrict_io_faults_to(dir.path() + "/");
    int result = -1;
    {
        qx_test::failing_io arm(qx_test::io_fn::rename, 0, EBUSY, true);
        result = ini_puts("s", "k", "2", path.c_str());
    }
    qx_test::restrict_io_faults_to("");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(qx_test::io_calls_seen(), 2);
    EXPECT_FALSE(file_exists(path));
    EXPECT_EQ(read_file(temp_path), "[s]\nk=2\n");
}

TEST_F(IniWriter, WhenTheRenameFailsTheFileIsRemovedAndRenamedAgain) {
    write("[s]\nk=1\n");
    qx_test::restrict_io_faults_to(dir.path() + "/");
    int result = -1;
    {
        qx_test::failing_io arm(qx_test::io_fn::rename, 0, EBUSY);
        result = ini_puts("s", "k", "2", path.c_str());
    }
    qx_test::restrict_io_faults_to("");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(qx_test::io_calls_seen(), 2);
    EXPECT_EQ(content(), "[s]\nk=2\n");
    EXPECT_FALSE(file_exists(temp_path));
}

TEST_F(IniWriter, AnEmptyDirectoryAtTheNameIsReplacedThroughTheFallback) {
    // An empty directory takes the file's place during the rewrite: rename
    // cannot replace it, so the fallback removes it and renames again.
    write("[s]\nk=1\n");
    qx_test::before_next_io(qx_test::io_fn::rename, [this](FILE *) {
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    });
    EXPECT_EQ(put("s", "k", "2"), 1);
    EXPECT_EQ(content(), "[s]\nk=2\n");
}

TEST_F(IniWriter, ASourceThatCannotBeReadGivesZeroAndLeavesNoTemporaryFile) {
    // A directory opens for reading, but reading it fails (EISDIR): nothing
    // may be written in its place, and no temporary file is left.
    const std::string conf = dir.file("conf.d");
    const std::string temp = dir.file("conf.~");
    ASSERT_EQ(mkdir(conf.c_str(), 0700), 0);
    write_file(conf + "/keep", "x");

    EXPECT_EQ(ini_puts("s", "k", "v", conf.c_str()), 0);
    EXPECT_EQ(ini_puts("s", nullptr, nullptr, conf.c_str()), 0);
    EXPECT_EQ(ini_puts("s", "k", nullptr, conf.c_str()), 0);
    EXPECT_EQ(read_file(conf + "/keep"), "x");
    EXPECT_FALSE(file_exists(temp));
}

TEST_F(IniWriter, StaleTemporaryFileIsOverwritten) {
    write_file(temp_path, "stale junk\n");
    expect_rewrite("[s]\nk=1\n", "s", "k", "2", "[s]\nk=2\n");
}

TEST_F(IniWriter, RewrittenFileGetsTheOrdinaryPermissionsOfANewFile) {
    const mode_t old_mask = umask(022);
    write("[s]\nk=1\n");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(put("s", "k", "2"), 1);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(get("s", "k"), "2");
    umask(old_mask);
}

// ---- memory ---------------------------------------------------------------

// The engine's own code allocates nothing: the only allocations of a write
// are the FILE records that fopen makes for the source and the temporary
// file (their buffers are on the engine's stack). So a write succeeds with
// every allocation after those two failing, whatever the size of the file.
TEST_F(IniWriter, RewriteAllocatesNothingButTheTwoStreamRecords) {
    const std::string body = numbered_lines(0, 200) + "; " + std::string(2000, 'c') + "\n";
    const std::string before = "[s]\n" + body + "[t]\nx=1\n";
    auto replaced = [&before](const std::string &line, const std::string &by) {
        std::string text = before;
        text.replace(text.find(line), line.size(), by);
        return text;
    };
    struct operation {
        const char *key, *value;
        std::string expected;
    };
    const std::vector<operation> operations{
        {"key7", "changed", replaced("key7=value number 7\n", "key7=changed\n")},
        {"new", "v", replaced("[t]\n", "new=v\n[t]\n")},
        {"key9", nullptr, replaced("key9=value number 9\n", "")},
        {nullptr, nullptr, "[t]\nx=1\n"}};
    for (const operation &op : operations) {
        write(before);
        int result = -1;
        {
            qx_test::failing_allocation arm(2, true);
            result = ini_puts("s", op.key, op.value, path.c_str());
        }
        EXPECT_EQ(qx_test::allocations_seen(), 2);
        EXPECT_FALSE(qx_test::allocation_was_failed());
        EXPECT_EQ(result, 1);
        EXPECT_EQ(content(), op.expected);
        if (op.key != nullptr) {
            EXPECT_EQ(get("s", op.key), op.value != nullptr ? op.value : "<missing>");
        }
    }
    EXPECT_EQ(first_key("s"), "");
}

TEST_F(IniWriter, CreatingAFileAllocatesOnlyItsStreamRecord) {
    int result = -1;
    {
        qx_test::failing_allocation arm(2, true);
        result = ini_puts("s", "k", "v", path.c_str());
    }
    EXPECT_EQ(qx_test::allocations_seen(), 2); // the failed open for reading, then "w"
    EXPECT_EQ(result, 1);
    EXPECT_EQ(content(), "[s]\nk=v\n");
    EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(IniWriter, WithoutMemoryForTheTemporaryStreamNoTemporaryFileIsLeft) {
    // The second allocation of a rewrite is the temporary file's stream: the
    // file already created for it is removed again.
    write("[s]\nk=1\n");
    const int result = qx_test::call_with_failing_allocation(
        1, [this] { return ini_puts("s", "k", "2", path.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(content(), "[s]\nk=1\n");
    EXPECT_FALSE(file_exists(temp_path));
}

TEST_F(IniWriter, WithEveryAllocationFailingTheFileIsLeftUntouched) {
    const std::string before = "[s]\nk=1\n";
    write(before);
    int set_result = -1, delete_result = -1;
    {
        qx_test::failing_allocation arm(0, true);
        set_result = ini_puts("s", "k", "2", path.c_str());
        delete_result = ini_puts("s", nullptr, nullptr, path.c_str());
    }
    // The streams cannot be opened: setting reports that the file could not
    // be created; deleting finds nothing to delete.
    EXPECT_EQ(set_result, 0);
    EXPECT_EQ(delete_result, 1);
    EXPECT_EQ(content(), before);
    EXPECT_FALSE(file_exists(temp_path));
    EXPECT_EQ(get("s", "k"), "1");
}

// ---- assertions -----------------------------------------------------------

TEST_F(IniWriter, NullFileNameEndsTheProcess) {
    EXPECT_DEATH(ini_puts("s", "k", "v", nullptr),
                 "ini_engine\\.cpp:[0-9]+: ini_puts: Assertion `Filename != NULL' failed\\.");
    EXPECT_DEATH(ini_putl("s", "k", 1, nullptr),
                 "ini_engine\\.cpp:[0-9]+: ini_puts: Assertion `Filename != NULL' failed\\.");
}

TEST_F(IniWriter, FileChangedUnderTheWriterCanEndTheProcess) {
    // No locking (deliberate): the bytes read again at the mark are more than
    // were counted there.
    write("[s]\na=1\n");
    EXPECT_DEATH(
        {
            // Another program gives the file a longer first line just before
            // the writer seeks back to its mark. stdio is made to forget what
            // it has buffered, as it would have for a file larger than its
            // buffer, so the seek reads the changed bytes.
            qx_test::before_next_io(qx_test::io_fn::fsetpos, [this](FILE *source) {
                qx_test::write_file(path, "[a much longer first line]\na=1\n");
                std::fflush(source);
            });
            ini_puts("s", "b", "2", path.c_str());
        },
        "ini_engine\\.cpp:[0-9]+: cache_flush: Assertion `pos <= \\*size' failed\\.");
}

// ---- arbitrary content ----------------------------------------------------

TEST_F(IniWriter, ArbitraryContentIsKeptByteForByteOutsideTheChange) {
    std::mt19937 random(77);
    const std::string alphabet("[]=:;#\"\\ \t\r\nab\0\x80\xff", 18);
    const char *fresh = "new section!"; // no byte of it but the space is in the alphabet
    for (int round = 0; round < 120; ++round) {
        std::string text;
        const int length = static_cast<int>(random() % 2000);
        for (int i = 0; i < length; ++i)
            text += random() % 4 == 0 ? static_cast<char>(random() % 256)
                                      : alphabet[random() % alphabet.size()];
        if (text.find(fresh) != std::string::npos)
            continue;
        write(text);
        EXPECT_EQ(put(nullptr, "zz", nullptr), 1);
        EXPECT_EQ(content(), text);
        EXPECT_EQ(put(fresh, "k", nullptr), 1);
        EXPECT_EQ(content(), text);
        EXPECT_EQ(put(fresh, nullptr, nullptr), 1);
        EXPECT_EQ(content(), text);
        EXPECT_EQ(put(fresh, "k", "v"), 1);
        const bool needs_line_feed = text.empty() || text.back() != '\n';
        EXPECT_EQ(content(), text + (needs_line_feed ? "\n" : "") + "[new section!]\nk=v\n");
        EXPECT_EQ(get(fresh, "k"), "v");
    }
}

// ---- randomized sequences against a model ---------------------------------

// The file as a list of lines, changed by the rules of the writer in the
// plainest way: find the section, find the key, edit the list.
class line_model {
  public:
    explicit line_model(std::vector<std::string> lines) : lines_(std::move(lines)) {}

    // Tells the model the value a key line of the initial file reads back as.
    void known(const std::string &line, const std::string &value) { values_[line] = value; }

    std::string text() const {
        std::string all;
        for (const std::string &line : lines_)
            all += line;
        return all;
    }

    // The value a reader finds, or nullptr.
    const std::string *value(const std::string &section, const std::string &key) const {
        const auto [begin, end] = section_range(section);
        if (begin < 0)
            return nullptr;
        for (int i = begin; i < end; ++i)
            if (key_of(lines_[i]) == lower(key))
                return &values_.at(lines_[i]);
        return nullptr;
    }

    void set(const std::string &section, const std::string &key, const std::string &value) {
        const std::string *old = this->value(section, key);
        if (old != nullptr && *old == value)
            return; // the file is not touched
        const std::string line = key + "=" + encode(value) + "\n";
        values_[line] = value;
        auto [begin, end] = section_range(section);
        if (begin < 0) { // a new section at the end
            if (lines_.empty())
                lines_.push_back("\n");
            lines_.push_back("[" + section + "]\n");
            lines_.push_back(line);
            return;
        }
        for (int i = begin; i < end; ++i) {
            if (key_of(lines_[i]) == lower(key)) {
                lines_[i] = line;
                return;
            }
        }
        // Behind the section's last line; a blank line first when nothing at
        // all followed the header (or the file was empty) up to its end.
        if (end == static_cast<int>(lines_.size()) && begin == end)
            lines_.insert(lines_.begin() + end++, "\n");
        lines_.insert(lines_.begin() + end, line);
    }

    void erase_key(const std::string &section, const std::string &key) {
        const auto [begin, end] = section_range(section);
        for (int i = begin; i >= 0 && i < end; ++i) {
            if (key_of(lines_[i]) == lower(key)) {
                lines_.erase(lines_.begin() + i);
                return;
            }
        }
    }

    void erase_section(const std::string &section) {
        const auto [begin, end] = section_range(section);
        if (begin > 0)
            lines_.erase(lines_.begin() + begin - 1, lines_.begin() + end);
    }

    static std::string encode(const std::string &value) {
        if (value.find_first_of("\";#") == std::string::npos &&
            (value.empty() || value.back() != ' '))
            return value;
        std::string quoted = "\"";
        for (char c : value)
            quoted += c == '"' ? std::string("\\\"") : std::string(1, c);
        return quoted + "\"";
    }

  private:
    std::vector<std::string> lines_;
    std::map<std::string, std::string> values_; // key line -> its value

    static std::string lower(std::string s) {
        for (char &c : s)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    }
    static bool is_header(const std::string &line) { return !line.empty() && line[0] == '['; }
    static std::string key_of(const std::string &line) {
        const auto sep = line.find('=');
        if (is_header(line) || line[0] == ';' || sep == std::string::npos)
            return "\x01"; // never a key
        return lower(line.substr(0, sep));
    }

    // Lines of the section's body: [begin, end); begin -1 when missing.
    std::pair<int, int> section_range(const std::string &section) const {
        int begin = 0;
        if (!section.empty()) {
            begin = -1;
            for (std::size_t i = 0; i < lines_.size(); ++i) {
                if (lower(lines_[i]) == "[" + lower(section) + "]\n") {
                    begin = static_cast<int>(i) + 1;
                    break;
                }
            }
            if (begin < 0)
                return {-1, -1};
        }
        int end = begin;
        while (end < static_cast<int>(lines_.size()) && !is_header(lines_[end]))
            ++end;
        return {begin, end};
    }
};

TEST_F(IniWriter, RandomSetsAndDeletesMatchAModelOfTheFile) {
    std::mt19937 random(424242);
    // Few names, so that keys come and go often enough to empty sections,
    // also the last one.
    const std::vector<std::string> sections{"", "alpha", "Beta", "gamma"};
    const std::vector<std::string> keys{"a", "B", "Long_Key"};
    auto random_value = [&random]() {
        static const std::string letters = "abcdefghijklmnopqrstuvwxyz0123456789 ;#\"";
        std::string value;
        const int length = static_cast<int>(random() % 6 == 0 ? random() % 200 : random() % 12);
        for (int i = 0; i < length; ++i)
            value += letters[random() % (random() % 4 == 0 ? letters.size() : 26)];
        while (!value.empty() && value.front() == ' ')
            value.erase(0, 1); // leading blanks do not read back
        return value;
    };

    for (int file = 0; file < 6; ++file) {
        std::vector<std::string> initial{"; configuration\n",
                                         "[alpha]\n",
                                         "a=1\n",
                                         "; " + std::string(900, 'c') + "\n",
                                         "name=x\n",
                                         "[gamma]\n",
                                         "x1=" + std::string(400, 'g') + "\n"};
        const std::string long_line = initial.back();
        if (file % 3 == 0)
            initial.clear(); // an existing empty file
        line_model model(initial);
        model.known("a=1\n", "1");
        model.known("name=x\n", "x");
        model.known(long_line, std::string(400, 'g'));
        write(model.text());

        for (int step = 0; step < 150; ++step) {
            const std::string &section = sections[random() % sections.size()];
            const std::string key = keys[random() % keys.size()];
            const int choice = static_cast<int>(random() % 10);
            const char *s = section.c_str();
            if (choice < 5) {
                const std::string value = random_value();
                model.set(section, key, value);
                ASSERT_EQ(put(s, key.c_str(), value.c_str()), 1);
                ASSERT_EQ(content(), model.text()) << "set " << section << "/" << key;
                ASSERT_EQ(get(s, key.c_str()), value);
            } else if (choice < 9) {
                model.erase_key(section, key);
                ASSERT_EQ(put(s, key.c_str(), nullptr), 1);
                ASSERT_EQ(content(), model.text()) << "delete " << section << "/" << key;
            } else if (!section.empty()) {
                model.erase_section(section);
                ASSERT_EQ(put(s, nullptr, nullptr), 1);
                ASSERT_EQ(content(), model.text()) << "delete section " << section;
                ASSERT_EQ(get(s, key.c_str()), "<missing>");
            }
            const std::string *expected = model.value(section, key);
            ASSERT_EQ(get(s, key.c_str()), expected != nullptr ? *expected : "<missing>");
        }
    }
}

// ---- failures of reads, seeks, writes, syncs and renames ----------------------

using qx_test::io_fn;

// One change to a file, through one of the three entry points. In `after`,
// "@" stands for the text the entry point writes for the value.
struct ini_change {
    const char *name;
    const char *section;
    const char *key;
    const char *value;
    std::string before; // empty: the file does not exist
    std::string after;
};

enum class ini_entry { puts, putl, putf };

int apply(const ini_change &change, ini_entry entry, const std::string &path) {
    switch (entry) {
    case ini_entry::putl:
        return ini_putl(change.section, change.key, std::strtol(change.value, nullptr, 10),
                        path.c_str());
    case ini_entry::putf:
        return ini_putf(change.section, change.key, std::strtof(change.value, nullptr),
                        path.c_str());
    case ini_entry::puts:
        break;
    }
    return ini_puts(change.section, change.key, change.value, path.c_str());
}

std::string expected_after(const ini_change &change, ini_entry entry) {
    std::string written = change.value != nullptr ? change.value : "";
    if (entry == ini_entry::putl)
        written = std::to_string(std::strtol(change.value, nullptr, 10));
    if (entry == ini_entry::putf) {
        char text[64];
        std::snprintf(text, sizeof text, "%f",
                      static_cast<double>(std::strtof(change.value, nullptr)));
        written = text;
    }
    std::string after = change.after;
    if (const std::size_t at = after.find('@'); at != std::string::npos)
        after.replace(at, 1, written);
    return after;
}

// A file of a little over a kilobyte, with a line longer than the line
// buffer, so that the rewrite flushes its pending lines several times and
// every step has more than one call.
std::string sample_file(const std::string &value) {
    std::string text = "; sample\n[first]\n" + numbered_lines(1, 5) + "[s]\n";
    text += numbered_lines(6, 15, "other");
    text += "; " + std::string(600, 'c') + "\n";
    text += "k=" + value + "\n";
    text += numbered_lines(16, 25, "more");
    text += "[last]\n" + numbered_lines(26, 30);
    return text;
}

std::string without(std::string text, const std::string &part) {
    text.erase(text.find(part), part.size());
    return text;
}

std::vector<ini_change> changes_to_sweep() {
    const std::string before = sample_file("1.5");
    const std::string section = "[s]\n" + numbered_lines(6, 15, "other") + "; " +
                                std::string(600, 'c') + "\nk=1.5\n" +
                                numbered_lines(16, 25, "more");
    std::string added = before;
    added.insert(added.find("[last]\n"), "n=@\n");
    return {
        {"replace", "s", "k", "2", before, sample_file("@")},
        {"add a key", "s", "n", "7", before, added},
        {"add a section", "new", "n", "7", before, before + "[new]\nn=@\n"},
        {"delete a key", "s", "k", nullptr, before, without(before, "k=1.5\n")},
        {"delete a section", "s", nullptr, nullptr, before, without(before, section)},
        {"create the file", "s", "k", "2", "", "[s]\nk=@\n"},
    };
}

class IniWriterFaults : public IniWriter {
  protected:
    void TearDown() override {
        qx_test::stop_failing_io();
        qx_test::restrict_io_faults_to("");
    }

    // Fails the 1st, 2nd, ... call of `function` in turn until a run hits no
    // failure. A failed run must give 0 (`failure_gives_zero`) or 1 with the
    // file exactly as before, or as the change makes it; the file is never
    // missing or cut, no temporary file is left and no descriptor stays
    // open. Returns the number of calls a clean run makes.
    long sweep(const ini_change &change, ini_entry entry, io_fn function, int error,
               const std::string &filter, bool failure_gives_zero) {
        const bool creating = change.before.empty();
        return qx_test::sweep_io_failures([&](long n) {
            SCOPED_TRACE(std::string(change.name) + ": " + qx_test::io_fn_name(function) + " #" +
                         std::to_string(n) + " fails with " + std::strerror(error));
            std::remove(path.c_str());
            if (!creating)
                write(change.before);
            qx_test::fd_snapshot fds;
            qx_test::restrict_io_faults_to(filter);
            int result = -1;
            {
                qx_test::failing_io arm(function, n, error);
                result = apply(change, entry, path);
            }
            qx_test::restrict_io_faults_to("");
            const bool failed = qx_test::io_call_was_failed();
            EXPECT_TRUE(fds.unchanged());
            EXPECT_FALSE(file_exists(temp_path));
            if (!failed || !failure_gives_zero) {
                EXPECT_EQ(result, 1);
                ASSERT_TRUE(file_exists(path));
                EXPECT_EQ(content(), expected_after(change, entry));
            } else if (creating) {
                EXPECT_EQ(result, 0);
                EXPECT_FALSE(file_exists(path));
            } else {
                EXPECT_EQ(result, 0);
                ASSERT_TRUE(file_exists(path));
                EXPECT_EQ(content(), change.before);
            }
        });
    }

    void sweep_every_call(ini_entry entry) {
        const std::string all = dir.path() + "/";
        // Every read, seek and write of the rewrite is on the source or the
        // temporary file: any failure gives 0 and leaves the file as it was.
        const io_fn failing_gives_zero[] = {io_fn::fgets,   io_fn::fseek,  io_fn::fsetpos,
                                            io_fn::fgetpos, io_fn::fwrite, io_fn::fputs,
                                            io_fn::fflush,  io_fn::fsync};
        for (const ini_change &change : changes_to_sweep()) {
            if (entry != ini_entry::puts && change.value == nullptr)
                continue; // ini_putl and ini_putf always set a value
            const bool creating = change.before.empty();
            for (const int error : {ENOSPC, EIO}) {
                long calls = 0;
                for (const io_fn function : failing_gives_zero)
                    calls += sweep(change, entry, function, error, all, true);
                // The close of the temporary (or new) file counts; that of
                // the source, which was only read, does not.
                calls +=
                    sweep(change, entry, io_fn::fclose, error, creating ? path : temp_path, true);
                if (!creating) {
                    EXPECT_EQ(sweep(change, entry, io_fn::fclose, error, path, false), 1);
                }
                // A failed rename falls back to remove and rename.
                const long renames = sweep(change, entry, io_fn::rename, error, all, false);
                EXPECT_EQ(renames, creating ? 0 : 1) << change.name;
                EXPECT_GE(calls, creating ? 2 : 8) << change.name;
            }
        }
    }
};

TEST_F(IniWriterFaults, EveryFailedCallOfIniPutsLeavesTheFileAsItWasAndGivesZero) {
    sweep_every_call(ini_entry::puts);
}

TEST_F(IniWriterFaults, EveryFailedCallOfIniPutlLeavesTheFileAsItWasAndGivesZero) {
    sweep_every_call(ini_entry::putl);
}

TEST_F(IniWriterFaults, EveryFailedCallOfIniPutfLeavesTheFileAsItWasAndGivesZero) {
    sweep_every_call(ini_entry::putf);
}

TEST_F(IniWriterFaults, ASeekThatFailsDoesNotEndTheProcess) {
    // A rewrite that flushes at the mark seeks back: with the seek failing,
    // the stream stands behind the bytes the writer counted, and going on
    // would read more than the pending count.
    const std::string before = sample_file("1");
    write(before);
    qx_test::restrict_io_faults_to(dir.path() + "/");
    int result = -1;
    {
        qx_test::failing_io arm(io_fn::fsetpos, 0, EIO);
        result = ini_puts("s", "k", "2", path.c_str());
    }
    EXPECT_TRUE(qx_test::io_call_was_failed());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(content(), before);
    EXPECT_FALSE(file_exists(temp_path));
}

TEST_F(IniWriterFaults, TheTemporaryFileIsSyncedBeforeItIsRenamed) {
    write("[s]\nk=1\n");
    qx_test::restrict_io_faults_to(temp_path);
    int result = -1;
    {
        qx_test::failing_io arm(io_fn::fsync, 0, EIO);
        result = ini_puts("s", "k", "2", path.c_str());
    }
    EXPECT_EQ(qx_test::io_calls_seen(), 1);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(content(), "[s]\nk=1\n");
    EXPECT_FALSE(file_exists(temp_path));
}

// ---- a full disk ----------------------------------------------------------------

TEST_F(IniWriter, OnAFullDiskTheFileIsKeptAndTheResultIsZero) {
    const qx_test::scratch_outcome outcome =
        qx_test::run_on_scratch_fs(64 * 1024, [](const std::string &mount, std::string &report) {
            const std::string ini = mount + "/app.ini";
            const std::string temp = mount + "/app.in~";
            const std::string comment = "[t]\n" + std::string(24 * 1024, ';') + "\n";
            const std::string before = "[s]\nk=1\n" + comment;
            write_file(ini, before);
            qx_test::fill_file_system(mount);
            int result = ini_puts("s", "k", "2", ini.c_str());
            if (result != 0 || read_file(ini) != before || file_exists(temp)) {
                report = "set: result " + std::to_string(result) + ", " +
                         std::to_string(read_file(ini).size()) + " bytes left";
                return 1;
            }
            result = ini_puts("s", nullptr, nullptr, ini.c_str());
            if (result != 0 || read_file(ini) != before || file_exists(temp)) {
                report = "delete: result " + std::to_string(result) + ", " +
                         std::to_string(read_file(ini).size()) + " bytes left";
                return 2;
            }
            // A new file that cannot be written is not left behind.
            const std::string fresh = mount + "/new.ini";
            result = ini_puts("s", "k", std::string(8192, 'v').c_str(), fresh.c_str());
            if (result != 0 || file_exists(fresh)) {
                report = "create: result " + std::to_string(result);
                return 3;
            }
            // With room again, the same change goes through.
            std::remove((mount + "/filler").c_str());
            if (ini_puts("s", "k", "2", ini.c_str()) != 1 ||
                read_file(ini) != "[s]\nk=2\n" + comment)
                return 4;
            return 0;
        });
    if (!outcome.ran)
        GTEST_SKIP() << "cannot mount a scratch file system here";
    EXPECT_EQ(outcome.result, 0) << outcome.details;
}

// ---- crashes and concurrent readers ----------------------------------------------

// A child process that sets the key to its two values in turn, for ever.
pid_t start_alternating_writer(const std::string &path, const std::string &value_a,
                               const std::string &value_b, int ready_fd) {
    const pid_t child = fork();
    if (child == 0) {
        bool first = true;
        for (long i = 0;; ++i) {
            ini_puts("s", "k", (i % 2 == 0 ? value_b : value_a).c_str(), path.c_str());
            if (first && ready_fd >= 0) {
                // Started: the parent may kill from now on.
                (void)!::write(ready_fd, "r", 1);
                first = false;
            }
        }
    }
    return child;
}

void expect_complete_old_or_new_after_kills(const std::string &path, int trials) {
    const std::string value_a(300, 'a');
    const std::string value_b(300, 'b');
    const std::string content_a = sample_file(value_a);
    const std::string content_b = sample_file(value_b);
    qx_test::write_file(path, content_a);
    std::mt19937 random(2026);
    int missing = 0, cut = 0;
    for (int trial = 0; trial < trials; ++trial) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = start_alternating_writer(path, value_a, value_b, ready[1]);
        ASSERT_GT(child, 0);
        close(ready[1]);
        char byte;
        const ssize_t started = read(ready[0], &byte, 1);
        close(ready[0]);
        if (started == 1)
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(started, 1) << "the writer did not start";
        if (!qx_test::file_exists(path)) {
            ++missing;
            qx_test::write_file(path, content_a);
            continue;
        }
        const std::string now = qx_test::read_file(path);
        if (now != content_a && now != content_b) {
            ++cut;
            qx_test::write_file(path, content_a);
        }
    }
    EXPECT_EQ(missing, 0) << "of " << trials << " kills";
    EXPECT_EQ(cut, 0) << "of " << trials << " kills";
}

TEST_F(IniWriter, AWriterKilledAtAnyMomentLeavesTheOldOrTheNewFile) {
    expect_complete_old_or_new_after_kills(path, 20);
}

// Run by CI among the slow tests (tests/ini.cmake).
TEST_F(IniWriter, SlowAWriterKilled200TimesAlwaysLeavesTheOldOrTheNewFile) {
    if (std::getenv("QX_SLOW_TESTS") == nullptr)
        GTEST_SKIP() << "slow: set QX_SLOW_TESTS=1";
    expect_complete_old_or_new_after_kills(path, 200);
}

TEST_F(IniWriter, AConcurrentReaderAlwaysFindsTheFile) {
    const std::string value_a(300, 'a');
    const std::string value_b(300, 'b');
    write(sample_file(value_a));
    const pid_t writer = start_alternating_writer(path, value_a, value_b, -1);
    ASSERT_GT(writer, 0);
    int defaults = 0, others = 0, reads = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
    while (std::chrono::steady_clock::now() < end) {
        char buffer[400];
        ini_gets("s", "k", "<default>", buffer, sizeof buffer, path.c_str());
        ++reads;
        const std::string value = buffer;
        if (value == "<default>")
            ++defaults;
        else if (value != value_a && value != value_b)
            ++others;
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_GT(reads, 10);
    EXPECT_EQ(defaults, 0) << "of " << reads << " reads";
    EXPECT_EQ(others, 0) << "of " << reads << " reads";
}

// ---- names planted by someone else --------------------------------------------------

TEST_F(IniWriter, ALinkPlantedAtTheTemporaryNameIsNotFollowed) {
    const std::string victim = dir.file("victim");
    write_file(victim, "precious\n");
    ASSERT_EQ(symlink(victim.c_str(), temp_path.c_str()), 0);
    expect_rewrite("[s]\nk=1\n", "s", "k", "2", "[s]\nk=2\n");
    EXPECT_EQ(read_file(victim), "precious\n");

    // A dangling link creates nothing where it points.
    const std::string nowhere = dir.file("nowhere");
    ASSERT_EQ(symlink(nowhere.c_str(), temp_path.c_str()), 0);
    expect_rewrite("[s]\nk=1\n", "s", "k", "3", "[s]\nk=3\n");
    EXPECT_FALSE(file_exists(nowhere));
}

TEST_F(IniWriter, AFifoPlantedAtTheTemporaryNameDoesNotBlockTheWriter) {
    write("[s]\nk=1\n");
    ASSERT_EQ(mkfifo(temp_path.c_str(), 0600), 0);
    // The write runs in a child with an alarm, so that a writer that blocks
    // fails the test instead of hanging it.
    EXPECT_EXIT(
        {
            alarm(10);
            _exit(ini_puts("s", "k", "2", path.c_str()) == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(content(), "[s]\nk=2\n");
    EXPECT_FALSE(file_exists(temp_path));
}

} // namespace
