/* qxutil ini: the INI engine, one call per subcommand, its results printed
 * as the engine returns them. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
    "            DEFAULT a missing key is an error (status 1).\n"
    "  set       replaces the key's first line in the section, or adds it at the\n"
    "            end of the section, creating section and file as needed.\n"
    "  delete    removes the key's line, or without KEY the section's header and\n"
    "            every line up to the next line starting with \"[\".\n"
    "  sections  prints the section names in file order; a header \"[]\" ends the\n"
    "            list.\n"
    "  keys      prints the key names of the section in file order; a line with an\n"
    "            empty key ends the list.\n"
    "  dump      prints every line the engine sees: \"[SECTION]\" for a header and\n"
    "            \"KEY=VALUE\" for a key line, repeated sections included.\n"
    "\n"
    "FILE may be \"-\" (standard input) for the reading subcommands; set and\n"
    "delete refuse it. Status: 0 success, 1 not found or not written, 2 bad\n"
    "arguments.\n";

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

static int ini_get(const char *shown, const char *path, int argc, char **argv) {
    const char *section = argv[0], *key = argv[1];
    const char *fallback = argc == 3 ? argv[2] : missing_marker;
    size_t size = 512;
    char *value;
    int rc = QXU_OK;

    if (strlen(fallback) + 1 > size)
        size = strlen(fallback) + 1;
    if (size > (size_t)0x7fffffff)
        return qxu_usage_error("DEFAULT is too long");
    value = malloc(size);
    if (value == NULL)
        return qxu_fail("out of memory");
    ini_gets(section, key, fallback, value, (int)size, path);
    if (argc == 2 && strcmp(value, missing_marker) == 0) {
        rc = unreadable(shown, path);
        if (rc < 0)
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

static int ini_write(const char *file, const char *section, const char *key, const char *value) {
    if (strcmp(file, "-") == 0)
        return qxu_usage_error("cannot write to standard input (\"-\"); name a file");
    errno = 0;
    if (!ini_puts(section, key, value, file))
        return qxu_fail("cannot write %s: %s", file,
                        errno != 0 ? strerror(errno) : "the file could not be created");
    return QXU_OK;
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
    const struct ini_subcommand *sub = NULL;
    qxu_named_input input;
    const char *file;
    size_t i;
    int nargs, rc;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(ini_help);
    if (argc < 1)
        return qxu_usage_error("missing subcommand (get, set, delete, sections, keys or dump)");
    for (i = 0; i < sizeof subcommands / sizeof subcommands[0]; ++i)
        if (strcmp(argv[0], subcommands[i].name) == 0)
            sub = &subcommands[i];
    if (sub == NULL)
        return qxu_usage_error("unknown subcommand '%s'", argv[0]);
    qxu_set_command("ini", sub->name);
    if (argc < 2)
        return qxu_usage_error("missing FILE; usage: qxutil ini %s %s", sub->name, sub->synopsis);
    file = argv[1];
    nargs = argc - 2;
    if (nargs < sub->min_args || nargs > sub->max_args)
        return qxu_usage_error("%s arguments; usage: qxutil ini %s %s",
                               nargs < sub->min_args ? "missing" : "too many", sub->name,
                               sub->synopsis);
    argv += 2;

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
