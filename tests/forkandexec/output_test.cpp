// What a call collects: standard output into a malloc'ed block (the plain
// family), standard output and standard error into strbufs (the strbuf
// family), and what a failed allocation leaves of it.
#include "forkandexec/fixture.hpp"

#include <malloc.h>

#include "support/alloc_fail.hpp"
#include "support/heap_usage.hpp"

namespace forkandexec_test {
namespace {

// ---- the plain family: a malloc'ed block -----------------------------------

TEST_F(ForkAndExec, CollectsStandardOutputByteForByteKeepingNulBytes) {
    command cmd({"out", "hello\\0world\\n", "err", "to the void"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 12U);
    EXPECT_EQ(std::string(out, len), std::string("hello\0world\n", 12));
    EXPECT_EQ(out[len], '\0');
    std::free(out);
}

TEST_F(ForkAndExec, CollectsMoreThan64KiBOfOutput) {
    command cmd({"errn", "70000", "outn", "200000"});
    char *out = nullptr;
    std::size_t len = 0;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(len, 200000U);
    EXPECT_TRUE(std::string(out, len) == alphabet_pattern(200000));
    EXPECT_EQ(out[len], '\0');
    std::free(out);
}

// Runs `out TEXT` (one write into an empty pipe, so it is all there at the
// first read) and counts the allocations the call makes.
long allocations_to_collect(const std::string &text) {
    command cmd({"out", text});
    char *out = nullptr;
    std::size_t len = 0;
    long seen;
    int status;
    {
        qx_test::failing_allocation count_only(1000000);
        status = forkandexec(cmd.argv(), &out, &len);
        seen = qx_test::allocations_seen();
    }
    EXPECT_EQ(status, 0);
    EXPECT_NE(out, nullptr);
    if (out != nullptr) {
        EXPECT_TRUE(std::string(out, len) == text);
        // Only the sanitizer's allocator reports the exact size asked for.
        if (qx_test::heap_bytes_available()) {
            EXPECT_EQ(malloc_usable_size(out), text.size() + 1);
        } else {
            EXPECT_GE(malloc_usable_size(out), text.size() + 1);
        }
    }
    std::free(out);
    return seen;
}

TEST_F(ForkAndExec, ReadsAtMost8000BytesAtATimeAndGrowsTheBlockByEachChunkPlusOne) {
    // One realloc per read and no other allocation: 16000 bytes are two full
    // reads, one byte more takes a third.
    command warm_up({"exit", "0"});
    forkandexec(warm_up.argv(), nullptr, nullptr);
    EXPECT_EQ(allocations_to_collect(std::string(16000, 'q')), 2);
    EXPECT_EQ(allocations_to_collect(std::string(16001, 'r')), 3);
    EXPECT_EQ(allocations_to_collect(std::string(5, 's')), 1);
}

TEST_F(ForkAndExec, WritesFromTheStartOfTheCallersBlockAndResizesIt) {
    char *out = static_cast<char *>(std::malloc(4096));
    ASSERT_NE(out, nullptr);
    std::memset(out, 'Z', 4096);
    std::size_t len = 4095;
    command cmd({"out", "ab"});
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 2U);
    EXPECT_STREQ(out, "ab");
    if (qx_test::heap_bytes_available()) {
        EXPECT_EQ(malloc_usable_size(out), 3U);
    }
    std::free(out);
}

TEST_F(ForkAndExec, NoOutputLeavesANullBlockPointerNullAndSetsTheLengthToZero) {
    command cmd({"exit", "0"});
    char *out = nullptr;
    std::size_t len = 1234;
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(len, 0U);
}

TEST_F(ForkAndExec, NoOutputLeavesTheCallersBlockAsItWas) {
    char *block = static_cast<char *>(std::malloc(5));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "kept", 5);
    char *out = block;
    std::size_t len = 4;
    command cmd({"err", "only errors"});
    ASSERT_EQ(forkandexec(cmd.argv(), &out, &len), 0);
    EXPECT_EQ(out, block);
    EXPECT_EQ(len, 0U);
    EXPECT_STREQ(out, "kept");
    std::free(out);
}

TEST_F(ForkAndExec, NullOutDiscardsOutputAndLeavesTheLengthUntouched) {
    command cmd({"out", "unseen", "err", "unseen", "exit", "5"});
    std::size_t len = 77;
    EXPECT_EQ(forkandexec(cmd.argv(), nullptr, &len), 5);
    EXPECT_EQ(len, 77U);
    EXPECT_EQ(forkandexec_with_to(cmd.argv(), 5, nullptr, nullptr), 5);
    EXPECT_TRUE(descriptors_unchanged());
}

// ---- the strbuf family ----------------------------------------------------------

TEST_F(ForkAndExecEx, CollectsStandardOutputAndStandardErrorSeparately) {
    command cmd({"out", "to out", "err", "to err", "out", "!", "exit", "3"});
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 3);
    EXPECT_STREQ(out.text, "to out!");
    EXPECT_EQ(out.length, 7U);
    EXPECT_STREQ(err.text, "to err");
    EXPECT_EQ(err.length, 6U);
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(descriptors_unchanged());
    EXPECT_TRUE(syslog_is_empty());
}

