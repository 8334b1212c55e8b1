#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <string>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <utime.h>
#include <vector>

#include "qxcommon-util/dirtree.h"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/fs_calls.hpp"
#include "support/heap_usage.hpp"
#include "support/syslog_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using qx_test::fd_snapshot;
using qx_test::file_exists;
using qx_test::fs_call;
using qx_test::fs_call_recording;
using qx_test::read_file;
using qx_test::temp_dir;
using qx_test::write_file;

using strings = std::vector<std::string>;

// The user a root test process becomes in a child, so that permissions
// apply again.
constexpr uid_t unprivileged_id = 65534;

struct stat stat_of(const std::string &path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

mode_t mode_of(const std::string &path) {
    return stat_of(path).st_mode & 07777;
}

bool is_directory(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Names in a directory, sorted, without "." and "..".
strings entries_of(const std::string &path) {
    strings names;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// The recorded calls of one function, in order.
std::vector<fs_call> calls_to(const std::string &function) {
    std::vector<fs_call> chosen;
    for (const fs_call &call : qx_test::recorded_fs_calls()) {
        if (call.function == function)
            chosen.push_back(call);
    }
    return chosen;
}

strings paths_of(const std::vector<fs_call> &calls) {
    strings paths;
    for (const fs_call &call : calls)
        paths.push_back(call.path);
    return paths;
}

// Bytes that differ from one position to the next and do not repeat with
// the chunk size.
std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 251 + 7) % 256);
    return bytes;
}

void make_directory(const std::string &path, mode_t mode = 0755) {
    ASSERT_EQ(mkdir(path.c_str(), mode), 0) << path;
}

void make_link(const std::string &target, const std::string &link) {
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << link;
}

// What a child process reports back: a call's result, its errno and one
// more figure of the test's choosing.
struct child_report {
    int result = 0;
    int error = 0;
    long extra = 0;
    bool ran = false;
};

// Runs `body` in a forked child (as an unprivileged user when the test
// process is root and `unprivileged` is set) and returns its report. ran is
// false when the child could not change its user.
template <typename Body> child_report run_in_child(bool unprivileged, Body body) {
    int channel[2];
    if (pipe(channel) != 0)
        return {};
    const pid_t pid = fork();
    if (pid == 0) {
        close(channel[0]);
        child_report report;
        const bool drop = unprivileged && geteuid() == 0;
        if (!drop || (setgroups(0, nullptr) == 0 &&
                      setresgid(unprivileged_id, unprivileged_id, unprivileged_id) == 0 &&
                      setresuid(unprivileged_id, unprivileged_id, unprivileged_id) == 0)) {
            report = body();
            report.ran = true;
        }
        const ssize_t ignored = write(channel[1], &report, sizeof report);
        (void)ignored;
        _exit(0);
    }
    close(channel[1]);
    child_report report;
    if (pid < 0 || read(channel[0], &report, sizeof report) != sizeof report)
        report = {};
    close(channel[0]);
    if (pid > 0)
        waitpid(pid, nullptr, 0);
    return report;
}

#ifdef QX_TEST_HEAP_FROM_SANITIZER
extern "C" void __lsan_disable(void);
extern "C" void __lsan_enable(void);
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void *p);
#endif

// The size asked for when block was allocated, where it can be known.
bool allocated_size_known() {
    return qx_test::heap_bytes_available();
}
std::size_t allocated_size(const void *block) {
#ifdef QX_TEST_HEAP_FROM_SANITIZER
    return __sanitizer_get_allocated_size(block);
#else
    (void)block;
    return 0;
#endif
}

// The C library's directory walk loses the record of a visited directory
// when the allocation that files it fails; that block is the C library's,
// so the leak checker is told to look away while the walk runs.
class walk_leaks_ignored {
  public:
    walk_leaks_ignored() {
#ifdef QX_TEST_HEAP_FROM_SANITIZER
        __lsan_disable();
#endif
    }
    ~walk_leaks_ignored() {
#ifdef QX_TEST_HEAP_FROM_SANITIZER
        __lsan_enable();
#endif
    }
    walk_leaks_ignored(const walk_leaks_ignored &) = delete;
    walk_leaks_ignored &operator=(const walk_leaks_ignored &) = delete;
};

// The owner a child of run_in_child(true, ...) runs as.
uid_t unprivileged_uid() {
    return geteuid() == 0 ? unprivileged_id : geteuid();
}
gid_t unprivileged_gid() {
    return geteuid() == 0 ? unprivileged_id : getegid();
}

// Every test works under a known umask in its own directory, and proves
// that it leaves no descriptor open.
class Dirtree : public ::testing::Test {
  protected:
    void SetUp() override { old_umask_ = umask(022); }
    void TearDown() override {
        umask(old_umask_);
        if (!cwd_.empty()) {
            EXPECT_EQ(chdir(cwd_.c_str()), 0);
        }
        EXPECT_TRUE(snap_.unchanged());
    }

    std::string file(const std::string &name) const { return dir_.file(name); }

    // Makes the test directory the working directory until the test ends.
    void enter_test_directory() {
        char *here = getcwd(nullptr, 0);
        ASSERT_NE(here, nullptr);
        cwd_ = here;
        std::free(here);
        ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    }

    // Lets another user pass through (not read) the test directory.
    void open_test_directory_for_passing() { ASSERT_EQ(chmod(dir_.path().c_str(), 0711), 0); }

    temp_dir dir_;
    fd_snapshot snap_;

  private:
    mode_t old_umask_ = 0;
    std::string cwd_;
};

using QxCp = Dirtree;
using QxPmkdir = Dirtree;
using QxRrmdir = Dirtree;
using CreateTempfile = Dirtree;

// ---- qx_cp: contents -----------------------------------------------------

TEST_F(QxCp, CopiesEverySizeAroundTheChunkSizeWithEachFlag) {
    const std::size_t sizes[] = {1,     100,   8191,  8192,         8193,      16383,
                                 16384, 16385, 24576, 3 * 8192 + 5, 10 * 8192, 100000};
    const int flag_sets[] = {0, QX_CP_OVERWRITE, QX_CP_KEEP_ATTRIBUTES, QX_CP_DURABLE,
                             QX_CP_OVERWRITE | QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE};
    for (const std::size_t size : sizes) {
        const std::string content = pattern(size);
        const std::string src = file("src-" + std::to_string(size));
        write_file(src, content);
        for (const int flags : flag_sets) {
            SCOPED_TRACE("size " + std::to_string(size) + ", flags " + std::to_string(flags));
            const std::string dst =
                file("dst-" + std::to_string(size) + "-" + std::to_string(flags));
            fd_snapshot fds;
            EXPECT_EQ(qx_cp(src.c_str(), dst.c_str(), flags), 0);
            EXPECT_TRUE(fds.unchanged());
            EXPECT_EQ(read_file(dst), content);
        }
    }
}

TEST_F(QxCp, OfAnEmptyFileGivesAnEmptyTargetAndZero) {
    write_file(file("empty"), "");
    EXPECT_EQ(qx_cp(file("empty").c_str(), file("copy").c_str(), 0), 0);
    ASSERT_TRUE(file_exists(file("copy")));
    EXPECT_EQ(stat_of(file("copy")).st_size, 0);
}

TEST_F(QxCp, FollowsALinkAtTheSource) {
    write_file(file("real"), "linked content");
    make_link(file("real"), file("link"));
    EXPECT_EQ(qx_cp(file("link").c_str(), file("copy").c_str(), 0), 0);
    struct stat st {};
    ASSERT_EQ(lstat(file("copy").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(read_file(file("copy")), "linked content");
}

TEST_F(QxCp, MakesNoAllocation) {
    write_file(file("src"), pattern(20000));
    const std::string src = file("src");
    const std::string dst = file("copy");
    qx_test::fail_allocation(0, true);
    const int result =
        qx_cp(src.c_str(), dst.c_str(), QX_CP_OVERWRITE | QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE);
    const long seen = qx_test::allocations_seen();
    qx_test::stop_failing_allocations();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(read_file(file("copy")), pattern(20000));
}

// ---- qx_cp: overwrite ----------------------------------------------------

TEST_F(QxCp, WithoutOverwriteFailsWithEexistAndLeavesTheOldTargetAlone) {
    write_file(file("src"), "new content");
    write_file(file("dst"), "old content that is longer");
    ASSERT_EQ(chmod(file("dst").c_str(), 0600), 0);
    const struct stat before = stat_of(file("dst"));
    errno = 0;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), 0), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(file("dst")), "old content that is longer");
    const struct stat after = stat_of(file("dst"));
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(QxCp, WithoutOverwriteFailsOnAnExistingLinkAtTheTarget) {
    write_file(file("src"), "new");
    write_file(file("elsewhere"), "kept");
    make_link(file("elsewhere"), file("dst"));
    errno = 0;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(file("elsewhere")), "kept");
    EXPECT_TRUE(file_exists(file("dst")));
}

