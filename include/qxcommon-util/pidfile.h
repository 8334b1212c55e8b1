/* pidfile: refusing to run twice.
 *
 * Two independent mechanisms:
 *  - write_pidfile: a PID file at a path of the caller's choosing;
 *  - check_for_instance: a PID file named after the running program's own
 *    executable ("<dir><base name>.pid"), another instance being recognised
 *    by the executable name that /proc/<pid>/exe gives for the recorded PID.
 *    look_for_pid and get_process_name are its building blocks.
 *
 * No locking and no exclusive creation: two services starting at the same
 * moment can both pass. Call once, early, from the main thread.
 *
 * The single-instance functions treat memory exhaustion as fatal: they log
 * at LOG_ERR, print "Indexer done" on standard output and exit(1). */
#ifndef QXCOMMON_UTIL_PIDFILE_H
#define QXCOMMON_UTIL_PIDFILE_H

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A recorded PID (decimal after optional blanks, up to 21 bytes read) that
 * kill(pid, 0) accepts blocks the start: -1 with errno EEXIST, the file
 * untouched. Otherwise (0, garbage, a number beyond any PID, a process that
 * is gone or may not be signalled) a readable file is unlinked (-1 with
 * errno when that fails) and the file is written afresh with
 * "<own pid>\n", mode 0644. Returns the number of bytes written, or -1 with
 * errno. */
QX_API int write_pidfile(const char *path);

/* Makes sure this program runs once, with "<dir><base name>.pid" as its PID
 * file (dir is taken verbatim, so it ends with '/'; the whole path must fit
 * in 255 bytes, a longer one ends the process as a detected buffer
 * overflow). Returns
 *    0  no other instance: the file now holds the own PID (no line feed);
 *   -1  the file names another live process whose executable has the same
 *       base name, compared ignoring case;
 *    1  the own executable could not be determined;
 *   -2  the PID file could not be opened for writing.
 * On -1, 1 and -2 a static text (never to be freed) is stored in *errmsg
 * when errmsg is not NULL, and a message is logged at LOG_ERR. */
QX_API int check_for_instance(const char *dir, const char **errmsg);

/* Reads "<dir><name>.pid" (dir verbatim) into a new zeroed 1024-byte block
 * stored in *content (at most 256 bytes are read) and strips the trailing
 * carriage returns and line feeds. 0 on success; the caller frees *content.
 * -1 for a NULL name, a NULL dir (logged at LOG_INFO) or a file that cannot
 * be opened, with *content untouched.
 * An empty file gives -1 after free(content): the pointer variable itself,
 * not the block, is released, so content must then be a heap block of its
 * own and the 1024-byte block it points to is left to the caller. */
QX_API int look_for_pid(char **content, const char *name, const char *dir);

/* Stores in *exe_path a new zeroed block (the caller frees it) and reads
 * the link "/proc/<pid_text>/exe" into it, at most 1024 bytes; a NUL always
 * follows them. 0 when the link could be read, -1 otherwise (the empty
 * block is still stored and must be freed). A NULL pid_text is logged at LOG_INFO and gives -1 with
 * *exe_path untouched. */
QX_API int get_process_name(const char *pid_text, char **exe_path);

#ifdef __cplusplus
}
#endif

#endif
