/* dirtree: copy one file, make a directory with its parents, remove a whole
 * tree, and create a file under a new unique name.
 *
 * Failures are -1 with errno from the failing system call. Nothing is
 * logged except by create_tempfile when memory runs out; qx_errno is not
 * touched. Every descriptor a function opens is closed before it returns,
 * except the one create_tempfile hands back. */
#ifndef QXCOMMON_UTIL_DIRTREE_H
#define QXCOMMON_UTIL_DIRTREE_H

#include <sys/types.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of the cpflags argument of qx_cp. */
/* Replace an existing target (O_TRUNC); without it O_EXCL makes an existing
 * target fail the copy with EEXIST. */
#define QX_CP_OVERWRITE 1
/* Create the target with the source's mode, then copy mode, access and
 * modification times (whole seconds) and owner and group, through the open
 * target (never its path); set-user-ID and set-group-ID bits are applied
 * again after the change of owner. */
#define QX_CP_KEEP_ATTRIBUTES 2
/* Write with O_SYNC and fsync the directory that holds the target. */
#define QX_CP_DURABLE 4

/* Copies the file src (links followed) to dst; 0 or -1 with errno. Without
 * QX_CP_KEEP_ATTRIBUTES a new target gets mode 0644 less the umask. Any
 * failure after the target was opened removes it, so with QX_CP_OVERWRITE
 * an old file at dst is lost too. With QX_CP_DURABLE a complete copy is
 * removed again when the target's directory cannot be opened. */
QX_API int qx_cp(const char *src, const char *dst, int cpflags);

/* Makes path and every missing parent with mode (less the umask). Existing
 * entries are passed over, and an existing file at path itself also gives 0.
 * Only the first 4095 bytes of path are used; an empty path gives 0. */
QX_API int qx_pmkdir(const char *path, mode_t mode);

/* Removes path and everything below it, contents first. Symbolic links are
 * never followed: a link in the tree (or at path itself) is removed as a
 * link and what it points to is left alone. NULL and any path that names the
 * root directory ("/", "//", "/.", "/../", ...) give -1 and remove nothing.
 * Returns 0, or -1 from the walk or the failing removal. */
QX_API int qx_rrmdir(const char *path);

/* Creates and opens a new file named "<time>.<pid>.<attempt>" in dir (or
 * in the working directory when dir is NULL), with flags | O_CREAT | O_EXCL
 * and mode. Tries up to 20 names, whatever makes an open fail. Returns the
 * descriptor, storing the malloc'ed path that was opened ("<dir>/<name>", or
 * the bare name without dir) in *name_out (caller frees) when name_out is
 * not NULL; -1 with errno of the last open, or -1 after logging
 * "fatal: out of memory" when a name cannot be allocated. */
QX_API int create_tempfile(const char *dir, int flags, mode_t mode, char **name_out);

#ifdef __cplusplus
}
#endif

#endif