TEST_F(QxCp, WithOverwriteTruncatesALongerTargetInPlaceKeepingItsMode) {
    write_file(file("src"), "short");
    write_file(file("dst"), pattern(30000));
    ASSERT_EQ(chmod(file("dst").c_str(), 0640), 0);
    const ino_t inode = stat_of(file("dst")).st_ino;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_OVERWRITE), 0);
    EXPECT_EQ(read_file(file("dst")), "short");
    EXPECT_EQ(stat_of(file("dst")).st_ino, inode);
    EXPECT_EQ(mode_of(file("dst")), 0640u);
}

TEST_F(QxCp, WithOverwriteCreatesAMissingTarget) {
    write_file(file("src"), pattern(8192));
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_OVERWRITE), 0);
    EXPECT_EQ(read_file(file("dst")), pattern(8192));
    EXPECT_EQ(mode_of(file("dst")), 0644u);
}

// ---- qx_cp: modes and attributes -----------------------------------------

TEST_F(QxCp, CreatesANewTargetWithMode0644LessTheUmask) {
    write_file(file("src"), "x");
    ASSERT_EQ(chmod(file("src").c_str(), 0755), 0);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("with-022").c_str(), 0), 0);
    EXPECT_EQ(mode_of(file("with-022")), 0644u);
    umask(077);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("with-077").c_str(), 0), 0);
    EXPECT_EQ(mode_of(file("with-077")), 0600u);
    umask(0);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("with-000").c_str(), QX_CP_DURABLE), 0);
    EXPECT_EQ(mode_of(file("with-000")), 0644u);
}

TEST_F(QxCp, KeepAttributesCopiesModeTimesAndOwnerFieldByField) {
    write_file(file("src"), pattern(9000));
    // A mode the umask would narrow, so only the later chmod can give it.
    ASSERT_EQ(chmod(file("src").c_str(), 0666), 0);
    const struct timespec times[2] = {{1000000000, 500000000}, {1200000000, 750000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, file("src").c_str(), times, 0), 0);
    const bool root = geteuid() == 0;
    const uid_t owner = root ? 4321 : geteuid();
    const gid_t group = root ? 8765 : getegid();
    ASSERT_EQ(chown(file("src").c_str(), owner, group), 0);

    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), 0);

    const struct stat dst = stat_of(file("dst"));
    EXPECT_TRUE(S_ISREG(dst.st_mode));
    EXPECT_EQ(dst.st_mode & 07777, 0666u);
    // The times are those the source had before it was read, in whole
    // seconds.
    EXPECT_EQ(dst.st_atim.tv_sec, 1000000000);
    EXPECT_EQ(dst.st_atim.tv_nsec, 0);
    EXPECT_EQ(dst.st_mtim.tv_sec, 1200000000);
    EXPECT_EQ(dst.st_mtim.tv_nsec, 0);
    EXPECT_EQ(dst.st_uid, owner);
    EXPECT_EQ(dst.st_gid, group);
    EXPECT_EQ(dst.st_size, 9000);
    EXPECT_EQ(read_file(file("dst")), pattern(9000));
}

TEST_F(QxCp, KeepAttributesGivesAReadOnlySourceModeToANewTarget) {
    write_file(file("src"), "read only");
    ASSERT_EQ(chmod(file("src").c_str(), 0444), 0);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), 0);
    EXPECT_EQ(mode_of(file("dst")), 0444u);
    EXPECT_EQ(read_file(file("dst")), "read only");
}

TEST_F(QxCp, WithoutKeepAttributesTheTargetGetsItsOwnTimesAndOwner) {
    write_file(file("src"), "x");
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file("src").c_str(), times, 0), 0);
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), 0), 0);
    const struct stat dst = stat_of(file("dst"));
    EXPECT_GE(dst.st_mtim.tv_sec, before);
    EXPECT_EQ(dst.st_uid, geteuid());
}

// ---- qx_cp: attributes through the target descriptor ---------------------

// The attribute calls the library makes, recorded by this program's own
// definitions of them (just below). While a swap is armed, the first such
// call first moves the target aside and plants a link to a victim at its
// path, as an attacker racing the copy would.
struct attribute_call {
    const char *function; // "chmod", "fchmod", "utime", "futimens", "chown", "fchown"
    int fd;               // -1 for the path-based calls
    char path[512];       // empty for the descriptor-based calls
};

constexpr int attribute_call_room = 16;
bool recording_attribute_calls = false;
int attribute_calls_recorded = 0;
attribute_call attribute_calls[attribute_call_room];

bool swap_armed = false;
char swap_target[512];
char swap_moved[512];
char swap_victim[512];

void copy_path(char (&to)[512], const char *from) {
    std::strncpy(to, from != nullptr ? from : "", sizeof to - 1);
    to[sizeof to - 1] = '\0';
}

void note_attribute_call(const char *function, int fd, const char *path) {
    if (swap_armed) {
        swap_armed = false;
        if (renameat(AT_FDCWD, swap_target, AT_FDCWD, swap_moved) != 0 ||
            symlink(swap_victim, swap_target) != 0)
            std::abort();
    }
    if (!recording_attribute_calls || attribute_calls_recorded == attribute_call_room)
        return;
    attribute_call &call = attribute_calls[attribute_calls_recorded++];
    call.function = function;
    call.fd = fd;
    copy_path(call.path, path);
}

} // namespace

// The library's attribute calls (and the tests' own) land here first, are
// noted while recording is on, and go on to the kernel unchanged.
extern "C" {

int chmod(const char *path, mode_t mode) {
    note_attribute_call("chmod", -1, path);
    return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

int fchmod(int fd, mode_t mode) {
    note_attribute_call("fchmod", fd, nullptr);
    return static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

int chown(const char *path, uid_t owner, gid_t group) {
    note_attribute_call("chown", -1, path);
    return static_cast<int>(syscall(SYS_fchownat, AT_FDCWD, path, owner, group, 0));
}

int fchown(int fd, uid_t owner, gid_t group) {
    note_attribute_call("fchown", fd, nullptr);
    return static_cast<int>(syscall(SYS_fchown, fd, owner, group));
}

int utime(const char *path, const struct utimbuf *times) {
    note_attribute_call("utime", -1, path);
    struct timespec both[2]{};
    both[0].tv_sec = times->actime;
    both[1].tv_sec = times->modtime;
    return static_cast<int>(syscall(SYS_utimensat, AT_FDCWD, path, both, 0));
}

int futimens(int fd, const struct timespec times[2]) {
    note_attribute_call("futimens", fd, nullptr);
    return static_cast<int>(syscall(SYS_utimensat, fd, nullptr, times, 0));
}

} // extern "C"

namespace {

// Records the attribute calls while it lives.
class attribute_call_recording {
  public:
    attribute_call_recording() {
        attribute_calls_recorded = 0;
        recording_attribute_calls = true;
    }
    ~attribute_call_recording() { recording_attribute_calls = false; }
    attribute_call_recording(const attribute_call_recording &) = delete;
    attribute_call_recording &operator=(const attribute_call_recording &) = delete;

    // "function(fd)" or "function(path)" for each call, in order.
    strings calls() const {
        strings all;
        for (int i = 0; i < attribute_calls_recorded; ++i) {
            const attribute_call &call = attribute_calls[i];
            all.push_back(std::string(call.function) + "(" +
                          (call.fd >= 0 ? std::to_string(call.fd) : std::string(call.path)) + ")");
        }
        return all;
    }
};

// Arms the swap for the next attribute call; disarmed again when it ends.
class link_swap_at_first_attribute_call {
  public:
    link_swap_at_first_attribute_call(const std::string &target, const std::string &moved,
                                      const std::string &victim) {
        copy_path(swap_target, target.c_str());
        copy_path(swap_moved, moved.c_str());
        copy_path(swap_victim, victim.c_str());
        swap_armed = true;
    }
    ~link_swap_at_first_attribute_call() { swap_armed = false; }
    link_swap_at_first_attribute_call(const link_swap_at_first_attribute_call &) = delete;
    link_swap_at_first_attribute_call &
    operator=(const link_swap_at_first_attribute_call &) = delete;
    bool happened() const { return !swap_armed; }
};

// A source with the given mode, owner and times (whole and half seconds).
void make_source(const std::string &path, mode_t mode, uid_t owner, gid_t group) {
    write_file(path, pattern(10000));
    ASSERT_EQ(chown(path.c_str(), owner, group), 0);
    // After the change of owner, which clears the set-id bits.
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    ASSERT_EQ(mode_of(path), mode);
    const struct timespec times[2] = {{1100000000, 250000000}, {1300000000, 500000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

void expect_attributes_of_source(const std::string &path, mode_t mode, uid_t owner, gid_t group) {
    const struct stat st = stat_of(path);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, mode);
    EXPECT_EQ(st.st_uid, owner);
    EXPECT_EQ(st.st_gid, group);
    EXPECT_EQ(st.st_atim.tv_sec, 1100000000);
    EXPECT_EQ(st.st_atim.tv_nsec, 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1300000000);
    EXPECT_EQ(st.st_mtim.tv_nsec, 0);
    EXPECT_EQ(read_file(path), pattern(10000));
}

TEST_F(QxCp, KeepAttributesKeepsSetUserIdOfASourceOwnedByAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving the source another owner needs root";
    make_source(file("src"), 04755, 4321, 8765);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), 0);
    expect_attributes_of_source(file("dst"), 04755, 4321, 8765);
}

TEST_F(QxCp, KeepAttributesKeepsSetGroupIdOfASourceOwnedByAnotherGroup) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving the source another owner needs root";
    make_source(file("src"), 02755, 4321, 8765);
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), 0);
    expect_attributes_of_source(file("dst"), 02755, 4321, 8765);
}

