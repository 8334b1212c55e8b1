/* qxutil: the library's main jobs from a shell, and a way to see exactly
 * how the library reads a file. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "qxutil.h"

static const char overview[] =
    "usage: qxutil COMMAND [ARGUMENTS...]\n"
    "\n"
    "Commands (each takes --help):\n"
    "  ini get FILE SECTION KEY [DEFAULT]   a value as the INI engine reads it\n"
    "  ini set FILE SECTION KEY VALUE       set or replace a key in place\n"
    "  ini delete FILE SECTION [KEY]        delete a key, or a whole section\n"
    "  ini sections FILE                    the section names, in file order\n"
    "  ini keys FILE SECTION                the key names of a section\n"
    "  ini dump FILE                        every section and key=value line\n"
    "  conf get FILE NAME                   a value of a name = value file\n"
    "  json PATTERN FILE                    the placeholders' values, one line per step\n"
    "  run [--timeout SECONDS] -- PROGRAM [ARGS...]\n"
    "                                       run a program, pass on its output and status\n"
    "  encode base64|base32|hex|url [TEXT...]\n"
    "  decode base64|base32|hex|url [TEXT...]\n"
    "  xml-escape [TEXT...]                 text escaped for XML\n"
    "  os-release [--file PATH] [KEY]       OS release information\n"
    "  rfc3339 [TIME]                       a date-time in RFC 3339 form (default now)\n"
    "  pidfile PATH                         write a PID file unless its process runs\n"
    "\n"
    "A FILE of \"-\" is standard input. Exit status: 0 success, 1 failure or not\n"
    "found, 2 bad arguments; run passes on the program's status, with 124 when\n"
    "its time limit ran out, 125 when it could not be started and 127 when the\n"
    "program was not found.\n";

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
    size_t i;

    qxu_set_command(NULL, NULL);
    if (argc < 2)
        return qxu_usage_error("missing command");
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0)
        return finish(qxu_print_help(overview));
    for (i = 0; i < sizeof commands / sizeof commands[0]; ++i) {
        if (strcmp(argv[1], commands[i].name) == 0) {
            qxu_set_command(commands[i].name, NULL);
            return finish(commands[i].run(argc - 2, argv + 2));
        }
    }
    return qxu_usage_error("unknown command '%s'", argv[1]);
}
