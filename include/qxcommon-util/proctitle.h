/* proctitle: the text process listings show for this process.
 *
 * initproctitle moves the environment to the heap, so that the memory from
 * the first argument string to the end of the last environment string can
 * hold the title; proctitle then writes "<program name>: <text>" there, and
 * release_proctitle frees the moved environment at the end of the program.
 *
 * Process-wide state without locking: for the main thread of a
 * single-threaded program. Nothing is logged and nothing is reported. */
#ifndef QXCOMMON_UTIL_PROCTITLE_H
#define QXCOMMON_UTIL_PROCTITLE_H

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Call once, early in main, with main's own argc and argv and before
 * anything keeps pointers into the environment. Copies every environment
 * string to the heap and points environ at a new array; keeps a copy of the
 * base name of argv[0] as the program name. When an allocation fails the
 * environment is left as it was and proctitle stays inert. A NULL argv, a
 * NULL argv[0] or an argc below 1 is refused the same way, and so are
 * strings that do not lie behind argv[0]. With an empty environment the
 * area ends with the last argument. A second call copies the environment
 * again and leaks the first copy; the area keeps its first measure. The old
 * environment strings stay in the area until the first proctitle. */
QX_API void initproctitle(int argc, char **argv);

/* Formats "<program name>: " followed by the caller's text (at most 2047
 * bytes in all) over the argument area, cut to the area's length less two
 * bytes; the rest of the area is zeroed and argv[1] becomes NULL, so argv[0]
 * reads as the title. A NULL format writes the prefix alone. Does nothing
 * before a successful initproctitle, and must not be called after
 * release_proctitle. */
QX_API void proctitle(const char *format, ...) QX_PRINTF_LIKE(1, 2);

/* Frees the program name and, when initproctitle moved the environment,
 * every string of the current environ array and the array (an environment
 * that was never moved is not the library's and is left alone). Resets
 * nothing, environ included: it is the last call of the program, and the
 * environment must not be used afterwards. */
QX_API void release_proctitle(void);

#ifdef __cplusplus
}
#endif

#endif
