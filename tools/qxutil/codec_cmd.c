/* qxutil encode, decode and xml-escape: the library's codecs as filters over
 * a file or standard input, and its XML escape on text.
 *
 * The codecs stream: input is read in fixed chunks and handed to the library
 * a whole number of groups at a time (3 bytes or 4 characters for Base64, 5
 * bytes or 8 characters for Base32), with what is left of a group kept for
 * the next chunk, so memory stays the same for any size of input. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/codec.h>
#include <qxcommon-util/escape.h>
#include <qxcommon-util/strbuf.h>

#include "qxutil.h"

static const char encode_help[] =
    "usage: qxutil encode base64|base32|hex|url [FILE]\n"
    "\n"
    "Encodes FILE, or standard input when FILE is \"-\" or missing, and prints\n"
    "the result on one line followed by a line feed.\n"
    "  base64  RFC 4648 Base64, padded with \"=\"\n"
    "  base32  RFC 4648 Base32, without \"=\" padding\n"
    "  hex     two lower-case hex digits per byte\n"
    "  url     percent-encoding: all but letters, digits and \"-._~\" become %xx\n"
    "          (lower-case); a NUL byte becomes %00\n"
    "Status: 0 success, 1 the input cannot be read, 2 bad arguments.\n";

static const char decode_help[] =
    "usage: qxutil decode base64|base32|hex|url [FILE]\n"
    "\n"
    "Decodes FILE, or standard input when FILE is \"-\" or missing, and writes\n"
    "exactly the decoded bytes. Line feeds are ignored everywhere, so wrapped\n"
    "input decodes whole; anything else that is not valid is an error.\n"
    "  base64  groups of four characters, the last padded with \"=\" as needed\n"
    "  base32  either case; white space and \"-\" are skipped; the \"=\" padding\n"
    "          of the last group may be left out, but not cut short\n"
    "  hex     pairs of hex digits, either case\n"
    "  url     %XX (either case) and \"+\" for a space; other bytes stand for\n"
    "          themselves; a \"%\" without two hex digits is an error\n"
    "What was decoded before an error has been written.\n"
    "Status: 0 success, 1 invalid input or it cannot be read, 2 bad arguments.\n";

static const char xml_help[] =
    "usage: qxutil xml-escape [--attr] [TEXT...]\n"
    "\n"
    "Prints TEXT (the arguments joined by single spaces) or, without TEXT or\n"
    "with \"-\", standard input, escaped for XML, and a line feed: &amp; &lt;\n"
    "&gt;, &#13; for a carriage return, &#x...; for each UTF-8 sequence; tab and\n"
    "line feed stay, other control bytes are dropped, and a byte that starts no\n"
    "valid sequence becomes &#<byte>;. Quotes stay as they are: the text is fit\n"
    "for element content.\n"
    "  --attr  also write \" as &quot;, ' as &apos;, tab as &#9; and line feed\n"
    "          as &#10;, for text inside an attribute value in either quotes\n"
    "Status: 0 success, 1 the input holds a NUL byte (XML has no such\n"
    "character) or cannot be read, 2 bad arguments.\n";

enum codec { CODEC_BASE64, CODEC_BASE32, CODEC_HEX, CODEC_URL, CODEC_NONE };

static const char *const codec_names[] = {"base64", "base32", "hex", "url"};
static const char *const codec_titles[] = {"Base64", "Base32", "hex", "URL"};

static enum codec codec_named(const char *name) {
    int i;
    for (i = 0; i < 4; ++i)
        if (strcmp(name, codec_names[i]) == 0)
            return (enum codec)i;
    return CODEC_NONE;
}

/* Input is read in chunks of this size, a multiple of both group sizes. */
enum { CHUNK = 15 * 4096 };

static int write_out(const void *data, size_t length) {
    if (length > 0 && fwrite(data, 1, length, stdout) != length)
        return -1;
    return 0;
}

