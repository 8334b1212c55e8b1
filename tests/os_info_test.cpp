#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "qxcommon-util/os_info.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/heap_usage.hpp"
#include "support/temp_dir.hpp"

#ifdef QX_TEST_HEAP_FROM_SANITIZER
// The finaliser tests load a second copy of the library next to the first;
// both define qx_errno, which AddressSanitizer would report as a violation
// of the one-definition rule.
extern "C" const char *__asan_default_options() {
    return "detect_odr_violation=0";
}
#endif

namespace {

using qx_test::fd_snapshot;
using qx_test::temp_dir;
using qx_test::write_file;

constexpr char default_path[] = "/etc/os-release";

std::vector<std::string> keys_of(const os_info *info) {
    std::vector<std::string> keys;
    if (info->pairs == nullptr)
        return keys;
    for (const os_info_pair *pair = info->pairs; pair->key != nullptr; ++pair)
        keys.emplace_back(pair->key);
    return keys;
}

// A record for a file of the given content in the test's own directory.
class OsInfo : public ::testing::Test {
  protected:
    void TearDown() override {
        os_info_delete(info_);
        EXPECT_TRUE(fds_.unchanged());
    }

    os_info *record_for(const std::string &content, const std::string &name = "os-release") {
        write_file(dir_.file(name), content);
        os_info_delete(info_);
        info_ = os_info_create(dir_.file(name).c_str());
        EXPECT_NE(info_, nullptr);
        return info_;
    }

    // The value of key in a file holding content.
    std::string value_in(const std::string &content, const char *key) {
        const char *value = osrelease_v2(record_for(content), key);
        EXPECT_NE(value, nullptr);
        return value != nullptr ? value : "<NULL>";
    }

    temp_dir dir_;
    fd_snapshot fds_;
    os_info *info_ = nullptr;
};

// ---- os_info_create and the release functions -------------------------------

TEST_F(OsInfo, CreateWithNullUsesEtcOsRelease) {
    os_info *info = os_info_create(nullptr);
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->path, default_path);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
    os_info_delete(info);
}

TEST_F(OsInfo, CreateKeepsACopyOfThePathAndReadsNothing) {
    std::string path = dir_.file("missing");
    os_info *info = os_info_create(path.c_str());
    ASSERT_NE(info, nullptr);
    EXPECT_NE(info->path, path.c_str());
    EXPECT_EQ(info->path, path);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
    os_info_delete(info);
}

TEST_F(OsInfo, CreateGivesNullWhenTheRecordCannotBeAllocated) {
    os_info *info =
        qx_test::call_with_failing_allocation(0, [] { return os_info_create("/etc/os-release"); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(info, nullptr);
}

TEST_F(OsInfo, CreateGivesNullOrACompleteRecordWhateverAllocationFails) {
    const long clean = qx_test::sweep_allocation_failures([](long n) {
        os_info *info =
            qx_test::call_with_failing_allocation(n, [] { return os_info_create("/some/path"); });
        if (info != nullptr)
            EXPECT_STREQ(info->path, "/some/path") << n;
        else
            EXPECT_TRUE(qx_test::allocation_was_failed()) << n;
        os_info_delete(info);
    });
    EXPECT_GE(clean, 1);
}

TEST_F(OsInfo, ReleaseFunctionsAcceptNull) {
    os_info_free_values(nullptr);
    os_info_free(nullptr);
    os_info_delete(nullptr);
}

TEST_F(OsInfo, FreeValuesKeepsThePathAndTheNextLookupReadsTheFileAgain) {
    os_info *info = record_for("ID=one\n");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "one");
    os_info_free_values(info);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
    EXPECT_EQ(info->path, dir_.file("os-release"));
    write_file(dir_.file("os-release"), "ID=two\n");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "two");
}

