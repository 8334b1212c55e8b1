/* Base32 and Base64 (RFC 4648 alphabets) and hex decoding.
 *
 * The low-level functions work on caller buffers with int lengths and
 * capacities; a failing decoder may already have written part of its
 * output. The strbuf_append_b* functions append an encoding to a strbuf,
 * growing it, and return 0 or -1 (NULL input, an input too long for their
 * int counts, or memory). */
#ifndef QXCOMMON_UTIL_CODEC_H
#define QXCOMMON_UTIL_CODEC_H

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the (inlen * 8 + 4) / 5 Base32 characters of in, without "="
 * padding, and a NUL. Returns the character count, or -1, with nothing
 * written, when outsize has no room for them and the NUL or inlen is
 * negative. A NULL in or an inlen of 0 writes only the NUL and returns 0. */
QX_API int base32_encode(const unsigned char *in, int inlen, char *out, int outsize);

/* Decodes the NUL-terminated in up to its NUL or first "=" (what follows is
 * ignored), skipping white space and "-", letters in either case; left-over
 * bits (fewer than eight) are dropped. Writes the bytes and a NUL; returns
 * the byte count, or -1 for an outsize below 1, another character, or when
 * the bytes and the NUL do not fit in outsize (bytes already decoded stay
 * written). */
QX_API int base32_decode(const char *in, unsigned char *out, int outsize);

/* Writes the Base64 form of in padded with "=" to a multiple of four,
 * without a NUL, and returns its length. A NULL out asks for that length
 * only (no NUL counted); -1, nothing written, when it is larger than
 * outsize. An inlen below 1 writes nothing and returns 0. */
QX_API int base64_encode(const unsigned char *in, int inlen, char *out, int outsize);

/* As base64_encode, with a line feed after every linelen characters (pad
 * characters counted, line feeds not), also after a last full line. Returns
 * the bytes written, line feeds included. The capacity test only demands
 * outsize >= encoded length / linelen + 1 (the count returned for a NULL
 * out): the caller must provide room for every character and line feed.
 * A linelen of 0 returns -1. */
QX_API int base64_encode_wrap(const unsigned char *in, int inlen, char *out, int outsize,
                              int linelen);

/* Decodes while the characters are of the Base64 alphabet; the first other
 * one ("=", NUL, white space, line feed, ...) ends the input without error,
 * so wrapped input decodes only up to its first line feed. Left-over bits
 * are dropped. Returns the byte count (no NUL is written), or -1 when
 * outsize is too small (bytes already decoded stay written). */
QX_API int base64_decode(const char *in, unsigned char *out, int outsize);

/* Decodes pairs of hex digits (either case) until a pair is not valid or
 * outsize - 1 bytes are stored, writing a NUL after each byte. Returns the
 * byte count; 0 without writing anything for a NULL in, an outsize below 2
 * (taken as int) or an invalid first pair. An odd last digit is ignored. */
QX_API int hex_decode(const char *in, unsigned char *out, unsigned int outsize);

/* Reads exactly four hex digits into *value (first digit most significant)
 * and returns 0; -1 with *value untouched when one is not a hex digit. */
QX_API int hex4_decode(const char *in, unsigned int *value);

/* Appends the Base64 form of len bytes of data and a NUL, with line breaks
 * every linelen characters when linelen is not 0. c = (8 * len + 5) / 6
 * characters are counted, plus c / linelen + 1 when wrapping, plus the
 * padding (4 - c % 4); when that does not fit in the room left the size
 * grows to (that + size + 1) | 1023 (with lines of one character it may
 * grow a little more, to hold every byte written). With pad 0 the length
 * added is the count without padding: a wrapped result without padding is
 * cut or extended by that count (deliberate). 0 on success; -1 for a NULL data, a
 * len whose 8 * len + 5 overflows 32 bits, or a failed growth (buffer
 * unchanged); a len below 1 appends nothing and returns 0. */
QX_API int strbuf_append_b64n_wrap(strbuf *sb, const void *data, int len, int pad, int linelen);
/* strbuf_append_b64n_wrap without line breaks (linelen 0). */
QX_API int strbuf_append_b64n(strbuf *sb, const void *data, int len, int pad);
/* strbuf_append_b64n with the strlen(str) bytes of str; -1 for a NULL str. */
QX_API int strbuf_append_b64(strbuf *sb, const char *str, int pad);

/* Appends the Base32 form of the NUL-terminated str and a NUL, with pad not
 * 0 padded with "=" to a multiple of eight characters. Grows, when the
 * characters and padding do not fit in the room left, to (their count +
 * size + 1) | 1023. 0 on success; -1 for a NULL str, a str longer than
 * INT_MAX or a failed growth (buffer unchanged). */
QX_API int strbuf_append_b32(strbuf *sb, const char *str, int pad);

#ifdef __cplusplus
}
#endif

#endif
