/* forkandexec: run a command to completion, optionally with a time limit.
 *
 * argv is a NULL-terminated vector whose first element is the path of the
 * program (execv: no shell, no PATH search); it must not be NULL, nor its
 * first element. The command runs in a process group of its own, with
 * standard input from /dev/null; it also inherits the /dev/null descriptor
 * and the pipe write ends as extra open descriptors.
 *
 * The child is started without copying the caller's address space: the
 * calling thread waits until the program has been executed (or the child
 * has ended), so the cost of a start does not grow with the caller's memory.
 * No fork handlers (pthread_atfork) run, and no signal handler of the caller
 * ever runs in the child.
 *
 * SIGCHLD is blocked for the duration of a call and the caller's mask is put
 * back before it returns. Output is collected until the pipes close, poll
 * fails, or 30 seconds pass without output; only then does the time limit
 * (timeout > 0, in seconds) start to count. A command still running when it
 * expires is logged at LOG_WARNING and its whole process group is killed.
 *
 * Result: the exit-status byte of the wait status (0 for a command ended by
 * a signal, 1 when execv failed), or -1 when a pipe cannot be created or
 * the child cannot be started (errno tells why), the time limit ran out, or,
 * with a time limit, the child could not be waited for.
 * Without a time limit a stop or continue of the child also ends the wait;
 * the result is then the stop signal, or 255 for a continue, and the child
 * is left unreaped. Nothing is written to standard error; qx_errno is not
 * touched. */
#ifndef QXCOMMON_UTIL_FORKANDEXEC_H
#define QXCOMMON_UTIL_FORKANDEXEC_H

#include <stddef.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* forkandexec_with_to(argv, 0, out, outlen). */
QX_API int forkandexec(char **argv, char **out, size_t *outlen);
/* Collects standard output into *out; standard error goes to /dev/null.
 * out NULL: standard output goes to /dev/null and outlen is not used.
 * Otherwise *out must hold NULL or a malloc'ed block: *outlen is set to 0 and
 * the block is resized with realloc for every chunk read, so it ends exactly
 * *outlen + 1 bytes long, NUL-terminated, NUL bytes of the output kept. With
 * no output at all *out is left as it was. The caller frees it.
 * Replaces the caller's standard input (descriptor 0), once output
 * collection has ended, with the read end of an empty, finished pipe, which
 * reads end-of-file after the call. */
QX_API int forkandexec_with_to(char **argv, int timeout, char **out, size_t *outlen);

/* forkandexec_ex_with_to(argv, 0, out, err). */
QX_API int forkandexec_ex(char **argv, strbuf *out, strbuf *err);
/* Appends standard output to out and standard error to err (a NULL buffer
 * sends that stream to /dev/null). Output is appended in NUL-terminated
 * chunks of at most 7999 bytes, so a NUL byte cuts its chunk short. When the
 * second pipe cannot be created, the first one's descriptors stay open. */
QX_API int forkandexec_ex_with_to(char **argv, int timeout, strbuf *out, strbuf *err);

#ifdef __cplusplus
}
#endif

#endif
