#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <syslog.h>
#include <vector>

#include "qxcommon-util/config.h"
#include "support/alloc_fail.hpp"
#include "support/fclose_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/heap_usage.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using strings = std::vector<std::string>;

strings texts_of(const configfile_line *line) {
    strings out;
    for (; line != nullptr; line = line->next)
        out.emplace_back(line->text);
    return out;
}

class ConfigFiles : public ::testing::Test {
  protected:
    std::string file(const std::string &name, const std::string &content) {
        const std::string path = dir.file(name);
        qx_test::write_file(path, content);
        return path;
    }
    qx_test::temp_dir dir;
};

// configfile_load of one file, freed at the end of the test.
class ConfigfileLoad : public ConfigFiles {
  protected:
    void TearDown() override { free_config(lines); }
    strings load(const std::string &content) {
        free_config(lines);
        lines = configfile_load(file("lines.conf", content).c_str());
        return texts_of(lines);
    }
    configfile_line *lines = nullptr;
};

// A reader for one test.
class QxConfigReader : public ConfigFiles {
  protected:
    void SetUp() override {
        reader = qx_config_reader_new();
        ASSERT_NE(reader, nullptr);
    }
    void TearDown() override { qx_config_reader_delete(reader); }
    int read(const std::string &content, const std::string &name = "settings.conf") {
        return qx_config_reader_read_config(reader, file(name, content).c_str());
    }
    const char *get(const char *name) { return qx_config_reader_get_property(reader, name); }
    int get_bool(const char *name) { return qx_config_reader_get_bool_property(reader, name); }
    uint32_t pairs() { return qx_properties_get_count(reader->properties); }
    qx_config_reader *reader = nullptr;
};

} // namespace

// ---------------------------------------------------------------- configfile_load

TEST_F(ConfigfileLoad, CutsCrLfLineEndsOff) {
    EXPECT_EQ(load("a=1\r\nb=2\r\n"), (strings{"a=1", "b=2"}));
}

TEST_F(ConfigfileLoad, KeepsBlankAndCommentLinesAndSkipsEmptyOnes) {
    EXPECT_EQ(load("   \n# comment\n\n\r\nx\n\n"), (strings{"   ", "# comment", "x"}));
}

TEST_F(ConfigfileLoad, TrimsNothingElse) {
    EXPECT_EQ(load("  key = value \t\n"), (strings{"  key = value \t"}));
}

TEST_F(ConfigfileLoad, CutsAtTheFirstCarriageReturnEvenInsideALine) {
    EXPECT_EQ(load("a\rb\nc\n"), (strings{"a", "c"}));
}

TEST_F(ConfigfileLoad, KeepsALastLineWithoutLineFeed) {
    EXPECT_EQ(load("a\nb"), (strings{"a", "b"}));
}

TEST_F(ConfigfileLoad, KeepsTheFileOrder) {
    EXPECT_EQ(load("3\n1\n2\n"), (strings{"3", "1", "2"}));
    ASSERT_NE(lines, nullptr);
    ASSERT_NE(lines->next, nullptr);
    ASSERT_NE(lines->next->next, nullptr);
    EXPECT_EQ(lines->next->next->next, nullptr);
}

TEST_F(ConfigfileLoad, SplitsALineLongerThanAThousandBytesIntoPieces) {
    const std::string line(1500, 'x');
    EXPECT_EQ(load(line + "\nnext\n"),
              (strings{std::string(1000, 'x'), std::string(500, 'x'), "next"}));
}

TEST_F(ConfigfileLoad, ReadsALineOfExactlyAThousandBytesAsOneEntry) {
    // The line feed comes alone in the next read and leaves an empty line.
    const std::string line(1000, 'y');
    EXPECT_EQ(load(line + "\nz\n"), (strings{line, "z"}));
}

TEST_F(ConfigfileLoad, ReadsTwoThousandBytesAsTwoEntries) {
    const std::string piece(1000, 'p');
    EXPECT_EQ(load(piece + piece), (strings{piece, piece}));
}

TEST_F(ConfigfileLoad, DropsACrLfSplitAcrossTwoReads) {
    const std::string line(999, 'c');
    EXPECT_EQ(load(line + "\r\nd\r\n"), (strings{line, "d"}));
}

