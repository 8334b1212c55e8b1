/* qxutil conf: name = value files through the library's config reader. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <qxcommon-util/config.h>

#include "qxutil.h"

static const char conf_help[] =
    "usage: qxutil conf get FILE NAME\n"
    "\n"
    "Prints the value of NAME in a file of \"name = value\" lines, as the\n"
    "library's config reader reads it: lines are trimmed, empty lines and lines\n"
    "starting with \"#\" are skipped, a line counts only when \"=\" cuts it into\n"
    "exactly two fields (so a value cannot hold \"=\"), names compare exactly\n"
    "and the first of several equal names wins. FILE may be \"-\" (standard\n"
    "input). Status: 0 found, 1 no such name or the file cannot be read, 2 bad\n"
    "arguments.\n";

static int conf_get(const char *shown, const char *path, const char *name) {
    qx_config_reader *reader = qx_config_reader_new();
    const char *value;
    int rc = QXU_OK;

    if (reader == NULL)
        return qxu_fail("out of memory");
    errno = 0;
    switch (qx_config_reader_read_config(reader, path)) {
    case 0:
        value = qx_config_reader_get_property(reader, name);
        if (value != NULL)
            printf("%s\n", value);
        else
            rc = qxu_fail("no name '%s' in %s", name, shown);
        break;
    case -3:
        rc = qxu_fail("cannot open %s: %s", shown,
                      errno != 0 ? strerror(errno) : "cannot be opened");
        break;
    case -4:
        rc = qxu_fail("closing %s failed", shown);
        break;
    default:
        rc = qxu_fail("cannot read %s", shown);
        break;
    }
    qx_config_reader_delete(reader);
    return rc;
}

int qxu_conf(int argc, char **argv) {
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    qxu_named_input input;
    int started = 0, opt, rc;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, conf_help);
    argc -= optind;
    argv += optind;
    if (argc < 1)
        return qxu_usage_error("missing subcommand (get)");
    if (strcmp(argv[0], "get") != 0)
        return qxu_usage_error("unknown subcommand '%s'", argv[0]);
    qxu_set_command("conf", "get");
    started = 0;
    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, conf_help);
    argc -= optind;
    argv += optind;
    if (argc != 2)
        return qxu_usage_error("%s arguments; usage: qxutil conf get FILE NAME",
                               argc < 2 ? "missing" : "too many");
    if (qxu_named_input_open(&input, argv[0]) != 0)
        return QXU_FAILED;
    rc = conf_get(argv[0], input.path, argv[1]);
    qxu_named_input_close(&input);
    return rc;
}
