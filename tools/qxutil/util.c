/* Messages, help, and the input helpers shared by the subcommands. */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/dirtree.h>

#include "qxutil.h"

static char command_name[64] = "qxutil";
static char help_hint[64] = "qxutil --help";

void qxu_set_command(const char *first, const char *second) {
    if (first == NULL) {
        snprintf(command_name, sizeof command_name, "qxutil");
        snprintf(help_hint, sizeof help_hint, "qxutil --help");
    } else if (second == NULL) {
        snprintf(command_name, sizeof command_name, "qxutil %s", first);
        snprintf(help_hint, sizeof help_hint, "qxutil %s --help", first);
    } else {
        snprintf(command_name, sizeof command_name, "qxutil %s %s", first, second);
        snprintf(help_hint, sizeof help_hint, "qxutil %s --help", first);
    }
}

int qxu_usage_error(const char *format, ...) {
    va_list args;
    fprintf(stderr, "%s: ", command_name);
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fprintf(stderr, " (see '%s')\n", help_hint);
    return QXU_USAGE;
}

int qxu_fail(const char *format, ...) {
    va_list args;
    fprintf(stderr, "%s: ", command_name);
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    return QXU_FAILED;
}

int qxu_wants_help(int argc, char **argv) {
    int i;
    for (i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0)
            return 0;
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)
            return 1;
    }
    return 0;
}

int qxu_print_help(const char *text) {
    fputs(text, stdout);
    return QXU_OK;
}

int qxu_read_all(FILE *stream, char **data, size_t *length) {
    size_t size = 4096, used = 0;
    char *block = malloc(size);

    if (block == NULL)
        return -1;
    for (;;) {
        size_t got;
        if (size - used < 2) {
            char *bigger = realloc(block, size * 2);
            if (bigger == NULL) {
                free(block);
                errno = ENOMEM;
                return -1;
            }
            block = bigger;
            size *= 2;
        }
        got = fread(block + used, 1, size - used - 1, stream);
        used += got;
        if (got == 0) {
            if (ferror(stream)) {
                int saved = errno;
                free(block);
                errno = saved != 0 ? saved : EIO;
                return -1;
            }
            break;
        }
    }
    block[used] = '\0';
    *data = block;
    *length = used;
    return 0;
}

int qxu_text_input(int argc, char **argv, char **data, size_t *length) {
    size_t total = 0;
    char *text, *at;
    int i;

    int literal = argc > 0 && strcmp(argv[0], "--") == 0;

    /* After "--" every argument is text, "-" and "--help" included. */
    if (literal) {
        --argc;
        ++argv;
    }
    if (argc == 0 || (!literal && argc == 1 && strcmp(argv[0], "-") == 0)) {
        if (qxu_read_all(stdin, data, length) != 0) {
            qxu_fail("cannot read standard input: %s", strerror(errno));
            return -1;
        }
        return 0;
    }
    for (i = 0; i < argc; ++i)
        total += strlen(argv[i]) + 1;
    text = malloc(total);
    if (text == NULL) {
        qxu_fail("out of memory");
        return -1;
    }
    at = text;
    for (i = 0; i < argc; ++i) {
        size_t n = strlen(argv[i]);
        if (i > 0)
            *at++ = ' ';
        memcpy(at, argv[i], n);
        at += n;
    }
    *at = '\0';
    *data = text;
    *length = (size_t)(at - text);
    return 0;
}

int qxu_write_all(FILE *stream, const void *data, size_t length) {
    if (length == 0)
        return 0;
    return fwrite(data, 1, length, stream) == length ? 0 : -1;
}

int qxu_named_input_open(qxu_named_input *input, const char *name) {
    const char *dir = getenv("TMPDIR");
    char *copy = NULL;
    size_t length = 0;
    int fd;

    input->path = name;
    input->temporary = NULL;
    if (strcmp(name, "-") != 0)
        return 0;
    if (dir == NULL || *dir == '\0')
        dir = "/tmp";
    if (qxu_read_all(stdin, &copy, &length) != 0)
        return qxu_fail("cannot read standard input: %s", strerror(errno));
    fd = create_tempfile(dir, O_WRONLY | O_CLOEXEC, 0600, &input->temporary);
    if (fd < 0) {
        int saved = errno;
        free(copy);
        return qxu_fail("cannot create a temporary file in %s: %s", dir, strerror(saved));
    }
    {
        size_t done = 0;
        while (done < length) {
            ssize_t n = write(fd, copy + done, length - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                int saved = errno;
                close(fd);
                free(copy);
                qxu_named_input_close(input);
                return qxu_fail("cannot copy standard input: %s", strerror(saved));
            }
            done += (size_t)n;
        }
    }
    free(copy);
    if (close(fd) != 0) {
        int saved = errno;
        qxu_named_input_close(input);
        return qxu_fail("cannot copy standard input: %s", strerror(saved));
    }
    input->path = input->temporary;
    return 0;
}

void qxu_named_input_close(qxu_named_input *input) {
    if (input->temporary != NULL) {
        unlink(input->temporary);
        free(input->temporary);
        input->temporary = NULL;
    }
}