TEST_F(ConfigfileLoad, AnEmptyFileGivesNull) {
    EXPECT_EQ(load(""), strings{});
    EXPECT_EQ(lines, nullptr);
}

TEST_F(ConfigfileLoad, AFileOfEmptyLinesGivesNull) {
    EXPECT_EQ(load("\n\r\n\n\r"), strings{});
    EXPECT_EQ(lines, nullptr);
}

TEST_F(ConfigfileLoad, AMissingFileGivesNull) {
    qx_test::fd_snapshot fds;
    EXPECT_EQ(configfile_load(dir.file("missing").c_str()), nullptr);
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(ConfigfileLoad, ANullPathGivesNull) {
    EXPECT_EQ(configfile_load(nullptr), nullptr);
}

TEST_F(ConfigfileLoad, ClosesTheFile) {
    const std::string path = file("a.conf", "a\nb\n");
    qx_test::fd_snapshot fds;
    lines = configfile_load(path.c_str());
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(texts_of(lines), (strings{"a", "b"}));
}

namespace {

// The allocations configfile_load makes for a file, counted in a clean run.
long allocations_for(const std::string &path) {
    qx_test::fail_allocation(1L << 40);
    configfile_line *lines = configfile_load(path.c_str());
    const long seen = qx_test::allocations_seen();
    qx_test::stop_failing_allocations();
    free_config(lines);
    return seen;
}

// Whether the allocation of strdup(3) passes through the test's allocator
// (under AddressSanitizer it does not).
bool strdup_is_counted() {
    qx_test::fail_allocation(1L << 40);
    char *copy = strdup("x");
    const bool counted = qx_test::allocations_seen() > 0;
    qx_test::stop_failing_allocations();
    std::free(copy);
    return counted;
}

} // namespace

TEST_F(ConfigfileLoad, CopiesEachTextWithStrdupAfterItsNode) {
    if (!strdup_is_counted())
        GTEST_SKIP() << "strdup allocates outside the test's allocator here";
    const std::string path = file("one.conf", "only\n");
    const long total = allocations_for(path);
    long frees_when_clean = 0;
    {
        qx_test::free_log frees;
        lines = configfile_load(path.c_str());
        frees_when_clean = frees.count(); // what closing the file releases
    }
    ASSERT_NE(lines, nullptr);
    free_config(lines);
    // Failing the last allocation (the strdup of the text) frees the node
    // allocated just before it: one free more than a clean load.
    qx_test::free_log frees;
    lines = qx_test::call_with_failing_allocation(total - 1,
                                                  [&] { return configfile_load(path.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(lines, nullptr);
    EXPECT_EQ(frees.count(), frees_when_clean + 1);
}

TEST_F(ConfigfileLoad, LogsOutOfMemoryAndReturnsTheLinesReadSoFar) {
    const std::string path = file("three.conf", "one\ntwo\nthree\n");
    const long total = allocations_for(path);
    // The last allocations are the node and (where it is counted) the strdup
    // of the last line's text.
    std::vector<long> last_line_allocations{total - 1};
    if (strdup_is_counted())
        last_line_allocations.push_back(total - 2);
    for (long n : last_line_allocations) {
        qx_test::syslog_clear();
        qx_test::fd_snapshot fds;
        lines =
            qx_test::call_with_failing_allocation(n, [&] { return configfile_load(path.c_str()); });
        EXPECT_TRUE(qx_test::allocation_was_failed());
        EXPECT_TRUE(fds.unchanged());
        EXPECT_EQ(texts_of(lines), (strings{"one", "two"})) << n;
        const auto entries = qx_test::syslog_entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].priority, LOG_ERR);
        EXPECT_EQ(entries[0].message, "fatal: out of memory");
        free_config(lines);
        lines = nullptr;
    }
}

TEST_F(ConfigfileLoad, LeaksNothingWhateverAllocationFails) {
    const std::string path = file("three.conf", "one\ntwo\nthree\n");
    qx_test::fd_snapshot fds;
    // The capture keeps the room of its first entry: make it before counting.
    syslog(LOG_DEBUG, "%s", "room for one message of the capture");
    qx_test::syslog_clear();
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        configfile_line *got =
            qx_test::call_with_failing_allocation(n, [&] { return configfile_load(path.c_str()); });
        {
            const strings texts = texts_of(got);
            const strings all{"one", "two", "three"};
            ASSERT_LE(texts.size(), all.size());
            EXPECT_EQ(texts, strings(all.begin(), all.begin() + static_cast<long>(texts.size())));
            // Only a failure while keeping a line is logged; the list then stops short.
            for (const auto &entry : qx_test::syslog_entries()) {
                EXPECT_EQ(entry.priority, LOG_ERR);
                EXPECT_EQ(entry.message, "fatal: out of memory");
                EXPECT_LT(texts.size(), all.size());
            }
        }
        free_config(got);
        qx_test::syslog_clear();
        QX_EXPECT_HEAP_AT(before);
    });
    // At least a node per line, and its text where strdup is counted.
    EXPECT_GE(allocations, strdup_is_counted() ? 6 : 3);
    EXPECT_TRUE(fds.unchanged());
}

