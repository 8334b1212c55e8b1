/* The Base32, Base64 and hex codecs, the escaping functions and modified
 * UTF-7, called from C. */
#include <string.h>

#include <qxcommon-util/codec.h>
#include <qxcommon-util/escape.h>
#include <qxcommon-util/mutf7.h>
#include <qxcommon-util/strbuf.h>

int check_codec(void) {
    static const unsigned char bytes[] = {'f', 'o', 'o'};
    char text[16];
    unsigned char decoded[16];
    unsigned int value = 0;
    strbuf sb = {0};
    int failed = 0;

    failed |= base64_encode(bytes, 3, NULL, 0) != 4;
    failed |= base64_encode(bytes, 3, text, (int)sizeof text) != 4 || memcmp(text, "Zm9v", 4) != 0;
    failed |= base64_decode("Zm9v", decoded, (int)sizeof decoded) != 3;
    failed |= base32_encode(bytes, 3, text, (int)sizeof text) != 5 || strcmp(text, "MZXW6") != 0;
    failed |= base32_decode("mzxw6===", decoded, (int)sizeof decoded) != 3;
    failed |= memcmp(decoded, "foo", 4) != 0;
    failed |=
        hex_decode("666f6F", decoded, sizeof decoded) != 3 || strcmp((char *)decoded, "foo") != 0;
    failed |= hex4_decode("20AC", &value) != 0 || value != 0x20ACu;

    failed |= strbuf_append_b32(&sb, "foo", 1) != 0 || strcmp(sb.text, "MZXW6===") != 0;
    failed |= strbuf_append_b64(&sb, "foo", 0) != 0 || strcmp(sb.text, "MZXW6===Zm9v") != 0;
    strbuf_free(&sb);

    failed |= strbuf_append(&sb, "a b/c") != 0 || strbuf_urlencode(&sb) != 0;
    failed |= strcmp(sb.text, "a%20b%2fc") != 0 || strbuf_urldecode(&sb) != 0;
    failed |= strcmp(sb.text, "a b/c") != 0 || strbuf_translate(&sb, " ", "_") != 0;
    failed |= strbuf_quote(&sb, NULL) != 0 || strcmp(sb.text, "a_b\\u002fc") != 0;
    failed |= strbuf_append_xmlencoded(&sb, "<\xC3\xA9>") != 0;
    failed |= strcmp(sb.text, "a_b\\u002fc&lt;&#xE9;&gt;") != 0;
    failed |= strbuf_put(&sb, "x\\u00e9\"y") != 0 || strbuf_unescape(&sb) != 0;
    failed |= strcmp(sb.text, "x\xC3\xA9") != 0 || strbuf_len(&sb) != 3;
    strbuf_free(&sb);
    {
        static const uint16_t mailbox[] = {'T', 0x00E4, 'g', '&', 0};
        utf16_to_mutf7_enc(&sb, mailbox);
        failed |= sb.text == NULL || strcmp(sb.text, "T&AOQ-g&-") != 0;
        strbuf_free(&sb);
    }
    {
        const char *p = "\xE2\x82\xAC";
        failed |= utf8toint(&p) != 0x20ACu || *p != '\0';
    }
    return failed;
}
