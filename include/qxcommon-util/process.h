/* process: a child program connected to the caller by up to two pipes.
 *
 * The child is started with execv(argv[0], argv): no shell, no PATH search,
 * the environment inherited. The mode names the pipes: 'r' anywhere in it
 * lets the caller read the child's output, 'w' anywhere lets the caller
 * write to its standard input; NULL or neither letter starts it with no
 * pipes at all.
 *
 * Every open function blocks SIGCHLD in the caller and leaves it blocked;
 * the child inherits the blocked signal. The caller's ends of every pipe
 * are close-on-exec, so no program started meanwhile by another thread, or
 * by a later call, inherits them; the child's ends become its standard
 * descriptors.
 *
 * Failures are logged to syslog at LOG_ERR; qx_errno is not touched. */
#ifndef QXCOMMON_UTIL_PROCESS_H
#define QXCOMMON_UTIL_PROCESS_H

#include <sys/types.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct process {
    int read_fd;  /* the child's output; -1 when absent or closed */
    int write_fd; /* the child's standard input; -1 when absent or closed */
    pid_t pid;    /* the child's process id */
} process;

/* The read pipe carries the child's standard output; standard error is
 * inherited. NULL when a pipe or the child cannot be made. */
QX_API process *process_open(char **argv, const char *mode);
/* The read pipe carries the child's standard error; standard output is
 * inherited. */
QX_API process *process_open_stderr(char **argv, const char *mode);
/* use_stderr: the read pipe carries standard error instead of standard
 * output. null_other: the other of the two goes to /dev/null instead of
 * being inherited. read_nonblock and write_nonblock make the read or write pipe non-blocking, at
 * both ends (the child's end included). */
QX_API process *process_open_with_flags(char **argv, const char *mode, int use_stderr,
                                        int null_other, int read_nonblock, int write_nonblock);

/* kill(2) of the child's pid with sig: 0, or -1 with errno. */
QX_API int process_signal(process *proc, int sig);
/* Closes the write pipe, waits for the child (without blocking when wait is
 * 0), closes the read pipe. Returns the pid once the child is reaped: the
 * record is then freed and, if the child exited normally and exitcode is
 * not NULL, its exit status is stored there (a child ended by a signal
 * leaves *exitcode alone). Returns 0 while the child runs (wait 0) and -1
 * with errno when waitpid fails; the record then stays allocated, with
 * both descriptors closed, and must be closed again later. */
QX_API int process_close(process *proc, int *exitcode, int wait);

QX_API int process_read_fd(process *proc);
QX_API int process_write_fd(process *proc);
/* Close one side early (a no-op when it is already closed). */
QX_API void process_close_read(process *proc);
QX_API void process_close_write(process *proc);

/* Reads one line from the read pipe a byte at a time, so nothing after its
 * line feed is taken from the pipe. No time limit, no retry on EINTR.
 *   size 0: discards the line and returns its length; buf is not touched.
 *   size 1: stores a NUL in buf[0], then as for size 0.
 *   size > 1: stores up to size - 1 bytes and a NUL; a longer line is
 *     discarded up to its line feed and its full length is returned.
 * Returns the line's length without the line feed, 0 at end of input, -1 on
 * a read error. When nothing was stored no NUL is written: an empty line
 * leaves '\n' in buf[0] and end of input leaves buf as it was. */
QX_API int process_gets(process *proc, char *buf, int size);
/* One write(2) of len bytes (a short write is not continued), then one of
 * "\n". 0, or -1: at once for a NULL buf or a len of 0, with a message when
 * a write fails. */
QX_API int process_puts(process *proc, const char *buf, int len);

#ifdef __cplusplus
}
#endif

#endif
