/* qxutil ini: the INI engine, one call per subcommand, its results printed
 * as the engine returns them. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qxcommon-util/ini.h>

#include "qxutil.h"

static const char ini_help[] =
    "usage: qxutil ini get FILE SECTION KEY [DEFAULT]\n"
    "       qxutil ini set FILE SECTION KEY VALUE\n"
    "       qxutil ini delete FILE SECTION [KEY]\n"
    "       qxutil ini sections FILE\n"
    "       qxutil ini keys FILE SECTION\n"
    "       qxutil ini dump FILE\n"
    "\n"
    "Reads and updates INI files with the library's INI engine. An empty SECTION\n"
    "(\"\") is the unnamed section before the first header; names compare\n"
    "ignoring case and the first match wins.\n"
    "\n"
    "  get       prints the value as the engine returns it (comments cut, quotes\n"
    "            removed); DEFAULT when the key or the file is missing. Without\n"
    "            DEFAULT a missing section or key is an error (status 1).\n"
    "  set       replaces the key's first line in the section, or adds it at the\n"
    "            end of the section, creating section and file as needed.\n"
    "  delete    removes the key's line, or without KEY the section's header and\n"
    "            every line up to the next line starting with \"[\".\n"
    "  sections  prints the section names in file order; a header \"[]\" ends the\n"
    "            list.\n"
    "  keys      prints the key names of the section in file order; a line with an\n"
    "            empty key ends the list. A missing section is status 1.\n"
    "  dump      prints every line the engine sees: \"[SECTION]\" for a header and\n"
    "            \"KEY=VALUE\" for a key line, repeated sections included.\n"
    "\n"
    "set and delete edit the file a symbolic link points to, and give the file\n"
    "back its mode and owner, which the engine's rewrite does not keep. They\n"
    "refuse a line feed or carriage return in SECTION, KEY or VALUE, a \"]\" in\n"
    "SECTION, a \"=\" in KEY, and a line longer than the 510 bytes that the\n"
    "engine writes whole.\n"
    "FILE may be \"-\" (standard input) for the reading subcommands only.\n"
    "Status: 0 success, 1 not found or not written, 2 bad arguments.\n";

/* An engine line never holds a line feed, so a value read back as one
 * tells that the engine fell back to the default. */
static const char missing_marker[] = "\n";

/* -1 when the file can be opened, else QXU_FAILED after saying why. */
static int unreadable(const char *shown, const char *path) {
    FILE *f = fopen(path, "r");
    if (f != NULL) {
        fclose(f);
        return -1;
    }
    return qxu_fail("cannot open %s: %s", shown, strerror(errno));
}

struct section_search {
    const char *name;
    int found;
};

static int match_header(const char *section, const char *key, const char *value, void *data) {
    struct section_search *search = data;
    (void)value;
    if (key == NULL && strlen(section) == strlen(search->name) &&
        strcasecmp(section, search->name) == 0) {
        search->found = 1;
        return 0;
    }
    return 1;
}

/* 1 when the engine's lookups find a header of that name (the unnamed
 * section is always there). */
static int has_section(const char *path, const char *section) {
    struct section_search search = {section, 0};
    if (*section == '\0')
        return 1;
    ini_browse_with_section_cb(match_header, &search, path);
    return search.found;
}

static int ini_get(const char *shown, const char *path, int argc, char **argv) {
    const char *section = argv[0], *key = argv[1];
    const char *fallback = argc == 3 ? argv[2] : missing_marker;
    size_t size = 512;
    char *value;
    int rc = QXU_OK;

    if (strlen(fallback) + 1 > size)
        size = strlen(fallback) + 1;
    if (size > (size_t)INT_MAX)
        return qxu_usage_error("DEFAULT is too long");
    value = malloc(size);
    if (value == NULL)
        return qxu_fail("out of memory");
    ini_gets(section, key, fallback, value, (int)size, path);
    if (argc == 2 && strcmp(value, missing_marker) == 0) {
        rc = unreadable(shown, path);
        if (rc < 0 && !has_section(path, section))
            rc = qxu_fail("no section '%s' in %s", section, shown);
        else if (rc < 0)
            rc = qxu_fail("no key '%s' in section '%s' of %s", key, section, shown);
    } else {
        printf("%s\n", value);
    }
    free(value);
    return rc;
}

static int ini_sections(const char *shown, const char *path) {
    char name[512];
    int index;

    if (unreadable(shown, path) >= 0)
        return QXU_FAILED;
    for (index = 0; ini_getsection(index, name, (int)sizeof name, path) > 0; ++index)
        printf("%s\n", name);
    return QXU_OK;
}

