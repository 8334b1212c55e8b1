/* Extended MIME parameter values: charset'language'percent-encoded-bytes.
 *
 * One value at a time; numbered continuation sections are not joined. */
#ifndef QXCOMMON_UTIL_RFC2231_H
#define QXCOMMON_UTIL_RFC2231_H

#include <stddef.h>

#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Decodes an extended value (NUL-terminated) into a new UTF-8 string that
 * the caller frees with free(3).
 *
 * The character set is the text before the first apostrophe (only its first
 * 31 bytes are used), the language the text up to the second apostrophe (it
 * is skipped). A value that ends before the second apostrophe, or right
 * behind it, decodes to the empty string. The rest is copied byte by byte,
 * "%" and two hexadecimal digits (either case) giving one byte; a byte that
 * is not a hexadecimal digit counts as 0, so "%zz" gives a NUL that ends the
 * text. A "%" with fewer than two bytes behind it ends the decoding.
 *
 * The decoded bytes are converted with iconv(3) from the character set to
 * UTF-8, in room of the encoded value's length: a byte iconv cannot convert
 * (or whose conversion does not fit) is skipped and conversion goes on
 * behind it. When iconv does not know the character set, the decoded bytes
 * are returned unconverted. Never an error for content: NULL only when
 * memory runs out or iconv_open fails for another reason than an unknown
 * character set. value must not be NULL. */
QX_API char *rfc2231_to_utf8(const char *value);

/* Writes "UTF-8''" and the text (NUL-terminated, taken to be UTF-8) with
 * every byte below "!" or above "~" and every "*", ",", "%" and apostrophe
 * written as "%" and two upper-case hexadecimal digits; all other printable
 * bytes are written as they are.
 *
 * With a destination, at most size - 1 bytes are written and the text is
 * always NUL-terminated; a percent sequence that does not fit whole is left
 * out and the next byte is tried. A size of 0 writes nothing. With a NULL
 * destination, a zeroed block of 3 * strlen(text) + 8 bytes is allocated
 * (caller frees; NULL when memory runs out), which always holds everything.
 * Returns the destination. A size of 0 with a destination writes nothing,
 * not even a NUL. The short list of encoded punctuation is deliberate:
 * "(", ")", ";", "/", "=", "?" and the double quote pass as they are. */
QX_API char *rfc2231_encode(const char *text, char *dest, size_t size);

#ifdef __cplusplus
}
#endif

#endif
