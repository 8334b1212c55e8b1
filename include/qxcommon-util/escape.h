/* Escaping and unescaping the text of a strbuf: URL percent-encoding, XML
 * character references, backslash quoting, tr-style translation, and the
 * body of a JSON-style string. Also the UTF-8 decoder they use.
 *
 * The functions return 0 on success and -1 on failure unless said
 * otherwise. */
#ifndef QXCOMMON_UTIL_ESCAPE_H
#define QXCOMMON_UTIL_ESCAPE_H

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Percent-encodes the text (up to its first NUL) in place: all but letters,
 * digits and "-._~" become "%" and two lower-case hex digits; length becomes
 * the bytes written. The buffer is first grown to hold 3 * length bytes.
 * 0 on success (an empty text stays empty). On memory failure -1, and the
 * text is emptied (a NUL at text[0], length left as it was), as callers have
 * always seen it. */
QX_API int strbuf_urlencode(strbuf *sb);

/* Decodes "%XX" (either case) and "+" (a blank) in place; the result may
 * hold NUL bytes, which length counts. 0 on success (also for a record that
 * never held text). A "%" without two hex digits, or a failed copy of the
 * text, gives -1 and leaves the buffer unchanged. */
QX_API int strbuf_urldecode(strbuf *sb);

/* Appends s escaped for XML: "&amp;", "&lt;", "&gt;", "&#13;" for a
 * carriage return, "&#x...;" for a UTF-8 sequence; tab and line feed stay,
 * other control bytes are dropped. A byte that does not start a valid
 * sequence gives "&#<byte>;", and the byte where decoding stopped is
 * skipped with it. Returns the result of the last append made: a failed
 * append ends the walk with -1, except a failed "&#x...;", after which the
 * walk goes on (-1 only when nothing is appended after it). -1 for a NULL s;
 * an empty s appends nothing and returns 0. Bytes appended before a failure
 * stay. */
QX_API int strbuf_append_xmlencoded(strbuf *sb, const char *s);

/* Replaces the text by its quoted form. Each of the length bytes is looked
 * at, NULs included. With special, each byte found in it gets a backslash
 * in front (an empty special escapes nothing, a NUL is never escaped); with
 * NULL, bytes below 32, double quote, "/", backslash and DEL become "\u00xx"
 * (lower-case hex). Bytes of 128 and more pass unchanged. An empty text
 * returns 0 unchanged. 0 on success; -1 when the scratch buffer or the
 * final copy cannot be allocated (buffer unchanged). Failures of single
 * appends into the scratch buffer are not reported: the text is then as
 * much as was quoted. */
QX_API int strbuf_quote(strbuf *sb, const char *special);

/* Replaces each byte found in from by the byte at the same place in to (the
 * last byte of to when to is shorter), or deletes it when to is NULL or
 * empty; other bytes, NULs included, are kept. 0 on success; -1 for a NULL
 * from or a failed allocation (buffer unchanged). When every byte is
 * deleted, length becomes 0 and the old bytes stay without a NUL at text[0]
 * (deliberate, the strbuf_put of NULL behaviour). */
QX_API int strbuf_translate(strbuf *sb, const char *from, const char *to);

/* Resolves the backslash escapes of a JSON-style string body in place, up to
 * the first unescaped double quote, which ends the text. "\uXXXX" (and
 * surrogate pairs) become UTF-8; an invalid one is left as its four
 * characters without the backslash and "u". A backslash at the very end of
 * the text is dropped. Length becomes the bytes written, and a NUL follows
 * them. Never allocates; always returns 0 (a record without text is left
 * as it is). */
QX_API int strbuf_unescape(strbuf *sb);

/* Decodes one UTF-8 sequence at *p and returns its code point, advancing *p
 * after it (a NUL gives 0 and advances one byte). On failure returns 0: *p
 * is left on a stray continuation byte, or on the first byte that should
 * have continued the sequence. Leads 0xF8 to 0xFF are taken as four-byte
 * leads. Overlong forms, surrogates and values above 0x10FFFF are not
 * rejected; a sequence that decodes to 0 looks like a failure. */
QX_API unsigned int utf8toint(const char **p);

#ifdef __cplusplus
}
#endif

#endif