TEST_F(QxCp, KeepAttributesKeepsBothSetIdBitsOverAnExistingTarget) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving the source another owner needs root";
    make_source(file("src"), 06750, 4321, 8765);
    write_file(file("dst"), "older and other content");
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(),
                    QX_CP_OVERWRITE | QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE),
              0);
    expect_attributes_of_source(file("dst"), 06750, 4321, 8765);
}

// The attribute calls of one copy, each naming the descriptor of the target
// as "fd" rather than by its number.
strings attribute_calls_of_copy(const std::string &src, const std::string &dst, int flags) {
    fs_call_recording opens;
    attribute_call_recording attributes;
    EXPECT_EQ(qx_cp(src.c_str(), dst.c_str(), flags), 0);
    const auto target_opens = calls_to("open");
    const std::string target_fd =
        target_opens.empty() ? "none" : std::to_string(target_opens[0].fd);
    strings calls = attributes.calls();
    for (std::string &call : calls) {
        const std::string::size_type open = call.find('(');
        if (call.substr(open + 1, call.size() - open - 2) == target_fd)
            call = call.substr(0, open) + "(fd)";
    }
    return calls;
}

TEST_F(QxCp, KeepAttributesGoesThroughTheTargetDescriptorOnly) {
    const bool root = geteuid() == 0;
    const uid_t owner = root ? 4321 : geteuid();
    const gid_t group = root ? 8765 : getegid();
    make_source(file("plain"), 0640, owner, group);
    make_source(file("setid"), 06755, owner, group);

    // Mode, times and owner in that order, each on the open target.
    EXPECT_EQ(attribute_calls_of_copy(file("plain"), file("plain-copy"), QX_CP_KEEP_ATTRIBUTES),
              (strings{"fchmod(fd)", "futimens(fd)", "fchown(fd)"}));
    // The mode once more after the owner, for the set-id bits.
    EXPECT_EQ(attribute_calls_of_copy(file("setid"), file("setid-copy"),
                                      QX_CP_OVERWRITE | QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE),
              (strings{"fchmod(fd)", "futimens(fd)", "fchown(fd)", "fchmod(fd)"}));
    // Without the flag no attribute call is made at all.
    EXPECT_EQ(attribute_calls_of_copy(file("setid"), file("bare-copy"), QX_CP_DURABLE), strings{});
}

TEST_F(QxCp, KeepAttributesCannotBeRedirectedByALinkSwappedInAtTheTarget) {
    const bool root = geteuid() == 0;
    const uid_t owner = root ? 4321 : geteuid();
    const gid_t group = root ? 8765 : getegid();
    make_source(file("src"), root ? 04711 : 0711, owner, group);
    // The file an attacker would like changed: its own mode, owner and times.
    write_file(file("victim"), "not to be touched");
    ASSERT_EQ(chmod(file("victim").c_str(), 0600), 0);
    const struct timespec victim_times[2] = {{900000000, 0}, {950000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file("victim").c_str(), victim_times, 0), 0);
    const struct stat before = stat_of(file("victim"));

    {
        link_swap_at_first_attribute_call swap(file("dst"), file("moved"), file("victim"));
        EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_KEEP_ATTRIBUTES), 0);
        ASSERT_TRUE(swap.happened());
    }

    const struct stat after = stat_of(file("victim"));
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(after.st_atim.tv_sec, 900000000);
    EXPECT_EQ(after.st_mtim.tv_sec, 950000000);
    EXPECT_EQ(read_file(file("victim")), "not to be touched");
    // The copy itself, moved aside, got every attribute.
    expect_attributes_of_source(file("moved"), root ? 04711 : 0711, owner, group);
}

// ---- qx_cp: durable ------------------------------------------------------

TEST_F(QxCp, DurableCopyIntoTheWorkingDirectorySyncsDot) {
    write_file(file("src"), pattern(12345));
    enter_test_directory();
    EXPECT_EQ(qx_cp("src", "copy", QX_CP_DURABLE), 0);
    EXPECT_EQ(read_file(file("copy")), pattern(12345));
}

TEST_F(QxCp, DurableCopyIsRemovedWhenItsDirectoryCannotBeOpened) {
    write_file(file("src"), pattern(10000));
    make_directory(file("drop"));
    ASSERT_EQ(chown(file("drop").c_str(), unprivileged_uid(), unprivileged_gid()), 0);
    // Write and search but no read: a file can be made there, the directory
    // cannot be opened.
    ASSERT_EQ(chmod(file("drop").c_str(), 0300), 0);
    open_test_directory_for_passing();
    const std::string src = file("src");
    const std::string plain = file("drop/plain");
    const std::string durable = file("drop/durable");

    const child_report without = run_in_child(true, [&] {
        child_report r;
        r.result = qx_cp(src.c_str(), plain.c_str(), 0);
        r.error = errno;
        return r;
    });
    ASSERT_TRUE(without.ran) << "cannot become an unprivileged user";
    EXPECT_EQ(without.result, 0);
    EXPECT_EQ(read_file(plain), pattern(10000));

    const child_report with = run_in_child(true, [&] {
        child_report r;
        errno = 0;
        r.result = qx_cp(src.c_str(), durable.c_str(), QX_CP_DURABLE);
        r.error = errno;
        return r;
    });
    ASSERT_TRUE(with.ran);
    EXPECT_EQ(with.result, -1);
    EXPECT_EQ(with.error, EACCES);
    EXPECT_FALSE(file_exists(durable));
}

// ---- qx_cp: how the files are opened ------------------------------------

// The opens of one copy: target, source, and with QX_CP_DURABLE the
// directory.
std::vector<fs_call> opens_of_copy(const std::string &src, const std::string &dst, int flags,
                                   int expected_result = 0) {
    fs_call_recording recording;
    EXPECT_EQ(qx_cp(src.c_str(), dst.c_str(), flags), expected_result);
    return calls_to("open");
}

TEST_F(QxCp, WithoutFlagsOpensANewTargetExclusivelyWithMode0644) {
    write_file(file("src"), "x");
    const auto opens = opens_of_copy(file("src"), file("dst"), 0);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].path, file("dst"));
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_CREAT | O_TRUNC | O_EXCL);
    EXPECT_EQ(opens[0].mode, 0644u);
    EXPECT_EQ(opens[1].path, file("src"));
    EXPECT_EQ(opens[1].flags, O_RDONLY);
    EXPECT_TRUE(calls_to("fsync").empty());
}