static int read_error(const char *shown) {
    return qxu_fail("cannot read %s: %s", shown, strerror(errno != 0 ? errno : EIO));
}

/* Opens FILE, or takes standard input for "-" or no FILE. */
static FILE *open_input(const char *name, const char **shown) {
    FILE *in;
    if (name == NULL || strcmp(name, "-") == 0) {
        *shown = "standard input";
        return stdin;
    }
    *shown = name;
    in = fopen(name, "rb");
    if (in == NULL)
        qxu_fail("cannot open %s: %s", name, strerror(errno));
    return in;
}

static void encode_hex(const unsigned char *data, size_t length, char *out) {
    static const char digits[] = "0123456789abcdef";
    size_t i;
    for (i = 0; i < length; ++i) {
        out[2 * i] = digits[data[i] >> 4];
        out[2 * i + 1] = digits[data[i] & 15];
    }
}

/* The library's URL encoder ends its text at a NUL byte, so the pieces
 * between NULs go to it one by one and a NUL is written as %00, which is
 * what the encoding of that byte is and what the decoder turns back. */
static int encode_url(strbuf *sb, const unsigned char *data, size_t length) {
    while (length > 0) {
        const unsigned char *nul = memchr(data, '\0', length);
        size_t piece = nul != NULL ? (size_t)(nul - data) : length;
        if (piece > 0) {
            if (strbuf_setlength(sb, 0) != 0 || strbuf_nappend(sb, data, piece) != 0 ||
                strbuf_urlencode(sb) != 0)
                return qxu_fail("out of memory");
            if (write_out(sb->text, sb->length) != 0)
                return -1;
        }
        if (nul == NULL)
            break;
        if (write_out("%00", 3) != 0)
            return -1;
        data += piece + 1;
        length -= piece + 1;
    }
    return 0;
}

/* Encodes length bytes, whole groups only unless last is set. Returns the
 * number of bytes used, or -1 after a failure (a message when not a write
 * error, which the caller reports). */
static long encode_piece(enum codec codec, strbuf *sb, const unsigned char *data, size_t length,
                         int last) {
    static char out[2 * CHUNK + 64];
    size_t used = length;
    int n = 0;

    switch (codec) {
    case CODEC_BASE64:
        if (!last)
            used -= used % 3;
        n = used > 0 ? base64_encode(data, (int)used, out, (int)sizeof out) : 0;
        break;
    case CODEC_BASE32:
        if (!last)
            used -= used % 5;
        n = used > 0 ? base32_encode(data, (int)used, out, (int)sizeof out) : 0;
        break;
    case CODEC_HEX:
        encode_hex(data, used, out);
        n = (int)(2 * used);
        break;
    default:
        return encode_url(sb, data, used) != 0 ? -1 : (long)used;
    }
    if (n < 0) {
        qxu_fail("the library's encoder refused %zu bytes", used);
        return -1;
    }
    return write_out(out, (size_t)n) != 0 ? -1 : (long)used;
}

static int encode_stream(enum codec codec, FILE *in, const char *shown) {
    static unsigned char buffer[CHUNK + 8];
    strbuf sb = {NULL, 0, 0};
    size_t held = 0;
    int rc = QXU_OK;

    for (;;) {
        size_t got;
        long used;
        int last;

        errno = 0;
        got = fread(buffer + held, 1, CHUNK, in);
        if (got < CHUNK && ferror(in)) {
            rc = read_error(shown);
            break;
        }
        held += got;
        last = got < CHUNK;
        used = encode_piece(codec, &sb, buffer, held, last);
        if (used < 0) {
            rc = ferror(stdout) ? -1 : QXU_FAILED;
            break;
        }
        held -= (size_t)used;
        memmove(buffer, buffer + used, held);
        if (last)
            break;
    }
    strbuf_free(&sb);
    if (rc == QXU_OK && putchar('\n') == EOF)
        rc = -1;
    return rc;
}

/* Decoding: line feeds are dropped, every other byte is checked, and whole
 * groups of characters are gathered into a batch that the library decodes
 * in one call. */
