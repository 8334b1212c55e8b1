/* Copies, directory trees and temporary files through the C header. */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qxcommon-util/dirtree.h>

static int check_tree_round_trip(const char *top) {
    char nested[256];
    char copy[300];
    char text[16] = {0};
    char *name = NULL;
    int failed = 0;
    int fd;

    snprintf(nested, sizeof nested, "%s//a/b/", top);
    failed |= qx_pmkdir(nested, 0755) != 0;
    failed |= qx_pmkdir("", 0755) != 0;

    fd = create_tempfile(top, O_RDWR, 0600, &name);
    if (fd < 0)
        return 1;
    failed |= write(fd, "c caller", 8) != 8;
    close(fd);

    snprintf(copy, sizeof copy, "%sc", nested);
    failed |= qx_cp(name, copy, QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE) != 0;
    failed |= qx_cp(name, copy, 0) != -1;
    fd = open(copy, O_RDONLY);
    failed |= fd < 0 || read(fd, text, sizeof text) != 8 || strcmp(text, "c caller") != 0;
    if (fd >= 0)
        close(fd);
    free(name);

    failed |= qx_rrmdir("/") != -1 || qx_rrmdir(NULL) != -1;
    failed |= qx_rrmdir(top) != 0;
    return failed;
}

int check_dirtree(void) {
    char top[] = "/tmp/qx-c-api-dirtree-XXXXXX";
    struct stat st;
    int failed;

    if (mkdtemp(top) == NULL)
        return 1;
    failed = check_tree_round_trip(top);
    if (stat(top, &st) == 0) {
        rmdir(top);
        failed = 1;
    }
    return failed;
}
