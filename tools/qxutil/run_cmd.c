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
    "Runs PROGRAM with ARGS (no shell; a PROGRAM without \"/\" is looked up on\n"
    "PATH) in a process group of its own with standard input from /dev/null,\n"
    "collects its standard output and standard error, writes them to qxutil's\n"
    "own, and exits with the program's exit status. A program ended by a signal\n"
    "gives 0, as the library reports it.\n"
    "\n"
    "--timeout SECONDS  kill the program's process group when it is still running\n"
    "                   SECONDS after its output ended (the limit starts once the\n"
    "                   program has closed its output, or after 30 seconds\n"
    "                   without output); 0 is no limit\n"
    "\n"
    "Exit status: the program's own; 124 when the time limit ran out (said on\n"
    "standard error), 125 when the program could not be started (a pipe or the\n"
    "child could not be made), 127 when PROGRAM was not found or is not executable, 2 for bad\n"
    "arguments.\n";

static double now_seconds(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

/* The library runs argv[0] with execv, which neither searches PATH nor
 * tells a missing program from one that exits with 1; so look it up here. */
static char *find_program(const char *name) {
    const char *path = getenv("PATH");
    size_t name_length = strlen(name);

    if (strchr(name, '/') != NULL)
        return access(name, X_OK) == 0 ? strdup(name) : NULL;
    if (path == NULL)
        path = "/usr/local/bin:/usr/bin:/bin";
    while (*path != '\0') {
        const char *end = strchr(path, ':');
        size_t dir_length = end != NULL ? (size_t)(end - path) : strlen(path);
        char *candidate = malloc(dir_length + name_length + 3);
        if (candidate == NULL)
            return NULL;
        if (dir_length == 0)
            snprintf(candidate, dir_length + name_length + 3, "./%s", name);
        else
            snprintf(candidate, dir_length + name_length + 3, "%.*s/%s", (int)dir_length, path,
                     name);
        if (access(candidate, X_OK) == 0)
            return candidate;
        free(candidate);
        if (end == NULL)
            break;
        path = end + 1;
    }
    errno = ENOENT;
    return NULL;
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
    char *program = find_program(argv[0]);
    char *original = argv[0];
    double started;
    int rc, start_errno;

    if (program == NULL) {
        int saved = errno;
        if (saved == ENOENT && strchr(original, '/') == NULL)
            qxu_fail("%s: command not found", original);
        else
            qxu_fail("%s: %s", original, strerror(saved));
        return QXU_RUN_NOT_FOUND;
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
    int timeout = 0;
    int i = 0;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(run_help);
    while (i < argc) {
        const char *arg = argv[i];
        if (strcmp(arg, "--") == 0) {
            ++i;
            break;
        }
        if (strcmp(arg, "--timeout") == 0 || strncmp(arg, "--timeout=", 10) == 0) {
            const char *value = arg[9] == '=' ? arg + 10 : (i + 1 < argc ? argv[++i] : NULL);
            if (value == NULL)
                return qxu_usage_error("--timeout needs a number of SECONDS");
            if (parse_seconds(value, &timeout) != 0)
                return qxu_usage_error("--timeout: '%s' is not a number of seconds", value);
            ++i;
            continue;
        }
        if (arg[0] == '-')
            return qxu_usage_error("unknown option '%s'", arg);
        break;
    }
    if (i >= argc)
        return qxu_usage_error("missing PROGRAM");
    if (argv[i][0] == '\0')
        return qxu_usage_error("empty PROGRAM");
    /* argv is NULL-terminated by main's caller, as execv wants it. */
    return run_program(argv + i, timeout);
}
