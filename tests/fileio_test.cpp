#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "qxcommon-util/fileio.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/io_faults.hpp"
#include "support/scratch_fs.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::fd_snapshot;
using qx_test::file_exists;
using qx_test::read_file;
using qx_test::temp_dir;
using qx_test::write_file;

mode_t mode_of(const std::string &path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return st.st_mode & 07777;
}

// Every test works under a known umask and puts the old one back.
class FileIo : public ::testing::Test {
  protected:
    void SetUp() override { old_umask_ = umask(022); }
    void TearDown() override { umask(old_umask_); }

    temp_dir dir_;
    fd_snapshot snap_;

  private:
    mode_t old_umask_ = 0;
};

// ---- openreadclose / openreadcloseat: a new block ------------------------

TEST_F(FileIo, OpenReadCloseOfEmptyFileGivesOneByteBlockHoldingNul) {
    write_file(dir_.file("empty"), "");
    char *data = nullptr;
    int len = 99;
    ASSERT_EQ(openreadclose(dir_.file("empty").c_str(), &data, &len), 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(data[0], '\0');
    std::free(data);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenReadCloseReadsTheWholeFileWithEmbeddedNulAndTerminates) {
    const std::string content("line one\n\0two\n", 14);
    write_file(dir_.file("f"), content);
    char *data = nullptr;
    int len = 0;
    ASSERT_EQ(openreadclose(dir_.file("f").c_str(), &data, &len), 0);
    ASSERT_EQ(len, 14);
    EXPECT_EQ(std::string(data, 14), content);
    EXPECT_EQ(data[14], '\0');
    std::free(data);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenReadCloseOfMissingFileFailsWithEnoentAndLeavesArgumentsAlone) {
    char *data = nullptr;
    int len = 7;
    errno = 0;
    EXPECT_EQ(openreadclose(dir_.file("missing").c_str(), &data, &len), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(len, 7);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenReadCloseFailsWithEnomemWhenTheBlockCannotBeAllocated) {
    write_file(dir_.file("f"), "0123456789");
    const std::string path = dir_.file("f");
    char *data = nullptr;
    int len = 0;
    errno = 0;
    const int rc = qx_test::call_with_failing_allocation(
        0, [&] { return openreadclose(path.c_str(), &data, &len); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(len, 10); // the size found before the allocation
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenReadCloseOfAnUnseekableFileFailsWithEspipe) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Holding a writer open lets the read-only open return at once.
    const int writer = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);
    fd_snapshot snap;
    char *data = nullptr;
    int len = 0;
    errno = 0;
    EXPECT_EQ(openreadclose(fifo.c_str(), &data, &len), -1);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_EQ(data, nullptr);
    EXPECT_TRUE(snap.unchanged());
    close(writer);
}

TEST_F(FileIo, OpenReadCloseAtResolvesThePathRelativeToTheDirectory) {
    ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
    write_file(dir_.file("sub/name"), "relative");
    const int dirfd = open(dir_.file("sub").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dirfd, 0);
    fd_snapshot snap;
    char *data = nullptr;
    int len = 0;
    ASSERT_EQ(openreadcloseat(dirfd, "name", &data, &len), 0);
    EXPECT_EQ(len, 8);
    EXPECT_STREQ(data, "relative");
    std::free(data);
    EXPECT_TRUE(snap.unchanged());
    close(dirfd);
}

TEST_F(FileIo, OpenReadCloseAtWithARegularFileAsDirectoryFailsWithEnotdir) {
    write_file(dir_.file("plain"), "x");
    const int notdir = open(dir_.file("plain").c_str(), O_RDONLY);
    ASSERT_GE(notdir, 0);
    char *data = nullptr;
    int len = 0;
    errno = 0;
    EXPECT_EQ(openreadcloseat(notdir, "name", &data, &len), -1);
    EXPECT_EQ(errno, ENOTDIR);
    close(notdir);
}

// ---- openreadcloseat: the caller's buffer --------------------------------

TEST_F(FileIo, CallerBufferOfLengthFourOnTenByteFileGetsFourBytesAndNulAtIndexFour) {
    write_file(dir_.file("ten"), "0123456789");
    char buffer[8];
    std::memset(buffer, 'X', sizeof buffer);
    char *data = buffer;
    int len = 4;
    ASSERT_EQ(openreadclose(dir_.file("ten").c_str(), &data, &len), 0);
    EXPECT_EQ(data, buffer);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(std::string(buffer, 4), "0123");
    EXPECT_EQ(buffer[4], '\0');
    EXPECT_EQ(buffer[5], 'X');
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, CallerBufferLargerThanTheFileGetsTheFileAndNulBehindIt) {
    write_file(dir_.file("short"), "abc");
    char buffer[16];
    std::memset(buffer, 'X', sizeof buffer);
    char *data = buffer;
    int len = 15;
    ASSERT_EQ(openreadclose(dir_.file("short").c_str(), &data, &len), 0);
    EXPECT_EQ(len, 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(buffer[4], 'X');
}

TEST_F(FileIo, CallerBufferReadErrorSetsLengthMinusOneAndKeepsTheReadErrno) {
    char buffer[8];
    std::memset(buffer, 'X', sizeof buffer);
    char *data = buffer;
    int len = 7;
    errno = 0;
    // A directory opens read-only but cannot be read.
    EXPECT_EQ(openreadclose(dir_.path().c_str(), &data, &len), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(len, -1);
    EXPECT_EQ(data, buffer);
    EXPECT_EQ(buffer[0], 'X');
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenReadCloseMakesOnlyOneReadAndDoesNotContinueAShortOne) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // The writer stays open: a second read would wait for more input.
    const int writer = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(write(writer, "abc", 3), 3);
    char buffer[16];
    std::memset(buffer, 'X', sizeof buffer);
    char *data = buffer;
    int len = 10;
    ASSERT_EQ(openreadclose(fifo.c_str(), &data, &len), 0);
    EXPECT_EQ(len, 3);
    EXPECT_STREQ(buffer, "abc");
    close(writer);
}

// ---- the writers -----------------------------------------------------------

TEST_F(FileIo, CreatWriteCloseOverALongerFileLeavesExactlyTheTextAndTheOldMode) {
    const std::string path = dir_.file("f");
    write_file(path, "a much longer old content");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(creatwriteclose(path.c_str(), "abc", 0600), 3);
    EXPECT_EQ(read_file(path), "abc");
    EXPECT_EQ(mode_of(path), 0640u);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, CreatWriteCloseCreatesANewFileWithTheModeLessTheUmask) {
    const std::string path = dir_.file("new");
    EXPECT_EQ(creatwriteclose(path.c_str(), "hello\n", 0666), 6);
    EXPECT_EQ(read_file(path), "hello\n");
    EXPECT_EQ(mode_of(path), 0644u);
}

TEST_F(FileIo, CreatWriteCloseOfNullTextLeavesAnEmptyFile) {
    const std::string path = dir_.file("f");
    write_file(path, "old");
    EXPECT_EQ(creatwriteclose(path.c_str(), nullptr, 0600), 0);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(FileIo, CreatWriteCloseOfNullPathFailsWithEinval) {
    errno = 0;
    EXPECT_EQ(creatwriteclose(nullptr, "abc", 0600), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileIo, CreatWriteCloseInAMissingDirectoryFailsWithEnoent) {
    errno = 0;
    EXPECT_EQ(creatwriteclose(dir_.file("no/such").c_str(), "abc", 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenWriteCloseWithNullTextAndOcreatCreatesAnEmptyFile) {
    const std::string path = dir_.file("empty");
    EXPECT_EQ(openwriteclose(path.c_str(), nullptr, O_WRONLY | O_CREAT, 0600), 0);
    ASSERT_TRUE(file_exists(path));
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(mode_of(path), 0600u);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenWriteCloseWithoutTruncationOverwritesOnlyTheFront) {
    const std::string path = dir_.file("f");
    write_file(path, "abcdef");
    EXPECT_EQ(openwriteclose(path.c_str(), "XY", O_WRONLY), 2);
    EXPECT_EQ(read_file(path), "XYcdef");
}

TEST_F(FileIo, OpenWriteCloseWithAppendAddsAtTheEnd) {
    const std::string path = dir_.file("f");
    write_file(path, "abc");
    EXPECT_EQ(openwriteclose(path.c_str(), "def", O_WRONLY | O_APPEND), 3);
    EXPECT_EQ(read_file(path), "abcdef");
}

TEST_F(FileIo, OpenWriteCloseWithoutOcreatOnAMissingFileFailsWithEnoent) {
    errno = 0;
    EXPECT_EQ(openwriteclose(dir_.file("missing").c_str(), "x", O_WRONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file_exists(dir_.file("missing")));
}

TEST_F(FileIo, OpenWriteCloseWithOexclOnAnExistingFileFailsWithEexist) {
    const std::string path = dir_.file("f");
    write_file(path, "keep");
    errno = 0;
    EXPECT_EQ(openwriteclose(path.c_str(), "x", O_WRONLY | O_CREAT | O_EXCL, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path), "keep");
}

TEST_F(FileIo, OpenWriteCloseOfNullPathFailsWithEinval) {
    errno = 0;
    EXPECT_EQ(openwriteclose(nullptr, "x", O_WRONLY), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileIo, AFailedWriteReturnsMinusOneWithTheWriteErrnoAndClosesTheFile) {
    errno = 0;
    EXPECT_EQ(openwriteclose("/dev/full", "abc", O_WRONLY), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, AWriteThroughAReadOnlyDescriptorFailsWithEbadf) {
    const std::string path = dir_.file("f");
    write_file(path, "abc");
    errno = 0;
    EXPECT_EQ(openwritenclose(path.c_str(), "xyz", 3, O_RDONLY), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(read_file(path), "abc");
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, AWriteAfterTruncationThatFailsLeavesTheFileEmpty) {
    const std::string path = dir_.file("f");
    write_file(path, "old content");
    errno = 0;
    EXPECT_EQ(openwritenclose(path.c_str(), "xyz", 3, O_RDONLY | O_TRUNC), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(FileIo, OpenWriteNCloseWritesExactlyLenBytesIncludingNuls) {
    const std::string path = dir_.file("bin");
    EXPECT_EQ(openwritenclose(path.c_str(), "a\0b\0c", 5, O_WRONLY | O_CREAT | O_TRUNC, 0600), 5);
    EXPECT_EQ(read_file(path), std::string("a\0b\0c", 5));
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenWriteNCloseWithANegativeLengthFailsWithEoverflowAndCreatesNothing) {
    const std::string path = dir_.file("never");
    errno = 0;
    EXPECT_EQ(openwritenclose(path.c_str(), "abc", -1, O_WRONLY | O_CREAT, 0600), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_FALSE(file_exists(path));
}

TEST_F(FileIo, OpenWriteNCloseWithANullPathFailsWithEinval) {
    errno = 0;
    EXPECT_EQ(openwritenclose(nullptr, "abc", 3, O_WRONLY | O_CREAT, 0600), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileIo, OpenWriteNCloseChecksThePathBeforeTheLength) {
    errno = 0;
    EXPECT_EQ(openwritenclose(nullptr, "abc", -5, O_WRONLY), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileIo, OpenWriteNCloseOfZeroBytesTruncatesAndReturnsZero) {
    const std::string path = dir_.file("f");
    write_file(path, "abc");
    EXPECT_EQ(openwritenclose(path.c_str(), nullptr, 0, O_WRONLY | O_TRUNC), 0);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(FileIo, OpenWriteCloseAtAndCreatWriteCloseAtWorkRelativeToTheDirectory) {
    ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
    const int dirfd = open(dir_.file("sub").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dirfd, 0);
    fd_snapshot snap;
    EXPECT_EQ(creatwritecloseat(dirfd, "a", "first", 0666), 5);
    EXPECT_EQ(read_file(dir_.file("sub/a")), "first");
    EXPECT_EQ(mode_of(dir_.file("sub/a")), 0644u);
    EXPECT_EQ(creatwritecloseat(dirfd, "a", "2nd", 0600), 3);
    EXPECT_EQ(read_file(dir_.file("sub/a")), "2nd");
    EXPECT_EQ(mode_of(dir_.file("sub/a")), 0644u);
    EXPECT_EQ(openwritecloseat(dirfd, "b", "bee", O_WRONLY | O_CREAT | O_EXCL, 0640), 3);
    EXPECT_EQ(read_file(dir_.file("sub/b")), "bee");
    EXPECT_EQ(mode_of(dir_.file("sub/b")), 0640u);
    EXPECT_EQ(openwritecloseat(dirfd, "b", "B", O_WRONLY), 1);
    EXPECT_EQ(read_file(dir_.file("sub/b")), "Bee");
    EXPECT_EQ(openwritecloseat(dirfd, "c", nullptr, O_WRONLY | O_CREAT, 0600), 0);
    EXPECT_EQ(read_file(dir_.file("sub/c")), "");
    EXPECT_TRUE(snap.unchanged());
    close(dirfd);
}

TEST_F(FileIo, OpenWriteCloseAtFailuresKeepTheirErrno) {
    errno = 0;
    EXPECT_EQ(openwritecloseat(AT_FDCWD, nullptr, "x", O_WRONLY), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(creatwritecloseat(AT_FDCWD, nullptr, "x", 0600), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(openwritecloseat(-1, "relative", "x", O_WRONLY | O_CREAT, 0600), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(creatwritecloseat(AT_FDCWD, "/dev/full", "x", 0600), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(snap_.unchanged());
}

// ---- strbuf_readfile / strbuf_writefile ------------------------------------

TEST_F(FileIo, StrbufReadFileOfEmptyFileGivesLengthZeroSizeOneAndEmptyText) {
    write_file(dir_.file("empty"), "");
    strbuf sb{};
    ASSERT_EQ(strbuf_readfile(&sb, dir_.file("empty").c_str()), 0);
    ASSERT_NE(sb.text, nullptr);
    EXPECT_STREQ(sb.text, "");
    EXPECT_EQ(sb.length, 0u);
    EXPECT_EQ(sb.size, 1u);
    strbuf_free(&sb);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, StrbufReadFileReplacesTheTextWithSizeEqualToLength) {
    write_file(dir_.file("f"), std::string("ab\0cd", 5));
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "previous text"), 0);
    ASSERT_EQ(strbuf_readfile(&sb, dir_.file("f").c_str()), 0);
    EXPECT_EQ(sb.length, 5u);
    EXPECT_EQ(sb.size, 5u);
    EXPECT_EQ(std::string(sb.text, 5), std::string("ab\0cd", 5));
    EXPECT_EQ(sb.text[5], '\0');
    strbuf_free(&sb);
}

TEST_F(FileIo, StrbufReadFileOfMissingFileFailsAndLeavesTheBufferUnchanged) {
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "keep"), 0);
    const strbuf before = sb;
    errno = 0;
    EXPECT_EQ(strbuf_readfile(&sb, dir_.file("missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sb.text, before.text);
    EXPECT_EQ(sb.length, before.length);
    EXPECT_EQ(sb.size, before.size);
    EXPECT_STREQ(sb.text, "keep");
    strbuf_free(&sb);
}

TEST_F(FileIo, StrbufReadFileWithoutMemoryFailsAndLeavesTheBufferUnchanged) {
    write_file(dir_.file("f"), "content");
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "keep"), 0);
    const strbuf before = sb;
    const std::string path = dir_.file("f");
    const int rc = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_readfile(&sb, path.c_str()); });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(sb.text, before.text);
    EXPECT_EQ(sb.length, before.length);
    EXPECT_EQ(sb.size, before.size);
    strbuf_free(&sb);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, StrbufWriteFileStopsAtTheFirstNulByte) {
    strbuf sb{};
    ASSERT_EQ(strbuf_nappend(&sb, "abc\0def", 7), 0);
    const std::string path = dir_.file("out");
    EXPECT_EQ(strbuf_writefile(&sb, path.c_str()), 3);
    EXPECT_EQ(read_file(path), "abc");
    EXPECT_EQ(mode_of(path), 0600u);
    strbuf_free(&sb);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, StrbufWriteFileKeepsTheModeOfAnExistingFile) {
    const std::string path = dir_.file("out");
    write_file(path, "older and longer");
    ASSERT_EQ(chmod(path.c_str(), 0664), 0);
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "new"), 0);
    EXPECT_EQ(strbuf_writefile(&sb, path.c_str()), 3);
    EXPECT_EQ(read_file(path), "new");
    EXPECT_EQ(mode_of(path), 0664u);
    strbuf_free(&sb);
}

TEST_F(FileIo, StrbufWriteFileOfAnUnusedBufferWritesAnEmptyFile) {
    strbuf sb{};
    const std::string path = dir_.file("out");
    EXPECT_EQ(strbuf_writefile(&sb, path.c_str()), 0);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(FileIo, StrbufWriteFileThenReadFileGivesTheTextBack) {
    strbuf sb{};
    ASSERT_EQ(strbuf_append(&sb, "round trip\n"), 0);
    const std::string path = dir_.file("rt");
    ASSERT_EQ(strbuf_writefile(&sb, path.c_str()), 11);
    strbuf back{};
    ASSERT_EQ(strbuf_readfile(&back, path.c_str()), 0);
    EXPECT_STREQ(back.text, "round trip\n");
    EXPECT_EQ(back.length, 11u);
    strbuf_free(&sb);
    strbuf_free(&back);
}

// ---- mappings ----------------------------------------------------------------

TEST_F(FileIo, MmapFileMapsTheWholeFileAndUnmapsWithTheRecordedSize) {
    std::string content(10000, 'q');
    content[9999] = '!';
    write_file(dir_.file("f"), content);
    struct stat st {};
    void *addr = qx_mmapfile(dir_.file("f").c_str(), &st);
    ASSERT_NE(addr, nullptr);
    EXPECT_EQ(st.st_size, 10000);
    EXPECT_EQ(std::memcmp(addr, content.data(), 10000), 0);
    EXPECT_TRUE(snap_.unchanged()); // the descriptor is closed, the mapping stays
    EXPECT_EQ(qx_munmapfile(addr, &st), 0);
}

TEST_F(FileIo, MmapFileOfEmptyFileGivesNullWithoutANewErrno) {
    write_file(dir_.file("empty"), "");
    struct stat st {};
    errno = EDOM;
    EXPECT_EQ(qx_mmapfile(dir_.file("empty").c_str(), &st), nullptr);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, MmapFileOfMissingFileGivesNullWithEnoent) {
    struct stat st {};
    errno = 0;
    EXPECT_EQ(qx_mmapfile(dir_.file("missing").c_str(), &st), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileIo, MmapFileOfAnUnmappableFileGivesNullWithTheMmapErrnoAndClosesIt) {
    write_file(dir_.file("entry"), ""); // the directory has a non-zero size
    struct stat st {};
    errno = 0;
    EXPECT_EQ(qx_mmapfile(dir_.path().c_str(), &st), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, MunmapFileOfAnUnalignedAddressFailsWithEinval) {
    struct stat st {};
    st.st_size = 10;
    errno = 0;
    char local[16];
    EXPECT_EQ(qx_munmapfile(local + 1, &st), -1);
    EXPECT_EQ(errno, EINVAL);
}

// ---- qx_fd_data_load -----------------------------------------------------------

TEST_F(FileIo, FdDataLoadGathersSeveralReadsUntilTheSize) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    ASSERT_EQ(send(fds[1], "abc", 3, 0), 3); // each message is its own read
    ASSERT_EQ(send(fds[1], "def", 3, 0), 3);
    ASSERT_EQ(send(fds[1], "ghi", 3, 0), 3);
    auto *block = static_cast<char *>(qx_fd_data_load(6, fds[0]));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::string(block, 6), "abcdef");
    std::free(block);
    char rest[8] = {};
    EXPECT_EQ(recv(fds[0], rest, sizeof rest, MSG_DONTWAIT), 3);
    EXPECT_STREQ(rest, "ghi");
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileIo, FdDataLoadStopsAtEndOfInputLeavingTheRestZero) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "hello", 5), 5);
    close(fds[1]);
    auto *block = static_cast<char *>(qx_fd_data_load(10, fds[0]));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::string(block, 10), std::string("hello\0\0\0\0\0", 10));
    std::free(block);
    close(fds[0]);
}

TEST_F(FileIo, FdDataLoadReturnsAZeroBlockWhenReadFails) {
    auto *block = static_cast<char *>(qx_fd_data_load(4, -1));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::string(block, 4), std::string(4, '\0'));
    std::free(block);
}

TEST_F(FileIo, FdDataLoadOfSizeZeroReadsNothing) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    void *block = qx_fd_data_load(0, fds[0]);
    std::free(block); // whatever calloc(1, 0) gave
    char c = 0;
    EXPECT_EQ(read(fds[0], &c, 1), 1);
    EXPECT_EQ(c, 'x');
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileIo, FdDataLoadGivesNullWhenTheBlockCannotBeAllocated) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    void *block =
        qx_test::call_with_failing_allocation(0, [&] { return qx_fd_data_load(8, fds[0]); });
    EXPECT_EQ(block, nullptr);
    char c = 0;
    EXPECT_EQ(read(fds[0], &c, 1), 1); // nothing was read
    close(fds[0]);
    close(fds[1]);
}

// ---- opendirat -------------------------------------------------------------------

TEST_F(FileIo, OpenDirAtOpensADirectoryRelativeToADescriptorCloseOnExec) {
    ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
    write_file(dir_.file("sub/only"), "");
    const int base = open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(base, 0);
    fd_snapshot snap;
    DIR *dir = opendirat(base, "sub");
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(fcntl(dirfd(dir), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    std::string names;
    while (const dirent *entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names += entry->d_name;
    }
    EXPECT_EQ(names, "only");
    closedir(dir);
    EXPECT_TRUE(snap.unchanged());
    close(base);
}

TEST_F(FileIo, OpenDirAtOfAMissingPathOrAFileGivesNullWithErrno) {
    errno = 0;
    EXPECT_EQ(opendirat(AT_FDCWD, dir_.file("missing").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    write_file(dir_.file("plain"), "");
    errno = 0;
    EXPECT_EQ(opendirat(AT_FDCWD, dir_.file("plain").c_str()), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, OpenDirAtClosesTheDescriptorWhenTheStreamCannotBeMade) {
    const std::string path = dir_.path();
    DIR *dir =
        qx_test::call_with_failing_allocation(0, [&] { return opendirat(AT_FDCWD, path.c_str()); });
    if (!qx_test::allocation_was_failed()) {
        // The stream was allocated where the test cannot see it.
        ASSERT_NE(dir, nullptr);
        closedir(dir);
        GTEST_SKIP() << "the stream's allocation is not visible in this build";
    }
    EXPECT_EQ(dir, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(snap_.unchanged());
}

// ---- descriptor helpers ----------------------------------------------------------

TEST_F(FileIo, FdCloexecSetAddsTheFlagAndKeepsTheOthers) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(fcntl(fds[0], F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(qx_fd_cloexec_set(fds[0]), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(qx_fd_cloexec_set(fds[0]), 0); // already set: still fine
    EXPECT_EQ(fcntl(fds[0], F_GETFD), FD_CLOEXEC);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileIo, FdCloexecSetOfABadDescriptorFailsWithEbadf) {
    errno = 0;
    EXPECT_EQ(qx_fd_cloexec_set(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(FileIo, FileCloexecSetWorksOnTheStreamsDescriptor) {
    FILE *stream = fopen(dir_.file("s").c_str(), "w");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(qx_file_cloexec_set(stream), 0);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    fclose(stream);
}

TEST_F(FileIo, FileExistsFollowsLinks) {
    write_file(dir_.file("f"), "");
    ASSERT_EQ(symlink("f", dir_.file("good").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", dir_.file("dangling").c_str()), 0);
    EXPECT_EQ(qx_file_exists(dir_.file("f").c_str()), 1);
    EXPECT_EQ(qx_file_exists(dir_.path().c_str()), 1);
    EXPECT_EQ(qx_file_exists(dir_.file("good").c_str()), 1);
    EXPECT_EQ(qx_file_exists(dir_.file("dangling").c_str()), 0);
    EXPECT_EQ(qx_file_exists(dir_.file("missing").c_str()), 0);
}

TEST_F(FileIo, FdFilesizeGetGivesTheSizeAndPutsTheOffsetBack) {
    write_file(dir_.file("f"), "0123456789");
    const int fd = open(dir_.file("f").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
    EXPECT_EQ(qx_fd_filesize_get(fd), 10);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
    close(fd);
}

TEST_F(FileIo, FdFilesizeGetFailsOnBadOrUnseekableDescriptors) {
    errno = 0;
    EXPECT_EQ(qx_fd_filesize_get(-1), -1);
    EXPECT_EQ(errno, EBADF);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    errno = 0;
    EXPECT_EQ(qx_fd_filesize_get(fds[0]), -1);
    EXPECT_EQ(errno, ESPIPE);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileIo, FilesizeGetOfAMissingFileIsZero) {
    EXPECT_EQ(qx_filesize_get(dir_.file("missing").c_str()), 0);
    EXPECT_TRUE(snap_.unchanged());
}

TEST_F(FileIo, FilesizeGetGivesTheSizeAndClosesTheFile) {
    write_file(dir_.file("f"), std::string(12345, 'z'));
    write_file(dir_.file("empty"), "");
    EXPECT_EQ(qx_filesize_get(dir_.file("f").c_str()), 12345);
    EXPECT_EQ(qx_filesize_get(dir_.file("empty").c_str()), 0);
    EXPECT_TRUE(snap_.unchanged());
}

// ---- short and failed writes ------------------------------------------------

using qx_test::io_fn;

// Every writer of the family, writing `text` to `path` (created, truncated).
struct named_writer {
    const char *name;
    std::function<int(const std::string &path, const std::string &text)> write;
};

std::vector<named_writer> whole_file_writers() {
    return {
        {"creatwriteclose",
         [](const std::string &path, const std::string &text) {
             return creatwriteclose(path.c_str(), text.c_str(), 0644);
         }},
        {"creatwritecloseat",
         [](const std::string &path, const std::string &text) {
             return creatwritecloseat(AT_FDCWD, path.c_str(), text.c_str(), 0644);
         }},
        {"openwriteclose",
         [](const std::string &path, const std::string &text) {
             return openwriteclose(path.c_str(), text.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
         }},
        {"openwritecloseat",
         [](const std::string &path, const std::string &text) {
             return openwritecloseat(AT_FDCWD, path.c_str(), text.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
         }},
        {"openwritenclose",
         [](const std::string &path, const std::string &text) {
             return openwritenclose(path.c_str(), text.data(), static_cast<ssize_t>(text.size()),
                                    O_WRONLY | O_CREAT | O_TRUNC, 0644);
         }},
        {"strbuf_writefile",
         [](const std::string &path, const std::string &text) {
             strbuf sb{};
             if (strbuf_append(&sb, text.c_str()) != 0)
                 return -2;
             const int result = strbuf_writefile(&sb, path.c_str());
             strbuf_free(&sb);
             return result;
         }},
    };
}

class FileIoFaults : public FileIo {
  protected:
    void TearDown() override {
        qx_test::stop_failing_io();
        qx_test::restrict_io_faults_to("");
        FileIo::TearDown();
    }
};

TEST_F(FileIoFaults, AShortWriteFailsWithEnospcInsteadOfLeavingErrnoAlone) {
    const std::string path = dir_.file("f");
    for (const named_writer &writer : whole_file_writers()) {
        SCOPED_TRACE(writer.name);
        qx_test::restrict_io_faults_to(path);
        qx_test::shorten_write(io_fn::write, 0);
        errno = 0;
        const int result = writer.write(path, "0123456789");
        const int error = errno;
        qx_test::stop_failing_io();
        EXPECT_TRUE(qx_test::io_call_was_failed());
        EXPECT_EQ(result, -1);
        EXPECT_EQ(error, ENOSPC);
        // In place, as the family writes: the file keeps what was written.
        EXPECT_EQ(read_file(path), "01234");
        EXPECT_TRUE(snap_.unchanged());
    }
}

TEST_F(FileIoFaults, EveryFailedWriteOrCloseGivesMinusOneWithItsErrno) {
    const std::string path = dir_.file("f");
    const std::string text(3000, 't');
    for (const named_writer &writer : whole_file_writers()) {
        for (const io_fn function : {io_fn::write, io_fn::close}) {
            for (const int error : {ENOSPC, EIO}) {
                const long calls = qx_test::sweep_io_failures([&](long n) {
                    SCOPED_TRACE(std::string(writer.name) + ": " + qx_test::io_fn_name(function) +
                                 " #" + std::to_string(n) + " fails with " + std::to_string(error));
                    write_file(path, "old content");
                    qx_test::restrict_io_faults_to(path);
                    int result = 0, errno_after = 0;
                    {
                        qx_test::failing_io arm(function, n, error);
                        errno = 0;
                        result = writer.write(path, text);
                        errno_after = errno;
                    }
                    EXPECT_TRUE(snap_.unchanged());
                    if (!qx_test::io_call_was_failed()) {
                        EXPECT_EQ(result, static_cast<int>(text.size()));
                        EXPECT_EQ(read_file(path), text);
                        return;
                    }
                    EXPECT_EQ(result, -1);
                    EXPECT_EQ(errno_after, error);
                    // Truncated before the write, as the family always has.
                    EXPECT_EQ(read_file(path), function == io_fn::write ? "" : text);
                });
                EXPECT_EQ(calls, 1) << writer.name << " " << qx_test::io_fn_name(function);
            }
        }
    }
}

TEST_F(FileIo, OnAFullDiskAShortWriteFailsWithEnospc) {
    const qx_test::scratch_outcome outcome =
        qx_test::run_on_scratch_fs(64 * 1024, [](const std::string &mount, std::string &report) {
            // Two pages left: a write of four comes back short.
            const std::size_t filled = qx_test::fill_file_system(mount);
            if (truncate((mount + "/filler").c_str(),
                         static_cast<off_t>(filled / 4096 * 4096 - 8192)) != 0)
                return 1;
            const std::string text(16384, 'x');
            const std::string path = mount + "/out";
            int step = 10;
            for (const named_writer &writer : whole_file_writers()) {
                ++step;
                errno = 0;
                const int result = writer.write(path, text);
                const int error = errno;
                if (result != -1 || error != ENOSPC) {
                    report = std::string(writer.name) + ": result " + std::to_string(result) +
                             ", errno " + std::to_string(error);
                    return step;
                }
            }
            return 0;
        });
    if (!outcome.ran)
        GTEST_SKIP() << "cannot mount a scratch file system here";
    EXPECT_EQ(outcome.result, 0) << outcome.details;
}

} // namespace
