/* qxutil json: a JSON document walked by a jproc pattern, one line per
 * step with the placeholders' values in slot order. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <qxcommon-util/jproc.h>

#include "qxutil.h"

static const char json_help[] =
    "usage: qxutil json [-e] PATTERN [FILE]\n"
    "\n"
    "Walks the JSON document in FILE (standard input when FILE is \"-\" or\n"
    "missing) with PATTERN and prints one line per step: the values of the\n"
    "placeholders in slot order (?0, ?1, ...), separated by tabs. The pattern\n"
    "language:\n"
    "  ? or ?N                 a placeholder (\"?\" takes the next number)\n"
    "  [ PATTERN ]             every element of an array\n"
    "  { 'name': PATTERN, ... } members of an object\n"
    "Sibling arrays give every combination, the last one varying fastest; a\n"
    "pattern without arrays, or arrays that are empty or missing, give one step.\n"
    "\n"
    "Values: a string as its text (backslash, tab, line feed and carriage return\n"
    "written as \\\\, \\t, \\n and \\r), a number as it reads, true, false and\n"
    "null as words, an object or array as compact JSON, and an empty field for a\n"
    "placeholder the document gives no value.\n"
    "\n"
    "  -e, --exit-status  a placeholder without a value in any step (a missing\n"
    "                     member, an empty array) is status 1, said on standard\n"
    "                     error after the output; a JSON null is a value\n"
    "\n"
    "Status: 0 success, 1 the document cannot be read, is empty or does not\n"
    "parse (the message says why), or -e found a missing value, 2 bad\n"
    "arguments or a pattern that does not parse.\n";

static void print_double(double value) {
    char text[64];
    snprintf(text, sizeof text, "%.15g", value);
    if (strtod(text, NULL) != value)
        snprintf(text, sizeof text, "%.17g", value);
    fputs(text, stdout);
    /* Keep a whole-valued double recognisable as one. */
    if (strpbrk(text, ".eEn") == NULL)
        fputs(".0", stdout);
}

/* Writes text with backslash escapes for backslash, tab, line feed and
 * carriage return; as JSON also for the double quote and, as \u00xx, the
 * other control bytes. Fields of a step line need only the first four. */
static void print_escaped(const char *text, unsigned int length, int as_json) {
    unsigned int i;
    for (i = 0; i < length; ++i) {
        unsigned char c = (unsigned char)text[i];
        switch (c) {
        case '\\':
            fputs("\\\\", stdout);
            break;
        case '\n':
            fputs("\\n", stdout);
            break;
        case '\r':
            fputs("\\r", stdout);
            break;
        case '\t':
            fputs("\\t", stdout);
            break;
        case '"':
            fputs(as_json ? "\\\"" : "\"", stdout);
            break;
        default:
            if (as_json && c < 0x20)
                printf("\\u%04x", c);
            else
                putchar(c);
        }
    }
}

static void print_json_string(const char *text, unsigned int length) {
    putchar('"');
    print_escaped(text, length, 1);
    putchar('"');
}

static void print_compact(const json_value *value) {
    unsigned int i;
    switch (value->type) {
    case json_object:
        putchar('{');
        for (i = 0; i < value->u.object.length; ++i) {
            if (i > 0)
                putchar(',');
            print_json_string(value->u.object.values[i].name,
                              value->u.object.values[i].name_length);
            putchar(':');
            print_compact(value->u.object.values[i].value);
        }
        putchar('}');
        break;
    case json_array:
        putchar('[');
        for (i = 0; i < value->u.array.length; ++i) {
            if (i > 0)
                putchar(',');
            print_compact(value->u.array.values[i]);
        }
        putchar(']');
        break;
    case json_string:
        print_json_string(value->u.string.ptr, value->u.string.length);
        break;
    case json_integer:
        printf("%lld", (long long)value->u.integer);
        break;
    case json_double:
        print_double(value->u.dbl);
        break;
    case json_boolean:
        fputs(value->u.boolean ? "true" : "false", stdout);
        break;
    case json_null:
        fputs("null", stdout);
        break;
    default:
        break;
    }
}

static void print_field(const json_value *value) {
    if (value == NULL)
        return;
    if (value->type != json_string) {
        print_compact(value);
        return;
    }
    print_escaped(value->u.string.ptr, value->u.string.length, 0);
}