static int ini_keys(const char *shown, const char *path, const char *section) {
    char name[512];
    int index;

    if (unreadable(shown, path) >= 0)
        return QXU_FAILED;
    if (!has_section(path, section))
        return qxu_fail("no section '%s' in %s", section, shown);
    for (index = 0; ini_getkey(section, index, name, (int)sizeof name, path) > 0; ++index)
        printf("%s\n", name);
    return QXU_OK;
}

static int print_line(const char *section, const char *key, const char *value, void *unused) {
    (void)unused;
    if (key == NULL)
        printf("[%s]\n", section);
    else
        printf("%s=%s\n", key, value);
    return 1;
}

static int ini_dump(const char *shown, const char *path) {
    if (!ini_browse_with_section_cb(print_line, NULL, path))
        return qxu_fail("cannot open %s: %s", shown, strerror(errno));
    return QXU_OK;
}

/* The length of the line the engine composes for KEY=VALUE, line feed
 * included, which must stay within 510 bytes: it quotes a value that starts with or holds a double
 * quote, holds ";" or "#", or ends with a space, and escapes each quote inside. */
static size_t key_line_length(const char *key, const char *value) {
    size_t length = strlen(value), quotes = 0, i;
    int quoted = length > 0 && value[length - 1] == ' ';
    for (i = 0; i < length; ++i) {
        if (value[i] == '"')
            ++quotes;
        if (value[i] == '"' || value[i] == ';' || value[i] == '#')
            quoted = 1;
    }
    return strlen(key) + 1 + length + (quoted ? 2 + quotes : 0) + 1;
}

/* Arguments the engine would write into lines that do not read back as
 * they were meant: a usage error naming the problem, or 0. */
static int check_write_arguments(const char *section, const char *key, const char *value) {
    if (strpbrk(section, "\r\n") != NULL)
        return qxu_usage_error("SECTION holds a line feed or carriage return");
    if (strchr(section, ']') != NULL)
        return qxu_usage_error("SECTION holds \"]\", which would end its header early");
    if (strlen(section) + 3 > 510)
        return qxu_usage_error("SECTION makes a header line longer than 510 bytes");
    if (key == NULL)
        return 0;
    if (strpbrk(key, "\r\n") != NULL)
        return qxu_usage_error("KEY holds a line feed or carriage return");
    if (strchr(key, '=') != NULL)
        return qxu_usage_error("KEY holds \"=\", which would end the key early");
    if (value != NULL && strpbrk(value, "\r\n") != NULL)
        return qxu_usage_error("VALUE holds a line feed or carriage return");
    if (value != NULL && key_line_length(key, value) > 510)
        return qxu_usage_error("KEY and VALUE make a line longer than 510 bytes");
    return 0;
}

/* The file that a chain of symbolic links ends at (it may not exist yet),
 * as a new malloc'ed path; NULL after a message. */
static char *link_target(const char *file) {
    char *path = strdup(file);
    int links;

    for (links = 0; path != NULL; ++links) {
        struct stat st;
        char target[PATH_MAX];
        ssize_t n;
        char *next, *slash;

        if (lstat(path, &st) != 0 || !S_ISLNK(st.st_mode))
            return path;
        if (links == 40) {
            free(path);
            qxu_fail("cannot write %s: %s", file, strerror(ELOOP));
            return NULL;
        }
        n = readlink(path, target, sizeof target - 1);
        if (n < 0) {
            int saved = errno;
            free(path);
            qxu_fail("cannot read the link %s: %s", file, strerror(saved));
            return NULL;
        }
        target[n] = '\0';
        slash = strrchr(path, '/');
        if (target[0] == '/' || slash == NULL) {
            next = strdup(target);
        } else {
            /* A relative target is relative to the link's directory. */
            size_t dir = (size_t)(slash - path) + 1;
            next = malloc(dir + (size_t)n + 1);
            if (next != NULL) {
                memcpy(next, path, dir);
                memcpy(next + dir, target, (size_t)n + 1);
            }
        }
        free(path);
        path = next;
    }
    qxu_fail("out of memory");
    return NULL;
}

/* The engine writes a new file with the default mode of new files and the
 * writer's owner; give the file what it had. */
