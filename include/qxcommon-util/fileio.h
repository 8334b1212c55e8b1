/* fileio: whole files in one call, and small descriptor helpers.
 *
 * Reading and writing make a single read(2) or write(2): a short transfer is
 * not continued. Writers replace a file in place (no temporary file, no
 * fsync, no rename), so a failure after the truncation leaves it short.
 * errno from the failing step survives the clean-up close. Nothing is
 * logged and qx_errno is not touched. */
#ifndef QXCOMMON_UTIL_FILEIO_H
#define QXCOMMON_UTIL_FILEIO_H

#include <dirent.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Same as openreadcloseat(AT_FDCWD, path, data, len). */
QX_API int openreadclose(const char *path, char **data, int *len);
/* Reads a file with one read(2); 0 or -1 with errno.
 * *data == NULL: allocates size + 1 bytes (caller frees), stores the block
 *   in *data, the bytes read in *len and a NUL behind them. A failed read
 *   frees the block and sets *data to NULL.
 * *data != NULL: the caller's buffer, *len its usable size; *len becomes the
 *   count read (-1 on a failed read) and a NUL is stored at data[count], so
 *   the buffer must hold *len + 1 bytes. */
QX_API int openreadcloseat(int dirfd, const char *path, char **data, int *len);

/* Private read-only mapping of the whole file; *st receives its fstat. NULL
 * on failure, and for an empty file (errno then left alone). */
QX_API void *qx_mmapfile(const char *path, struct stat *st);
/* munmap(addr, st->st_size) with the st filled by qx_mmapfile. */
QX_API int qx_munmapfile(void *addr, struct stat *st);
/* Note the order: size first, descriptor second. Returns a zero-filled block
 * of size bytes (caller frees) with as much as could be read from fd; the
 * block is returned even after a short read or a read error. A size of 0
 * gives what calloc(1, 0) gives. NULL only when allocation fails. */
QX_API void *qx_fd_data_load(size_t size, int fd);
/* Directory stream for path relative to dirfd (opened close-on-exec). */
QX_API DIR *opendirat(int dirfd, const char *path);

/* Writes len bytes of buf with one write(2). The mode argument is read only
 * when flags holds O_CREAT. Returns len (as int) or -1 with errno: EINVAL
 * for a NULL path, EOVERFLOW for a negative len. */
QX_API int openwritenclose(const char *path, const void *buf, ssize_t len, int flags, ...);
/* Writes the text up to its NUL (nothing when text is NULL); returns the
 * number of bytes written or -1. Mode only with O_CREAT. */
QX_API int openwriteclose(const char *path, const char *text, int flags, ...);
/* openwriteclose with O_RDWR|O_CREAT|O_TRUNC: an existing file is truncated
 * and rewritten in place, keeping its mode. */
QX_API int creatwriteclose(const char *path, const char *text, mode_t mode);
/* openwriteclose relative to dirfd. */
QX_API int openwritecloseat(int dirfd, const char *path, const char *text, int flags, ...);
/* creatwriteclose relative to dirfd. */
QX_API int creatwritecloseat(int dirfd, const char *path, const char *text, mode_t mode);

/* Replaces the buffer's content with the file's. On success the buffer owns
 * the block: length = bytes read, size = length (1 for an empty file).
 * -1 leaves the buffer unchanged. */
QX_API int strbuf_readfile(strbuf *sb, const char *path);
/* creatwriteclose(path, sb->text, 0600): stops at the first NUL of text. */
QX_API int strbuf_writefile(strbuf *sb, const char *path);

/* Adds FD_CLOEXEC; the result of F_SETFD, or -1 when F_GETFD fails. */
QX_API int qx_fd_cloexec_set(int fd);
QX_API int qx_file_cloexec_set(FILE *stream);
/* 1 when stat(2) succeeds, else 0. */
QX_API int qx_file_exists(const char *path);
/* Size by seeking to the end; the offset is put back. -1 on error. */
QX_API off_t qx_fd_filesize_get(int fd);
/* Size of the file at path; 0 when it cannot be opened (as for an empty
 * file). */
QX_API off_t qx_filesize_get(const char *path);

#ifdef __cplusplus
}
#endif

#endif
