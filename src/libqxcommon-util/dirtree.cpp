// Directory trees, file copies and temporary files.
#include "qxcommon-util/dirtree.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ftw.h>
#include <libgen.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/guards.hpp"

namespace qx::detail {

namespace {

constexpr int cp_overwrite = QX_CP_OVERWRITE;
constexpr int cp_keep_attributes = QX_CP_KEEP_ATTRIBUTES;
constexpr int cp_durable = QX_CP_DURABLE;
constexpr mode_t cp_default_mode = 0644;
constexpr std::size_t cp_chunk_size = 8192;

constexpr std::size_t pmkdir_buffer_size = 4096;

constexpr int rrmdir_max_descriptors = 10;

constexpr int tempfile_attempts = 20;
// Room for "/", the decimal time, ".", the pid, "." and the attempt number.
constexpr std::size_t tempfile_room_with_dir = 26;
constexpr std::size_t tempfile_room_without_dir = 25;

int target_open_flags(int cpflags) noexcept {
    int flags = O_WRONLY | O_CREAT | O_TRUNC;
    if ((cpflags & cp_overwrite) == 0)
        flags |= O_EXCL;
    if ((cpflags & cp_durable) != 0)
        flags |= O_SYNC;
    return flags;
}

// Closes the target and removes it, keeping the errno of the step that
// failed.
int discard_target(fd_guard &target, const char *dst) noexcept {
    errno_keeper keep;
    target.reset();
    ::unlink(dst);
    return -1;
}

// Copies in chunks through a stack buffer; each chunk read is written with
// exactly one write. 0 at end of input, -1 with errno of the failing call.
int copy_contents(int from, int to) noexcept {
    char chunk[cp_chunk_size];
    for (;;) {
        const ssize_t got = ::read(from, chunk, sizeof chunk);
        if (got < 0)
            return -1;
        if (got == 0)
            return 0;
        const ssize_t written = ::write(to, chunk, static_cast<std::size_t>(got));
        if (written != got) {
            if (written >= 0)
                errno = ENOSPC; // a short write sets none; a full disk is the usual cause
            return -1;
        }
    }
}

// Applied through the open target, so that an entry swapped in at its path
// meanwhile cannot redirect them. Changing the owner clears the set-user-ID
// and set-group-ID bits, so a source that has them gets its mode once more
// afterwards. The results are not examined: the data is there whatever they
// say.
void copy_attributes(int target, const struct stat &source) noexcept {
    ::fchmod(target, source.st_mode);
    struct timespec times[2]{};
    times[0].tv_sec = source.st_atime;
    times[1].tv_sec = source.st_mtime;
    ::futimens(target, times);
    [[maybe_unused]] const int owner_set = ::fchown(target, source.st_uid, source.st_gid);
    if ((source.st_mode & (S_ISUID | S_ISGID)) != 0)
        ::fchmod(target, source.st_mode);
}

// Opens and syncs the directory that holds dst. -1 only when it cannot be
// opened.
int sync_parent_directory(const char *dst) noexcept {
    char copy[PATH_MAX];
    std::size_t length = std::strlen(dst);
    if (length >= sizeof copy)
        length = sizeof copy - 1;
    std::memcpy(copy, dst, length);
    copy[length] = '\0';
    fd_guard dir(::open(::dirname(copy), O_RDONLY | O_DIRECTORY));
    if (!dir)
        return -1;
    ::fsync(dir.get());
    return 0;
}

int make_directory(const char *path, mode_t mode) noexcept {
    if (::mkdir(path, mode) != 0 && errno != EEXIST)
        return -1;
    return 0;
}

int remove_entry(const char *path, const struct stat *st, int type, struct FTW *) noexcept {
    // Without a stat there is no mode to go by: treat it as a file.
    if (type != FTW_NS && S_ISDIR(st->st_mode))
        return ::rmdir(path);
    return ::unlink(path);
}

// True when path, as the walk would take it, is the root directory: "//",
// "/.", "/../", "dir/.." from the root and the like. The entry itself is
// looked at, not what a link there points to, since the walk removes a link
// as a link; a trailing slash makes the system follow it, and then it counts.
bool names_the_root(const char *path) noexcept {
    struct stat entry {};
    struct stat root {};
    if (::lstat(path, &entry) != 0 || ::stat("/", &root) != 0)
        return false;
    return entry.st_dev == root.st_dev && entry.st_ino == root.st_ino;
}

// A new block holding the name of one attempt, or NULL when it cannot be
// allocated.
char *tempfile_name(const char *dir, int attempt) noexcept {
    const auto now = static_cast<unsigned long>(std::time(nullptr));
    const auto pid = static_cast<unsigned long>(::getpid());
    const std::size_t size =
        dir != nullptr ? std::strlen(dir) + tempfile_room_with_dir : tempfile_room_without_dir;
    char *name = static_cast<char *>(std::malloc(size));
    if (name == nullptr)
        return nullptr;
    if (dir != nullptr)
        std::snprintf(name, size, "%s/%lu.%lu.%d", dir, now, pid, attempt);
    else
        std::snprintf(name, size, "%lu.%lu.%d", now, pid, attempt);
    return name;
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int qx_cp(const char *src, const char *dst, int cpflags) {
    struct stat source {};
    if (::stat(src, &source) != 0)
        return -1;
    const mode_t create_mode =
        (cpflags & cp_keep_attributes) != 0 ? source.st_mode : cp_default_mode;
    fd_guard target(::open(dst, target_open_flags(cpflags), create_mode));
    if (!target)
        return -1;
    fd_guard input(::open(src, O_RDONLY));
    if (!input)
        return discard_target(target, dst);
    if (copy_contents(input.get(), target.get()) != 0) {
        input.reset();
        return discard_target(target, dst);
    }
    input.reset();
    if ((cpflags & cp_keep_attributes) != 0)
        copy_attributes(target.get(), source);
    target.reset();
    // Deliberate: a durable copy is removed when its directory cannot be opened for the sync.
    // A complete copy is thrown away when its directory cannot be opened
    // for the sync; callers treat such a copy as not durable.
    if ((cpflags & cp_durable) != 0 && sync_parent_directory(dst) != 0) {
        errno_keeper keep;
        ::unlink(dst);
        return -1;
    }
    return 0;
}

QX_API int qx_pmkdir(const char *path, mode_t mode) {
    char work[pmkdir_buffer_size];
    std::size_t length = std::strlen(path);
    if (length > sizeof work - 1)
        length = sizeof work - 1;
    std::memcpy(work, path, length);
    work[length] = '\0';
    if (length == 0)
        return 0;
    // Each prefix ends in its slash (a/ then a/b/ for a/b/c); a run of
    // slashes counts as one, and a leading one makes the root the first.
    for (std::size_t i = 1; i < length; ++i) {
        if (work[i - 1] != '/' || work[i] == '/')
            continue;
        const char cut = work[i];
        work[i] = '\0';
        const int result = make_directory(work, mode);
        work[i] = cut;
        if (result != 0)
            return -1;
    }
    // Deliberate: an existing file (not a directory) at the full path gives 0.
    // EEXIST is passed over here too, so an existing file at the full path
    // gives 0.
    return make_directory(work, mode);
}

QX_API int qx_rrmdir(const char *path) {
    if (path == nullptr || std::strcmp(path, "/") == 0 || names_the_root(path))
        return -1;
    // Contents before their directory; a symbolic link is removed as a link
    // and never walked through.
    return ::nftw(path, remove_entry, rrmdir_max_descriptors, FTW_DEPTH | FTW_PHYS);
}

QX_API int create_tempfile(const char *dir, int flags, mode_t mode, char **name_out) {
    flags |= O_CREAT | O_EXCL;
    for (int attempt = 0; attempt < tempfile_attempts; ++attempt) {
        unique_malloc<char> name(tempfile_name(dir, attempt));
        if (!name) {
            ::syslog(LOG_ERR, "fatal: out of memory");
            return -1;
        }
        const int fd = ::open(name.get(), flags, mode);
        if (fd >= 0) {
            if (name_out != nullptr)
                *name_out = name.release();
            return fd;
        }
        // Any failure, not only EEXIST, moves on to the next name; the
        // last open's errno is what the caller sees.
        errno_keeper keep;
        name.reset();
    }
    return -1;
}

} // extern "C"
