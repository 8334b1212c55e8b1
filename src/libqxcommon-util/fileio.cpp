// Whole-file reads and writes in one call, and small descriptor helpers.
#include "qxcommon-util/fileio.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "internal/guards.hpp"

namespace qx::detail {

namespace {

constexpr mode_t default_write_mode = 0644;

// Deliberate: the NUL goes behind the bytes read, so the caller's buffer needs one byte more.
// Reads into the caller's buffer of usable size *len; the NUL goes to
// data[count], which may be one byte behind that size.
int read_into_caller_buffer(int fd, char *data, int *len) noexcept {
    const ssize_t count = ::read(fd, data, static_cast<std::size_t>(*len));
    *len = static_cast<int>(count);
    if (count < 0)
        return -1;
    data[count] = '\0';
    return 0;
}

int read_into_new_block(int fd, char **data, int *len) noexcept {
    const off_t size = ::lseek(fd, 0, SEEK_END);
    // A descriptor that cannot seek, or a file whose size does not fit the
    // int length, cannot be read as a whole: refuse instead of guessing.
    if (size < 0)
        return -1;
    if (size > INT_MAX) {
        errno = EOVERFLOW;
        return -1;
    }
    *len = static_cast<int>(size);
    if (::lseek(fd, 0, SEEK_SET) < 0)
        return -1;
    char *block = static_cast<char *>(std::malloc(static_cast<std::size_t>(*len) + 1));
    if (block == nullptr)
        return -1;
    *data = block;
    const ssize_t count = ::read(fd, block, static_cast<std::size_t>(*len));
    *len = static_cast<int>(count);
    if (count < 0) {
        errno_keeper keep;
        std::free(block);
        *data = nullptr;
        return -1;
    }
    block[count] = '\0';
    return 0;
}

// The writers' common path: one open, one write, one close.
int openwrite_common(int dirfd, const char *path, const void *buf, ssize_t len, int flags,
                     mode_t mode) noexcept {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (len < 0) {
        errno = EOVERFLOW;
        return -1;
    }
    fd_guard fd(::openat(dirfd, path, flags, mode));
    if (!fd)
        return -1;
    const ssize_t written = ::write(fd.get(), buf, static_cast<std::size_t>(len));
    if (written != len) {
        // A short count sets no errno of its own; the usual cause is a full
        // disk, and a caller must never be left with a stale or zero errno.
        if (written >= 0)
            errno = ENOSPC;
        return -1; // the guard closes, keeping that errno
    }
    const int result = static_cast<int>(len);
    const int saved = errno;
    if (::close(fd.release()) != 0) {
        // A failed close reports its own errno, except when the length
        // truncates to -1 and so already reads as a failure.
        if (result == -1)
            errno = saved;
        return -1;
    }
    return result;
}

ssize_t text_length(const char *text) noexcept {
    return text == nullptr ? 0 : static_cast<ssize_t>(std::strlen(text));
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

// The mode is fetched from the variable arguments only when O_CREAT asks for
// one; otherwise open(2) ignores the default we pass.
#define QX_FETCH_MODE(last, flags, mode)                                                           \
    mode_t mode = default_write_mode;                                                              \
    if (((flags)&O_CREAT) != 0) {                                                                  \
        va_list ap;                                                                                \
        va_start(ap, last);                                                                        \
        mode = static_cast<mode_t>(va_arg(ap, unsigned int));                                      \
        va_end(ap);                                                                                \
    }

extern "C" {

QX_API int openreadcloseat(int dirfd, const char *path, char **data, int *len) {
    fd_guard fd(::openat(dirfd, path, O_RDONLY));
    if (!fd)
        return -1;
    if (*data != nullptr)
        return read_into_caller_buffer(fd.get(), *data, len);
    return read_into_new_block(fd.get(), data, len);
}

QX_API int openreadclose(const char *path, char **data, int *len) {
    return openreadcloseat(AT_FDCWD, path, data, len);
}

QX_API void *qx_mmapfile(const char *path, struct stat *st) {
    fd_guard fd(::open(path, O_RDONLY));
    if (!fd)
        return nullptr;
    if (::fstat(fd.get(), st) != 0 || st->st_size <= 0)
        return nullptr;
    void *addr =
        ::mmap(nullptr, static_cast<std::size_t>(st->st_size), PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (addr == MAP_FAILED)
        return nullptr;
    return addr;
}

QX_API int qx_munmapfile(void *addr, struct stat *st) {
    return ::munmap(addr, static_cast<std::size_t>(st->st_size));
}

QX_API void *qx_fd_data_load(size_t size, int fd) {
    auto *block = static_cast<char *>(std::calloc(1, size));
    if (block == nullptr || size == 0)
        return block;
    std::size_t gathered = 0;
    while (gathered < size) {
        const ssize_t count = ::read(fd, block + gathered, size - gathered);
        if (count <= 0)
            break;
        gathered += static_cast<std::size_t>(count);
    }
    return block;
}

QX_API DIR *opendirat(int dirfd, const char *path) {
    fd_guard fd(::openat(dirfd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd)
        return nullptr;
    DIR *dir = ::fdopendir(fd.get());
    if (dir == nullptr)
        return nullptr;
    fd.release(); // the stream owns it now
    return dir;
}

QX_API int openwritenclose(const char *path, const void *buf, ssize_t len, int flags, ...) {
    QX_FETCH_MODE(flags, flags, mode)
    return openwrite_common(AT_FDCWD, path, buf, len, flags, mode);
}

QX_API int openwriteclose(const char *path, const char *text, int flags, ...) {
    QX_FETCH_MODE(flags, flags, mode)
    return openwrite_common(AT_FDCWD, path, text, text_length(text), flags, mode);
}

QX_API int creatwriteclose(const char *path, const char *text, mode_t mode) {
    return openwrite_common(AT_FDCWD, path, text, text_length(text), O_RDWR | O_CREAT | O_TRUNC,
                            mode);
}

QX_API int openwritecloseat(int dirfd, const char *path, const char *text, int flags, ...) {
    QX_FETCH_MODE(flags, flags, mode)
    return openwrite_common(dirfd, path, text, text_length(text), flags, mode);
}

QX_API int creatwritecloseat(int dirfd, const char *path, const char *text, mode_t mode) {
    return openwrite_common(dirfd, path, text, text_length(text), O_RDWR | O_CREAT | O_TRUNC, mode);
}

QX_API int strbuf_readfile(strbuf *sb, const char *path) {
    char *data = nullptr;
    int len = 0;
    if (openreadclose(path, &data, &len) != 0)
        return -1;
    strbuf_free(sb);
    sb->text = data;
    sb->length = static_cast<std::size_t>(len);
    // Deliberate: the buffer's size equals its length, and is 1 for an empty file.
    // Deliberately size == length (the block holds one more byte, the NUL);
    // an empty file still counts as owned with size 1.
    sb->size = len == 0 ? 1 : static_cast<std::size_t>(len);
    return 0;
}

QX_API int strbuf_writefile(strbuf *sb, const char *path) {
    return creatwriteclose(path, sb->text, 0600);
}

QX_API int qx_fd_cloexec_set(int fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags == -1)
        return -1;
    return ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

QX_API int qx_file_cloexec_set(FILE *stream) {
    return qx_fd_cloexec_set(::fileno(stream));
}

QX_API int qx_file_exists(const char *path) {
    struct stat st;
    return ::stat(path, &st) == 0 ? 1 : 0;
}

QX_API off_t qx_fd_filesize_get(int fd) {
    const off_t here = ::lseek(fd, 0, SEEK_CUR);
    if (here < 0)
        return -1;
    const off_t size = ::lseek(fd, 0, SEEK_END);
    if (size < 0)
        return -1;
    ::lseek(fd, here, SEEK_SET);
    return size;
}

QX_API off_t qx_filesize_get(const char *path) {
    fd_guard fd(::open(path, O_RDONLY));
    if (!fd)
        // Deliberate: a file that cannot be opened gives 0, as an empty file does.
        return 0; // deliberately the same answer as for an empty file
    return qx_fd_filesize_get(fd.get());
}

} // extern "C"
