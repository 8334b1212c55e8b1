/* timeoutio: wait for a descriptor within a time limit, then make one
 * transfer.
 *
 * Time limits are in milliseconds and go to poll(2) as they are: a negative
 * value waits without limit, 0 only tests. events is POLLIN to receive or
 * POLLOUT to send; anything else (a combination of both included) fails
 * with EINVAL. The transfer uses recv(2) or send(2) with the caller's
 * flags, so the descriptor must be a socket. A signal the caller handles
 * changes nothing in timeoutio and timeoutio_sb: an interrupted wait goes on
 * with the time that remains of the limit, an interrupted transfer is made
 * again. iowait alone reports an interrupted wait (-1 with EINTR). Nothing
 * is logged. */
#ifndef QXCOMMON_UTIL_TIMEOUTIO_H
#define QXCOMMON_UTIL_TIMEOUTIO_H

#include <poll.h>
#include <stddef.h>
#include <sys/types.h>

#include <qxcommon-util/export.h>
#include <qxcommon-util/strbuf.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One recv into buf (first cleared, all len bytes) or one send of len bytes
 * from it. Returns the count (0 when the peer has closed), or -1 with errno:
 * ETIMEDOUT when the wait times out or fails, the recv/send error, or errno
 * untouched when poll reports only an error or hang-up condition. */
QX_API ssize_t timeoutio(int fd, void *buf, size_t len, int timeout, short events, int flags);
/* Receiving: sets sb's length to 0, then receives in pieces of up to 8000
 * bytes and appends them (NULs kept) until the peer closes; only the first
 * wait is limited, later receives block as the socket does. Returns the new
 * length, or -1 when a receive fails, keeping what was appended. Sending:
 * one send of sb's length bytes; returns the count or -1. A failed or timed
 * out wait returns -1 and, unlike timeoutio, does not set errno. */
QX_API int timeoutio_sb(int fd, strbuf *sb, int timeout, short events, int flags);
/* poll(2) on fd alone for events (any mask): 1 ready, 0 time limit
 * reached, -1 with errno. */
QX_API int iowait(int fd, int timeout, short events);

#ifdef __cplusplus
}
#endif

#endif
