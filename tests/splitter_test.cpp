#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <vector>

#include "qxcommon-util/splitter.h"
#include "support/alloc_fail.hpp"
#include "support/fclose_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/heap_usage.hpp"
#include "support/temp_dir.hpp"

namespace {

constexpr uint32_t kLastIndex = 0xFFFFFFFFu;

std::vector<std::string> fields_of(const qx_string_splitter *s) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < qx_string_splitter_get_count(s); ++i)
        out.emplace_back(qx_string_splitter_get_at(s, i));
    return out;
}

std::vector<std::string> lines_of(const qx_txt_file_reader *r) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < qx_txt_file_reader_get_count(r); ++i)
        out.emplace_back(qx_txt_file_reader_get_line_at(r, i));
    return out;
}

using strings = std::vector<std::string>;

// A splitter for one test.
class QxStringSplitter : public ::testing::Test {
  protected:
    void SetUp() override {
        splitter = qx_string_splitter_new();
        ASSERT_NE(splitter, nullptr);
    }
    void TearDown() override { qx_string_splitter_delete(splitter); }
    strings split(const char *text, const char *separator) {
        EXPECT_EQ(qx_string_splitter_split(splitter, text, separator), 0);
        return fields_of(splitter);
    }
    qx_string_splitter *splitter = nullptr;
};

// A reader and a temporary directory for one test.
class QxTxtFileReader : public ::testing::Test {
  protected:
    void SetUp() override {
        reader = qx_txt_file_reader_new();
        ASSERT_NE(reader, nullptr);
    }
    void TearDown() override { qx_txt_file_reader_delete(reader); }
    std::string file(const std::string &name, const std::string &content) {
        const std::string path = dir.file(name);
        qx_test::write_file(path, content);
        return path;
    }
    qx_test::temp_dir dir;
    qx_txt_file_reader *reader = nullptr;
};

} // namespace

// ---------------------------------------------------------------- splitter

TEST(QxStringSplitterNew, StartsWithoutTextOrFields) {
    qx_string_splitter *s = qx_string_splitter_new();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->text, nullptr);
    ASSERT_NE(s->fields, nullptr);
    EXPECT_EQ(qx_string_splitter_get_count(s), 0u);
    EXPECT_EQ(qx_string_splitter_is_empty(s), 1);
    EXPECT_EQ(qx_string_splitter_get_at(s, 0), nullptr);
    qx_string_splitter_delete(s);
}

TEST(QxStringSplitterNew, FreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_string_splitter *s =
            qx_test::call_with_failing_allocation(n, [] { return qx_string_splitter_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(s, nullptr) << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            ASSERT_NE(s, nullptr);
            qx_string_splitter_delete(s);
        }
    });
    EXPECT_EQ(allocations, 3); // the record, the field list and its linked list
}

TEST(QxStringSplitterDelete, OfNullDoesNothing) {
    qx_string_splitter_delete(nullptr);
}

TEST_F(QxStringSplitter, KeepsEmptyFieldsBetweenAdjacentSeparators) {
    EXPECT_EQ(split("a,,b", ","), (strings{"a", "", "b"}));
}

TEST_F(QxStringSplitter, KeepsOneEmptyFieldAfterATrailingSeparator) {
    EXPECT_EQ(split("a,", ","), (strings{"a", ""}));
    EXPECT_EQ(split("a,b,", ","), (strings{"a", "b", ""}));
}

TEST_F(QxStringSplitter, KeepsAnEmptyFieldBeforeALeadingSeparator) {
    EXPECT_EQ(split(",a", ","), (strings{"", "a"}));
    EXPECT_EQ(split(",", ","), (strings{"", ""}));
}

TEST_F(QxStringSplitter, TextWithoutTheSeparatorIsOneField) {
    EXPECT_EQ(split("a", ","), (strings{"a"}));
    EXPECT_EQ(split("ab", "abc"), (strings{"ab"}));
}

TEST_F(QxStringSplitter, CutsAtTheWholeSeparatorString) {
    EXPECT_EQ(split("key==value", "=="), (strings{"key", "value"}));
    EXPECT_EQ(split("key=value=x", "=="), (strings{"key=value=x"}));
    EXPECT_EQ(split("a, b,c, d", ", "), (strings{"a", "b,c", "d"}));
}

