/* qx_child: the child process of the process tests.
 *
 * It runs its arguments as a script of actions, in order, so that a test can
 * make a child that behaves exactly as it needs without depending on what a
 * machine has installed. Text arguments take the escapes \n \r \t \\ \0 and
 * \xHH, so that NUL bytes and line ends can be written.
 *
 *   out TEXT          write TEXT to standard output
 *   err TEXT          write TEXT to standard error
 *   outn N            write N bytes ('a' to 'z' repeating) to standard output
 *   errn N            the same to standard error
 *   echo              copy standard input to standard output until end of file,
 *                     each piece as soon as it is read
 *   echoline          copy one line of standard input (read a byte at a time,
 *                     line feed included) to standard output
 *   sleep SECONDS     sleep (fractions allowed), keeping every descriptor open
 *   close-stdout      close standard output
 *   close-stderr      close standard error
 *   close-stdin       close standard input
 *   close-extra       close every descriptor above 2 (copies a parent left
 *                     open, such as the write ends of its pipes)
 *   pidfile PATH      write this process's PID and a line feed to PATH
 *   pgid              write this process's process group ID and a line feed
 *                     to standard output
 *   fds               write the numbers of this process's open descriptors,
 *                     separated by spaces and ended by a line feed, to
 *                     standard output
 *   grandchild SECONDS PATH
 *                     start a grandchild in the same process group that writes
 *                     its PID to PATH and sleeps SECONDS; its descriptors are
 *                     the child's
 *   detached-grandchild SECONDS PATH
 *                     the same, but the grandchild closes its standard
 *                     descriptors first, so that it holds no pipe open (run
 *                     close-extra before it when other copies are open)
 *   signal NUMBER     send signal NUMBER to itself
 *   stop-until-continued SECONDS
 *                     start a grandchild that holds no descriptor open and
 *                     sends SIGCONT to this process after SECONDS, then stop
 *                     with SIGSTOP until it does
 *   exit CODE         end now with status CODE
 *   blocked NUMBER    write "1" if signal NUMBER is blocked in this process,
 *                     else "0", and a line feed to standard output
 *   disposition NUMBER
 *                     write "ignore", "default" or "handler" (what signal
 *                     NUMBER does in this process) and a line feed to
 *                     standard output
 *   nonblocking FD    write "1" if descriptor FD has O_NONBLOCK, "0" if not,
 *                     "-1" if it is not open, and a line feed to standard
 *                     output
 *
 * With no "exit", the child ends with status 0 after the last action. An
 * unknown action or a missing operand ends it with status 125. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void usage_error(const char *what) {
    fprintf(stderr, "qx_child: %s\n", what);
    _exit(125);
}

static void write_all(int fd, const char *bytes, size_t length) {
    while (length > 0) {
        ssize_t n = write(fd, bytes, length);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        bytes += n;
        length -= (size_t)n;
    }
}

static int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/* Decodes the escapes of `text` in place; returns the decoded length. */
static size_t unescape(char *text) {
    char *out = text;
    const char *in = text;
    while (*in != '\0') {
        if (*in != '\\' || in[1] == '\0') {
            *out++ = *in++;
            continue;
        }
        ++in;
        switch (*in) {
        case 'n':
            *out++ = '\n';
            break;
        case 'r':
            *out++ = '\r';
            break;
        case 't':
            *out++ = '\t';
            break;
        case '0':
            *out++ = '\0';
            break;
        case 'x':
            if (hex_digit(in[1]) >= 0 && hex_digit(in[2]) >= 0) {
                *out++ = (char)(hex_digit(in[1]) * 16 + hex_digit(in[2]));
                in += 2;
            } else {
                *out++ = 'x';
            }
            break;
        default:
            *out++ = *in;
            break;
        }
        ++in;
    }
    return (size_t)(out - text);
}

static void write_pattern(int fd, long count) {
    /* A whole number of alphabets, so the pattern runs on across blocks. */
    char block[26 * 157];
    for (size_t i = 0; i < sizeof block; ++i)
        block[i] = (char)('a' + i % 26);
    while (count > 0) {
        size_t piece = count < (long)sizeof block ? (size_t)count : sizeof block;
        write_all(fd, block, piece);
        count -= (long)piece;
    }
}

