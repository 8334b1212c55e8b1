/* The smallest program that uses an installed libqxcommon-util. */
#include <stdio.h>

#include <qxcommon-util/error.h>
#include <qxcommon-util/strbuf.h>

int main(void) {
    strbuf sb = {0};
    if (strbuf_append(&sb, "consumer: ") != 0 ||
        strbuf_append(&sb, qx_strerror(QX_ERR_UNKNOWN_KEY)) != 0)
        return 1;
    puts(sb.text);
    strbuf_free(&sb);
    return 0;
}