/* Why json-parser refuses the text, for the message. */
static const char *parse_error(const char *text, size_t length, char *error) {
    json_settings settings;
    json_value *value;

    memset(&settings, 0, sizeof settings);
    error[0] = '\0';
    value = json_parse_ex(&settings, text, length, error);
    if (value != NULL) {
        json_value_free(value);
        return "it does not parse";
    }
    if (error[0] == '\0')
        return "it does not parse";
    /* The parser writes the offending character into its message; at the
     * end of the text that is the NUL, which cuts the message short. */
    length = strlen(error);
    if (error[length - 1] == ' ' || error[length - 1] == '`') {
        while (length > 0 && (error[length - 1] == ' ' || error[length - 1] == '`'))
            --length;
        snprintf(error + length, json_error_max - length, " end of input");
    }
    return error;
}

/* Hands a document read into memory to the library. */
static int open_text(jproc *state, const char *shown, char *text, size_t length) {
    char error[json_error_max];
    int rc = QXU_OK;

    if (length == 0)
        rc = qxu_fail("%s is empty, not a JSON document", shown);
    else if (length > INT_MAX)
        rc = qxu_fail("%s is too large", shown);
    else if (jproc_open_mem(state, text, (int)length) != 0)
        rc = qxu_fail("%s is not a JSON document: %s", shown, parse_error(text, length, error));
    free(text);
    return rc;
}

static int open_document(jproc *state, const char *file) {
    struct stat st;
    char *text;
    size_t length;
    FILE *f;
    int rc;

    if (file == NULL || strcmp(file, "-") == 0) {
        if (qxu_read_all(stdin, &text, &length) != 0)
            return qxu_fail("cannot read standard input: %s", strerror(errno));
        return open_text(state, "standard input", text, length);
    }
    if (stat(file, &st) != 0)
        return qxu_fail("cannot open %s: %s", file, strerror(errno));
    if (S_ISDIR(st.st_mode))
        return qxu_fail("%s is a directory", file);
    /* The library maps the file: an empty one fails there with a message of
     * its own, and a pipe cannot be mapped at all, so those are read here. */
    if (S_ISREG(st.st_mode) && st.st_size > 0 && jproc_open_file(state, file) == 0)
        return QXU_OK;
    f = fopen(file, "r");
    if (f == NULL)
        return qxu_fail("cannot open %s: %s", file, strerror(errno));
    rc = qxu_read_all(f, &text, &length);
    fclose(f);
    if (rc != 0)
        return qxu_fail("cannot read %s: %s", file, strerror(errno));
    return open_text(state, file, text, length);
}

int qxu_json(int argc, char **argv) {
    static const struct option options[] = {
        {"exit-status", no_argument, NULL, 'e'}, QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    int started = 0, exit_status = 0, opt, rc;
    int missing_slot = -1, missing_step = 0, step = 0;
    jproc *state;

    while ((opt = qxu_getopt(argc, argv, "+:he", options, &started)) != -1) {
        if (opt != 'e')
            return qxu_other_option(opt, argv, json_help);
        exit_status = 1;
    }
    argc -= optind;
    argv += optind;
    if (argc < 1 || argc > 2)
        return qxu_usage_error("%s arguments; usage: qxutil json [-e] PATTERN [FILE]",
                               argc < 1 ? "missing" : "too many");
    state = jproc_prepare(argv[0]);
    if (state == NULL)
        return qxu_usage_error("the pattern '%s' does not parse", argv[0]);
    rc = open_document(state, argc == 2 ? argv[1] : NULL);
    if (rc == QXU_OK) {
        int count = jproc_arguments(state);
        while (jproc_step(state)) {
            int slot;
            ++step;
            for (slot = 0; slot < count; ++slot) {
                const json_value *value = jproc_get_json(state, slot);
                if (slot > 0)
                    putchar('\t');
                if (value == NULL && missing_slot < 0) {
                    missing_slot = slot;
                    missing_step = step;
                }
                print_field(value);
            }
            putchar('\n');
        }
        if (exit_status && missing_slot >= 0)
            rc = qxu_fail("no value for ?%d in step %d", missing_slot, missing_step);
    }
    jproc_free(state);
    return rc;
}