static void sleep_seconds(double seconds) {
    struct timespec left;
    left.tv_sec = (time_t)seconds;
    left.tv_nsec = (long)((seconds - (double)left.tv_sec) * 1e9);
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

static void echo_until_end(void) {
    char buffer[4096];
    for (;;) {
        ssize_t n = read(0, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        write_all(1, buffer, (size_t)n);
    }
}

static void echo_one_line(void) {
    char c;
    for (;;) {
        ssize_t n = read(0, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        write_all(1, &c, 1);
        if (c == '\n')
            return;
    }
}

static void write_pid_to(const char *path, pid_t pid) {
    char line[32];
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        usage_error("cannot write the PID file");
    int length = snprintf(line, sizeof line, "%ld\n", (long)pid);
    write_all(fd, line, (size_t)length);
    close(fd);
}

static void list_descriptors(void) {
    char line[4096];
    size_t used = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == NULL)
        usage_error("cannot list /proc/self/fd");
    int own = dirfd(dir);
    struct dirent *entry;
    int numbers[1024];
    int count = 0;
    while ((entry = readdir(dir)) != NULL && count < 1024) {
        if (entry->d_name[0] == '.')
            continue;
        int fd = atoi(entry->d_name);
        if (fd != own)
            numbers[count++] = fd;
    }
    closedir(dir);
    /* readdir gives no order: sort the few numbers for a stable line. */
    for (int i = 1; i < count; ++i)
        for (int j = i; j > 0 && numbers[j - 1] > numbers[j]; --j) {
            int swap = numbers[j];
            numbers[j] = numbers[j - 1];
            numbers[j - 1] = swap;
        }
    for (int i = 0; i < count && used + 16 < sizeof line; ++i)
        used +=
            (size_t)snprintf(line + used, sizeof line - used, i == 0 ? "%d" : " %d", numbers[i]);
    line[used++] = '\n';
    write_all(1, line, used);
}

static void start_grandchild(double seconds, const char *path, int detached) {
    pid_t pid = fork();
    if (pid < 0)
        usage_error("fork failed");
    if (pid > 0)
        return;
    if (detached) {
        close(0);
        close(1);
        close(2);
    }
    write_pid_to(path, getpid());
    sleep_seconds(seconds);
    _exit(0);
}

static void report_blocked(int number) {
    sigset_t current;
    sigprocmask(SIG_SETMASK, NULL, &current);
    write_all(1, sigismember(&current, number) == 1 ? "1\n" : "0\n", 2);
}

static void report_disposition(int number) {
    struct sigaction current;
    memset(&current, 0, sizeof current);
    sigaction(number, NULL, &current);
    if (current.sa_handler == SIG_IGN)
        write_all(1, "ignore\n", 7);
    else if (current.sa_handler == SIG_DFL)
        write_all(1, "default\n", 8);
    else
        write_all(1, "handler\n", 8);
}

static void report_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        write_all(1, "-1\n", 3);
    else
        write_all(1, (flags & O_NONBLOCK) != 0 ? "1\n" : "0\n", 2);
}

static void close_extra_descriptors(void) {
    DIR *dir = opendir("/proc/self/fd");
    if (dir == NULL)
        usage_error("cannot list /proc/self/fd");
    int own = dirfd(dir);
    struct dirent *entry;
    int numbers[1024];
    int count = 0;
    while ((entry = readdir(dir)) != NULL && count < 1024) {
        if (entry->d_name[0] == '.')
            continue;
        int fd = atoi(entry->d_name);
        if (fd > 2 && fd != own)
            numbers[count++] = fd;
    }
    closedir(dir);
    for (int i = 0; i < count; ++i)
        close(numbers[i]);
}

static void stop_until_continued(double seconds) {
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0)
        usage_error("fork failed");
    if (pid == 0) {
        close(0);
        close(1);
        close(2);
        close_extra_descriptors();
        sleep_seconds(seconds);
        kill(parent, SIGCONT);
        _exit(0);
    }
    kill(getpid(), SIGSTOP);
}

static char *operand(char **argv, int *i, int argc) {
    if (*i + 1 >= argc)
        usage_error("missing operand");
    return argv[++*i];
}

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        const char *action = argv[i];
        if (strcmp(action, "out") == 0 || strcmp(action, "err") == 0) {
            int fd = action[0] == 'o' ? 1 : 2;
            char *text = operand(argv, &i, argc);
            size_t length = unescape(text);
            write_all(fd, text, length);
        } else if (strcmp(action, "outn") == 0 || strcmp(action, "errn") == 0) {
            int fd = action[0] == 'o' ? 1 : 2;
            write_pattern(fd, atol(operand(argv, &i, argc)));
        } else if (strcmp(action, "echo") == 0) {
            echo_until_end();
        } else if (strcmp(action, "echoline") == 0) {
            echo_one_line();
        } else if (strcmp(action, "sleep") == 0) {
            sleep_seconds(atof(operand(argv, &i, argc)));
        } else if (strcmp(action, "close-stdout") == 0) {
            close(1);
        } else if (strcmp(action, "close-stderr") == 0) {
            close(2);
        } else if (strcmp(action, "close-stdin") == 0) {
            close(0);
        } else if (strcmp(action, "close-extra") == 0) {
            close_extra_descriptors();
        } else if (strcmp(action, "pidfile") == 0) {
            write_pid_to(operand(argv, &i, argc), getpid());
        } else if (strcmp(action, "pgid") == 0) {
            char line[32];
            int length = snprintf(line, sizeof line, "%ld\n", (long)getpgrp());
            write_all(1, line, (size_t)length);
        } else if (strcmp(action, "fds") == 0) {
            list_descriptors();
        } else if (strcmp(action, "grandchild") == 0 ||
                   strcmp(action, "detached-grandchild") == 0) {
            int detached = action[0] == 'd';
            double seconds = atof(operand(argv, &i, argc));
            start_grandchild(seconds, operand(argv, &i, argc), detached);
        } else if (strcmp(action, "signal") == 0) {
            int number = atoi(operand(argv, &i, argc));
            signal(number, SIG_DFL);
            sigset_t just_this;
            sigemptyset(&just_this);
            sigaddset(&just_this, number);
            sigprocmask(SIG_UNBLOCK, &just_this, NULL);
            kill(getpid(), number);
        } else if (strcmp(action, "blocked") == 0) {
            report_blocked(atoi(operand(argv, &i, argc)));
        } else if (strcmp(action, "disposition") == 0) {
            report_disposition(atoi(operand(argv, &i, argc)));
        } else if (strcmp(action, "nonblocking") == 0) {
            report_nonblocking(atoi(operand(argv, &i, argc)));
        } else if (strcmp(action, "stop-until-continued") == 0) {
            stop_until_continued(atof(operand(argv, &i, argc)));
        } else if (strcmp(action, "exit") == 0) {
            _exit(atoi(operand(argv, &i, argc)));
        } else {
            usage_error("unknown action");
        }
    }
    return 0;
}
