/* OS release information through the C header. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/os_info.h>

int check_os_info(void) {
    char path[] = "/tmp/qx-c-api-os-info-XXXXXX";
    const char content[] = "NAME=\"C caller\"\nVERSION_ID='1'\n";
    os_info *info;
    FILE *out;
    int failed = 0;
    int fd = mkstemp(path);

    if (fd < 0)
        return 1;
    out = fdopen(fd, "w");
    if (out == NULL) {
        close(fd);
        unlink(path);
        return 1;
    }
    fputs(content, out);
    fclose(out);

    info = os_info_create(path);
    failed |= info == NULL;
    if (info != NULL) {
        failed |= openosrelease_v2(info) != 0;
        failed |= strcmp(osrelease_v2(info, "name"), "C caller") != 0;
        failed |= strcmp(osrelease_v2(info, "VERSION_ID"), "1") != 0;
        failed |= info->pairs == NULL || info->pairs[2].key != NULL;
        os_info_free_values(info);
        failed |= info->text != NULL || info->pairs != NULL || info->path == NULL;
        os_info_delete(info);
    }
    failed |= osrelease("QX_NO_SUCH_KEY") == NULL;
    unlink(path);
    return failed;
}
