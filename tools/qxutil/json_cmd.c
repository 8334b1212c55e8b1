/* qxutil json: a JSON document walked by a jproc pattern, one line per
 * step with the placeholders' values in slot order. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/jproc.h>

#include "qxutil.h"

static const char json_help[] =
    "usage: qxutil json PATTERN FILE\n"
    "\n"
    "Walks the JSON document in FILE (\"-\": standard input) with PATTERN and\n"
    "prints one line per step: the values of the placeholders in slot order\n"
    "(?0, ?1, ...), separated by tabs. The pattern language:\n"
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
    "Status: 0 success, 1 the document cannot be read or parsed, 2 bad\n"
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

static int open_document(jproc *state, const char *file) {
    if (strcmp(file, "-") == 0) {
        char *text;
        size_t length;
        int rc;
        if (qxu_read_all(stdin, &text, &length) != 0)
            return qxu_fail("cannot read standard input: %s", strerror(errno));
        if (length > INT_MAX) {
            free(text);
            return qxu_fail("standard input is too large");
        }
        rc = jproc_open_mem(state, text, (int)length);
        free(text);
        if (rc != 0)
            return qxu_fail("standard input is not a JSON document");
        return QXU_OK;
    }
    errno = 0;
    if (jproc_open_file(state, file) != 0) {
        FILE *f = fopen(file, "r");
        if (f == NULL)
            return qxu_fail("cannot open %s: %s", file, strerror(errno));
        fclose(f);
        return qxu_fail("%s is not a JSON document", file);
    }
    return QXU_OK;
}

int qxu_json(int argc, char **argv) {
    jproc *state;
    int rc;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(json_help);
    if (argc != 2)
        return qxu_usage_error("%s arguments; usage: qxutil json PATTERN FILE",
                               argc < 2 ? "missing" : "too many");
    state = jproc_prepare(argv[0]);
    if (state == NULL)
        return qxu_usage_error("the pattern '%s' does not parse", argv[0]);
    rc = open_document(state, argv[1]);
    if (rc == QXU_OK) {
        int count = jproc_arguments(state);
        while (jproc_step(state)) {
            int slot;
            for (slot = 0; slot < count; ++slot) {
                if (slot > 0)
                    putchar('\t');
                print_field(jproc_get_json(state, slot));
            }
            putchar('\n');
        }
    }
    jproc_free(state);
    return rc;
}
