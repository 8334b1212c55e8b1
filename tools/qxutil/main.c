/* qxutil: the library's main jobs from a shell, and a way to see exactly
 * how the library reads a file. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "qxutil.h"

static const char overview[] =
    "usage: qxutil COMMAND [ARGUMENTS...]\n"
    "       qxutil --help | --version\n"
    "\n"
    "Commands (each takes --help):\n"
    "  ini get FILE SECTION KEY [DEFAULT]   a value as the INI engine reads it\n"
    "  ini set FILE SECTION KEY VALUE       set or replace a key in place\n"
    "  ini delete FILE SECTION [KEY]        delete a key, or a whole section\n"
    "  ini sections FILE                    the section names, in file order\n"
    "  ini keys FILE SECTION                the key names of a section\n"
    "  ini dump FILE                        every section and key=value line\n"
    "  conf get FILE NAME                   a value of a name = value file\n"
    "  json [-e] PATTERN [FILE]             the placeholders' values, one line per step\n"
    "  run [--timeout SECONDS] -- PROGRAM [ARGS...]\n"
    "                                       run a program, pass on its output and status\n"
    "  encode base64|base32|hex|url [FILE]  encode a file or standard input\n"
    "  decode base64|base32|hex|url [FILE]  decode a file or standard input\n"
    "  xml-escape [--attr] [TEXT...]        text escaped for XML\n"
    "  os-release [--file PATH] [KEY]       OS release information\n"
    "  rfc3339 [TIME]                       a date-time in RFC 3339 form (default now)\n"
    "  pidfile PATH -- PROGRAM [ARGS...]    write a PID file, then become PROGRAM\n"
    "\n"
    "A FILE of \"-\" is standard input. Options come before operands; \"--\" ends\n"
    "them. Exit status: 0 success, 1 not found, invalid data or failure, 2 bad\n"
    "arguments; run passes on the program's status, with 124 when its time limit\n"
    "ran out, 125 when it could not be started and 127 when the program was not\n"
    "found; pidfile gives 126 when the program cannot be executed and 127 when\n"
    "it was not found.\n";

struct command {
    const char *name;
    qxu_command_fn run;
};

/* Output is buffered, so a full disk or a closed descriptor shows only
 * when it is flushed: a command that could not say everything failed. */
static int finish(int status) {
    if (fflush(stdout) != 0 || ferror(stdout)) {
        qxu_fail("cannot write to standard output: %s", strerror(errno));
        if (status == QXU_OK)
            status = QXU_FAILED;
    }
    return status;
}

int main(int argc, char **argv) {
    static const struct command commands[] = {
        {"ini", qxu_ini},
        {"conf", qxu_conf},
        {"json", qxu_json},
        {"run", qxu_run},
        {"encode", qxu_encode},
        {"decode", qxu_decode},
        {"xml-escape", qxu_xml_escape},
        {"os-release", qxu_os_release},
        {"rfc3339", qxu_rfc3339},
        {"pidfile", qxu_pidfile},
    };
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    int started = 0, opt;
    size_t i;

    qxu_set_command(NULL, NULL);
    if (argc < 2) {
        /* The whole usage, as a reminder, where the output is not data. */
        fputs(overview, stderr);
        return QXU_USAGE;
    }
    if (strcmp(argv[1], "help") == 0)
        return finish(qxu_print_help(overview));
    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return finish(qxu_other_option(opt, argv, overview));
    if (optind >= argc)
        return qxu_usage_error("missing command");
    for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
        if (strcmp(argv[optind], commands[i].name) == 0) {
            qxu_set_command(commands[i].name, NULL);
            return finish(commands[i].run(argc - optind, argv + optind));
        }
    }
    return qxu_usage_error("unknown command '%s'", argv[optind]);
}
