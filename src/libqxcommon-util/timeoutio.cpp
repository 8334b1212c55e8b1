// One transfer on a socket after a bounded wait for it to become ready.
#include "qxcommon-util/timeoutio.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace qx::detail {

namespace {

// Size of the stack buffer timeoutio_sb receives through.
constexpr size_t receive_piece = 8000;

bool is_one_direction(short events) noexcept {
    return events == POLLIN || events == POLLOUT;
}

// poll(2) on one descriptor; the reported events go to *revents.
int wait_for(int fd, int timeout, short events, short *revents) noexcept {
    pollfd one{};
    one.fd = fd;
    one.events = events;
    one.revents = 0;
    const int ready = ::poll(&one, 1, timeout);
    *revents = one.revents;
    return ready;
}

std::int64_t monotonic_ms() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Like wait_for, but a signal the caller handles neither ends the wait nor
// shortens it: an interrupted poll is resumed with the time that is left of
// the limit (none left: one last look), a negative limit stays unlimited.
int wait_through_signals(int fd, int timeout, short events, short *revents) noexcept {
    // One millisecond more than the whole milliseconds now passed, so that
    // the remaining time is never counted short.
    const std::int64_t deadline = timeout > 0 ? monotonic_ms() + timeout + 1 : 0;
    // An interruption leaves no trace in errno either: a time-out after one
    // must read exactly as a time-out without.
    const int caller_errno = errno;
    int limit = timeout;
    for (;;) {
        const int ready = wait_for(fd, limit, events, revents);
        if (ready >= 0 || errno != EINTR)
            return ready;
        errno = caller_errno;
        if (timeout > 0)
            limit = static_cast<int>(std::max<std::int64_t>(deadline - monotonic_ms(), 0));
    }
}

ssize_t receive_once(int fd, void *buf, size_t len, int flags) noexcept {
    ssize_t n;
    do {
        n = ::recv(fd, buf, len, flags);
    } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t send_once(int fd, const void *buf, size_t len, int flags) noexcept {
    ssize_t n;
    do {
        n = ::send(fd, buf, len, flags);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Appends everything received until the peer closes; -1 when a receive (or
// the append) fails, keeping what was appended before.
int receive_until_closed(int fd, strbuf *sb, int flags) noexcept {
    if (strbuf_setlength(sb, 0) != 0)
        return -1;
    char piece[receive_piece];
    for (;;) {
        const ssize_t n = receive_once(fd, piece, sizeof piece, flags);
        if (n < 0)
            return -1;
        if (n == 0)
            return static_cast<int>(sb->length);
        if (strbuf_nappend(sb, piece, static_cast<size_t>(n)) != 0)
            return -1;
    }
}

} // namespace

} // namespace qx::detail

extern "C" {

QX_API ssize_t timeoutio(int fd, void *buf, size_t len, int timeout, short events, int flags) {
    if (!qx::detail::is_one_direction(events)) {
        errno = EINVAL;
        return -1;
    }
    short revents = 0;
    if (qx::detail::wait_through_signals(fd, timeout, events, &revents) <= 0) {
        // A failed wait reads as a time-out too.
        errno = ETIMEDOUT;
        return -1;
    }
    if ((revents & POLLIN) != 0) {
        std::memset(buf, 0, len);
        return qx::detail::receive_once(fd, buf, len, flags);
    }
    if ((revents & POLLOUT) != 0)
        return qx::detail::send_once(fd, buf, len, flags);
    return -1; // only an error or hang-up condition: errno is left alone
}

QX_API int timeoutio_sb(int fd, strbuf *sb, int timeout, short events, int flags) {
    if (!qx::detail::is_one_direction(events)) {
        errno = EINVAL;
        return -1;
    }
    short revents = 0;
    // Deliberate: a time-out of timeoutio_sb leaves errno as it was (no ETIMEDOUT).
    // Deliberately unlike timeoutio: a time-out leaves errno as it was and a
    // failed poll leaves its own errno; callers of this form rely on that.
    if (qx::detail::wait_through_signals(fd, timeout, events, &revents) <= 0)
        return -1;
    if ((revents & POLLIN) != 0)
        return qx::detail::receive_until_closed(fd, sb, flags);
    if ((revents & POLLOUT) != 0)
        return static_cast<int>(qx::detail::send_once(fd, sb->text, sb->length, flags));
    return -1;
}

// Deliberate: iowait gives -1 with EINTR when a signal interrupts it, for callers' own loops.
// Deliberately the plain poll: an interrupted wait gives -1 with EINTR, and
// callers that wait in a loop of their own rely on seeing it.
QX_API int iowait(int fd, int timeout, short events) {
    short revents = 0;
    return qx::detail::wait_for(fd, timeout, events, &revents);
}

} // extern "C"