TEST_F(QxCp, OverwriteOpensTheTargetWithoutExclusion) {
    write_file(file("src"), "x");
    const auto opens = opens_of_copy(file("src"), file("dst"), QX_CP_OVERWRITE);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_CREAT | O_TRUNC);
}

TEST_F(QxCp, KeepAttributesCreatesTheTargetWithTheSourceMode) {
    write_file(file("src"), "x");
    ASSERT_EQ(chmod(file("src").c_str(), 0604), 0);
    const auto opens = opens_of_copy(file("src"), file("dst"), QX_CP_KEEP_ATTRIBUTES);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_CREAT | O_TRUNC | O_EXCL);
    EXPECT_EQ(opens[0].mode & 07777, 0604u);
}

TEST_F(QxCp, DurableWritesSynchronouslyAndSyncsTheTargetDirectory) {
    write_file(file("src"), pattern(9000));
    make_directory(file("sub"));
    const auto opens = opens_of_copy(file("src"), file("sub/dst"), QX_CP_DURABLE);
    ASSERT_EQ(opens.size(), 3u);
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_CREAT | O_TRUNC | O_EXCL | O_SYNC);
    EXPECT_EQ(opens[2].path, file("sub"));
    EXPECT_EQ(opens[2].flags, O_RDONLY | O_DIRECTORY);
    ASSERT_GE(opens[2].fd, 0);
    const auto syncs = calls_to("fsync");
    ASSERT_EQ(syncs.size(), 1u);
    EXPECT_EQ(syncs[0].fd, opens[2].fd);
}

TEST_F(QxCp, DurableSyncsTheDirectoryOfARelativeTargetByItsName) {
    write_file(file("src"), "x");
    make_directory(file("sub"));
    enter_test_directory();
    const auto nested = opens_of_copy("src", "sub//dst", QX_CP_DURABLE);
    ASSERT_EQ(nested.size(), 3u);
    EXPECT_EQ(nested[2].path, "sub");
    const auto here = opens_of_copy("src", "dst", QX_CP_DURABLE);
    ASSERT_EQ(here.size(), 3u);
    EXPECT_EQ(here[2].path, ".");
}

TEST_F(QxCp, AllFlagsTogetherOpenTheTargetWithEveryBitsFlags) {
    write_file(file("src"), "x");
    const auto opens = opens_of_copy(file("src"), file("dst"), 7);
    ASSERT_EQ(opens.size(), 3u);
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC);
}

TEST_F(QxCp, FailureBeforeTheTargetOpensNothing) {
    const auto opens = opens_of_copy(file("missing"), file("dst"), 0, -1);
    EXPECT_TRUE(opens.empty());
}

// ---- qx_cp: failures -----------------------------------------------------

