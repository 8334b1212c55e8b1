/* Files, directories, OS release data and mail/date encodings through the
 * C headers. */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/fileio.h>

static int check_whole_file_round_trip(void) {
    char path[] = "/tmp/qx-c-api-files-XXXXXX";
    char *data = NULL;
    int len = 0;
    int failed = 0;
    strbuf sb = {0};
    int fd = mkstemp(path);

    if (fd < 0)
        return 1;
    close(fd);
    failed |= creatwriteclose(path, "c caller", 0600) != 8;
    failed |= openreadclose(path, &data, &len) != 0 || len != 8 || strcmp(data, "c caller") != 0;
    free(data);
    failed |= qx_filesize_get(path) != 8 || qx_file_exists(path) != 1;
    failed |= strbuf_readfile(&sb, path) != 0 || sb.length != 8 || sb.size != 8;
    strbuf_free(&sb);
    failed |= openwritenclose(NULL, "x", -1, O_WRONLY) != -1;
    unlink(path);
    return failed;
}

int check_files(void) {
    return check_whole_file_round_trip();
}
