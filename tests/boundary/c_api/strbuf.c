/* The string buffer, its formatting and templates through the C headers. */
#include <string.h>

#include <qxcommon-util/strbuf.h>
#include <qxcommon-util/strbuf_format.h>

int check_strbuf(void) {
    strbuf sb = {0};
    strbuf *heap;
    int failed = 0;

    failed |= strbuf_append(&sb, "Hello $who$") != 0;
    failed |= strbuf_substitute(&sb, "$", "who", "C", (char *)NULL) != 1;
    failed |= strbuf_appendf(&sb, "%c%d", '!', 1) != 0;
    failed |= strcmp(sb.text, "Hello C!1") != 0 || strbuf_len(&sb) != 9 || sb.size != 1023;
    strbuf_free(&sb);

    heap = qx_string_new();
    if (heap == NULL)
        return 1;
    failed |= qx_string_is_empty(heap) != 1;
    failed |= qx_string_append_lsint(heap, -7) != 0 || !qx_string_is_equal(heap, "-7");
    qx_string_delete(heap);
    return failed;
}