TEST_F(QxCp, OfAMissingSourceFailsWithEnoentAndMakesNoTarget) {
    errno = 0;
    EXPECT_EQ(qx_cp(file("missing").c_str(), file("dst").c_str(), QX_CP_OVERWRITE), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCp, OfADanglingSourceLinkFailsWithEnoent) {
    make_link(file("nowhere"), file("link"));
    errno = 0;
    EXPECT_EQ(qx_cp(file("link").c_str(), file("dst").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCp, IntoAMissingDirectoryFailsWithEnoent) {
    write_file(file("src"), "x");
    errno = 0;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("no/dst").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(QxCp, ThroughARegularFileFailsWithEnotdir) {
    write_file(file("src"), "x");
    write_file(file("plain"), "x");
    errno = 0;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("plain/dst").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_EQ(qx_cp(file("plain/src").c_str(), file("dst").c_str(), 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(file_exists(file("dst")));
}

// A socket can be stat'ed but not opened (ENXIO): the copy fails after the
// target was opened.
class QxCpUnopenableSource : public Dirtree {
  protected:
    void SetUp() override {
        Dirtree::SetUp();
        socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_GE(socket_, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = file("socket");
        ASSERT_LT(path.size(), sizeof address.sun_path);
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void TearDown() override {
        close(socket_);
        Dirtree::TearDown();
    }

  private:
    int socket_ = -1;
};

TEST_F(QxCpUnopenableSource, RemovesTheNewTargetAndKeepsTheErrnoOfTheOpen) {
    errno = 0;
    EXPECT_EQ(qx_cp(file("socket").c_str(), file("dst").c_str(), 0), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCpUnopenableSource, WithOverwriteLosesTheOldTargetToo) {
    write_file(file("dst"), "precious");
    errno = 0;
    EXPECT_EQ(qx_cp(file("socket").c_str(), file("dst").c_str(), QX_CP_OVERWRITE), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCp, ReadErrorRemovesTheTargetAndKeepsTheErrnoOfTheRead) {
    make_directory(file("a-directory"));
    errno = 0;
    EXPECT_EQ(qx_cp(file("a-directory").c_str(), file("dst").c_str(), 0), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(file_exists(file("dst")));
    EXPECT_TRUE(is_directory(file("a-directory")));
}

TEST_F(QxCp, WriteErrorRemovesTheTargetAndKeepsTheErrnoOfTheWrite) {
    struct stat full {};
    if (stat("/dev/full", &full) != 0 || !S_ISCHR(full.st_mode))
        GTEST_SKIP() << "/dev/full is not available";
    write_file(file("src"), pattern(100));
    // The target is a link in the test directory, so the removal takes the
    // link and never the device.
    make_link("/dev/full", file("dst"));
    errno = 0;
    EXPECT_EQ(qx_cp(file("src").c_str(), file("dst").c_str(), QX_CP_OVERWRITE), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(file_exists(file("dst")));
    EXPECT_EQ(stat("/dev/full", &full), 0);
}

// Copies under a file size limit in a child, so that the limit stays there.
child_report copy_under_size_limit(const std::string &src, const std::string &dst, rlim_t limit) {
    return run_in_child(false, [&] {
        child_report r;
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl {};
        getrlimit(RLIMIT_FSIZE, &rl);
        rl.rlim_cur = limit;
        if (setrlimit(RLIMIT_FSIZE, &rl) != 0) {
            r.result = -99;
            return r;
        }
        errno = 0;
        r.result = qx_cp(src.c_str(), dst.c_str(), 0);
        r.error = errno;
        return r;
    });
}

TEST_F(QxCp, ShortWriteCountsAsAFailureAndRemovesTheTarget) {
    write_file(file("src"), pattern(20000));
    // The second chunk can only be written in part.
    const child_report report = copy_under_size_limit(file("src"), file("dst"), 10000);
    ASSERT_TRUE(report.ran);
    EXPECT_EQ(report.result, -1);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCp, WriteRefusedAtTheSizeLimitFailsWithEfbig) {
    write_file(file("src"), pattern(16384));
    // The first chunk fills the limit exactly; the second gets nothing.
    const child_report report = copy_under_size_limit(file("src"), file("dst"), 8192);
    ASSERT_TRUE(report.ran);
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.error, EFBIG);
    EXPECT_FALSE(file_exists(file("dst")));
}

TEST_F(QxCp, UnderTheSizeLimitTheSameCopySucceeds) {
    write_file(file("src"), pattern(16384));
    const child_report report = copy_under_size_limit(file("src"), file("dst"), 16384);
    ASSERT_TRUE(report.ran);
    EXPECT_EQ(report.result, 0);
    EXPECT_EQ(read_file(file("dst")), pattern(16384));
}

// ---- qx_pmkdir -----------------------------------------------------------

TEST_F(QxPmkdir, OfARelativePathWithDoubledAndTrailingSlashesCreatesEveryLevel) {
    enter_test_directory();
    EXPECT_EQ(qx_pmkdir("a//b/", 0755), 0);
    EXPECT_TRUE(is_directory(file("a")));
    EXPECT_TRUE(is_directory(file("a/b")));
    EXPECT_EQ(entries_of(dir_.path()), strings{"a"});
    EXPECT_EQ(entries_of(file("a")), strings{"b"});
    EXPECT_EQ(entries_of(file("a/b")), strings{});
}

TEST_F(QxPmkdir, OfARelativePathCreatesEachParentAndTheLeaf) {
    enter_test_directory();
    EXPECT_EQ(qx_pmkdir("one/two/three", 0755), 0);
    EXPECT_TRUE(is_directory(file("one/two/three")));
    EXPECT_EQ(entries_of(file("one")), strings{"two"});
    EXPECT_EQ(entries_of(file("one/two")), strings{"three"});
}

TEST_F(QxPmkdir, OfAnAbsolutePathWithRunsOfSlashesCreatesEachLevelOnce) {
    const std::string path = dir_.path() + "//x///y////z";
    EXPECT_EQ(qx_pmkdir(path.c_str(), 0700), 0);
    EXPECT_TRUE(is_directory(file("x/y/z")));
    EXPECT_EQ(entries_of(dir_.path()), strings{"x"});
    EXPECT_EQ(entries_of(file("x")), strings{"y"});
    EXPECT_EQ(entries_of(file("x/y")), strings{"z"});
}

TEST_F(QxPmkdir, OfAPathEndingInSeveralSlashesCreatesTheLastLevel) {
    const std::string path = dir_.path() + "/p/q///";
    EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_directory(file("p/q")));
    EXPECT_EQ(entries_of(file("p/q")), strings{});
}

TEST_F(QxPmkdir, OfAnEmptyStringReturnsZeroAndCreatesNothing) {
    enter_test_directory();
    EXPECT_EQ(qx_pmkdir("", 0755), 0);
    EXPECT_EQ(entries_of(dir_.path()), strings{});
}

TEST_F(QxPmkdir, OfTheRootReturnsZero) {
    EXPECT_EQ(qx_pmkdir("/", 0755), 0);
    EXPECT_EQ(qx_pmkdir("///", 0755), 0);
}

TEST_F(QxPmkdir, OfAnExistingDirectoryReturnsZero) {
    const std::string path = file("d/e");
    EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(qx_pmkdir(dir_.path().c_str(), 0755), 0);
    EXPECT_TRUE(is_directory(path));
}

TEST_F(QxPmkdir, OfAnExistingFileAtTheFullPathReturnsZeroAndLeavesIt) {
    write_file(file("d-file"), "content");
    EXPECT_EQ(qx_pmkdir(file("d-file").c_str(), 0755), 0);
    EXPECT_EQ(read_file(file("d-file")), "content");
}

TEST_F(QxPmkdir, WhosePathRunsThroughARegularFileFailsWithEnotdir) {
    write_file(file("f"), "content");
    errno = 0;
    EXPECT_EQ(qx_pmkdir(file("f/sub").c_str(), 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
    const std::string deeper = file("f/sub/deeper");
    {
        fs_call_recording recording;
        errno = 0;
        EXPECT_EQ(qx_pmkdir(deeper.c_str(), 0755), -1);
        EXPECT_EQ(errno, ENOTDIR);
    }
    const strings paths = paths_of(calls_to("mkdir"));
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths.back(), file("f/sub/"));
    EXPECT_EQ(read_file(file("f")), "content");
}

TEST_F(QxPmkdir, StopsAtTheFirstFailureOtherThanEexist) {
    // A name longer than a directory entry may be.
    const std::string too_long(300, 'n');
    const std::string path = file("made/" + too_long + "/never");
    {
        fs_call_recording recording;
        errno = 0;
        EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
    }
    const strings paths = paths_of(calls_to("mkdir"));
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths.back(), file("made/" + too_long + "/"));
    EXPECT_TRUE(is_directory(file("made")));
    EXPECT_EQ(entries_of(file("made")), strings{});
}

TEST_F(QxPmkdir, GivesEveryNewLevelTheModeLessTheUmask) {
    EXPECT_EQ(qx_pmkdir(file("m1/m2").c_str(), 0777), 0);
    EXPECT_EQ(mode_of(file("m1")), 0755u);
    EXPECT_EQ(mode_of(file("m1/m2")), 0755u);
    umask(0);
    EXPECT_EQ(qx_pmkdir(file("n1/n2/").c_str(), 0710), 0);
    EXPECT_EQ(mode_of(file("n1")), 0710u);
    EXPECT_EQ(mode_of(file("n1/n2")), 0710u);
}

TEST_F(QxPmkdir, LeavesTheModeOfExistingLevelsAlone) {
    make_directory(file("old"), 0700);
    EXPECT_EQ(qx_pmkdir(file("old/new").c_str(), 0755), 0);
    EXPECT_EQ(mode_of(file("old")), 0700u);
    EXPECT_EQ(mode_of(file("old/new")), 0755u);
}

TEST_F(QxPmkdir, WithoutWritePermissionFailsWithEacces) {
    make_directory(file("locked"), 0555);
    open_test_directory_for_passing();
    const std::string path = file("locked/a/b");
    const child_report report = run_in_child(true, [&] {
        child_report r;
        errno = 0;
        r.result = qx_pmkdir(path.c_str(), 0755);
        r.error = errno;
        return r;
    });
    ASSERT_TRUE(report.ran) << "cannot become an unprivileged user";
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.error, EACCES);
    EXPECT_EQ(entries_of(file("locked")), strings{});
}

TEST_F(QxPmkdir, UsesOnlyTheFirst4095BytesOfThePath) {
    std::string path = dir_.path();
    while (path.size() < 4095 + 40)
        path += "/abcdefghi";
    const std::string kept = path.substr(0, 4095);
    // Whatever the cut leaves as the last name is created, and nothing below.
    EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), 0);
    EXPECT_TRUE(is_directory(kept));
    EXPECT_EQ(entries_of(kept), strings{});
}

TEST_F(QxPmkdir, MakesEachPrefixWithItsTrailingSlashThenTheWholePath) {
    enter_test_directory();
    {
        fs_call_recording recording;
        EXPECT_EQ(qx_pmkdir("a/b/c", 0750), 0);
    }
    const auto calls = calls_to("mkdir");
    EXPECT_EQ(paths_of(calls), (strings{"a/", "a/b/", "a/b/c"}));
    for (const fs_call &call : calls)
        EXPECT_EQ(call.mode, 0750u) << call.path;
}

TEST_F(QxPmkdir, TreatsARunOfSlashesAsOne) {
    enter_test_directory();
    {
        fs_call_recording recording;
        EXPECT_EQ(qx_pmkdir("a//b///c", 0755), 0);
    }
    EXPECT_EQ(paths_of(calls_to("mkdir")), (strings{"a//", "a//b///", "a//b///c"}));
}

TEST_F(QxPmkdir, EndsWithTheWholePathWhenItEndsInASlash) {
    enter_test_directory();
    {
        fs_call_recording recording;
        EXPECT_EQ(qx_pmkdir("a//b/", 0755), 0);
    }
    const strings paths = paths_of(calls_to("mkdir"));
    ASSERT_GE(paths.size(), 2u);
    EXPECT_EQ(paths.front(), "a//");
    EXPECT_EQ(paths.back(), "a//b/");
    for (const std::string &path : paths)
        EXPECT_TRUE(path == "a//" || path == "a//b/") << path;
}

TEST_F(QxPmkdir, StartsAnAbsolutePathAtTheRoot) {
    const std::string path = dir_.path() + "/x";
    {
        fs_call_recording recording;
        EXPECT_EQ(qx_pmkdir(path.c_str(), 0755), 0);
    }
    const strings paths = paths_of(calls_to("mkdir"));
    ASSERT_GE(paths.size(), 2u);
    EXPECT_EQ(paths.front(), "/");
    EXPECT_EQ(paths[paths.size() - 2], dir_.path() + "/");
    EXPECT_EQ(paths.back(), path);
}

TEST_F(QxPmkdir, MakesNoCallForAnEmptyPath) {
    fs_call_recording recording;
    EXPECT_EQ(qx_pmkdir("", 0755), 0);
    EXPECT_TRUE(calls_to("mkdir").empty());
}

TEST_F(QxPmkdir, MakesNoAllocation) {
    const std::string path = file("g/h/i");
    qx_test::fail_allocation(0, true);
    const int result = qx_pmkdir(path.c_str(), 0755);
    const long seen = qx_test::allocations_seen();
    qx_test::stop_failing_allocations();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(seen, 0);
    EXPECT_TRUE(is_directory(file("g/h/i")));
}

// ---- qx_rrmdir -----------------------------------------------------------

// tree/
//   file, empty/, sub/ (inner, deeper/ (leaf, void/))
void make_tree(const std::string &root) {
    make_directory(root);
    write_file(root + "/file", "f");
    make_directory(root + "/empty");
    make_directory(root + "/sub");
    write_file(root + "/sub/inner", "i");
    make_directory(root + "/sub/deeper");
    write_file(root + "/sub/deeper/leaf", "l");
    make_directory(root + "/sub/deeper/void");
}

TEST_F(QxRrmdir, RemovesATreeWithFilesAndEmptyDirectories) {
    make_tree(file("tree"));
    EXPECT_EQ(qx_rrmdir(file("tree").c_str()), 0);
    EXPECT_FALSE(file_exists(file("tree")));
    EXPECT_EQ(entries_of(dir_.path()), strings{});
}

TEST_F(QxRrmdir, RemovesAnEmptyDirectory) {
    make_directory(file("empty"));
    EXPECT_EQ(qx_rrmdir(file("empty").c_str()), 0);
    EXPECT_FALSE(file_exists(file("empty")));
}

TEST_F(QxRrmdir, RemovesASingleFile) {
    write_file(file("single"), "s");
    EXPECT_EQ(qx_rrmdir(file("single").c_str()), 0);
    EXPECT_FALSE(file_exists(file("single")));
}

TEST_F(QxRrmdir, RemovesATreeDeeperThanItsDescriptorLimit) {
    std::string path = file("deep");
    make_directory(path);
    for (int level = 0; level < 25; ++level) {
        path += "/d";
        make_directory(path);
        write_file(path + "/f", "x");
    }
    EXPECT_EQ(qx_rrmdir(file("deep").c_str()), 0);
    EXPECT_FALSE(file_exists(file("deep")));
}

TEST_F(QxRrmdir, OfARelativePathRemovesIt) {
    make_tree(file("tree"));
    enter_test_directory();
    EXPECT_EQ(qx_rrmdir("tree"), 0);
    EXPECT_EQ(entries_of(dir_.path()), strings{});
}

TEST_F(QxRrmdir, OfTheRootReturnsMinusOneAndRemovesNothing) {
    // Confined to the test directory, so that a wrong answer could cost
    // nothing outside it.
    make_directory(file("jail"));
    write_file(file("jail/canary"), "alive");
    make_directory(file("jail/nest"));
    const std::string jail = file("jail");
    const child_report report = run_in_child(false, [&] {
        child_report r;
        if (chroot(jail.c_str()) != 0 || chdir("/") != 0) {
            r.result = -99;
            return r;
        }
        r.result = qx_rrmdir("/");
        r.error = errno;
        return r;
    });
    ASSERT_TRUE(report.ran);
    if (report.result == -99)
        GTEST_SKIP() << "the test cannot confine itself with chroot (needs root)";
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(read_file(file("jail/canary")), "alive");
    EXPECT_TRUE(is_directory(file("jail/nest")));
}

TEST_F(QxRrmdir, OfNullReturnsMinusOne) {
    EXPECT_EQ(qx_rrmdir(nullptr), -1);
}

TEST_F(QxRrmdir, OfAMissingPathReturnsMinusOneWithEnoent) {
    errno = 0;
    EXPECT_EQ(qx_rrmdir(file("missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(QxRrmdir, RemovesALinkToAFileButNotTheFile) {
    write_file(file("kept"), "kept");
    make_directory(file("tree"));
    make_link(file("kept"), file("tree/link"));
    EXPECT_EQ(qx_rrmdir(file("tree").c_str()), 0);
    EXPECT_FALSE(file_exists(file("tree")));
    EXPECT_EQ(read_file(file("kept")), "kept");
}

TEST_F(QxRrmdir, RemovesADanglingLink) {
    make_directory(file("tree"));
    make_link(file("nowhere"), file("tree/dangling"));
    EXPECT_EQ(qx_rrmdir(file("tree").c_str()), 0);
    EXPECT_FALSE(file_exists(file("tree")));
}

TEST_F(QxRrmdir, RemovesLinksInTheTreeAsLinksAndLeavesWhatTheyPointTo) {
    // Everything, the outside entries included, lives in the test directory.
    make_directory(file("outside"));
    write_file(file("outside/one"), "1");
    make_directory(file("outside/inner"));
    write_file(file("outside/inner/two"), "2");
    write_file(file("lone"), "lone file");
    make_tree(file("tree"));
    make_link(file("outside"), file("tree/dir-link"));
    make_link(file("outside/inner"), file("tree/sub/deeper/inner-link"));
    make_link(file("lone"), file("tree/sub/file-link"));
    make_link("../../outside", file("tree/sub/relative-link"));

    EXPECT_EQ(qx_rrmdir(file("tree").c_str()), 0);

    EXPECT_FALSE(file_exists(file("tree")));
    EXPECT_EQ(entries_of(dir_.path()), (strings{"lone", "outside"}));
    EXPECT_EQ(entries_of(file("outside")), (strings{"inner", "one"}));
    EXPECT_EQ(read_file(file("outside/one")), "1");
    EXPECT_EQ(entries_of(file("outside/inner")), strings{"two"});
    EXPECT_EQ(read_file(file("outside/inner/two")), "2");
    EXPECT_EQ(read_file(file("lone")), "lone file");
}

TEST_F(QxRrmdir, OfALinkToADirectoryRemovesTheLinkOnly) {
    make_directory(file("outside"));
    write_file(file("outside/one"), "1");
    make_link(file("outside"), file("link"));
    EXPECT_EQ(qx_rrmdir(file("link").c_str()), 0);
    EXPECT_FALSE(file_exists(file("link")));
    EXPECT_EQ(read_file(file("outside/one")), "1");
}

// What is left of the scratch file system after one qx_rrmdir call made
// inside it: each bit one entry that survived.
constexpr long scratch_canary = 1;
constexpr long scratch_nest = 2;
constexpr long scratch_inner = 4;
constexpr long scratch_link = 8;
constexpr long scratch_all = scratch_canary | scratch_nest | scratch_inner | scratch_link;
constexpr int scratch_unavailable = -99;

long scratch_survivors() {
    long left = 0;
    if (file_exists("/canary") && read_file("/canary") == "alive")
        left |= scratch_canary;
    if (is_directory("/nest"))
        left |= scratch_nest;
    if (file_exists("/nest/inner") && read_file("/nest/inner") == "inner")
        left |= scratch_inner;
    struct stat st {};
    if (lstat("/root-link", &st) == 0 && S_ISLNK(st.st_mode))
        left |= scratch_link;
    return left;
}

// Calls qx_rrmdir(path) in a child that has its own mount namespace, a
// fresh tmpfs mounted at mount_point and that tmpfs as its root directory,
// with the working directory at that root. Whatever the call removes, it can
// only be the scratch file system's contents: the real root stays out of
// reach. The report's result is scratch_unavailable when the child cannot
// set this up (no permission to unshare or mount).
child_report rrmdir_in_scratch_root(const std::string &mount_point, const char *path) {
    return run_in_child(false, [&] {
        child_report r;
        r.result = scratch_unavailable;
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("qx-scratch", mount_point.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                  "size=1m,mode=0755") != 0)
            return r;
        if (chroot(mount_point.c_str()) != 0 || chdir("/") != 0)
            return r;
        write_file("/canary", "alive");
        if (mkdir("/nest", 0755) != 0 || symlink("/", "/root-link") != 0)
            return r;
        write_file("/nest/inner", "inner");
        if (scratch_survivors() != scratch_all)
            return r;
        errno = 0;
        r.result = qx_rrmdir(path);
        r.error = errno;
        r.extra = scratch_survivors();
        return r;
    });
}

TEST_F(QxRrmdir, OfAnyPathNamingTheRootReturnsMinusOneAndRemovesNothing) {
    make_directory(file("scratch"));
    for (const char *path :
         {"/", "//", "///", "/.", "/./.", "/..", "/../", "/../..", "/.//./", "/nest/..", "nest/..",
          ".", "./", "..", "/root-link/", "root-link/.", "/nest/../root-link/"}) {
        SCOPED_TRACE(path);
        const child_report report = rrmdir_in_scratch_root(file("scratch"), path);
        ASSERT_TRUE(report.ran);
        if (report.result == scratch_unavailable)
            GTEST_SKIP() << "the test cannot confine itself to a scratch tmpfs "
                            "(unshare or mount refused)";
        EXPECT_EQ(report.result, -1);
        EXPECT_EQ(report.extra, scratch_all);
    }
    // Nothing was ever mounted or written here, outside the children.
    EXPECT_EQ(entries_of(file("scratch")), strings{});
}

TEST_F(QxRrmdir, OfALinkToTheRootRemovesOnlyTheLink) {
    make_directory(file("scratch"));
    const child_report report = rrmdir_in_scratch_root(file("scratch"), "/root-link");
    ASSERT_TRUE(report.ran);
    if (report.result == scratch_unavailable)
        GTEST_SKIP() << "the test cannot confine itself to a scratch tmpfs "
                        "(unshare or mount refused)";
    EXPECT_EQ(report.result, 0);
    EXPECT_EQ(report.extra, scratch_all & ~scratch_link);
}

TEST_F(QxRrmdir, StopsWithTheResultOfAFailingRemoval) {
    if (geteuid() != 0)
        GTEST_SKIP() << "the tree belongs to the test's own user, who may remove it";
    make_tree(file("tree"));
    open_test_directory_for_passing();
    const std::string tree = file("tree");
    // Another user may walk the tree but remove nothing in it.
    const child_report report = run_in_child(true, [&] {
        child_report r;
        errno = 0;
        r.result = qx_rrmdir(tree.c_str());
        r.error = errno;
        return r;
    });
    ASSERT_TRUE(report.ran) << "cannot become an unprivileged user";
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.error, EACCES);
    EXPECT_EQ(read_file(file("tree/sub/deeper/leaf")), "l");
    EXPECT_EQ(entries_of(tree), (strings{"empty", "file", "sub"}));
}

TEST_F(QxRrmdir, FailsWhenAnAllocationOfTheWalkFailsAndFinishesLater) {
    const std::string tree = file("tree");
    const long clean_run = qx_test::sweep_allocation_failures([&](long n) {
        make_tree(tree);
        fd_snapshot fds;
        const int result = qx_test::call_with_failing_allocation(n, [&] {
            walk_leaks_ignored not_ours;
            return qx_rrmdir(tree.c_str());
        });
        if (qx_test::allocation_was_failed()) {
            EXPECT_EQ(result, -1) << n;
        } else {
            EXPECT_EQ(result, 0);
        }
        EXPECT_TRUE(fds.unchanged()) << n;
        if (file_exists(tree)) {
            EXPECT_EQ(qx_rrmdir(tree.c_str()), 0) << n;
        }
        EXPECT_FALSE(file_exists(tree));
    });
    // The walk allocates at least its directory buffer.
    EXPECT_GE(clean_run, 1);
}

// ---- create_tempfile -----------------------------------------------------

std::string expected_name(const std::string &dir, std::time_t t, int attempt) {
    const std::string base =
        std::to_string(t) + "." + std::to_string(getpid()) + "." + std::to_string(attempt);
    return dir.empty() ? base : dir + "/" + base;
}

// Whether name is expected_name(dir, t, attempt) for a t in [from, to].
bool named_within(const std::string &name, const std::string &dir, std::time_t from, std::time_t to,
                  int attempt) {
    for (std::time_t t = from; t <= to; ++t) {
        if (name == expected_name(dir, t, attempt))
            return true;
    }
    return false;
}

// Occupies the names of the given attempts for this second and the next
// two, so that a call that crosses a second boundary finds them too.
void occupy_names(const std::string &dir, int first, int last) {
    const std::time_t now = std::time(nullptr);
    for (std::time_t t = now; t <= now + 2; ++t) {
        for (int attempt = first; attempt <= last; ++attempt)
            write_file(expected_name(dir, t, attempt), "taken");
    }
}

TEST_F(CreateTempfile, FirstTriesDirTimePidAndZero) {
    char *name = nullptr;
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(dir_.path().c_str(), O_RDWR, 0600, &name);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_NE(name, nullptr);
    EXPECT_TRUE(named_within(name, dir_.path(), before, after, 0)) << name;
    const struct stat st = stat_of(name);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    // The descriptor is open with the caller's flags.
    EXPECT_EQ(write(fd, "abc", 3), 3);
    char back[4] = {};
    EXPECT_EQ(pread(fd, back, 3, 0), 3);
    EXPECT_STREQ(back, "abc");
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(read_file(name), "abc");
    std::free(name);
}

TEST_F(CreateTempfile, TriesTheNextCounterWhenTheNameExists) {
    occupy_names(dir_.path(), 0, 0);
    char *name = nullptr;
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, &name);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_NE(name, nullptr);
    EXPECT_TRUE(named_within(name, dir_.path(), before, after, 1)) << name;
    EXPECT_EQ(read_file(name), "");
    close(fd);
    std::free(name);
}

TEST_F(CreateTempfile, SucceedsOnTheTwentiethAttempt) {
    occupy_names(dir_.path(), 0, 18);
    char *name = nullptr;
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, &name);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_NE(name, nullptr);
    EXPECT_TRUE(named_within(name, dir_.path(), before, after, 19)) << name;
    close(fd);
    std::free(name);
}

TEST_F(CreateTempfile, GivesUpAfterTwentyAttemptsWithTheErrnoOfTheLastOpen) {
    occupy_names(dir_.path(), 0, 19);
    const strings before = entries_of(dir_.path());
    char *name = reinterpret_cast<char *>(0x1);
    qx_test::fail_allocation(1L << 40);
    errno = 0;
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, &name);
    const int error = errno;
    const long attempts = qx_test::allocations_seen();
    qx_test::stop_failing_allocations();
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(error, EEXIST);
    EXPECT_EQ(attempts, 20);
    EXPECT_EQ(name, reinterpret_cast<char *>(0x1));
    EXPECT_EQ(entries_of(dir_.path()), before);
}

TEST_F(CreateTempfile, InAMissingDirectoryMakesTwentyAttemptsAndFailsWithEnoent) {
    const std::string missing = file("missing");
    qx_test::fail_allocation(1L << 40);
    errno = 0;
    const int fd = create_tempfile(missing.c_str(), O_WRONLY, 0600, nullptr);
    const int error = errno;
    const long attempts = qx_test::allocations_seen();
    qx_test::stop_failing_allocations();
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(error, ENOENT);
    EXPECT_EQ(attempts, 20);
}

TEST_F(CreateTempfile, InADirectoryWithoutWritePermissionMakesTwentyAttemptsAndFailsWithEacces) {
    make_directory(file("locked"), 0555);
    open_test_directory_for_passing();
    const std::string locked = file("locked");
    const child_report report = run_in_child(true, [&] {
        child_report r;
        qx_test::fail_allocation(1L << 40);
        errno = 0;
        r.result = create_tempfile(locked.c_str(), O_WRONLY, 0600, nullptr);
        r.error = errno;
        r.extra = qx_test::allocations_seen();
        qx_test::stop_failing_allocations();
        return r;
    });
    ASSERT_TRUE(report.ran) << "cannot become an unprivileged user";
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.error, EACCES);
    EXPECT_EQ(report.extra, 20);
    EXPECT_EQ(entries_of(locked), strings{});
}

TEST_F(CreateTempfile, WithoutDirCreatesTheFileInTheWorkingDirectory) {
    enter_test_directory();
    char *name = nullptr;
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(nullptr, O_WRONLY, 0600, &name);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_NE(name, nullptr);
    EXPECT_TRUE(named_within(name, "", before, after, 0)) << name;
    EXPECT_EQ(entries_of(dir_.path()), strings{name});
    close(fd);
    std::free(name);
}

TEST_F(CreateTempfile, WithoutNameOutFreesTheNameAndStillCreatesTheFile) {
    const std::size_t heap_before = qx_test::heap_bytes_in_use();
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, nullptr);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    QX_EXPECT_HEAP_AT(heap_before);
    close(fd);
    const strings names = entries_of(dir_.path());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(named_within(names[0], "", before, after, 0)) << names[0];
}

TEST_F(CreateTempfile, AppliesTheModeLessTheUmask) {
    char *name = nullptr;
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0666, &name);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(mode_of(name), 0644u);
    close(fd);
    std::free(name);
    umask(0);
    const int second = create_tempfile(dir_.path().c_str(), O_WRONLY, 0640, &name);
    ASSERT_GE(second, 0);
    EXPECT_EQ(mode_of(name), 0640u);
    close(second);
    std::free(name);
}

TEST_F(CreateTempfile, AddsCreateAndExclusiveToTheCallersFlagsAndPassesTheMode) {
    int fd = -1;
    {
        fs_call_recording recording;
        fd = create_tempfile(dir_.path().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC, 0640, nullptr);
    }
    ASSERT_GE(fd, 0);
    close(fd);
    const auto opens = calls_to("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].flags, O_WRONLY | O_APPEND | O_CLOEXEC | O_CREAT | O_EXCL);
    EXPECT_EQ(opens[0].mode, 0640u);
    EXPECT_EQ(opens[0].fd, fd);
}

TEST_F(CreateTempfile, CountsItsAttemptsFromZeroToNineteen) {
    const std::string missing = file("missing");
    {
        fs_call_recording recording;
        EXPECT_EQ(create_tempfile(missing.c_str(), O_WRONLY, 0600, nullptr), -1);
    }
    const auto opens = calls_to("open");
    ASSERT_EQ(opens.size(), 20u);
    const std::string pid = "." + std::to_string(getpid()) + ".";
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::string &name = opens[static_cast<std::size_t>(attempt)].path;
        const std::string ending = pid + std::to_string(attempt);
        ASSERT_GT(name.size(), missing.size() + 1 + ending.size()) << name;
        EXPECT_EQ(name.substr(0, missing.size() + 1), missing + "/") << name;
        EXPECT_EQ(name.substr(name.size() - ending.size()), ending) << name;
        const std::string seconds =
            name.substr(missing.size() + 1, name.size() - missing.size() - 1 - ending.size());
        EXPECT_EQ(seconds.find_first_not_of("0123456789"), std::string::npos) << name;
    }
}

TEST_F(CreateTempfile, LogsOutOfMemoryAndFailsWhenTheFirstNameCannotBeAllocated) {
    // The capture keeps the room of its first entry: make it before counting.
    syslog(LOG_DEBUG, "%s", "room for one message of the capture");
    qx_test::syslog_clear();
    char *name = reinterpret_cast<char *>(0x1);
    const int fd = qx_test::call_with_failing_allocation(
        0, [&] { return create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, &name); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(name, reinterpret_cast<char *>(0x1));
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].priority, LOG_ERR);
    EXPECT_EQ(entries[0].message, "fatal: out of memory");
    EXPECT_EQ(entries_of(dir_.path()), strings{});
}

TEST_F(CreateTempfile, LogsOutOfMemoryWhenALaterNameCannotBeAllocated) {
    occupy_names(dir_.path(), 0, 0);
    const strings before = entries_of(dir_.path());
    syslog(LOG_DEBUG, "%s", "room for one message of the capture");
    qx_test::syslog_clear();
    const int fd = qx_test::call_with_failing_allocation(
        1, [&] { return create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, nullptr); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(fd, -1);
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].priority, LOG_ERR);
    EXPECT_EQ(entries[0].message, "fatal: out of memory");
    EXPECT_EQ(entries_of(dir_.path()), before);
}

