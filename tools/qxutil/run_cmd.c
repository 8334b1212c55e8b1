/* qxutil run: a program run to completion through forkandexec, its output
 * passed on and its exit status made qxutil's own. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <qxcommon-util/forkandexec.h>
#include <qxcommon-util/strbuf.h>

#include "qxutil.h"

static const char run_help[] =
    "usage: qxutil run [--timeout SECONDS] -- PROGRAM [ARGS...]\n"
    "\n"
    "Runs PROGRAM with ARGS through the library's forkandexec_ex_with_to: no\n"
    "shell (a PROGRAM without \"/\" is looked up on PATH first), a process group\n"
    "of its own, and standard input from /dev/null, always: qxutil's own standard\n"
    "input is not passed on, since the library cannot. Its standard output and\n"
    "standard error are collected while it runs and written to qxutil's own only\n"
    "after it has ended, all of standard output first, then all of standard\n"
    "error; a NUL byte ends what is kept of a piece of output.\n"
    "\n"
    "--timeout SECONDS  the library's time limit; 0 (the default) is none. It\n"
    "                   starts only once output collection has ended, which is\n"
    "                   when every copy of the output pipes is closed (the program\n"
    "                   holds extra copies, and so do the programs it starts), or\n"
    "                   after 30 seconds without output. Then the program's\n"
    "                   process group is killed if it still runs SECONDS later.\n"
    "\n"
    "Unlike timeout(1), which counts from the start and kills whatever runs when\n"
    "the time is up: a program that keeps its output open is never cut short\n"
    "(\"--timeout 2 -- sleep 10\" runs its 10 seconds and exits 0); a silent one that\n"
    "runs on is killed about 30 + SECONDS seconds after it started (\"--timeout 2\n"
    "-- sleep 60\" exits 124 after some 32 seconds); and a program ended by a\n"
    "signal gives status 0, not 128 + the signal's number, because the library\n"
    "reports no more than the exit status byte.\n"
    "\n"
    "Exit status: the program's own; 124 when the time limit ran out (said on\n"
    "standard error), 125 when the program could not be started (a pipe or the\n"
    "child could not be made), 127 when PROGRAM was not found or is not\n"
    "executable, 2 for bad arguments.\n";

static double now_seconds(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static int parse_seconds(const char *text, int *seconds) {
    char *end;
    long value;
    if (*text < '0' || *text > '9')
        return -1;
    errno = 0;
    value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > INT_MAX)
        return -1;
    *seconds = (int)value;
    return 0;
}

static int run_program(char **argv, int timeout) {
    strbuf out = {NULL, 0, 0}, err = {NULL, 0, 0};
    /* The library runs argv[0] with execv, which neither searches PATH nor
     * tells a missing program from one that exits with 1. */
    char *program = qxu_find_program(argv[0]);
    char *original = argv[0];
    double started;
    int rc, start_errno;

    if (program == NULL) {
        int saved = errno;
        if (saved == ENOENT && strchr(original, '/') == NULL)
            qxu_fail("%s: command not found", original);
        else
            qxu_fail("%s: %s", original, strerror(saved));
        return QXU_NOT_FOUND;
    }
    argv[0] = program;
    started = now_seconds();
    errno = 0;
    rc = forkandexec_ex_with_to(argv, timeout, &out, &err);
    start_errno = errno;
    argv[0] = original;
    fflush(stdout);
    qxu_write_all(stdout, out.text, out.length);
    fflush(stdout);
    qxu_write_all(stderr, err.text, err.length);
    strbuf_free(&out);
    strbuf_free(&err);
    free(program);
    if (rc != -1)
        return rc;
    if (timeout > 0 && now_seconds() - started >= (double)timeout) {
        qxu_fail("%s did not finish within the time limit of %d second%s and was killed", original,
                 timeout, timeout == 1 ? "" : "s");
        return QXU_RUN_TIMED_OUT;
    }
    qxu_fail("%s could not be started: %s", original,
             start_errno != 0 ? strerror(start_errno) : "a pipe or the child could not be made");
    return QXU_RUN_NOT_STARTED;
}

int qxu_run(int argc, char **argv) {
    static const struct option options[] = {
        {"timeout", required_argument, NULL, 't'}, QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    int started = 0, timeout = 0, opt;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1) {
        if (opt == ':' && optopt == 't')
            return qxu_usage_error("--timeout needs a number of SECONDS");
        if (opt != 't')
            return qxu_other_option(opt, argv, run_help);
        if (parse_seconds(optarg, &timeout) != 0)
            return qxu_usage_error("--timeout: '%s' is not a number of seconds", optarg);
    }
    if (optind >= argc)
        return qxu_usage_error("missing PROGRAM");
    if (argv[optind][0] == '\0')
        return qxu_usage_error("empty PROGRAM");
    /* argv is NULL-terminated by main's caller, as execv wants it. */
    return run_program(argv + optind, timeout);
}
