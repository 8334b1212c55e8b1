/* Files and directories: a service lays out a spool directory, copies a
 * sample file into it, creates a scratch file under a unique name and
 * removes the whole tree again. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qxcommon-util/dirtree.h>

#include "demo.h"

static int copy_into(const char *top) {
    const char *sample = demo_sample("relay.conf");
    char spool[512];
    char copy[600];
    struct stat from;
    struct stat to;
    char *scratch = NULL;
    int fd;

    /* A path that does not fit is refused rather than cut short. */
    if (snprintf(spool, sizeof spool, "%s/spool/incoming", top) >= (int)sizeof spool) {
        fprintf(stderr, "%s: path too long\n", top);
        return 1;
    }
    if (qx_pmkdir(spool, 0750) != 0) {
        perror(spool);
        return 1;
    }
    snprintf(copy, sizeof copy, "%s/relay.conf", spool);
    if (qx_cp(sample, copy, QX_CP_KEEP_ATTRIBUTES | QX_CP_DURABLE) != 0) {
        perror(copy);
        return 1;
    }
    if (stat(sample, &from) != 0 || stat(copy, &to) != 0)
        return 1;
    printf("copied relay.conf: %lld bytes, mode %04o, same modification time: %s\n",
           (long long)to.st_size, (unsigned)(to.st_mode & 07777),
           from.st_mtime == to.st_mtime ? "yes" : "no");
    if (qx_cp(sample, copy, 0) != 0)
        printf("a second copy without overwrite is refused, as it should be\n");

    fd = create_tempfile(spool, O_WRONLY, 0600, &scratch);
    if (fd < 0) {
        perror("create_tempfile");
        return 1;
    }
    printf("scratch file named <time>.<pid>.<attempt>: %s\n", strrchr(scratch, '/') + 1);
    close(fd);
    free(scratch);
    return 0;
}

int demo_files(void) {
    const char *base = getenv("TMPDIR");
    char top[512];
    int failed;

    snprintf(top, sizeof top, "%s/qxdemo-XXXXXX", base != NULL && *base != '\0' ? base : "/tmp");
    if (mkdtemp(top) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    failed = copy_into(top);
    if (qx_rrmdir(top) != 0) {
        perror(top);
        return 1;
    }
    printf("temporary tree removed\n");
    return failed;
}