TEST_F(CreateTempfile, LogsNothingWhenItSucceedsOrRunsOutOfNames) {
    qx_test::syslog_clear();
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, nullptr);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(create_tempfile(file("missing").c_str(), O_WRONLY, 0600, nullptr), -1);
    EXPECT_TRUE(qx_test::syslog_entries().empty());
}

TEST_F(CreateTempfile, NamesFromTheDirectoryGivenAsItIs) {
    const std::string with_slash = dir_.path() + "/";
    char *name = nullptr;
    const std::time_t before = std::time(nullptr);
    const int fd = create_tempfile(with_slash.c_str(), O_WRONLY, 0600, &name);
    const std::time_t after = std::time(nullptr);
    ASSERT_GE(fd, 0);
    // The separator is added whatever the directory ends with.
    EXPECT_TRUE(named_within(name, with_slash, before, after, 0)) << name;
    EXPECT_EQ(std::string(name).find(dir_.path() + "//"), 0u);
    close(fd);
    std::free(name);
}

TEST_F(CreateTempfile, AllocatesTheNameWithRoomForTheLongestNumbers) {
    if (!allocated_size_known())
        GTEST_SKIP() << "block sizes are known only under the sanitizer's allocator";
    char *name = nullptr;
    const int fd = create_tempfile(dir_.path().c_str(), O_WRONLY, 0600, &name);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(allocated_size(name), dir_.path().size() + 26);
    close(fd);
    std::free(name);
    enter_test_directory();
    const int relative = create_tempfile(nullptr, O_WRONLY, 0600, &name);
    ASSERT_GE(relative, 0);
    EXPECT_EQ(allocated_size(name), 25u);
    close(relative);
    std::free(name);
}

} // namespace