enum { BATCH = 8 * 8192 };

struct decoder {
    enum codec codec;
    const char *title;
    unsigned long long offset; /* bytes of input taken so far */
    char group[8];
    int group_length;
    int padding; /* "=" characters in the group */
    char batch[BATCH + 16];
    size_t batch_length;
    strbuf sb;
};

/* Hands the batch to the library. A padded group, if any, is the batch's
 * last, and the library's decoders stop at its "=". */
static int flush_batch(struct decoder *d) {
    static unsigned char out[BATCH + 16];
    int n;

    if (d->batch_length == 0)
        return 0;
    d->batch[d->batch_length] = '\0';
    switch (d->codec) {
    case CODEC_BASE64:
        n = base64_decode(d->batch, out, (int)sizeof out);
        break;
    case CODEC_BASE32:
        n = base32_decode(d->batch, out, (int)sizeof out);
        break;
    case CODEC_HEX:
        n = hex_decode(d->batch, out, (unsigned int)sizeof out);
        break;
    default:
        if (strbuf_setlength(&d->sb, 0) != 0 ||
            strbuf_nappend(&d->sb, d->batch, d->batch_length) != 0)
            return qxu_fail("out of memory");
        if (strbuf_urldecode(&d->sb) != 0)
            return qxu_fail("invalid URL input: a \"%%\" needs two hex digits");
        d->batch_length = 0;
        return write_out(d->sb.text, d->sb.length) != 0 ? -1 : 0;
    }
    d->batch_length = 0;
    if (n < 0)
        return qxu_fail("the library's decoder refused the input");
    return write_out(out, (size_t)n) != 0 ? -1 : 0;
}

/* A URL batch is flushed without cutting a %XX escape in two. */
static int flush_url_batch(struct decoder *d) {
    size_t keep = 0;
    char kept[2];
    int rc;

    if (d->batch_length >= 1 && d->batch[d->batch_length - 1] == '%')
        keep = 1;
    else if (d->batch_length >= 2 && d->batch[d->batch_length - 2] == '%')
        keep = 2;
    d->batch_length -= keep;
    memcpy(kept, d->batch + d->batch_length, keep);
    rc = flush_batch(d);
    memcpy(d->batch, kept, keep);
    d->batch_length = keep;
    return rc;
}

/* Writes what whole groups before the error decode to, as base64 -d does,
 * then says what is wrong. */
static int invalid(struct decoder *d, const char *what, int c) {
    int rc = d->codec == CODEC_URL ? flush_url_batch(d) : flush_batch(d);
    if (rc != 0)
        return rc;
    if (c < 0)
        return qxu_fail("invalid %s input: %s", d->title, what);
    if (isprint(c))
        return qxu_fail("invalid %s input: '%c' %s at byte %llu", d->title, c, what, d->offset);
    return qxu_fail("invalid %s input: byte 0x%02x %s at byte %llu", d->title, c, what, d->offset);
}

static int is_base64(int c) {
    return isalnum(c) || c == '+' || c == '/';
}

static int is_base32(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '2' && c <= '7');
}

/* Valid ends of a Base64 group (data characters for a group of four) and of
 * a Base32 group (for eight). */
static int complete_group(const struct decoder *d, int data) {
    if (d->codec == CODEC_BASE64)
        return data >= 2;
    return data == 2 || data == 4 || data == 5 || data == 7 || data == 8;
}