TEST_F(QxStringSplitter, ASingleCharacterSeparatorSeesTheEmptyFieldInADoubleOne) {
    EXPECT_EQ(split("key==value", "="), (strings{"key", "", "value"}));
}

TEST_F(QxStringSplitter, OccurrencesDoNotOverlap) {
    EXPECT_EQ(split("aaa", "aa"), (strings{"", "a"}));
    EXPECT_EQ(split("aaaa", "aa"), (strings{"", "", ""}));
}

TEST_F(QxStringSplitter, TrimsNothing) {
    EXPECT_EQ(split(" a = b \n", "="), (strings{" a ", " b \n"}));
}

TEST_F(QxStringSplitter, ANullSeparatorGivesTheWholeTextAsTheOnlyField) {
    EXPECT_EQ(split("x", nullptr), (strings{"x"}));
    EXPECT_EQ(split("a,b", nullptr), (strings{"a,b"}));
}

TEST_F(QxStringSplitter, AnEmptySeparatorGivesTheWholeTextAsTheOnlyField) {
    EXPECT_EQ(split("a,b", ""), (strings{"a,b"}));
}

TEST_F(QxStringSplitter, SplittingTheEmptyStringFailsAndLeavesNoField) {
    EXPECT_EQ(qx_string_splitter_split(splitter, "", ","), -1);
    EXPECT_EQ(qx_string_splitter_get_count(splitter), 0u);
    EXPECT_EQ(qx_string_splitter_is_empty(splitter), 1);
    EXPECT_EQ(splitter->text, nullptr);
}

TEST_F(QxStringSplitter, SplittingNullFails) {
    EXPECT_EQ(qx_string_splitter_split(splitter, nullptr, ","), -1);
    EXPECT_EQ(qx_string_splitter_get_count(splitter), 0u);
}

TEST_F(QxStringSplitter, AFailedSplitStillDropsThePreviousFields) {
    split("a,b", ",");
    char *old_copy = splitter->text;
    qx_test::free_log frees;
    EXPECT_EQ(qx_string_splitter_split(splitter, "", ","), -1);
    EXPECT_TRUE(frees.freed(old_copy));
    EXPECT_EQ(splitter->text, nullptr);
    EXPECT_EQ(qx_string_splitter_get_count(splitter), 0u);
    EXPECT_EQ(qx_string_splitter_get_at(splitter, 0), nullptr);
}

TEST_F(QxStringSplitter, ANewSplitReplacesThePreviousOne) {
    split("a,b,c", ",");
    char *old_copy = splitter->text;
    qx_test::free_log frees;
    EXPECT_EQ(split("x;y", ";"), (strings{"x", "y"}));
    EXPECT_TRUE(frees.freed(old_copy));
}

TEST_F(QxStringSplitter, FieldsPointIntoItsOwnCopyCutWithNulBytes) {
    const char text[] = "k::v";
    split(text, "::");
    ASSERT_NE(splitter->text, nullptr);
    EXPECT_NE(splitter->text, text);
    EXPECT_STREQ(text, "k::v");
    EXPECT_EQ(qx_string_splitter_get_at(splitter, 0), splitter->text);
    EXPECT_EQ(qx_string_splitter_get_at(splitter, 1), splitter->text + 3);
    EXPECT_EQ(std::string(splitter->text, 5), std::string("k\0\0v\0", 5));
}

TEST_F(QxStringSplitter, IndexesOutOfRangeGiveNull) {
    split("a,b", ",");
    EXPECT_EQ(qx_string_splitter_get_at(splitter, 2), nullptr);
    EXPECT_EQ(qx_string_splitter_get_at(splitter, kLastIndex), nullptr);
    EXPECT_EQ(qx_string_splitter_is_empty(splitter), 0);
}

