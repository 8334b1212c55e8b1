/* Messages, help, and the input helpers shared by the subcommands. */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
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

int qxu_getopt(int argc, char **argv, const char *shortopts, const struct option *longopts,
               int *started) {
    if (!*started) {
        /* 0 makes glibc start afresh, also after an earlier parse. */
        optind = 0;
        *started = 1;
    }
    opterr = 0;
    return getopt_long(argc, argv, shortopts, longopts, NULL);
}

int qxu_other_option(int opt, char **argv, const char *help) {
    switch (opt) {
    case 'h':
        return qxu_print_help(help);
    case 'V':
        return qxu_print_version();
    case ':':
        return qxu_usage_error("option '%s' needs a value", argv[optind - 1]);
    default:
        if (optopt != 0 && optopt != '?')
            return qxu_usage_error("unknown option '-%c'", optopt);
        return qxu_usage_error("unknown option '%s'", argv[optind - 1]);
    }
}

int qxu_print_help(const char *text) {
    fputs(text, stdout);
    return QXU_OK;
}

int qxu_print_version(void) {
    printf("qxutil %s (libqxcommon-util %s)\n", QXUTIL_VERSION, QXUTIL_VERSION);
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

int qxu_write_all(FILE *stream, const void *data, size_t length) {
    if (length == 0)
        return 0;
    return fwrite(data, 1, length, stream) == length ? 0 : -1;
}

/* Copies the stream to the descriptor in pieces; 0, or -1 with errno. */
static int copy_stream(FILE *from, int fd) {
    char buffer[65536];
    for (;;) {
        size_t got = fread(buffer, 1, sizeof buffer, from), done = 0;
        while (done < got) {
            ssize_t n = write(fd, buffer + done, got - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return -1;
            done += (size_t)n;
        }
        if (got < sizeof buffer) {
            if (ferror(from)) {
                if (errno == 0)
                    errno = EIO;
                return -1;
            }
            return 0;
        }
    }
}

int qxu_named_input_open(qxu_named_input *input, const char *name) {
    const char *dir = getenv("TMPDIR");
    const char *shown = strcmp(name, "-") == 0 ? "standard input" : name;
    struct stat st;
    FILE *from = stdin;
    int fd, failed;

    input->path = name;
    input->temporary = NULL;
    if (strcmp(name, "-") != 0) {
        /* A missing or unreadable file is left to the caller, which says
         * what the library makes of it. */
        if (stat(name, &st) != 0 || S_ISREG(st.st_mode))
            return 0;
        if (S_ISDIR(st.st_mode))
            return qxu_fail("%s is a directory", name);
        /* A pipe or a device reads only once, but the library opens the
         * file again for every lookup. */
        from = fopen(name, "rb");
        if (from == NULL)
            return qxu_fail("cannot open %s: %s", name, strerror(errno));
    }
    if (dir == NULL || *dir == '\0')
        dir = "/tmp";
    fd = create_tempfile(dir, O_WRONLY | O_CLOEXEC, 0600, &input->temporary);
    if (fd < 0) {
        int saved = errno;
        if (from != stdin)
            fclose(from);
        return qxu_fail("cannot create a temporary file in %s: %s", dir, strerror(saved));
    }
    errno = 0;
    failed = copy_stream(from, fd);
    if (close(fd) != 0)
        failed = -1;
    if (failed) {
        int saved = errno != 0 ? errno : EIO;
        if (from != stdin)
            fclose(from);
        qxu_named_input_close(input);
        return qxu_fail("cannot copy %s: %s", shown, strerror(saved));
    }
    if (from != stdin)
        fclose(from);
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

char *qxu_find_program(const char *name) {
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
        struct stat st;
        if (candidate == NULL)
            return NULL;
        if (dir_length == 0)
            snprintf(candidate, dir_length + name_length + 3, "./%s", name);
        else
            snprintf(candidate, dir_length + name_length + 3, "%.*s/%s", (int)dir_length, path,
                     name);
        /* execvp passes over directories that happen to be executable. */
        if (access(candidate, X_OK) == 0 && stat(candidate, &st) == 0 && !S_ISDIR(st.st_mode))
            return candidate;
        free(candidate);
        if (end == NULL)
            break;
        path = end + 1;
    }
    errno = ENOENT;
    return NULL;
}