/* One byte of group-coded input (Base64, Base32, hex). */
static int take_grouped(struct decoder *d, int c) {
    int size = d->codec == CODEC_BASE64 ? 4 : d->codec == CODEC_BASE32 ? 8 : 2;
    int valid = d->codec == CODEC_BASE64   ? is_base64(c)
                : d->codec == CODEC_BASE32 ? is_base32(c)
                                           : isxdigit(c);

    if (d->codec == CODEC_BASE32 && (c == '-' || isspace(c)))
        return 0; /* the library's Base32 decoder passes over them too */
    if (valid) {
        if (d->padding > 0)
            return invalid(d, "after the padding", c);
    } else if (c == '=' && d->codec != CODEC_HEX) {
        if (d->group_length < 2)
            return invalid(d, "before the group has two characters", c);
        ++d->padding;
    } else {
        return invalid(d, "is not part of the encoding", c);
    }
    d->group[d->group_length++] = (char)c;
    if (d->group_length < size)
        return 0;
    if (!complete_group(d, size - d->padding))
        return invalid(d, "completes a group with the wrong padding", c);
    memcpy(d->batch + d->batch_length, d->group, (size_t)size);
    d->batch_length += (size_t)size;
    d->group_length = 0;
    if (d->padding > 0 || d->batch_length >= BATCH) {
        d->padding = 0;
        return flush_batch(d);
    }
    return 0;
}

static int take_byte(struct decoder *d, int c) {
    if (c == '\n')
        return 0;
    if (d->codec != CODEC_URL)
        return take_grouped(d, c);
    if (c == '\0')
        return invalid(d, "cannot stand in URL text", c);
    d->batch[d->batch_length++] = (char)c;
    return d->batch_length >= BATCH ? flush_url_batch(d) : 0;
}

static int finish_decoding(struct decoder *d) {
    if (d->group_length > 0) {
        /* Only Base32 may end without its padding, as its encoder here
         * writes none. */
        if (d->codec != CODEC_BASE32 || d->padding > 0 || !complete_group(d, d->group_length))
            return invalid(
                d, d->codec == CODEC_HEX ? "has an odd number of digits" : "ends inside a group",
                -1);
        memcpy(d->batch + d->batch_length, d->group, (size_t)d->group_length);
        d->batch_length += (size_t)d->group_length;
        d->group_length = 0;
    }
    return flush_batch(d);
}

static int decode_stream(enum codec codec, FILE *in, const char *shown) {
    static unsigned char buffer[CHUNK];
    static struct decoder d;
    int size = codec == CODEC_BASE64 ? 4 : codec == CODEC_BASE32 ? 8 : 2;
    char plain[256];
    int rc = 0, c;

    memset(&d, 0, sizeof d);
    d.codec = codec;
    d.title = codec_titles[codec];
    /* The characters that only go into a group, for the quick path. */
    for (c = 0; c < 256; ++c)
        plain[c] = (char)(codec == CODEC_BASE64   ? is_base64(c)
                          : codec == CODEC_BASE32 ? is_base32(c)
                          : codec == CODEC_HEX    ? isxdigit(c) != 0
                                                  : 0);
    for (;;) {
        size_t got, i;
        errno = 0;
        got = fread(buffer, 1, sizeof buffer, in);
        for (i = 0; i < got && rc == 0; ++i) {
            ++d.offset;
            if (plain[buffer[i]] && d.padding == 0 && d.group_length < size - 1) {
                d.group[d.group_length++] = (char)buffer[i];
                continue;
            }
            rc = take_byte(&d, buffer[i]);
        }
        if (rc != 0)
            break;
        if (got < sizeof buffer) {
            rc = ferror(in) ? read_error(shown) : finish_decoding(&d);
            break;
        }
    }
    strbuf_free(&d.sb);
    return rc;
}

static int codec_command(int argc, char **argv, int encoding) {
    static const struct option options[] = {QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    const char *help = encoding ? encode_help : decode_help;
    const char *shown;
    enum codec codec;
    int started = 0, opt, rc;
    FILE *in;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1)
        return qxu_other_option(opt, argv, help);
    argc -= optind;
    argv += optind;
    if (argc < 1)
        return qxu_usage_error("missing codec (base64, base32, hex or url)");
    codec = codec_named(argv[0]);
    if (codec == CODEC_NONE)
        return qxu_usage_error("unknown codec '%s' (base64, base32, hex or url)", argv[0]);
    qxu_set_command(encoding ? "encode" : "decode", argv[0]);
    if (argc > 2)
        return qxu_usage_error("too many arguments; usage: qxutil %s %s [FILE]",
                               encoding ? "encode" : "decode", argv[0]);
    in = open_input(argc == 2 ? argv[1] : NULL, &shown);
    if (in == NULL)
        return QXU_FAILED;
    rc = encoding ? encode_stream(codec, in, shown) : decode_stream(codec, in, shown);
    if (in != stdin)
        fclose(in);
    /* A failed write is said once, by the caller that flushes. */
    return rc < 0 ? QXU_OK : rc;
}

