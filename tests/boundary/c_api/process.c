/* Process pipes and timed socket I/O through the C headers. */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qxcommon-util/process.h>
#include <qxcommon-util/strbuf.h>
#include <qxcommon-util/timeoutio.h>

static int check_process_round_trip(void) {
    char sh[] = "/bin/sh";
    char dash_c[] = "-c";
    char script[] = "read line; echo \"<$line>\"; exit 3";
    char *argv[] = {sh, dash_c, script, NULL};
    char line[16];
    int exitcode = -1;
    int failed = 0;
    sigset_t saved;
    process *proc;
    pid_t pid;

    sigprocmask(SIG_SETMASK, NULL, &saved);
    proc = process_open(argv, "rw");
    if (proc == NULL)
        return 1;
    pid = proc->pid;
    failed |= process_read_fd(proc) < 0 || process_write_fd(proc) < 0;
    failed |= process_puts(proc, "c", 1) != 0;
    failed |= process_gets(proc, line, (int)sizeof line) != 3 || strcmp(line, "<c>") != 0;
    failed |= process_close(proc, &exitcode, 1) != pid || exitcode != 3;
    sigprocmask(SIG_SETMASK, &saved, NULL); /* the open left SIGCHLD blocked */
    return failed;
}

static int check_timed_io(void) {
    int pair[2];
    char in[8];
    strbuf sb = {0};
    int failed = 0;

    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
        return 1;
    failed |= iowait(pair[0], 0, POLLIN) != 0;
    failed |= timeoutio(pair[1], "ping", 4, 1000, POLLOUT, 0) != 4;
    failed |= timeoutio(pair[0], in, sizeof in, 1000, POLLIN, 0) != 4 || memcmp(in, "ping", 5) != 0;
    failed |= strbuf_append(&sb, "pong") != 0;
    failed |= timeoutio_sb(pair[0], &sb, 1000, POLLOUT, 0) != 4;
    close(pair[0]);
    failed |= timeoutio_sb(pair[1], &sb, 1000, POLLIN, 0) != 4 || strcmp(sb.text, "pong") != 0;
    strbuf_free(&sb);
    close(pair[1]);
    return failed;
}

int check_process(void) {
    return check_process_round_trip() | check_timed_io();
}