TEST(FreeConfig, OfNullDoesNothing) {
    free_config(nullptr);
}

TEST_F(ConfigFiles, FreeConfigFreesEveryNodeAndText) {
    configfile_line *lines = configfile_load(file("ab.conf", "a\nb\n").c_str());
    ASSERT_NE(lines, nullptr);
    ASSERT_NE(lines->next, nullptr);
    const void *blocks[] = {lines, lines->text, lines->next, lines->next->text};
    qx_test::free_log frees;
    free_config(lines);
    for (const void *block : blocks)
        EXPECT_TRUE(frees.freed(block));
    EXPECT_EQ(frees.count(), 4);
}

// ---------------------------------------------------------------- qx_config_reader

TEST(QxConfigReaderNew, StartsWithAnEmptySetThatOwnsItsStrings) {
    qx_config_reader *reader = qx_config_reader_new();
    ASSERT_NE(reader, nullptr);
    ASSERT_NE(reader->properties, nullptr);
    EXPECT_EQ(reader->properties->owns_strings, 1u);
    EXPECT_EQ(qx_properties_get_count(reader->properties), 0u);
    qx_config_reader_delete(reader);
}

TEST(QxConfigReaderNew, FreesWhatItHadWhenALaterAllocationFails) {
    const std::size_t before = qx_test::heap_bytes_in_use();
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_config_reader *r =
            qx_test::call_with_failing_allocation(n, [] { return qx_config_reader_new(); });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(r, nullptr) << n;
            QX_EXPECT_HEAP_AT(before);
        } else {
            ASSERT_NE(r, nullptr);
            qx_config_reader_delete(r);
        }
    });
    EXPECT_EQ(allocations, 5); // the reader and the four layers of its set
}

TEST(QxConfigReaderDelete, OfNullDoesNothing) {
    qx_config_reader_delete(nullptr);
}

TEST_F(QxConfigReader, TrimsNameAndValueAroundTheEqualsSign) {
    EXPECT_EQ(read("  name \t =   some value  \n"), 0);
    EXPECT_STREQ(get("name"), "some value");
    EXPECT_EQ(pairs(), 1u);
    EXPECT_STREQ(qx_properties_get_name_at(reader->properties, 0), "name");
}

TEST_F(QxConfigReader, AnEmptyValueIsKeptAndMeansNo) {
    EXPECT_EQ(read("key=\n"), 0);
    ASSERT_NE(get("key"), nullptr);
    EXPECT_STREQ(get("key"), "");
    EXPECT_EQ(get_bool("key"), 0);
}

TEST_F(QxConfigReader, ALineStartingWithEqualsGivesAnEmptyName) {
    EXPECT_EQ(read("=x\n"), 0);
    EXPECT_EQ(pairs(), 1u);
    EXPECT_STREQ(get(""), "x");
}

TEST_F(QxConfigReader, IgnoresALineWithTwoEqualsSigns) {
    EXPECT_EQ(read("a=b=c\nd=e\n"), 0);
    EXPECT_EQ(get("a"), nullptr);
    EXPECT_STREQ(get("d"), "e");
    EXPECT_EQ(pairs(), 1u);
}

TEST_F(QxConfigReader, IgnoresLinesWithoutEqualsSign) {
    EXPECT_EQ(read("just words\nx=1\n"), 0);
    EXPECT_EQ(pairs(), 1u);
    EXPECT_EQ(get("just words"), nullptr);
}