TEST_F(QxStringSplitter, BeforeAnySplitIndexZeroAndTheLastIndexGiveNull) {
    EXPECT_EQ(qx_string_splitter_get_at(splitter, 0), nullptr);
    EXPECT_EQ(qx_string_splitter_get_at(splitter, kLastIndex), nullptr);
    EXPECT_EQ(qx_string_splitter_is_empty(splitter), 1);
}

TEST_F(QxStringSplitter, FailsWithoutFieldsWhenTheCopyCannotBeAllocated) {
    split("old,fields", ",");
    const int r = qx_test::call_with_failing_allocation(
        0, [&] { return qx_string_splitter_split(splitter, "a,b", ","); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(r, -1);
    EXPECT_EQ(splitter->text, nullptr);
    EXPECT_EQ(qx_string_splitter_get_count(splitter), 0u);
}

TEST_F(QxStringSplitter, FailsWithoutFieldsWhenAnyFieldCannotBeStored) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        const int r = qx_test::call_with_failing_allocation(
            n, [&] { return qx_string_splitter_split(splitter, "a,b,c", ","); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(r, -1) << n;
            EXPECT_EQ(splitter->text, nullptr) << n;
            EXPECT_EQ(qx_string_splitter_get_count(splitter), 0u) << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            EXPECT_EQ(r, 0);
            EXPECT_EQ(fields_of(splitter), (strings{"a", "b", "c"}));
        }
    });
    EXPECT_EQ(allocations, 4); // the copy and three field nodes
}

// ---------------------------------------------------------------- text file reader

TEST(QxTxtFileReaderNew, StartsWithoutLines) {
    qx_txt_file_reader *r = qx_txt_file_reader_new();
    ASSERT_NE(r, nullptr);
    ASSERT_NE(r->lines, nullptr);
    EXPECT_EQ(qx_txt_file_reader_get_count(r), 0u);
    EXPECT_EQ(qx_txt_file_reader_is_empty(r), 1);
    EXPECT_EQ(qx_txt_file_reader_get_line_at(r, 0), nullptr);
    qx_txt_file_reader_delete(r);
}

TEST(QxTxtFileReaderNew, FreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_txt_file_reader *r =
            qx_test::call_with_failing_allocation(n, [] { return qx_txt_file_reader_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(r, nullptr) << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            ASSERT_NE(r, nullptr);
            qx_txt_file_reader_delete(r);
        }
    });
    EXPECT_EQ(allocations, 3); // the record, the line list and its linked list
}

TEST(QxTxtFileReaderDelete, OfNullDoesNothing) {
    qx_txt_file_reader_delete(nullptr);
}

TEST_F(QxTxtFileReader, ReadsOneLineOfARangeWithItsTerminator) {
    const std::string path = file("abc", "a\nb\nc");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 2, 2), 0);
    EXPECT_EQ(lines_of(reader), (strings{"b\n"}));
}

TEST_F(QxTxtFileReader, ReadsTheWholeFileKeepingALastLineWithoutTerminator) {
    const std::string path = file("abc", "a\nb\nc");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"a\n", "b\n", "c"}));
    EXPECT_EQ(qx_txt_file_reader_is_empty(reader), 0);
}

TEST_F(QxTxtFileReader, ReadsARangeUpToTheEndOfTheFile) {
    const std::string path = file("lines", "1\n2\n3\n4\n");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 3, 10), 0);
    EXPECT_EQ(lines_of(reader), (strings{"3\n", "4\n"}));
}

TEST_F(QxTxtFileReader, ARangeBeyondTheEndAppendsNothing) {
    const std::string path = file("lines", "1\n2\n");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 3, 4), 0);
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
}

TEST_F(QxTxtFileReader, ARangeStartingAtOneStopsAfterItsLastLine) {
    const std::string path = file("lines", "1\n2\n3\n");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 1, 2), 0);
    EXPECT_EQ(lines_of(reader), (strings{"1\n", "2\n"}));
}

TEST_F(QxTxtFileReader, ALastOfAllOnesMeansNoUpperBound) {
    const std::string path = file("lines", "1\n2\n3\n");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 2, 0xFFFFFFFFu), 0);
    EXPECT_EQ(lines_of(reader), (strings{"2\n", "3\n"}));
}