TEST_F(ForkAndExecEx, AppendsWithoutTruncatingTheBuffers) {
    command cmd({"out", "new", "err", "news"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(strbuf_append(&out, "old "), 0);
    ASSERT_EQ(strbuf_append(&err, "bad "), 0);
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    EXPECT_STREQ(out.text, "old new");
    EXPECT_STREQ(err.text, "bad news");
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, ANulByteCutsItsChunkShort) {
    command cmd({"out", "ab\\0cd", "err", "e\\0f"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    EXPECT_EQ(out.length, 2U);
    EXPECT_STREQ(out.text, "ab");
    EXPECT_EQ(err.length, 1U);
    EXPECT_STREQ(err.text, "e");
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, ReadsChunksOf7999BytesSoANulCutsOnlyItsOwnChunk) {
    // One write: 7998 x, a NUL, "yz". The first chunk (7999 bytes) ends with
    // the NUL, the second is "yz".
    command cmd({"out", std::string(7998, 'x') + "\\0yz"});
    strbuf out{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length), std::string(7998, 'x') + "yz");
    strbuf_free(&out);
}

TEST_F(ForkAndExecEx, CollectsMoreThan64KiBOnBothStreamsPollingThemTogether) {
    // Standard error is written first and fills its pipe while standard
    // output stays silent: only reading both pipes together gets through.
    command cmd({"errn", "100000", "outn", "150000", "errn", "30000"});
    strbuf out{};
    strbuf err{};
    ASSERT_EQ(forkandexec_ex(cmd.argv(), &out, &err), 0);
    ASSERT_EQ(out.length, 150000U);
    EXPECT_TRUE(std::string(out.text, out.length) == alphabet_pattern(150000));
    ASSERT_EQ(err.length, 130000U);
    EXPECT_TRUE(std::string(err.text, err.length) ==
                alphabet_pattern(100000) + alphabet_pattern(30000));
    strbuf_free(&out);
    strbuf_free(&err);
}

TEST_F(ForkAndExecEx, NullBuffersSendTheirStreamsToDevNull) {
    command cmd({"out", "visible out", "err", "visible err"});
    strbuf out{};
    strbuf err{};
    EXPECT_EQ(forkandexec_ex(cmd.argv(), &out, nullptr), 0);
    EXPECT_STREQ(out.text, "visible out");
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, &err), 0);
    EXPECT_STREQ(err.text, "visible err");
    EXPECT_EQ(forkandexec_ex(cmd.argv(), nullptr, nullptr), 0);
    strbuf_free(&out);
    strbuf_free(&err);
    EXPECT_TRUE(descriptors_unchanged());
}

// ---- a failed allocation while collecting ----------------------------------------

TEST_F(ForkAndExec, AFailedReallocEndsCollectionAndKeepsWhatWasRead) {
    command warm_up({"exit", "0"});
    forkandexec(warm_up.argv(), nullptr, nullptr);
    command cmd({"out", "first", "sleep", "1", "out", "second", "exit", "4"});
    char *out = nullptr;
    std::size_t len = 0;
    const int status = qx_test::call_with_failing_allocation(
        1, [&] { return forkandexec(cmd.argv(), &out, &len); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(status, 4);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(len, 5U);
    EXPECT_STREQ(out, "first");
    std::free(out);
}

TEST_F(ForkAndExecEx, AFailedAppendEndsCollectionSoTheOutputHasNoHole) {
    command warm_up({"out", "x"});
    strbuf warm{};
    forkandexec_ex(warm_up.argv(), &warm, nullptr);
    strbuf_free(&warm);
    // "first" takes the buffer's first block; the 3000 bytes after it need
    // it to grow, and that growth fails; "third" would fit again.
    command cmd({"out", "first", "sleep", "1", "outn", "3000", "sleep", "1", "out", "third"});
    strbuf out{};
    const int status = qx_test::call_with_failing_allocation(
        1, [&] { return forkandexec_ex(cmd.argv(), &out, nullptr); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    // The command, writing into a pipe nobody reads any more, ends by
    // SIGPIPE, and a command ended by a signal gives 0.
    EXPECT_EQ(status, 0);
    ASSERT_NE(out.text, nullptr);
    EXPECT_EQ(std::string(out.text, out.length), "first");
    strbuf_free(&out);
}

} // namespace
} // namespace forkandexec_test
