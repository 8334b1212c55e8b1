// process_gets on arbitrary bytes from a pipe, with no child process: the
// harness fills in a process record itself around the read end of a pipe.
// The bytes arrive written before reading, written before reading on a
// non-blocking read end whose write end stays open (so that they end in a
// read error, not end of input), from a thread in pieces, or as a pipe
// filled to its capacity (the input repeated) before the write end is
// closed. Every call's result and every byte of the exact-size buffer
// are checked against a reference of the line rules, read to the end of
// input; optionally one byte is read directly between line reads, which
// only works when process_gets never reads past a line feed.
// Input: byte 0 is the buffer size (0-63; bit 6 adds a direct read after
// every line, bit 7 a second size taken from byte 1 for odd calls); byte 1
// picks the delivery (low two bits: written first, written first on a
// non-blocking pipe left open, from a thread, pipe filled to capacity) and
// the piece size; the rest is the data.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "fuzz_support.hpp"
#include "qxcommon-util/process.h"

using qx_fuzz::check;

namespace {

constexpr unsigned char canary = 0xA5;

constexpr int end_of_input = -1;
constexpr int read_error = -2;

// The stream as the reference sees it: the bytes, then end of input or,
// on a non-blocking pipe whose write end stays open, a read error.
struct stream {
    const std::string &bytes;
    bool ends_in_error;
    std::size_t pos = 0;
    int next() {
        if (pos < bytes.size())
            return static_cast<unsigned char>(bytes[pos++]);
        return ends_in_error ? read_error : end_of_input;
    }
};

// Discards up to and including the next line feed; the bytes before it,
// or -1 on a read error.
int discard_line(stream &s) {
    int n = 0;
    for (int c = s.next(); c != end_of_input && c != '\n'; c = s.next()) {
        if (c == read_error)
            return -1;
        ++n;
    }
    return n;
}

// The result of one call and what it leaves in buf.
int ref_gets(stream &s, std::string &buf, int size) {
    if (size == 0)
        return discard_line(s);
    if (size == 1) {
        buf[0] = '\0';
        return discard_line(s);
    }
    int stored = 0;
    for (;;) {
        if (stored == size - 1) {
            const int rest = discard_line(s);
            buf[static_cast<std::size_t>(stored)] = '\0';
            return rest < 0 ? -1 : stored + rest;
        }
        const int c = s.next();
        if (c == read_error) {
            if (stored > 0)
                buf[static_cast<std::size_t>(stored)] = '\0';
            return -1;
        }
        if (c == end_of_input) {
            if (stored > 0)
                buf[static_cast<std::size_t>(stored)] = '\0';
            return stored;
        }
        buf[static_cast<std::size_t>(stored)] = static_cast<char>(c);
        if (c == '\n') {
            if (stored > 0)
                buf[static_cast<std::size_t>(stored)] = '\0';
            return stored;
        }
        ++stored;
    }
}

void write_all(int fd, const char *p, std::size_t n, std::size_t piece) {
    while (n > 0) {
        const std::size_t chunk = n < piece ? n : piece;
        const ssize_t w = ::write(fd, p, chunk);
        if (w < 0 && errno == EINTR)
            continue;
        check(w > 0, "writing to the pipe failed");
        p += w;
        n -= static_cast<std::size_t>(w);
    }
}

void read_lines(process &proc, const std::string &bytes, int size_even, int size_odd,
                bool direct_reads, bool ends_in_error = false) {
    stream s{bytes, ends_in_error};
    for (int call = 0;; ++call) {
        const int size = call % 2 == 0 ? size_even : size_odd;
        const std::size_t n = static_cast<std::size_t>(size);
        // Exactly size bytes, so a write past the buffer is caught.
        char *buf = static_cast<char *>(std::malloc(n));
        check(buf != nullptr || n == 0, "malloc");
        if (n != 0)
            std::memset(buf, canary, n);
        std::string want(n, static_cast<char>(canary));
        const bool at_end = s.pos == bytes.size();
        const int expected = ref_gets(s, want, size);
        const int got = process_gets(&proc, buf, size);
        check(got == expected, "process_gets result");
        check(n == 0 || std::memcmp(buf, want.data(), n) == 0, "process_gets buffer");
        std::free(buf);
        if (at_end)
            return;
        if (direct_reads) {
            char c;
            const ssize_t r = ::read(proc.read_fd, &c, 1);
            const int want_c = s.next();
            if (want_c == end_of_input || want_c == read_error) {
                check(r == (want_c == end_of_input ? 0 : -1), "the pipe has more than the data");
                return;
            }
            check(r == 1 && static_cast<unsigned char>(c) == want_c,
                  "process_gets took bytes past the line feed");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2)
        return 0;
    std::signal(SIGPIPE, SIG_IGN);
    const int size_even = data[0] % 64;
    const int size_odd = (data[0] & 0x80) != 0 ? data[1] % 64 : size_even;
    const bool direct_reads = (data[0] & 0x40) != 0;
    const int delivery = data[1] & 3;
    const std::size_t piece = 1 + (data[1] >> 2);
    // At most half a default pipe, so that writing it all first never blocks.
    std::string bytes(reinterpret_cast<const char *>(data) + 2,
                      std::min<std::size_t>(size - 2, 32768));

    int fds[2];
    check(::pipe(fds) == 0, "pipe");
    process proc{};
    proc.read_fd = fds[0];
    proc.write_fd = -1;
    proc.pid = 0;

    if (delivery == 3 && !bytes.empty()) {
        // Shrink the pipe to one page where allowed, then fill it exactly.
        (void)::fcntl(fds[1], F_SETPIPE_SZ, 4096);
        const int capacity = ::fcntl(fds[1], F_GETPIPE_SZ);
        check(capacity > 0, "F_GETPIPE_SZ");
        std::string full;
        while (full.size() < static_cast<std::size_t>(capacity))
            full += bytes;
        full.resize(static_cast<std::size_t>(capacity));
        bytes = full;
        write_all(fds[1], bytes.data(), bytes.size(), bytes.size());
        ::close(fds[1]);
        read_lines(proc, bytes, size_even, size_odd, direct_reads);
    } else if (delivery == 2) {
        const int wfd = fds[1];
        std::thread writer([&bytes, wfd, piece] {
            write_all(wfd, bytes.data(), bytes.size(), piece);
            ::close(wfd);
        });
        // The reads may block here, and process_gets does not retry on
        // EINTR: keep the fuzzer's timer signal (SIGALRM, installed without
        // SA_RESTART) away from this thread while it reads.
        sigset_t alarm, saved;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, &saved);
        read_lines(proc, bytes, size_even, size_odd, direct_reads);
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        writer.join();
    } else if (delivery == 1) {
        // The write end stays open on a non-blocking read end: the data
        // ends in a read error (EAGAIN) instead of end of input.
        check(::fcntl(fds[0], F_SETFL, O_NONBLOCK) == 0, "O_NONBLOCK");
        write_all(fds[1], bytes.data(), bytes.size(), piece);
        read_lines(proc, bytes, size_even, size_odd, direct_reads, true);
        ::close(fds[1]);
    } else {
        write_all(fds[1], bytes.data(), bytes.size(), piece);
        ::close(fds[1]);
        read_lines(proc, bytes, size_even, size_odd, direct_reads);
    }
    ::close(fds[0]);

    // A closed read side is a read error: -1 and the buffer untouched.
    proc.read_fd = -1;
    char buf[4] = {'x', 'y', 'z', 'w'};
    check(process_gets(&proc, buf, 4) == -1, "process_gets on descriptor -1");
    check(std::memcmp(buf, "xyzw", 4) == 0, "a failed read wrote into the buffer");
    return 0;
}