int qxu_encode(int argc, char **argv) {
    return codec_command(argc, argv, 1);
}

int qxu_decode(int argc, char **argv) {
    return codec_command(argc, argv, 0);
}

/* The text of xml-escape: the arguments joined by single spaces, or all of
 * standard input. 0, or QXU_FAILED after a message. */
static int xml_input(int argc, char **argv, int literal, char **data, size_t *length) {
    size_t total = 0;
    char *at;
    int i;

    if (argc == 0 || (!literal && argc == 1 && strcmp(argv[0], "-") == 0)) {
        if (qxu_read_all(stdin, data, length) != 0)
            return qxu_fail("cannot read standard input: %s", strerror(errno));
        /* The escape ends at a NUL, and XML has no character for it. */
        if (memchr(*data, '\0', *length) != NULL) {
            free(*data);
            return qxu_fail("standard input holds a NUL byte, which XML cannot carry");
        }
        return 0;
    }
    for (i = 0; i < argc; ++i)
        total += strlen(argv[i]) + 1;
    *data = malloc(total);
    if (*data == NULL)
        return qxu_fail("out of memory");
    at = *data;
    for (i = 0; i < argc; ++i) {
        size_t n = strlen(argv[i]);
        if (i > 0)
            *at++ = ' ';
        memcpy(at, argv[i], n);
        at += n;
    }
    *at = '\0';
    *length = (size_t)(at - *data);
    return 0;
}

/* The library's escape leaves quotes, tabs and line feeds as they are, and
 * writes none of them in its references; inside an attribute value they
 * must be references too (a parser would turn a literal tab or line feed
 * into a space). */
static int write_attribute(const char *text, size_t length) {
    size_t i;
    for (i = 0; i < length; ++i) {
        const char *reference = text[i] == '"'    ? "&quot;"
                                : text[i] == '\'' ? "&apos;"
                                : text[i] == '\t' ? "&#9;"
                                : text[i] == '\n' ? "&#10;"
                                                  : NULL;
        if (reference != NULL)
            fputs(reference, stdout);
        else
            putchar(text[i]);
    }
    return 0;
}

int qxu_xml_escape(int argc, char **argv) {
    static const struct option options[] = {
        {"attr", no_argument, NULL, 'a'}, QXU_COMMON_OPTIONS, {NULL, 0, NULL, 0}};
    strbuf sb = {NULL, 0, 0};
    int started = 0, attr = 0, literal, opt, rc;
    char *data;
    size_t length;

    while ((opt = qxu_getopt(argc, argv, "+:h", options, &started)) != -1) {
        if (opt != 'a')
            return qxu_other_option(opt, argv, xml_help);
        attr = 1;
    }
    /* After "--", a lone "-" is text too. */
    literal = strcmp(argv[optind - 1], "--") == 0;
    if (xml_input(argc - optind, argv + optind, literal, &data, &length) != 0)
        return QXU_FAILED;
    if (strbuf_append_xmlencoded(&sb, data) != 0) {
        rc = qxu_fail("out of memory");
    } else {
        if (attr)
            write_attribute(sb.text != NULL ? sb.text : "", sb.length);
        else
            qxu_write_all(stdout, sb.text != NULL ? sb.text : "", sb.length);
        putchar('\n');
        rc = QXU_OK;
    }
    strbuf_free(&sb);
    free(data);
    return rc;
}