TEST_F(QxConfigReader, SkipsCommentsOnlyAtTheStartOfTheTrimmedLine) {
    EXPECT_EQ(read("# a=1\n   #b=2\nc=3 # not a comment\n"), 0);
    EXPECT_EQ(get("# a"), nullptr);
    EXPECT_EQ(get("a"), nullptr);
    EXPECT_EQ(get("b"), nullptr);
    EXPECT_STREQ(get("c"), "3 # not a comment");
    EXPECT_EQ(pairs(), 1u);
}

TEST_F(QxConfigReader, SkipsEmptyAndBlankLines) {
    EXPECT_EQ(read("\n   \n\t\r\nk=v\n\n"), 0);
    EXPECT_EQ(pairs(), 1u);
    EXPECT_STREQ(get("k"), "v");
}

TEST_F(QxConfigReader, ReadsCrLfLinesWithoutTheirTerminators) {
    EXPECT_EQ(read("a=1\r\nb = two \r\n"), 0);
    EXPECT_STREQ(get("a"), "1");
    EXPECT_STREQ(get("b"), "two");
}

TEST_F(QxConfigReader, ReadsALastLineWithoutLineFeed) {
    EXPECT_EQ(read("a=1\nb=2"), 0);
    EXPECT_STREQ(get("b"), "2");
}

TEST_F(QxConfigReader, ReadsLinesLongerThanAThousandBytesWhole) {
    const std::string value(3000, 'v');
    EXPECT_EQ(read("long=" + value + "\nafter=1\n"), 0);
    ASSERT_NE(get("long"), nullptr);
    EXPECT_EQ(std::string(get("long")), value);
    EXPECT_STREQ(get("after"), "1");
}

TEST_F(QxConfigReader, AnEmptyFileAddsNothing) {
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(pairs(), 0u);
}

TEST_F(QxConfigReader, TheFirstOfDuplicateNamesWins) {
    EXPECT_EQ(read("mode=first\nmode=second\n"), 0);
    EXPECT_EQ(pairs(), 2u);
    EXPECT_STREQ(get("mode"), "first");
}

TEST_F(QxConfigReader, ASecondFileAddsToTheFirstAndKeepsItsValues) {
    EXPECT_EQ(read("shared=one\nonly_first=1\n", "first.conf"), 0);
    EXPECT_EQ(read("shared=two\nonly_second=2\n", "second.conf"), 0);
    EXPECT_STREQ(get("shared"), "one");
    EXPECT_STREQ(get("only_first"), "1");
    EXPECT_STREQ(get("only_second"), "2");
    EXPECT_EQ(pairs(), 4u);
}

TEST_F(QxConfigReader, NamesAreCaseSensitive) {
    EXPECT_EQ(read("Name=x\n"), 0);
    EXPECT_EQ(get("name"), nullptr);
    EXPECT_EQ(get_bool("name"), -2);
}

TEST_F(QxConfigReader, ANullPathGivesMinusOne) {
    EXPECT_EQ(qx_config_reader_read_config(reader, nullptr), -1);
    EXPECT_EQ(pairs(), 0u);
}

TEST_F(QxConfigReader, AMissingFileGivesMinusThreeAndKeepsThePairsHeld) {
    ASSERT_EQ(read("a=1\n"), 0);
    qx_test::fd_snapshot fds;
    EXPECT_EQ(qx_config_reader_read_config(reader, dir.file("missing").c_str()), -3);
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(pairs(), 1u);
    EXPECT_STREQ(get("a"), "1");
}

TEST_F(QxConfigReader, AFailingCloseGivesMinusFourAndAddsNothing) {
    const std::string path = file("c.conf", "a=1\n");
    qx_test::fd_snapshot fds;
    qx_test::fail_next_fclose();
    EXPECT_EQ(qx_config_reader_read_config(reader, path.c_str()), -4);
    EXPECT_TRUE(qx_test::fclose_failure_delivered());
    EXPECT_TRUE(fds.unchanged());
    EXPECT_EQ(pairs(), 0u);
}

