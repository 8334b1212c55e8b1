/* The smallest program that uses an installed libqxcommon-util. */
#include <stdio.h>

#include <qxcommon-util/error.h>
#include <qxcommon-util/jproc.h>
#include <qxcommon-util/strbuf.h>

/* The JSON header brings in json-parser's; the build must find both. */
static int json_works(void) {
    jproc *state = jproc_prepare("[?]");
    int ok;
    if (state == NULL)
        return 0;
    ok = jproc_open_mem(state, "[7]", -1) == 0 && jproc_step(state) == 1 &&
         jproc_get_integer(state, 0) == 7;
    jproc_free(state);
    return ok;
}

int main(void) {
    strbuf sb = {0};
    if (!json_works())
        return 1;
    if (strbuf_append(&sb, "consumer: ") != 0 ||
        strbuf_append(&sb, qx_strerror(QX_ERR_UNKNOWN_KEY)) != 0)
        return 1;
    puts(sb.text);
    strbuf_free(&sb);
    return 0;
}
