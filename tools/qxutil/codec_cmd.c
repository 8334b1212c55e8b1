/* qxutil encode, decode and xml-escape: the library's codecs and escapes on
 * text from the arguments or standard input. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/codec.h>
#include <qxcommon-util/escape.h>
#include <qxcommon-util/strbuf.h>

#include "qxutil.h"

static const char encode_help[] =
    "usage: qxutil encode base64|base32|hex|url [TEXT...]\n"
    "\n"
    "Encodes TEXT (the arguments joined by single spaces) or, without TEXT or\n"
    "with \"-\", all of standard input, and prints the result and a line feed.\n"
    "  base64  RFC 4648 Base64, padded with \"=\"\n"
    "  base32  RFC 4648 Base32, without \"=\" padding\n"
    "  hex     two lower-case hex digits per byte\n"
    "  url     percent-encoding: all but letters, digits and \"-._~\" become %xx\n"
    "          (lower-case); the text ends at its first NUL byte\n"
    "Status: 0 success, 1 failure, 2 bad arguments.\n";

static const char decode_help[] =
    "usage: qxutil decode base64|base32|hex|url [TEXT...]\n"
    "\n"
    "Decodes TEXT (the arguments joined by single spaces) or, without TEXT or\n"
    "with \"-\", all of standard input, and writes exactly the decoded bytes.\n"
    "  base64  stops without error at the first character outside the alphabet\n"
    "          (\"=\", white space, ...)\n"
    "  base32  either case; white space and \"-\" are skipped, \"=\" ends the\n"
    "          input, any other character is an error\n"
    "  hex     pairs of hex digits until the first pair that is not one; an odd\n"
    "          last digit is ignored\n"
    "  url     %XX (either case) and \"+\" for a space; a \"%\" without two hex\n"
    "          digits is an error\n"
    "Status: 0 success, 1 invalid input, 2 bad arguments.\n";

static const char xml_help[] =
    "usage: qxutil xml-escape [TEXT...]\n"
    "\n"
    "Prints TEXT (the arguments joined by single spaces) or, without TEXT or\n"
    "with \"-\", standard input up to its first NUL byte, escaped for XML, and a\n"
    "line feed: &amp; &lt; &gt;, &#13; for a carriage return, &#x...; for each\n"
    "UTF-8 sequence; tab and line feed stay, other control bytes are dropped, and\n"
    "a byte that starts no valid sequence becomes &#<byte>;.\n"
    "Status: 0 success, 1 failure, 2 bad arguments.\n";

enum codec { CODEC_BASE64, CODEC_BASE32, CODEC_HEX, CODEC_URL, CODEC_NONE };

static enum codec codec_named(const char *name) {
    static const char *const names[] = {"base64", "base32", "hex", "url"};
    int i;
    for (i = 0; i < 4; ++i)
        if (strcmp(name, names[i]) == 0)
            return (enum codec)i;
    return CODEC_NONE;
}

static int finish_line(const char *text, size_t length) {
    if (qxu_write_all(stdout, text, length) != 0 || putchar('\n') == EOF)
        return qxu_fail("cannot write the result");
    return QXU_OK;
}

static int encode_hex(const unsigned char *data, size_t length) {
    static const char digits[] = "0123456789abcdef";
    size_t i;
    for (i = 0; i < length; ++i) {
        putchar(digits[data[i] >> 4]);
        putchar(digits[data[i] & 15]);
    }
    return finish_line("", 0);
}

static int encode_text(enum codec codec, const char *data, size_t length) {
    const unsigned char *bytes = (const unsigned char *)data;
    strbuf sb = {NULL, 0, 0};
    char *out;
    int n, rc;

    if (length > INT_MAX / 2)
        return qxu_fail("the text is too long");
    switch (codec) {
    case CODEC_BASE64:
        n = base64_encode(bytes, (int)length, NULL, 0);
        out = malloc((size_t)n + 1);
        if (out == NULL)
            return qxu_fail("out of memory");
        n = base64_encode(bytes, (int)length, out, n + 1);
        rc = n < 0 ? qxu_fail("cannot encode") : finish_line(out, (size_t)n);
        free(out);
        return rc;
    case CODEC_BASE32:
        n = (int)((length * 8 + 4) / 5) + 1;
        out = malloc((size_t)n);
        if (out == NULL)
            return qxu_fail("out of memory");
        n = base32_encode(bytes, (int)length, out, n);
        rc = n < 0 ? qxu_fail("cannot encode") : finish_line(out, (size_t)n);
        free(out);
        return rc;
    case CODEC_HEX:
        return encode_hex(bytes, length);
    default:
        if (strbuf_append(&sb, data) != 0 || strbuf_urlencode(&sb) != 0) {
            strbuf_free(&sb);
            return qxu_fail("out of memory");
        }
        rc = finish_line(sb.text != NULL ? sb.text : "", sb.length);
        strbuf_free(&sb);
        return rc;
    }
}

static int write_bytes(const void *data, size_t length) {
    if (qxu_write_all(stdout, data, length) != 0)
        return qxu_fail("cannot write the result");
    return QXU_OK;
}

static int decode_text(enum codec codec, const char *data, size_t length) {
    strbuf sb = {NULL, 0, 0};
    unsigned char *out;
    int n, rc;

    if (length > INT_MAX / 2)
        return qxu_fail("the text is too long");
    if (codec == CODEC_URL) {
        if (strbuf_nappend(&sb, data, length) != 0) {
            strbuf_free(&sb);
            return qxu_fail("out of memory");
        }
        if (strbuf_urldecode(&sb) != 0)
            rc = qxu_fail("invalid percent escape: a \"%%\" needs two hex digits");
        else
            rc = write_bytes(sb.text, sb.length);
        strbuf_free(&sb);
        return rc;
    }
    out = malloc(length + 2);
    if (out == NULL)
        return qxu_fail("out of memory");
    switch (codec) {
    case CODEC_BASE64:
        n = base64_decode(data, out, (int)length + 2);
        rc = n < 0 ? qxu_fail("cannot decode the Base64 text") : write_bytes(out, (size_t)n);
        break;
    case CODEC_BASE32:
        n = base32_decode(data, out, (int)length + 2);
        rc = n < 0 ? qxu_fail("invalid Base32 text") : write_bytes(out, (size_t)n);
        break;
    default:
        n = hex_decode(data, out, (unsigned int)length + 2);
        rc = write_bytes(out, (size_t)n);
        break;
    }
    free(out);
    return rc;
}

static int codec_command(int argc, char **argv, int encoding) {
    enum codec codec;
    char *data;
    size_t length;
    int rc;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(encoding ? encode_help : decode_help);
    if (argc < 1)
        return qxu_usage_error("missing codec (base64, base32, hex or url)");
    codec = codec_named(argv[0]);
    if (codec == CODEC_NONE)
        return qxu_usage_error("unknown codec '%s' (base64, base32, hex or url)", argv[0]);
    qxu_set_command(encoding ? "encode" : "decode", argv[0]);
    if (qxu_text_input(argc - 1, argv + 1, &data, &length) != 0)
        return QXU_FAILED;
    rc = encoding ? encode_text(codec, data, length) : decode_text(codec, data, length);
    free(data);
    return rc;
}

int qxu_encode(int argc, char **argv) {
    return codec_command(argc, argv, 1);
}

int qxu_decode(int argc, char **argv) {
    return codec_command(argc, argv, 0);
}

int qxu_xml_escape(int argc, char **argv) {
    strbuf sb = {NULL, 0, 0};
    char *data;
    size_t length;
    int rc;

    if (qxu_wants_help(argc, argv))
        return qxu_print_help(xml_help);
    if (qxu_text_input(argc, argv, &data, &length) != 0)
        return QXU_FAILED;
    if (strbuf_append_xmlencoded(&sb, data) != 0)
        rc = qxu_fail("out of memory");
    else
        rc = finish_line(sb.text != NULL ? sb.text : "", sb.length);
    strbuf_free(&sb);
    free(data);
    return rc;
}
