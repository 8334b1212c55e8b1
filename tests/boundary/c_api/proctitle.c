/* The process title through the C header. This program never calls
 * initproctitle, so a title request must leave its arguments alone. */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <qxcommon-util/proctitle.h>

static ssize_t read_cmdline(char *buffer, size_t size) {
    ssize_t n;
    int fd = open("/proc/self/cmdline", O_RDONLY);

    if (fd < 0)
        return -1;
    n = read(fd, buffer, size);
    close(fd);
    return n;
}

int check_proctitle(void) {
    char before[512];
    char after[512];
    ssize_t n_before = read_cmdline(before, sizeof before);
    ssize_t n_after;

    proctitle("%s %d", "idle", 1);
    n_after = read_cmdline(after, sizeof after);
    return n_before <= 0 || n_before != n_after || memcmp(before, after, (size_t)n_before) != 0;
}
