/* The INI engine through its C header: write, read back, browse, delete. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/ini.h>

static int count_keys(const char *section, const char *key, const char *value, void *user_data) {
    (void)section;
    (void)value;
    if (key != NULL)
        ++*(int *)user_data;
    return 1;
}

int check_ini(void) {
    char path[] = "/tmp/qx-c-api-ini-XXXXXX";
    char buffer[32];
    int keys = 0;
    int failed = 0;
    int fd = mkstemp(path);
    if (fd < 0)
        return 1;
    close(fd); /* an empty file */

    failed |= ini_puts("net", "host", "gw 1 ", path) != 1;
    failed |= ini_putl("net", "port", -8080L, path) != 1;
    failed |= ini_gets("net", "host", "", buffer, (int)sizeof buffer, path) != 5;
    failed |= strcmp(buffer, "gw 1 ") != 0;
    failed |= ini_getl("NET", "Port", 0L, path) != -8080L;
    failed |= ini_getbool("net", "missing", 7, path) != 7;
    failed |= ini_getsection(0, buffer, (int)sizeof buffer, path) != 3 || strcmp(buffer, "net");
    failed |= ini_getkey("net", 1, buffer, (int)sizeof buffer, path) != 4 || strcmp(buffer, "port");
    failed |= ini_browse(count_keys, &keys, path) != 1 || keys != 2;
    failed |= ini_puts("net", NULL, NULL, path) != 1;
    failed |= ini_gets("net", "host", "gone", buffer, (int)sizeof buffer, path) != 4;
    remove(path);
    return failed;
}
