/* qxdemo: shows what a service does with libqxcommon-util.
 *
 * Usage: qxdemo SAMPLES-DIRECTORY */
#include <stdio.h>

#include <qxcommon-util/error.h>

#include "demo.h"

static const char *samples_dir = "examples/data";

const char *demo_sample(const char *name) {
    static char path[4096];
    snprintf(path, sizeof path, "%s/%s", samples_dir, name);
    return path;
}

struct demo {
    const char *title;
    int (*run)(void);
};

int main(int argc, char **argv) {
    static const struct demo demos[] = {
        {"strings, templates and error texts", demo_strings},
        {"JSON walked by a pattern", demo_json},
        {"codecs and escaping", demo_codecs},
        {"INI settings", demo_ini},
        {"key=value settings", demo_config},
        {"copies, directory trees and temporary files", demo_files},
        {"OS release information", demo_osinfo},
        {"a service start: one instance, a command with a time limit", demo_service},
    };
    int failures = 0;
    size_t i;

    if (argc > 2) {
        fprintf(stderr, "usage: %s [SAMPLES-DIRECTORY]\n", argv[0]);
        return 2;
    }
    if (argc == 2)
        samples_dir = argv[1];

    for (i = 0; i < sizeof demos / sizeof demos[0]; ++i) {
        printf("== %s\n", demos[i].title);
        if (demos[i].run() != 0) {
            fprintf(stderr, "qxdemo: %s failed\n", demos[i].title);
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