TEST_F(QxTxtFileReader, KeepsCarriageReturnsOfCrLfLines) {
    const std::string path = file("crlf", "a=1\r\nb=2\r\n");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"a=1\r\n", "b=2\r\n"}));
}

TEST_F(QxTxtFileReader, KeepsBlankAndCommentLines) {
    const std::string path = file("mixed", "\n# note\n  \nx\n");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"\n", "# note\n", "  \n", "x\n"}));
}

TEST_F(QxTxtFileReader, KeepsLongLinesWhole) {
    const std::string long_line(5000, 'x');
    const std::string path = file("long", "a\n" + long_line + "\nb\n");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"a\n", long_line + "\n", "b\n"}));
}

TEST_F(QxTxtFileReader, AnEmptyFileGivesNoLine) {
    const std::string path = file("empty", "");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
}

TEST_F(QxTxtFileReader, AppendsASecondFileToTheLinesOfTheFirst) {
    const std::string one = file("one", "a\nb\n");
    const std::string two = file("two", "c\n");
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, one.c_str()), 0);
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, two.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"a\n", "b\n", "c\n"}));
    EXPECT_EQ(qx_txt_file_reader_empty(reader), 1);
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, two.c_str()), 0);
    EXPECT_EQ(lines_of(reader), (strings{"c\n"}));
}

TEST_F(QxTxtFileReader, ANullPathGivesMinusOne) {
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, nullptr, 1, 2), -1);
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, nullptr, 0, 0), -1);
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, nullptr), -1);
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
}

TEST_F(QxTxtFileReader, AFirstLineOfZeroGivesMinusTwoWithoutOpeningTheFile) {
    // A missing file would give -3 if it were opened.
    const std::string missing = dir.file("missing");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, missing.c_str(), 0, 5), -2);
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, missing.c_str(), 0, 0xFFFFFFFFu), -2);
    const std::string path = file("abc", "a\n");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 0, 1), -2);
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
}

TEST_F(QxTxtFileReader, AFirstLineAfterTheLastGivesMinusTwo) {
    const std::string missing = dir.file("missing");
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, missing.c_str(), 3, 2), -2);
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, missing.c_str(), 1, 0), -2);
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, missing.c_str(), 2, 2), -3);
}

TEST_F(QxTxtFileReader, AMissingFileGivesMinusThreeAndLeavesTheReaderAsItWas) {
    const std::string path = file("one", "kept\n");
    ASSERT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    char *kept = qx_txt_file_reader_get_line_at(reader, 0);
    qx_test::fd_snapshot fds;
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, dir.file("missing").c_str()), -3);
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 1u);
    EXPECT_EQ(qx_txt_file_reader_get_line_at(reader, 0), kept);
    EXPECT_STREQ(kept, "kept\n");
}

TEST_F(QxTxtFileReader, AFailingCloseGivesMinusFourAndKeepsTheLinesRead) {
    const std::string path = file("abc", "a\nb\n");
    qx_test::fd_snapshot fds;
    qx_test::fail_next_fclose();
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), -4);
    EXPECT_TRUE(qx_test::fclose_failure_delivered());
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(lines_of(reader), (strings{"a\n", "b\n"}));
}

TEST_F(QxTxtFileReader, AReadErrorEndsTheReadingLikeTheEndOfTheFile) {
    // A directory opens for reading, but every read fails with EISDIR.
    qx_test::fd_snapshot fds;
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, dir.path().c_str()), 0);
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
}