static int restore_attributes(const char *shown, const char *path, const struct stat *old) {
    struct stat now;
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC), rc = QXU_OK;

    if (fd < 0 || fstat(fd, &now) != 0) {
        rc = qxu_fail("cannot restore the mode and owner of %s: %s", shown, strerror(errno));
    } else {
        /* The owner first: a change of owner clears set-ID bits. */
        if ((now.st_uid != old->st_uid || now.st_gid != old->st_gid) &&
            fchown(fd, old->st_uid, old->st_gid) != 0)
            rc = qxu_fail("wrote %s but cannot give it back its owner %ld:%ld: %s", shown,
                          (long)old->st_uid, (long)old->st_gid, strerror(errno));
        if ((now.st_mode & 07777) != (old->st_mode & 07777) &&
            fchmod(fd, old->st_mode & 07777) != 0)
            rc = qxu_fail("wrote %s but cannot give it back its mode %04o: %s", shown,
                          (unsigned)(old->st_mode & 07777), strerror(errno));
    }
    if (fd >= 0)
        close(fd);
    return rc;
}

static int ini_write(const char *file, const char *section, const char *key, const char *value) {
    struct stat old;
    int existed, ok, rc;
    char *path;
    mode_t mask = 0;

    if (strcmp(file, "-") == 0)
        return qxu_usage_error("cannot write to standard input (\"-\"); name a file");
    rc = check_write_arguments(section, key, value);
    if (rc != 0)
        return rc;
    path = link_target(file);
    if (path == NULL)
        return QXU_FAILED;
    existed = stat(path, &old) == 0;
    if (existed && !S_ISREG(old.st_mode)) {
        free(path);
        return qxu_fail("%s is %s", file,
                        S_ISDIR(old.st_mode) ? "a directory" : "not a regular file");
    }
    /* The rewritten file is created with 0666 less the umask: never let it
     * be open to more than the old one was, even for a moment. */
    if (existed)
        mask = umask((mode_t)(~old.st_mode & 0777));
    errno = 0;
    ok = ini_puts(section, key, value, path);
    if (existed)
        umask(mask);
    if (!ok)
        rc = qxu_fail("cannot write %s: %s", file,
                      errno != 0 ? strerror(errno) : "the file could not be created");
    else if (existed)
        rc = restore_attributes(file, path, &old);
    free(path);
    return rc;
}

struct ini_subcommand {
    const char *name;
    int min_args, max_args; /* after FILE */
    const char *synopsis;
};

static const struct ini_subcommand subcommands[] = {
    {"get", 2, 3, "FILE SECTION KEY [DEFAULT]"},
    {"set", 3, 3, "FILE SECTION KEY VALUE"},
    {"delete", 1, 2, "FILE SECTION [KEY]"},
    {"sections", 0, 0, "FILE"},
    {"keys", 1, 1, "FILE SECTION"},
    {"dump", 0, 0, "FILE"},
};

int qxu_ini(int argc, char **argv) {
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    const struct ini_subcommand *sub = NULL;
    qxu_named_input input;
    const char *file;
    size_t i;
    int nargs, rc, opt, started = 0;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, ini_help);
    argc -= optind;
    argv += optind;
    if (argc < 1)
        return qxu_usage_error("missing subcommand (get, set, delete, sections, keys or dump)");
    for (i = 0; i < sizeof subcommands / sizeof subcommands[0]; ++i)
        if (strcmp(argv[0], subcommands[i].name) == 0)
            sub = &subcommands[i];
    if (sub == NULL)
        return qxu_usage_error("unknown subcommand '%s'", argv[0]);
    qxu_set_command("ini", sub->name);
    started = 0;
    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, ini_help);
    argc -= optind;
    argv += optind;
    if (argc < 1)
        return qxu_usage_error("missing FILE; usage: qxutil ini %s %s", sub->name, sub->synopsis);
    file = argv[0];
    nargs = argc - 1;
    if (nargs < sub->min_args || nargs > sub->max_args)
        return qxu_usage_error("%s arguments; usage: qxutil ini %s %s",
                               nargs < sub->min_args ? "missing" : "too many", sub->name,
                               sub->synopsis);
    argv += 1;

    if (strcmp(sub->name, "set") == 0)
        return ini_write(file, argv[0], argv[1], argv[2]);
    if (strcmp(sub->name, "delete") == 0)
        return ini_write(file, argv[0], nargs == 2 ? argv[1] : NULL, NULL);

    if (qxu_named_input_open(&input, file) != 0)
        return QXU_FAILED;
    if (strcmp(sub->name, "get") == 0)
        rc = ini_get(file, input.path, nargs, argv);
    else if (strcmp(sub->name, "sections") == 0)
        rc = ini_sections(file, input.path);
    else if (strcmp(sub->name, "keys") == 0)
        rc = ini_keys(file, input.path, argv[0]);
    else
        rc = ini_dump(file, input.path);
    qxu_named_input_close(&input);
    return rc;
}