TEST_F(OsInfo, FreeLeavesAnEmptyRecordThatCannotBeReadWithoutAPath) {
    os_info *info = record_for("ID=one\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    os_info_free(info);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
    EXPECT_EQ(info->path, nullptr);
    errno = 0;
    EXPECT_EQ(openosrelease_v2(info), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_STREQ(osrelease_v2(info, "ID"), "");
}

TEST_F(OsInfo, AFreedRecordCanBeReusedWithANewPath) {
    os_info *info = record_for("ID=one\n");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "one");
    os_info_free(info);
    write_file(dir_.file("other"), "ID=other\n");
    info->path = strdup(dir_.file("other").c_str());
    EXPECT_STREQ(osrelease_v2(info, "ID"), "other");
}

// ---- openosrelease_v2 -------------------------------------------------------

TEST_F(OsInfo, ParsesPairsInFileOrderWithATerminatingNullPair) {
    os_info *info = record_for("A=1\nB=2\nC=3\n");
    ASSERT_EQ(openosrelease_v2(info), 0);
    ASSERT_NE(info->pairs, nullptr);
    EXPECT_EQ(keys_of(info), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_STREQ(info->pairs[1].value, "2");
    EXPECT_EQ(info->pairs[3].key, nullptr);
    EXPECT_EQ(info->pairs[3].value, nullptr);
}

TEST_F(OsInfo, KeysAndValuesPointIntoTheTextCutInPlace) {
    os_info *info = record_for("A=1\nB=2\n");
    ASSERT_EQ(openosrelease_v2(info), 0);
    ASSERT_NE(info->text, nullptr);
    EXPECT_EQ(info->pairs[0].key, info->text);
    EXPECT_EQ(info->pairs[0].value, info->text + 2);
    EXPECT_EQ(info->pairs[1].key, info->text + 4);
    EXPECT_EQ(info->pairs[1].value, info->text + 6);
    EXPECT_EQ(std::memcmp(info->text,
                          "A\0"
                          "1\0B\0"
                          "2\0",
                          9),
              0);
}

TEST_F(OsInfo, AMissingFileGivesMinusOneWithEnoentAndLeavesTheRecordAlone) {
    os_info *info = record_for("", "present");
    std::free(info->path);
    info->path = strdup(dir_.file("missing").c_str());
    errno = 0;
    EXPECT_EQ(openosrelease_v2(info), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
}

TEST_F(OsInfo, AFailedReadKeepsTheTextOfAnEarlierRead) {
    os_info *info = record_for("# nothing but a comment\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    ASSERT_NE(info->text, nullptr);
    char *text = info->text;
    ASSERT_EQ(std::remove(dir_.file("os-release").c_str()), 0);
    EXPECT_EQ(openosrelease_v2(info), -1);
    EXPECT_EQ(info->text, text);
    EXPECT_EQ(info->pairs, nullptr);
}

TEST_F(OsInfo, ANullRecordGivesMinusOneWithEinval) {
    errno = 0;
    EXPECT_EQ(openosrelease_v2(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(OsInfo, AnEmptyFileGivesZeroAndNoPairs) {
    os_info *info = record_for("");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(info->pairs, nullptr);
    ASSERT_NE(info->text, nullptr);
    EXPECT_STREQ(info->text, "");
}

TEST_F(OsInfo, AnEmptyFileIsReadAgainOnEveryLookup) {
    os_info *info = record_for("");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "");
    write_file(dir_.file("os-release"), "ID=late\n");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "late");
}

TEST_F(OsInfo, AParsedRecordIsNotReadAgain) {
    os_info *info = record_for("ID=first\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    char *text = info->text;
    write_file(dir_.file("os-release"), "ID=second\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(info->text, text);
    ASSERT_EQ(std::remove(dir_.file("os-release").c_str()), 0);
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_STREQ(osrelease_v2(info, "ID"), "first");
}

TEST_F(OsInfo, AParsedRecordWhosePathWasReleasedIsNotReadAgain) {
    os_info *info = record_for("ID=first\n");
    ASSERT_EQ(openosrelease_v2(info), 0);
    char *text = info->text;
    const os_info_pair *pairs = info->pairs;
    std::free(info->path);
    info->path = nullptr;
    errno = 0;
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(info->text, text);
    EXPECT_EQ(info->pairs, pairs);
    EXPECT_EQ(info->path, nullptr);
    EXPECT_STREQ(osrelease_v2(info, "ID"), "first");
}

TEST_F(OsInfo, LinesWithoutEqualsSignAreSkipped) {
    os_info *info = record_for("just words\n\nID=x\n# comment\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(keys_of(info), (std::vector<std::string>{"ID"}));
}

TEST_F(OsInfo, AFileOfOnlyLinesWithoutPairsGivesZeroAndNoPairs) {
    os_info *info = record_for("# a comment\nno pair here\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(info->pairs, nullptr);
    EXPECT_STREQ(osrelease_v2(info, "ID"), "");
}

TEST_F(OsInfo, ACommentLineWithEqualsSignBecomesAPairWithAHashKey) {
    os_info *info = record_for("#ID=commented\nID=real\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(keys_of(info), (std::vector<std::string>{"#ID", "ID"}));
    EXPECT_STREQ(osrelease_v2(info, "#id"), "commented");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "real");
}

TEST_F(OsInfo, ALineStartingWithASpaceIsIgnored) {
    os_info *info = record_for(" ID=indented\nNAME=x\n");
    EXPECT_EQ(openosrelease_v2(info), 0);
    EXPECT_EQ(keys_of(info), (std::vector<std::string>{"NAME"}));
    EXPECT_STREQ(osrelease_v2(info, "ID"), "");
    EXPECT_STREQ(osrelease_v2(info, " ID"), "");
}

TEST_F(OsInfo, ALineStartingWithATabIsNotIgnored) {
    EXPECT_EQ(value_in("\tID=tabbed\n", "\tID"), "tabbed");
}

TEST_F(OsInfo, BlanksAroundTheEqualsSignBelongToKeyAndValue) {
    os_info *info = record_for("ID = debian\n");
    EXPECT_STREQ(osrelease_v2(info, "ID"), "");
    EXPECT_STREQ(osrelease_v2(info, "ID "), " debian");
}

TEST_F(OsInfo, TheKeyEndsAtTheFirstEqualsSign) {
    EXPECT_EQ(value_in("OPTS=a=b\n", "OPTS"), "a=b");
}

TEST_F(OsInfo, AnEmptyValueIsTheEmptyString) {
    os_info *info = record_for("EMPTY=\n");
    const char *value = osrelease_v2(info, "EMPTY");
    EXPECT_STREQ(value, "");
    // It is the pair's own value, in the text.
    EXPECT_EQ(value, info->pairs[0].value);
}

TEST_F(OsInfo, TheLastLineWithoutLineFeedIsParsed) {
    EXPECT_EQ(value_in("A=1\nID=last", "ID"), "last");
}

// ---- quotes -----------------------------------------------------------------

TEST_F(OsInfo, ADoubleQuotedValueWithAFinalLineFeedLosesItsQuotesWhateverTheKeyCase) {
    os_info *info = record_for("NAME=\"Debian GNU/Linux\"\n");
    EXPECT_STREQ(osrelease_v2(info, "NAME"), "Debian GNU/Linux");
    EXPECT_STREQ(osrelease_v2(info, "name"), "Debian GNU/Linux");
    EXPECT_STREQ(osrelease_v2(info, "NaMe"), "Debian GNU/Linux");
}

TEST_F(OsInfo, ADoubleQuotedValueOnALastLineWithoutLineFeedKeepsBothQuotes) {
    EXPECT_EQ(value_in("ID=debian\nNAME=\"Debian GNU/Linux\"", "NAME"), "\"Debian GNU/Linux\"");
    EXPECT_EQ(value_in("NAME=\"Debian\"", "NAME"), "\"Debian\"");
}

TEST_F(OsInfo, ASingleQuotedValueWithLineFeedLosesItsQuotes) {
    EXPECT_EQ(value_in("VERSION_ID='12'\n", "VERSION_ID"), "12");
}

TEST_F(OsInfo, ASingleQuotedValueOnALastLineWithoutLineFeedKeepsBothQuotes) {
    EXPECT_EQ(value_in("VERSION_ID='12'", "VERSION_ID"), "'12'");
}

TEST_F(OsInfo, AQuoteInTheMiddleOfAValueIsKept) {
    EXPECT_EQ(value_in("NAME=Deb\"ian\n", "NAME"), "Deb\"ian");
}

TEST_F(OsInfo, AValueEndingInAQuoteWithoutAnOpeningOneIsKept) {
    EXPECT_EQ(value_in("NAME=Debian\"\n", "NAME"), "Debian\"");
}

TEST_F(OsInfo, AnOpeningQuoteWithoutAClosingOneIsKept) {
    EXPECT_EQ(value_in("NAME=\"Debian\n", "NAME"), "\"Debian");
    EXPECT_EQ(value_in("NAME='Debian\n", "NAME"), "'Debian");
}

TEST_F(OsInfo, AValueOpenedWithOneKindOfQuoteAndClosedWithTheOtherKeepsBoth) {
    EXPECT_EQ(value_in("NAME=\"Debian'\n", "NAME"), "\"Debian'");
    EXPECT_EQ(value_in("NAME='Debian\"\n", "NAME"), "'Debian\"");
}

TEST_F(OsInfo, TwoQuotesGiveTheEmptyString) {
    EXPECT_EQ(value_in("NAME=\"\"\n", "NAME"), "");
    EXPECT_EQ(value_in("NAME=''\n", "NAME"), "");
}

TEST_F(OsInfo, ALoneQuoteBeforeTheLineFeedIsBothOpeningAndClosing) {
    // The quote is at once the first character of the value and the last of
    // the line.
    EXPECT_EQ(value_in("NAME=\"\nID=x\n", "NAME"), "");
}

TEST_F(OsInfo, ALoneQuoteOnALastLineWithoutLineFeedIsKept) {
    EXPECT_EQ(value_in("NAME=\"", "NAME"), "\"");
}

TEST_F(OsInfo, AQuotedValueBeforeACarriageReturnKeepsItsQuotes) {
    EXPECT_EQ(value_in("NAME=\"Debian\"\r\n", "NAME"), "\"Debian\"\r");
}

TEST_F(OsInfo, InnerQuotesAndBackslashesAreNotUnescaped) {
    EXPECT_EQ(value_in("NAME=\"a \\\"b\\\" c\"\n", "NAME"), "a \\\"b\\\" c");
}

// ---- lookups ----------------------------------------------------------------

TEST_F(OsInfo, ARepeatedKeyGivesTheFirstOccurrence) {
    EXPECT_EQ(value_in("ID=first\nid=second\nID=third\n", "ID"), "first");
}

TEST_F(OsInfo, AMissingKeyGivesTheEmptyStringNotNull) {
    const char *value = osrelease_v2(record_for("ID=debian\n"), "VERSION_ID");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "");
}

TEST_F(OsInfo, AMissingFileGivesTheEmptyStringNotNull) {
    os_info *info = os_info_create(dir_.file("missing").c_str());
    const char *value = osrelease_v2(info, "ID");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(info->text, nullptr);
    os_info_delete(info);
}

TEST_F(OsInfo, TheEmptyStringForMissingKeysIsOneStaticConstant) {
    os_info *info = record_for("ID=debian\n");
    EXPECT_EQ(osrelease_v2(info, "ONE"), osrelease_v2(info, "TWO"));
    EXPECT_EQ(osrelease_v2(nullptr, "ID"), osrelease_v2(info, "TWO"));
}

TEST_F(OsInfo, ANullKeyGivesTheEmptyString) {
    EXPECT_EQ(value_in("ID=debian\n", nullptr), "");
}

TEST_F(OsInfo, ALookupParsesTheFileOnce) {
    os_info *info = record_for("ID=debian\nVERSION_ID=12\n");
    const char *id = osrelease_v2(info, "ID");
    char *text = info->text;
    EXPECT_STREQ(osrelease_v2(info, "VERSION_ID"), "12");
    EXPECT_EQ(info->text, text);
    EXPECT_EQ(osrelease_v2(info, "id"), id);
}

// ---- allocation failure ----------------------------------------------------

TEST_F(OsInfo, ParsingGivesMinusOneWithEnomemWhenTheTextCannotBeAllocated) {
    os_info *info = record_for("ID=debian\n");
    const int result =
        qx_test::call_with_failing_allocation(0, [info] { return openosrelease_v2(info); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(info->text, nullptr);
    EXPECT_EQ(info->pairs, nullptr);
}

TEST_F(OsInfo, LookupSweptThroughItsAllocationsFindsOnlyThePairsThatWereStored) {
    const long clean = qx_test::sweep_allocation_failures([&](long n) {
        os_info *info = record_for("A=1\nB=2\nC=3\n");
        const char *value =
            qx_test::call_with_failing_allocation(n, [info] { return osrelease_v2(info, "b"); });
        // Allocation 0 is the text, allocation k (k >= 1) the growth for
        // pair k: B is stored only when allocations 0 to 2 succeed.
        EXPECT_STREQ(value, n <= 2 ? "" : "2") << n;
        if (n <= 1) {
            // Nothing was stored, so the next lookup reads the file again.
            EXPECT_EQ(info->pairs, nullptr);
            EXPECT_STREQ(osrelease_v2(info, "B"), "2");
        }
    });
    EXPECT_EQ(clean, 4);
}

TEST_F(OsInfo, ParsingKeepsThePairsFoundBeforeThePairTableCouldNotGrow) {
    const std::vector<std::string> all{"A", "B", "C"};
    const long clean = qx_test::sweep_allocation_failures([&](long n) {
        os_info *info = record_for("A=1\nB=2\nC=3\n");
        const int result =
            qx_test::call_with_failing_allocation(n, [info] { return openosrelease_v2(info); });
        if (n == 0) {
            // The text itself.
            EXPECT_EQ(result, -1);
            EXPECT_EQ(info->text, nullptr);
            return;
        }
        EXPECT_EQ(result, 0) << n;
        ASSERT_NE(info->text, nullptr);
        // Allocation n grows the table for pair n.
        const std::size_t kept = std::min<std::size_t>(static_cast<std::size_t>(n - 1), 3);
        EXPECT_EQ(keys_of(info), std::vector<std::string>(all.begin(), all.begin() + kept)) << n;
        if (kept == 0) {
            EXPECT_EQ(info->pairs, nullptr);
        }
    });
    EXPECT_EQ(clean, 4);
}

// ---- the library's own record -----------------------------------------------

// The value of key in an os-release file's content, found as the library
// documents it, and its offset in the file; nothing when no line starts
// with key and "=".
struct expected_value {
    std::string value;
    std::size_t offset;
};

std::optional<expected_value> find_value(const std::string &content, const std::string &key) {
    std::size_t line = 0;
    while (line < content.size()) {
        std::size_t feed = content.find('\n', line);
        const bool has_feed = feed != std::string::npos;
        if (!has_feed)
            feed = content.size();
        if (content.compare(line, key.size() + 1, key + "=") == 0) {
            std::size_t start = line + key.size() + 1;
            std::string value = content.substr(start, feed - start);
            if (has_feed && value.size() >= 2 && (value[0] == '"' || value[0] == '\'') &&
                value.back() == value[0]) {
                value = value.substr(1, value.size() - 2);
                ++start;
            }
            return expected_value{value, start};
        }
        line = feed + 1;
    }
    return std::nullopt;
}

std::optional<std::string> real_os_release() {
    std::ifstream in(default_path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

TEST(OsRelease, AnswersFromThisMachinesEtcOsRelease) {
    const auto content = real_os_release();
    for (const char *key : {"ID", "NAME", "VERSION_ID", "PRETTY_NAME", "VERSION_CODENAME"}) {
        const char *value = osrelease(key);
        ASSERT_NE(value, nullptr) << key;
        const auto expected = content ? find_value(*content, key) : std::nullopt;
        EXPECT_EQ(value, expected ? expected->value : "") << key;
    }
}

TEST(OsRelease, IgnoresTheCaseOfTheKeyAndKeepsItsRecord) {
    const char *upper = osrelease("ID");
    if (*upper == '\0')
        GTEST_SKIP() << "no ID in " << default_path;
    EXPECT_EQ(osrelease("id"), upper);
    EXPECT_EQ(osrelease("Id"), upper);
}

TEST(OsRelease, AMissingKeyGivesTheEmptyStringNotNull) {
    const char *value = osrelease("QX_NO_SUCH_KEY");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "");
}

TEST(OsRelease, OpensNoDescriptorThatItKeeps) {
    fd_snapshot fds;
    (void)osrelease("ID");
    (void)osrelease("NAME");
    EXPECT_TRUE(fds.unchanged());
}

// ---- the finaliser ----------------------------------------------------------

// A second copy of the library, loaded from its own file so that it has its
// own record, and unloaded again on request.
class library_copy {
  public:
    explicit library_copy(const temp_dir &dir) {
        const std::string path = dir.file("libqxcommon-util-copy.so");
        std::ifstream in(QX_LIBRARY_FILE, std::ios::binary);
        std::ofstream out(path, std::ios::binary);
        out << in.rdbuf();
        out.close();
        handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(handle_, nullptr) << dlerror();
    }
    ~library_copy() { unload(); }
    library_copy(const library_copy &) = delete;
    library_copy &operator=(const library_copy &) = delete;

    auto osrelease_of_copy() const {
        return reinterpret_cast<const char *(*)(const char *)>(dlsym(handle_, "osrelease"));
    }
    bool loaded() const { return handle_ != nullptr; }
    void unload() {
        if (handle_ != nullptr)
            dlclose(handle_);
        handle_ = nullptr;
    }

  private:
    void *handle_ = nullptr;
};

TEST(OsReleaseFinaliser, ReleasesTheLibraryRecordWhenTheLibraryIsUnloaded) {
    const auto content = real_os_release();
    const auto id = content ? find_value(*content, "ID") : std::nullopt;
    if (!id)
        GTEST_SKIP() << "no ID line in " << default_path;
    temp_dir dir;
    library_copy copy(dir);
    ASSERT_TRUE(copy.loaded());
    const auto copy_osrelease = copy.osrelease_of_copy();
    ASSERT_NE(copy_osrelease, nullptr);
    ASSERT_NE(copy_osrelease, &osrelease) << "the copy is not a second library";

    const char *value = copy_osrelease("ID");
    ASSERT_EQ(value, id->value);
    ASSERT_NE(value, osrelease("ID")) << "the copy shares the first library's record";
    // The text block starts where the file does: the value's offset before it.
    const char *text = value - id->offset;
    qx_test::watch_free(text, 4);
    copy.unload();
    EXPECT_TRUE(qx_test::watched_block_was_freed());
    EXPECT_EQ(std::memcmp(qx_test::watched_block_contents(), content->data(), 2), 0);
}

TEST(OsReleaseFinaliser, LeavesNothingBehindWhenTheRecordWasNeverUsed) {
    if (!qx_test::heap_bytes_available())
        GTEST_SKIP() << "needs the sanitizer's allocator to count the heap";
    temp_dir dir;
    // The loader keeps a little memory over the first rounds of loading and
    // unloading; once it has settled, what is left is what the copy left.
    for (int round = 0; round < 2; ++round) {
        library_copy warm_up(dir);
        ASSERT_TRUE(warm_up.loaded());
    }
    const std::size_t before = qx_test::heap_bytes_in_use();
    {
        library_copy copy(dir);
        ASSERT_TRUE(copy.loaded());
    }
    QX_EXPECT_HEAP_AT(before);
}

} // namespace