TEST_F(QxConfigReader, GivesMinusOneWhenTheFileReaderCannotBeCreated) {
    const std::string path = file("c.conf", "a=1\n");
    const int r = qx_test::call_with_failing_allocation(
        0, [&] { return qx_config_reader_read_config(reader, path.c_str()); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(r, -1);
    EXPECT_EQ(pairs(), 0u);
}

TEST_F(QxConfigReader, LeaksNothingWhateverAllocationFails) {
    const std::string path = file("c.conf", "# settings\nhost = mx\nport=25\nbad=a=b\n");
    qx_test::fd_snapshot fds;
    const long allocations = qx_test::sweep_allocation_failures([&](long n) {
        qx_config_reader *r = qx_config_reader_new();
        ASSERT_NE(r, nullptr);
        const std::size_t before = qx_test::heap_bytes_in_use();
        const int result = qx_test::call_with_failing_allocation(
            n, [&] { return qx_config_reader_read_config(r, path.c_str()); });
        EXPECT_TRUE(result == 0 || result == -1 || result == -3) << n << ": " << result;
        // Whatever was kept is right.
        const char *host = qx_config_reader_get_property(r, "host");
        const char *port = qx_config_reader_get_property(r, "port");
        if (host != nullptr) {
            EXPECT_STREQ(host, "mx");
        }
        if (port != nullptr) {
            EXPECT_STREQ(port, "25");
        }
        EXPECT_EQ(qx_config_reader_get_property(r, "bad"), nullptr);
        qx_properties_empty(r->properties);
        QX_EXPECT_HEAP_AT(before);
        qx_config_reader_delete(r);
    });
    EXPECT_GT(allocations, 10);
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(QxConfigReader, DeleteFreesEveryNameAndValue) {
    ASSERT_EQ(read("a=1\nb=2\n"), 0);
    std::vector<const void *> strings_held;
    for (uint32_t i = 0; i < 2; ++i) {
        strings_held.push_back(qx_properties_get_name_at(reader->properties, i));
        strings_held.push_back(qx_properties_get_value_at(reader->properties, i));
    }
    {
        qx_test::free_log frees;
        qx_config_reader_delete(reader);
        reader = nullptr;
        for (const void *s : strings_held)
            EXPECT_TRUE(frees.freed(s));
    }
}

TEST_F(QxConfigReader, GetPropertyOfANullOrMissingNameIsNull) {
    ASSERT_EQ(read("a=1\n"), 0);
    EXPECT_EQ(get(nullptr), nullptr);
    EXPECT_EQ(get("b"), nullptr);
}

TEST_F(QxConfigReader, GetPropertyHandsOutTheReadersOwnValue) {
    ASSERT_EQ(read("a=1\n"), 0);
    EXPECT_EQ(get("a"), qx_properties_get_value_at(reader->properties, 0));
}

TEST_F(QxConfigReader, YesWordsMeanOne) {
    ASSERT_EQ(read("a=y\nb=yes\nc=1\n"), 0);
    EXPECT_EQ(get_bool("a"), 1);
    EXPECT_EQ(get_bool("b"), 1);
    EXPECT_EQ(get_bool("c"), 1);
}

TEST_F(QxConfigReader, NoWordsAndTheEmptyValueMeanZero) {
    ASSERT_EQ(read("a=n\nb=no\nc=0\nd=\n"), 0);
    EXPECT_EQ(get_bool("a"), 0);
    EXPECT_EQ(get_bool("b"), 0);
    EXPECT_EQ(get_bool("c"), 0);
    EXPECT_EQ(get_bool("d"), 0);
}

TEST_F(QxConfigReader, OtherValuesAreNotRecognised) {
    ASSERT_EQ(read("a=Yes\nb=true\nc=YES\nd=N\ne=2\nf=yes please\ng=01\n"), 0);
    for (const char *name : {"a", "b", "c", "d", "e", "f", "g"})
        EXPECT_EQ(get_bool(name), -3) << name;
}

TEST_F(QxConfigReader, BoolOfANullNameIsMinusOneAndOfAMissingNameMinusTwo) {
    ASSERT_EQ(read("a=yes\n"), 0);
    EXPECT_EQ(get_bool(nullptr), -1);
    EXPECT_EQ(get_bool("missing"), -2);
}

TEST_F(QxConfigReader, BoolFollowsTheFirstOfDuplicateNames) {
    ASSERT_EQ(read("debug=no\ndebug=yes\n"), 0);
    EXPECT_EQ(get_bool("debug"), 0);
}

TEST_F(QxConfigReader, BoolOnAnEmptySetIsMinusTwo) {
    EXPECT_EQ(get_bool("a"), -2);
}