TEST_F(QxTxtFileReader, ClosesTheFileAfterEveryRead) {
    const std::string path = file("abc", "a\nb\nc\n");
    qx_test::fd_snapshot fds;
    EXPECT_EQ(qx_txt_file_reader_read_lines(reader, path.c_str(), 1, 1), 0);
    EXPECT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(QxTxtFileReader, KeepsTheBuffersGetlineFilled) {
    const std::string path = file("ab", "a\nb\n");
    // What getline itself allocates for the first line of this file.
    std::size_t getline_size = 0;
    {
        FILE *f = std::fopen(path.c_str(), "r");
        ASSERT_NE(f, nullptr);
        char *buffer = nullptr;
        ASSERT_EQ(getline(&buffer, &getline_size, f), 2);
        std::free(buffer);
        std::fclose(f);
    }
    ASSERT_GT(getline_size, 3u) << "getline allocated no more than the line";
    ASSERT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    // The lines are getline's buffers taken over, not copies cut to size.
    for (uint32_t i = 0; i < 2; ++i)
        EXPECT_GE(malloc_usable_size(qx_txt_file_reader_get_line_at(reader, i)), getline_size) << i;
}

TEST_F(QxTxtFileReader, EveryLineIsItsOwnBlockFreedWithItsRemoval) {
    const std::string path = file("abc", "a\nb\nc\n");
    ASSERT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    char *b = qx_txt_file_reader_get_line_at(reader, 1);
    {
        qx_test::free_log frees;
        qx_txt_file_reader_remove_line_at(reader, 1);
        EXPECT_TRUE(frees.freed(b));
        EXPECT_EQ(frees.count(), 2); // the line and its node
    }
    EXPECT_EQ(lines_of(reader), (strings{"a\n", "c\n"}));
}

TEST_F(QxTxtFileReader, IndexesOutOfRangeGiveNullAndRemoveNothing) {
    const std::string path = file("ab", "a\nb\n");
    ASSERT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    for (uint32_t index : {2u, kLastIndex}) {
        EXPECT_EQ(qx_txt_file_reader_get_line_at(reader, index), nullptr);
        qx_test::free_log frees;
        qx_txt_file_reader_remove_line_at(reader, index);
        EXPECT_EQ(frees.count(), 0);
        EXPECT_EQ(lines_of(reader), (strings{"a\n", "b\n"}));
    }
}

TEST_F(QxTxtFileReader, OnAnEmptyReaderIndexZeroAndTheLastIndexGiveNullAndRemoveNothing) {
    for (uint32_t index : {0u, kLastIndex}) {
        EXPECT_EQ(qx_txt_file_reader_get_line_at(reader, index), nullptr);
        qx_test::free_log frees;
        qx_txt_file_reader_remove_line_at(reader, index);
        EXPECT_EQ(frees.count(), 0);
        EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
    }
}

TEST_F(QxTxtFileReader, EmptyFreesEveryLineAndReturnsOne) {
    const std::string path = file("ab", "a\nb\n");
    ASSERT_EQ(qx_txt_file_reader_read_all_lines(reader, path.c_str()), 0);
    char *a = qx_txt_file_reader_get_line_at(reader, 0);
    char *b = qx_txt_file_reader_get_line_at(reader, 1);
    {
        qx_test::free_log frees;
        EXPECT_EQ(qx_txt_file_reader_empty(reader), 1);
        EXPECT_TRUE(frees.freed(a));
        EXPECT_TRUE(frees.freed(b));
    }
    EXPECT_EQ(qx_txt_file_reader_get_count(reader), 0u);
    EXPECT_EQ(qx_txt_file_reader_empty(reader), 1);
}

TEST_F(QxTxtFileReader, ReleasesEverythingWhenAnyAllocationFails) {
    const std::string path = file("abc", "a\nb\nc\n");
    const strings all{"a\n", "b\n", "c\n"};
    qx_test::fd_snapshot fds;
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_txt_file_reader *r = qx_txt_file_reader_new();
        ASSERT_NE(r, nullptr);
        const std::size_t before = qx_test::heap_bytes_in_use();
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return qx_txt_file_reader_read_all_lines(r, path.c_str()); });
        // Either fopen could not allocate its stream, or the reading ended
        // early: what was read is a prefix of the file.
        EXPECT_TRUE(result == 0 || result == -3) << n << ": " << result;
        {
            const strings got = lines_of(r);
            ASSERT_LE(got.size(), all.size());
            EXPECT_EQ(got, strings(all.begin(), all.begin() + static_cast<long>(got.size()))) << n;
        }
        qx_txt_file_reader_empty(r);
        QX_EXPECT_HEAP_AT(before);
        qx_txt_file_reader_delete(r);
    });
    EXPECT_GT(allocations, 3);
    EXPECT_TRUE(fds.unchanged());
}
