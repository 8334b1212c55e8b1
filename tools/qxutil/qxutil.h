/* qxutil: the library's main jobs from a shell.
 *
 * Each subcommand lives in its own source file and has the signature of
 * qxu_command_fn: it gets the arguments after its own name and returns the
 * process's exit status. */
#ifndef QXUTIL_QXUTIL_H
#define QXUTIL_QXUTIL_H

#include <stddef.h>
#include <stdio.h>

/* Exit statuses shared by every subcommand. */
enum {
    QXU_OK = 0,
    QXU_FAILED = 1, /* not found, unreadable, refused by the library */
    QXU_USAGE = 2,  /* bad arguments */
    /* run only: the command outlived its time limit and was killed */
    QXU_RUN_TIMED_OUT = 124,
    /* run only: the command could not be started (no pipe or no child) */
    QXU_RUN_NOT_STARTED = 125,
    /* run only: no such program (not executable, or not found on PATH) */
    QXU_RUN_NOT_FOUND = 127
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

/* 1 when "--help" or "-h" comes among the arguments before a "--". */
int qxu_wants_help(int argc, char **argv);
/* Prints text on standard output and returns QXU_OK. */
int qxu_print_help(const char *text);

/* Reads the whole stream into a new malloc'ed block with a NUL behind the
 * data. 0, or -1 with errno. */
int qxu_read_all(FILE *stream, char **data, size_t *length);

/* The text a codec subcommand works on: the arguments joined by single
 * spaces, or all of standard input when there are none or the only one is
 * "-". A first argument "--" is dropped and makes the rest plain text.
 * 0, or -1 (a message is printed). */
int qxu_text_input(int argc, char **argv, char **data, size_t *length);

/* A file the library opens by name. For "-" standard input is copied to a
 * temporary file first, whose name then stands in for it. */
typedef struct qxu_named_input {
    const char *path;
    char *temporary; /* malloc'ed name of the copy, or NULL */
} qxu_named_input;

/* 0, or QXU_FAILED after printing why. */
int qxu_named_input_open(qxu_named_input *input, const char *name);
/* Removes the copy of standard input, if any. */
void qxu_named_input_close(qxu_named_input *input);

/* Writes exactly length bytes to the stream; 0 or -1. */
int qxu_write_all(FILE *stream, const void *data, size_t length);

#endif
