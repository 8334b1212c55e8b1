/* Codecs and escaping: the texts a mail service puts on the wire or in its
 * logs, each built in a strbuf. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <qxcommon-util/codec.h>
#include <qxcommon-util/escape.h>
#include <qxcommon-util/mutf7.h>
#include <qxcommon-util/strbuf.h>

#include "demo.h"

int demo_codecs(void) {
    /* "Entwürfe/2026" (drafts) as an IMAP mailbox name in UTF-16. */
    static const uint16_t mailbox[] = {'E', 'n', 't', 'w', 0x00FC, 'r', 'f',
                                       'e', '/', '2', '0', '2',    '6', 0};
    strbuf sb = {0};
    unsigned char secret[32];
    int n;
    int failed = 0;

    failed |= strbuf_append(&sb, "Authorization: Basic ") != 0;
    failed |= strbuf_append_b64(&sb, "relay:s3cret", 1) != 0;
    printf("%s\n", sb.text);
    strbuf_free(&sb);

    /* Base32 as users type it: grouped, any case; written back canonical. */
    n = base32_decode("jbsw-y3dp ehpk-3pxp", secret, (int)sizeof secret);
    if (n != 10 || strbuf_append_b32(&sb, (const char *)secret, 1) != 0)
        return 1;
    printf("TOTP secret: %d bytes, re-encoded %s\n", n, sb.text);
    strbuf_free(&sb);

    failed |= strbuf_append(&sb, "Jürgen & Co/Sales") != 0 || strbuf_urlencode(&sb) != 0;
    printf("query: ?folder=%s\n", sb.text);
    failed |= strbuf_urldecode(&sb) != 0;
    printf("decoded back: %s\n", sb.text);
    strbuf_free(&sb);

    failed |= strbuf_append(&sb, "<subject>") != 0;
    failed |= strbuf_append_xmlencoded(&sb, "Re: 5 < 6 & \"Grüße\"\r") != 0;
    failed |= strbuf_append(&sb, "</subject>") != 0;
    printf("%s\n", sb.text);
    strbuf_free(&sb);

    failed |= strbuf_append(&sb, "C:\\mail\\in\"box\"\n") != 0 || strbuf_quote(&sb, NULL) != 0;
    printf("quoted: \"%s\"\n", sb.text);
    failed |= strbuf_unescape(&sb) != 0;
    printf("unescaped: %s", sb.text);
    strbuf_free(&sb);

    utf16_to_mutf7_enc(&sb, mailbox);
    failed |= sb.text == NULL;
    printf("IMAP mailbox: %s\n", sb.text != NULL ? sb.text : "");
    strbuf_free(&sb);
    return failed;
}
