/* PID files and the single-instance building blocks through the C header. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/pidfile.h>

static int check_write_pidfile(void) {
    char dir[] = "/tmp/qx-c-api-pidfile-XXXXXX";
    char path[64];
    char expected[32];
    char *content = NULL;
    int failed = 0;
    int length;

    if (mkdtemp(dir) == NULL)
        return 1;
    snprintf(path, sizeof path, "%s/c.pid", dir);
    length = snprintf(expected, sizeof expected, "%d\n", (int)getpid());
    failed |= write_pidfile(path) != length;
    /* The file now names this live process: a second start is refused. */
    failed |= write_pidfile(path) != -1;
    snprintf(path, sizeof path, "%s/", dir);
    failed |= look_for_pid(&content, "c", path) != 0;
    if (content != NULL) {
        expected[length - 1] = '\0';
        failed |= strcmp(content, expected) != 0;
        free(content);
    }
    snprintf(path, sizeof path, "%s/c.pid", dir);
    unlink(path);
    rmdir(dir);
    return failed;
}

static int check_get_process_name(void) {
    char *exe = NULL;
    int failed = get_process_name("self", &exe) != 0 || exe == NULL || exe[0] != '/';
    free(exe);
    return failed;
}

int check_pidfile(void) {
    return check_write_pidfile() | check_get_process_name();
}
