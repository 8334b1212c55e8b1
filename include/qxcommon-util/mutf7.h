/* Modified UTF-7, the form IMAP gives mailbox names. */
#ifndef QXCOMMON_UTIL_MUTF7_H
#define QXCOMMON_UTIL_MUTF7_H

#include <stdint.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Appends the modified UTF-7 form of the UTF-16 code units (machine byte
 * order, ended by a 0 unit): printable US-ASCII as it is, "&" as "&-", every
 * run of other units (surrogates taken one by one) as "&", their big-endian
 * bytes in Base64 with "," for "/" and no padding, and "-". A NULL or empty
 * units appends nothing. Nothing is reported: if memory runs out the output
 * is incomplete. */
QX_API void utf16_to_mutf7_enc(strbuf *sb, const uint16_t *units);

#ifdef __cplusplus
}
#endif

#endif
