/* qxutil os-release, rfc3339 and pidfile: the system information and
 * single-instance helpers. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <qxcommon-util/os_info.h>
#include <qxcommon-util/pidfile.h>
#include <qxcommon-util/rfc3339.h>

#include "qxutil.h"

static const char os_release_help[] =
    "usage: qxutil os-release [--file PATH] [KEY]\n"
    "\n"
    "Without KEY prints every KEY=value pair of the OS release file in file\n"
    "order; with KEY prints the value of the first pair whose key equals KEY\n"
    "ignoring case. The file is /etc/os-release unless --file names another\n"
    "(\"-\": standard input).\n"
    "Values lose enclosing double or single quotes only; lines starting with a\n"
    "space or without \"=\" are skipped.\n"
    "Status: 0 success, 1 no such key or the file cannot be read, 2 bad\n"
    "arguments.\n";

static const char rfc3339_help[] =
    "usage: qxutil rfc3339 [TIME]\n"
    "\n"
    "Prints TIME (seconds since the epoch, default now) as an RFC 3339\n"
    "date-time in the local time zone (TZ): YYYY-MM-DDTHH:MM:SS followed by \"Z\"\n"
    "when the offset from UTC is zero, else by +HH:MM or -HH:MM.\n"
    "Status: 0 success, 1 failure, 2 bad arguments.\n";

static const char pidfile_help[] =
    "usage: qxutil pidfile PATH -- PROGRAM [ARGS...]\n"
    "\n"
    "Writes the PID file PATH with the library's write_pidfile and then becomes\n"
    "PROGRAM (exec, no fork: a PROGRAM without \"/\" is looked up on PATH), so\n"
    "the PID in the file is the program's own for as long as it runs. The file\n"
    "holds the PID and a line feed, mode 0644. Nothing is written and nothing\n"
    "is run when the file names a process that is still running; a file\n"
    "holding no number, 0, or the ID of a process that is gone is replaced.\n"
    "The file stays after the program ends, naming a process that is gone.\n"
    "Status: the program's own once it runs; 1 when a running process holds\n"
    "the file or it cannot be written, 2 bad arguments, 126 when PROGRAM\n"
    "cannot be executed and 127 when it is not found (the file is then\n"
    "removed again).\n";

static int print_pairs(const os_info *info) {
    const os_info_pair *pair;
    if (info->pairs == NULL)
        return QXU_OK;
    for (pair = info->pairs; pair->key != NULL; ++pair)
        printf("%s=%s\n", pair->key, pair->value);
    return QXU_OK;
}

static int has_key(const os_info *info, const char *key) {
    const os_info_pair *pair;
    if (info->pairs == NULL)
        return 0;
    for (pair = info->pairs; pair->key != NULL; ++pair)
        if (strcasecmp(pair->key, key) == 0)
            return 1;
    return 0;
}

int qxu_os_release(int argc, char **argv) {
    static const struct option options[] = {
        {"file", required_argument, NULL, 'f'}, QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    const char *path = NULL, *key = NULL, *shown;
    qxu_named_input input = {NULL, NULL};
    int started = 0, opt, rc;
    os_info *info;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1) {
        if (opt == ':' && optopt == 'f')
            return qxu_usage_error("--file needs a PATH");
        if (opt != 'f')
            return qxu_other_option(opt, argv, os_release_help);
        path = optarg;
    }
    if (argc - optind > 1)
        return qxu_usage_error("too many arguments; usage: qxutil os-release [--file PATH] [KEY]");
    if (argc - optind == 1)
        key = argv[optind];
    /* Standard input and pipes are copied, and a directory refused. */
    if (path != NULL && qxu_named_input_open(&input, path) != 0)
        return QXU_FAILED;
    info = os_info_create(input.path);
    if (info == NULL) {
        qxu_named_input_close(&input);
        return qxu_fail("out of memory");
    }
    shown = path == NULL ? info->path : strcmp(path, "-") == 0 ? "standard input" : path;
    if (openosrelease_v2(info) != 0)
        rc = qxu_fail("cannot read %s: %s", shown, strerror(errno));
    else if (key != NULL && !has_key(info, key))
        rc = qxu_fail("no key '%s' in %s", key, shown);
    else if (key != NULL)
        rc = printf("%s\n", osrelease_v2(info, key)) < 0 ? QXU_FAILED : QXU_OK;
    else if (info->pairs == NULL)
        rc = qxu_fail("no KEY=value line in %s", shown);
    else
        rc = print_pairs(info);
    os_info_delete(info);
    qxu_named_input_close(&input);
    return rc;
}

