/* Running commands through the C header: a program that cannot be executed
 * ends its child with status 1 in all four forms. */
#define _POSIX_C_SOURCE 200809L

#include <stdlib.h>

#include <qxcommon-util/forkandexec.h>

static int check_plain_family(void) {
    char path[] = "/nonexistent/qx-c-api-program";
    char *argv[] = {path, NULL};
    char *out = NULL;
    size_t outlen = 99;
    int failed = 0;

    failed |= forkandexec(argv, &out, &outlen) != 1 || out != NULL || outlen != 0;
    outlen = 99;
    failed |= forkandexec_with_to(argv, 5, NULL, &outlen) != 1 || outlen != 99;
    free(out);
    return failed;
}

static int check_strbuf_family(void) {
    char path[] = "/nonexistent/qx-c-api-program";
    char *argv[] = {path, NULL};
    strbuf out = {0};
    strbuf err = {0};
    int failed = 0;

    failed |= forkandexec_ex(argv, &out, &err) != 1 || out.length != 0 || err.length != 0;
    failed |= forkandexec_ex_with_to(argv, 5, NULL, &err) != 1;
    strbuf_free(&out);
    strbuf_free(&err);
    return failed;
}

int check_forkandexec(void) {
    return check_plain_family() | check_strbuf_family();
}
