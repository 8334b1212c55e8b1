/* qxutil: the library's main jobs from a shell.
 *
 * Each subcommand lives in its own source file and has the signature of
 * qxu_command_fn: it gets its own name as argv[0] and the arguments after it,
 * as a program's main does, and returns the process's exit status. */
#ifndef QXUTIL_QXUTIL_H
#define QXUTIL_QXUTIL_H

#include <getopt.h>
#include <stddef.h>
#include <stdio.h>

/* Exit statuses shared by every subcommand. */
enum {
    QXU_OK = 0,
    QXU_FAILED = 1, /* not found, unreadable, invalid data, refused by the library */
    QXU_USAGE = 2,  /* bad arguments */
    /* run only: the command outlived its time limit and was killed */
    QXU_RUN_TIMED_OUT = 124,
    /* run only: the command could not be started (no pipe or no child) */
    QXU_RUN_NOT_STARTED = 125,
    /* pidfile only: the program was found but could not be executed */
    QXU_NOT_EXECUTABLE = 126,
    /* run and pidfile: no such program (not executable, or not found on PATH) */
    QXU_NOT_FOUND = 127
};

typedef int (*qxu_command_fn)(int argc, char **argv);

int qxu_ini(int argc, char **argv);
int qxu_conf(int argc, char **argv);
int qxu_json(int argc, char **argv);
int qxu_run(int argc, char **argv);
int qxu_encode(int argc, char **argv);
int qxu_decode(int argc, char **argv);
int qxu_xml_escape(int argc, char **argv);
int qxu_os_release(int argc, char **argv);
int qxu_rfc3339(int argc, char **argv);
int qxu_pidfile(int argc, char **argv);

/* The name used in messages, e.g. "qxutil ini get". */
void qxu_set_command(const char *first, const char *second);

/* "qxutil CMD: <message>" on standard error; returns QXU_USAGE. The
 * message also points at the subcommand's --help. */
int qxu_usage_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* "qxutil CMD: <message>" on standard error; returns QXU_FAILED. */
int qxu_fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Prints text on standard output and returns QXU_OK. */
int qxu_print_help(const char *text);
/* Prints "qxutil VERSION" and the library it comes with; returns QXU_OK. */
int qxu_print_version(void);

/* Option parsing follows getopt's POSIX conventions: options come before
 * the operands, the first operand ends them ("-" alone is an operand), and
 * so does "--". Every command takes -h/--help and --version, which
 * QXU_COMMON_OPTIONS adds to its table of long options.
 *
 * qxu_getopt starts a new parse when *started is 0 and then returns what
 * getopt_long returns (-1 at the first operand); optind then indexes it. */
#define QXU_COMMON_OPTIONS                                                                         \
    {"help", no_argument, NULL, 'h'}, {                                                            \
        "version", no_argument, NULL, 'V'                                                          \
    }
int qxu_getopt(int argc, char **argv, const char *shortopts, const struct option *longopts,
               int *started);
/* The status for an option that the command does not handle itself: help
 * and version are printed, anything else is a usage error naming it. */
int qxu_other_option(int opt, char **argv, const char *help);

/* Reads the whole stream into a new malloc'ed block with a NUL behind the
 * data. 0, or -1 with errno. */
int qxu_read_all(FILE *stream, char **data, size_t *length);

/* A file the library opens by name. Standard input ("-") and files that
 * cannot be read twice (pipes, devices) are copied to a temporary file
 * first, whose name then stands in for them; a directory is refused. */
typedef struct qxu_named_input {
    const char *path;
    char *temporary; /* malloc'ed name of the copy, or NULL */
} qxu_named_input;

/* 0, or QXU_FAILED after printing why. */
int qxu_named_input_open(qxu_named_input *input, const char *name);
/* Removes the copy, if any. */
void qxu_named_input_close(qxu_named_input *input);

/* Writes exactly length bytes to the stream; 0 or -1. */
int qxu_write_all(FILE *stream, const void *data, size_t length);

/* The path of the program that execvp would run for name: name itself when
 * it holds a "/", else the first executable match on PATH. A new malloc'ed
 * string, or NULL with errno (ENOENT when there is none). */
char *qxu_find_program(const char *name);

#endif