int qxu_rfc3339(int argc, char **argv) {
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    int started = 0, opt;
    char text[80];
    time_t when;

    /* A time before the epoch is negative and needs no "--" in front. */
    if (argc < 2 || argv[1][0] != '-' || !isdigit((unsigned char)argv[1][1])) {
        while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
            return qxu_other_option(opt, argv, rfc3339_help);
        argc -= optind - 1;
        argv += optind - 1;
    }
    --argc;
    ++argv;
    if (argc > 1)
        return qxu_usage_error("too many arguments; usage: qxutil rfc3339 [TIME]");
    if (argc == 1) {
        char *end;
        long long value;
        errno = 0;
        value = strtoll(argv[0], &end, 10);
        if (argv[0][0] == '\0' || *end != '\0' || errno != 0 || (long long)(time_t)value != value)
            return qxu_usage_error("TIME '%s' is not a number of seconds since the epoch", argv[0]);
        when = (time_t)value;
    } else {
        when = time(NULL);
    }
    if (rfc3339_date(when, text, sizeof text) >= (int)sizeof text)
        return qxu_fail("the date of %lld cannot be written", (long long)when);
    printf("%s\n", text);
    return QXU_OK;
}

int qxu_pidfile(int argc, char **argv) {
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    int started = 0, opt, saved;
    const char *path;
    char *program;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, pidfile_help);
    argc -= optind;
    argv += optind;
    if (argc < 1)
        return qxu_usage_error("missing PATH; usage: qxutil pidfile PATH -- PROGRAM [ARGS...]");
    path = argv[0];
    if (strcmp(path, "-") == 0)
        return qxu_usage_error("cannot write a PID file to standard output (\"-\"); name a file");
    --argc;
    ++argv;
    if (argc > 0 && strcmp(argv[0], "--") == 0) {
        --argc;
        ++argv;
    }
    if (argc < 1 || argv[0][0] == '\0')
        return qxu_usage_error("missing PROGRAM; usage: qxutil pidfile PATH -- PROGRAM [ARGS...]");
    /* Look the program up first: a PID file for a program that cannot run
     * would name a process about to end. */
    program = qxu_find_program(argv[0]);
    if (program == NULL) {
        saved = errno;
        if (saved == ENOENT && strchr(argv[0], '/') == NULL)
            qxu_fail("%s: command not found", argv[0]);
        else
            qxu_fail("%s: %s", argv[0], strerror(saved));
        return saved == ENOENT ? QXU_NOT_FOUND : QXU_NOT_EXECUTABLE;
    }
    if (write_pidfile(path) < 0) {
        saved = errno;
        free(program);
        if (saved == EEXIST)
            return qxu_fail("%s names a process that is still running; left as it is", path);
        return qxu_fail("cannot write %s: %s", path, strerror(saved));
    }
    /* The program takes over this process, and its output with it. */
    if (fflush(stdout) != 0) {
        saved = errno;
        unlink(path);
        free(program);
        return qxu_fail("cannot write to standard output: %s", strerror(saved));
    }
    execv(program, argv);
    saved = errno;
    unlink(path);
    qxu_fail("%s: %s", argv[0], strerror(saved));
    free(program);
    return saved == ENOENT ? QXU_NOT_FOUND : QXU_NOT_EXECUTABLE;
}
