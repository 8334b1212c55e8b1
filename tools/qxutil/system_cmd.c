/* qxutil os-release, rfc3339 and pidfile: the system information and
 * single-instance helpers. */
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
    "ignoring case. The file is /etc/os-release unless --file names another.\n"
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
    "usage: qxutil pidfile PATH\n"
    "\n"
    "Writes qxutil's own process ID and a line feed to the PID file PATH (mode\n"
    "0644) and prints that ID, unless the file names a process that is still\n"
    "running: then the file is left as it is. A file holding no number, 0, or\n"
    "the ID of a process that is gone is replaced.\n"
    "Status: 0 written, 1 a running process holds the file or it cannot be\n"
    "written, 2 bad arguments.\n";

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
    const char *path = NULL, *key = NULL;
    os_info *info;
    int i, rc;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(os_release_help);
    for (i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--file") == 0) {
            if (i + 1 >= argc)
                return qxu_usage_error("--file needs a PATH");
            path = argv[++i];
        } else if (strncmp(argv[i], "--file=", 7) == 0) {
            path = argv[i] + 7;
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            return qxu_usage_error("unknown option '%s'", argv[i]);
        } else if (key == NULL) {
            key = argv[i];
        } else {
            return qxu_usage_error(
                "too many arguments; usage: qxutil os-release [--file PATH] [KEY]");
        }
    }
    info = os_info_create(path);
    if (info == NULL)
        return qxu_fail("out of memory");
    if (openosrelease_v2(info) != 0) {
        rc = qxu_fail("cannot read %s: %s", info->path, strerror(errno));
    } else if (key == NULL) {
        rc = print_pairs(info);
    } else if (!has_key(info, key)) {
        rc = qxu_fail("no key '%s' in %s", key, info->path);
    } else {
        printf("%s\n", osrelease_v2(info, key));
        rc = QXU_OK;
    }
    os_info_delete(info);
    return rc;
}

int qxu_rfc3339(int argc, char **argv) {
    char text[80];
    time_t when;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(rfc3339_help);
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
    if (qxu_wants_help(argc, argv))
        return qxu_print_help(pidfile_help);
    if (argc != 1)
        return qxu_usage_error("%s arguments; usage: qxutil pidfile PATH",
                               argc < 1 ? "missing" : "too many");
    if (strcmp(argv[0], "-") == 0)
        return qxu_usage_error("cannot write a PID file to standard output (\"-\"); name a file");
    if (write_pidfile(argv[0]) < 0) {
        if (errno == EEXIST)
            return qxu_fail("%s names a process that is still running; left as it is", argv[0]);
        return qxu_fail("cannot write %s: %s", argv[0], strerror(errno));
    }
    printf("%ld\n", (long)getpid());
    return QXU_OK;
}
