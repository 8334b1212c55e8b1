/* INI settings: a service reads its configuration and records a change.
 * The bundled sample stays as it is: the demo works on a copy in /tmp. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <qxcommon-util/ini.h>

#include "demo.h"

/* Copies the bundled sample into a fresh temporary file; 0 on success. */
static int copy_sample(const char *name, char *path) {
    char chunk[512];
    size_t n;
    int failed = 0;
    FILE *in = fopen(demo_sample(name), "r");
    FILE *out;
    int fd = mkstemp(path);
    if (in == NULL || fd < 0) {
        perror(name);
        if (in != NULL)
            fclose(in);
        if (fd >= 0) {
            close(fd);
            remove(path);
        }
        return -1;
    }
    out = fdopen(fd, "w");
    if (out == NULL) {
        close(fd);
        fclose(in);
        remove(path);
        return -1;
    }
    while ((n = fread(chunk, 1, sizeof chunk, in)) > 0)
        failed |= fwrite(chunk, 1, n, out) != n;
    fclose(in);
    failed |= fclose(out) != 0;
    if (failed)
        remove(path);
    return failed ? -1 : 0;
}

static int print_setting(const char *section, const char *key, const char *value, void *user_data) {
    (void)user_data;
    printf("  [%s] %s = %s\n", section, key, value);
    return 1;
}

int demo_ini(void) {
    char path[] = "/tmp/qxdemo-relay-XXXXXX";
    char name[64];
    long workers;
    int failed = 0;

    if (copy_sample("relay.ini", path) != 0)
        return 1;

    ini_gets("service", "name", "unnamed", name, (int)sizeof name, path);
    workers = ini_getl("service", "workers", 1, path);
    printf("%s: %ld workers, verbose %s, messages up to %ld bytes\n", name, workers,
           ini_getbool("service", "verbose", 0, path) ? "on" : "off",
           ini_getl("limits", "max_message_size", 0, path));

    /* The service scales up and records the new worker count. */
    failed |= ini_putl("service", "workers", workers * 2, path) != 1;
    failed |= ini_getl("service", "workers", 0, path) != workers * 2;
    printf("after the update:\n");
    failed |= ini_browse(print_setting, NULL, path) != 1;

    remove(path);
    return failed;
}