// ---- qx_cp with failing and short writes ------------------------------------
// Kept in a block of its own: the I/O fault injector and the scratch file
// system are used only here.

#include "support/io_faults.hpp"
#include "support/scratch_fs.hpp"

namespace {

using qx_test::io_fn;

class QxCpFaults : public ::testing::Test {
  protected:
    void TearDown() override {
        qx_test::stop_failing_io();
        qx_test::restrict_io_faults_to("");
        EXPECT_TRUE(snap_.unchanged());
    }

    qx_test::temp_dir dir_;
    qx_test::fd_snapshot snap_;
    std::string src_ = dir_.file("source");
    std::string dst_ = dir_.file("copy");
    // Three chunks of the copy, the last one short.
    std::string content_ = std::string(20000, 'c');
};

TEST_F(QxCpFaults, AShortWriteFailsWithEnospcAndRemovesTheTarget) {
    qx_test::write_file(src_, content_);
    qx_test::restrict_io_faults_to(dst_);
    qx_test::shorten_write(io_fn::write, 1);
    errno = 0;
    const int result = qx_cp(src_.c_str(), dst_.c_str(), 0);
    const int error = errno;
    qx_test::stop_failing_io();
    EXPECT_TRUE(qx_test::io_call_was_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOSPC);
    EXPECT_FALSE(qx_test::file_exists(dst_));
    EXPECT_EQ(qx_test::read_file(src_), content_);
}

TEST_F(QxCpFaults, EveryFailedReadOrWriteGivesMinusOneWithItsErrnoAndNoTarget) {
    qx_test::write_file(src_, content_);
    for (const int flags : {0, QX_CP_OVERWRITE | QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE}) {
        for (const io_fn function : {io_fn::read, io_fn::write}) {
            for (const int error : {ENOSPC, EIO}) {
                const long calls = qx_test::sweep_io_failures([&](long n) {
                    SCOPED_TRACE(std::string(qx_test::io_fn_name(function)) + " #" +
                                 std::to_string(n) + " fails with " + std::to_string(error) +
                                 ", flags " + std::to_string(flags));
                    std::remove(dst_.c_str());
                    qx_test::restrict_io_faults_to(dir_.path() + "/");
                    int result = 0, errno_after = 0;
                    {
                        qx_test::failing_io arm(function, n, error);
                        errno = 0;
                        result = qx_cp(src_.c_str(), dst_.c_str(), flags);
                        errno_after = errno;
                    }
                    qx_test::restrict_io_faults_to("");
                    EXPECT_EQ(qx_test::read_file(src_), content_);
                    if (!qx_test::io_call_was_failed()) {
                        EXPECT_EQ(result, 0);
                        EXPECT_EQ(qx_test::read_file(dst_), content_);
                        return;
                    }
                    EXPECT_EQ(result, -1);
                    EXPECT_EQ(errno_after, error);
                    EXPECT_FALSE(qx_test::file_exists(dst_));
                });
                // Three chunks, and the read that finds the end.
                EXPECT_EQ(calls, function == io_fn::read ? 4 : 3);
            }
        }
    }
}

TEST_F(QxCpFaults, OnAFullDiskTheCopyFailsWithEnospcAndIsRemoved) {
    qx_test::write_file(src_, std::string(64 * 1024, 's'));
    const std::string source = src_;
    const qx_test::scratch_outcome outcome = qx_test::run_on_scratch_fs(
        64 * 1024, [&source](const std::string &mount, std::string &report) {
            // Two pages left: the copy's first chunk fits, the second is cut.
            const std::size_t filled = qx_test::fill_file_system(mount);
            if (truncate((mount + "/filler").c_str(),
                         static_cast<off_t>(filled / 4096 * 4096 - 12288)) != 0)
                return 1;
            const std::string target = mount + "/copy";
            errno = 0;
            const int result = qx_cp(source.c_str(), target.c_str(), 0);
            const int error = errno;
            if (result != -1 || error != ENOSPC || qx_test::file_exists(target)) {
                report = "result " + std::to_string(result) + ", errno " + std::to_string(error);
                return 2;
            }
            return 0;
        });
    if (!outcome.ran)
        GTEST_SKIP() << "cannot mount a scratch file system here";
    EXPECT_EQ(outcome.result, 0) << outcome.details;
}

} // namespace
