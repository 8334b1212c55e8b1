#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include "qxcommon-util/strbuf.h"
#include "qxcommon-util/timeoutio.h"
#include "support/alarm_storm.hpp"
#include "support/alloc_fail.hpp"
#include "support/fd_snapshot.hpp"
#include "support/syslog_capture.hpp"

namespace {

// errno is set to this before a call that must leave it alone.
constexpr int untouched_errno = 12345;

// A connected pair of stream sockets: `ours` is given to the functions,
// `peer` plays the other side.
class TimedIo : public ::testing::Test {
  protected:
    void SetUp() override {
        qx_test::syslog_clear();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        ours_ = pair[0];
        peer_ = pair[1];
    }
    void TearDown() override {
        close_peer();
        if (ours_ >= 0)
            close(ours_);
        strbuf_free(&sb_);
        EXPECT_TRUE(qx_test::syslog_entries().empty()); // nothing is ever logged
        EXPECT_TRUE(fds_.unchanged());
    }

    void close_peer() {
        if (peer_ >= 0)
            close(peer_);
        peer_ = -1;
    }
    void peer_sends(const std::string &bytes) {
        ASSERT_EQ(send(peer_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    std::string peer_receives(std::size_t n) {
        std::string got(n, '\0');
        std::size_t have = 0;
        while (have < n) {
            const ssize_t r = recv(peer_, &got[have], n - have, 0);
            if (r <= 0)
                break;
            have += static_cast<std::size_t>(r);
        }
        got.resize(have);
        return got;
    }
    std::string text_of(const strbuf &sb) const { return std::string(sb.text, sb.length); }

    qx_test::fd_snapshot fds_;
    int ours_ = -1;
    int peer_ = -1;
    strbuf sb_{};
};

double seconds_since(const timespec &start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) +
           static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

timespec now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

// A descriptor number that is surely not open.
int closed_descriptor() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

// Interrupts a blocking call of this thread once, after a short while, with
// a signal whose handler does nothing (and does not restart the call).
class one_interruption {
  public:
    one_interruption() {
        struct sigaction quiet {};
        quiet.sa_handler = [](int) {};
        sigemptyset(&quiet.sa_mask);
        sigaction(SIGALRM, &quiet, &saved_);
        itimerval once{};
        once.it_value.tv_usec = 200 * 1000;
        setitimer(ITIMER_REAL, &once, nullptr);
    }
    ~one_interruption() {
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &saved_, nullptr);
    }
    one_interruption(const one_interruption &) = delete;
    one_interruption &operator=(const one_interruption &) = delete;

  private:
    struct sigaction saved_ {};
};

// ---- timeoutio -------------------------------------------------------------

TEST_F(TimedIo, TimeoutioRefusesBothDirectionsAtOnceWithEinval) {
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    peer_sends("data");
    errno = 0;
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN | POLLOUT, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(std::string(buf, 4), "ZZZZ");
}

TEST_F(TimedIo, TimeoutioRefusesEventsOtherThanPollinOrPollout) {
    char buf[4];
    peer_sends("data");
    for (short events : {short{0}, short{POLLPRI}, short{POLLIN | POLLPRI}, short{POLLERR}}) {
        errno = 0;
        EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, events, 0), -1) << events;
        EXPECT_EQ(errno, EINVAL) << events;
    }
    // The data is still there: nothing was received.
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 4);
}

TEST_F(TimedIo, TimeoutioGivesEtimedoutWhenNothingArrivesInTime) {
    char buf[4];
    errno = 0;
    const timespec start = now();
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 100, POLLIN, 0), -1);
    const double waited = seconds_since(start);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(waited, 0.09);
    EXPECT_LT(waited, 5.0);
}

TEST_F(TimedIo, TimeoutioWithZeroTimeLimitOnlyTests) {
    char buf[4];
    errno = 0;
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 0, POLLIN, 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(TimedIo, TimeoutioReceivingClearsTheWholeBufferFirst) {
    unsigned char buf[16];
    std::memset(buf, 0xAA, sizeof buf);
    peer_sends("hello");
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 5);
    EXPECT_EQ(std::memcmp(buf, "hello", 5), 0);
    for (int i = 5; i < 16; ++i)
        EXPECT_EQ(buf[i], 0) << i;
}

TEST_F(TimedIo, TimeoutioReceivesAtMostLenBytesInOneCall) {
    char buf[4];
    peer_sends(std::string("ab\0cdefg", 8));
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 4);
    EXPECT_EQ(std::string(buf, 4), std::string("ab\0c", 4));
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "defg");
}

TEST_F(TimedIo, TimeoutioReceivingFromAClosedPeerGivesZeroAndAClearedBuffer) {
    char buf[8];
    std::memset(buf, 'Z', sizeof buf);
    close_peer();
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 0);
    EXPECT_EQ(std::string(buf, 8), std::string(8, '\0'));
}

TEST_F(TimedIo, TimeoutioPassesTheFlagsToRecv) {
    char buf[8];
    peer_sends("peek");
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, MSG_PEEK), 4);
    EXPECT_EQ(std::string(buf, 4), "peek");
    std::memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0), 4); // still there
    EXPECT_EQ(std::string(buf, 4), "peek");
}

TEST_F(TimedIo, TimeoutioSendsTheBytesToThePeer) {
    const char data[] = {'o', 'u', 't', '\0', 'x'};
    EXPECT_EQ(timeoutio(ours_, const_cast<char *>(data), sizeof data, 1000, POLLOUT, 0), 5);
    EXPECT_EQ(peer_receives(5), std::string("out\0x", 5));
}

TEST_F(TimedIo, TimeoutioSendingToAClosedPeerGivesTheSendError) {
    close_peer();
    char data[] = "lost";
    errno = 0;
    EXPECT_EQ(timeoutio(ours_, data, 4, 1000, POLLOUT, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(TimedIo, TimeoutioOnANonSocketGivesTheRecvError) {
    int pipe_fds[2];
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
    ASSERT_EQ(write(pipe_fds[1], "abc", 3), 3);
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    errno = 0;
    EXPECT_EQ(timeoutio(pipe_fds[0], buf, sizeof buf, 1000, POLLIN, 0), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(std::string(buf, 4), std::string(4, '\0')); // cleared before the recv
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

TEST_F(TimedIo, TimeoutioLeavesErrnoAloneWhenPollReportsOnlyAnErrorCondition) {
    char buf[4];
    // Not open: poll reports POLLNVAL only.
    errno = untouched_errno;
    EXPECT_EQ(timeoutio(closed_descriptor(), buf, sizeof buf, 1000, POLLIN, 0), -1);
    EXPECT_EQ(errno, untouched_errno);

    // Only POLLERR or POLLHUP, never the event asked for: a pipe's write end
    // without reader asked for input, its read end without writer asked for
    // output.
    int pipe_fds[2];
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
    const int read_end = pipe_fds[0];
    const int write_end = pipe_fds[1];
    int other[2];
    ASSERT_EQ(pipe2(other, O_CLOEXEC), 0);
    close(read_end);
    close(other[1]);
    errno = untouched_errno;
    EXPECT_EQ(timeoutio(write_end, buf, sizeof buf, 1000, POLLIN, 0), -1);
    EXPECT_EQ(errno, untouched_errno);
    errno = untouched_errno;
    EXPECT_EQ(timeoutio(other[0], buf, sizeof buf, 1000, POLLOUT, 0), -1);
    EXPECT_EQ(errno, untouched_errno);
    close(write_end);
    close(other[0]);
}

// ---- timeoutio_sb ----------------------------------------------------------

TEST_F(TimedIo, TimeoutioSbRefusesBadEventsWithEinval) {
    peer_sends("data");
    for (short events : {short{POLLIN | POLLOUT}, short{0}, short{POLLPRI}}) {
        errno = 0;
        EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, events, 0), -1) << events;
        EXPECT_EQ(errno, EINVAL) << events;
    }
    EXPECT_EQ(sb_.text, nullptr);
}

TEST_F(TimedIo, TimeoutioSbCollectsSeveralWritesOfMoreThan8000BytesUntilThePeerCloses) {
    std::string pieces[3];
    for (int p = 0; p < 3; ++p) {
        pieces[p].resize(8000);
        for (std::size_t i = 0; i < 8000; ++i)
            pieces[p][i] = static_cast<char>((i * 7 + static_cast<std::size_t>(p) * 13) % 256);
    }
    const std::string all = pieces[0] + pieces[1] + pieces[2];
    // The peer writes from another thread while the call receives; the later
    // receives block until the rest arrives.
    std::thread writer([&] {
        for (const auto &piece : pieces)
            peer_sends(piece);
        close_peer();
    });
    const int got = timeoutio_sb(ours_, &sb_, 5000, POLLIN, 0);
    writer.join();
    EXPECT_EQ(got, 24000);
    EXPECT_EQ(sb_.length, 24000U);
    EXPECT_TRUE(text_of(sb_) == all);
    EXPECT_EQ(sb_.text[sb_.length], '\0');
}

TEST_F(TimedIo, TimeoutioSbReplacesWhatTheBufferHeld) {
    ASSERT_EQ(strbuf_append(&sb_, "old content that is longer"), 0);
    peer_sends(std::string("n\0w", 3));
    close_peer();
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLIN, 0), 3);
    EXPECT_EQ(text_of(sb_), std::string("n\0w", 3));
    EXPECT_EQ(sb_.text[3], '\0');
}

TEST_F(TimedIo, TimeoutioSbFromAPeerThatClosesAtOnceGivesAnEmptyBuffer) {
    ASSERT_EQ(strbuf_append(&sb_, "old"), 0);
    close_peer();
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLIN, 0), 0);
    EXPECT_EQ(sb_.length, 0U);
    EXPECT_STREQ(sb_.text, "");
}

TEST_F(TimedIo, TimeoutioSbOnANonBlockingSocketKeepsWhatArrivedAndGivesEagain) {
    ASSERT_EQ(fcntl(ours_, F_SETFL, fcntl(ours_, F_GETFL) | O_NONBLOCK), 0);
    peer_sends("first part");
    errno = 0;
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLIN, 0), -1); // the peer stays open
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(text_of(sb_), "first part");
}

TEST_F(TimedIo, TimeoutioSbPassesTheFlagsToRecv) {
    peer_sends("with flags");
    errno = 0;
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLIN, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(text_of(sb_), "with flags");
}

TEST_F(TimedIo, TimeoutioSbTimeoutLeavesErrnoAndTheBufferAsTheyWere) {
    ASSERT_EQ(strbuf_append(&sb_, "kept"), 0);
    errno = untouched_errno;
    const timespec start = now();
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 100, POLLIN, 0), -1);
    EXPECT_GE(seconds_since(start), 0.09);
    EXPECT_EQ(errno, untouched_errno);
    EXPECT_EQ(text_of(sb_), "kept");
}

TEST_F(TimedIo, TimeoutioSbOnAClosedDescriptorGivesMinusOne) {
    errno = untouched_errno;
    EXPECT_EQ(timeoutio_sb(closed_descriptor(), &sb_, 1000, POLLIN, 0), -1);
    EXPECT_EQ(errno, untouched_errno);
    EXPECT_EQ(sb_.text, nullptr);
}

TEST_F(TimedIo, TimeoutioSbSendsTheBuffersLengthIncludingNulBytes) {
    ASSERT_EQ(strbuf_nappend(&sb_, "hello\0world", 11), 0);
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLOUT, 0), 11);
    EXPECT_EQ(peer_receives(11), std::string("hello\0world", 11));
    EXPECT_EQ(text_of(sb_), std::string("hello\0world", 11)); // unchanged
}

TEST_F(TimedIo, TimeoutioSbSendingToAClosedPeerGivesTheSendError) {
    ASSERT_EQ(strbuf_append(&sb_, "lost"), 0);
    close_peer();
    errno = 0;
    EXPECT_EQ(timeoutio_sb(ours_, &sb_, 1000, POLLOUT, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(TimedIo, TimeoutioSbKeepsWhatWasAppendedWhenAnAppendCannotGrow) {
    // 12000 bytes queued: a first receive of 8000 (the buffer grows once),
    // then one of 4000 whose append needs a second growth, which fails.
    std::string sent(12000, '\0');
    for (std::size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<char>('A' + i % 23);
    peer_sends(sent);
    close_peer();
    ASSERT_EQ(strbuf_append(&sb_, "old"), 0);
    const int got = qx_test::call_with_failing_allocation(
        1, [&] { return timeoutio_sb(ours_, &sb_, 1000, POLLIN, 0); });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(got, -1);
    EXPECT_EQ(sb_.length, 8000U);
    EXPECT_TRUE(text_of(sb_) == sent.substr(0, 8000));
}

// ---- timeoutio and timeoutio_sb under a stream of signals ------------------

// Ticks of the alarm below; after this many it stops by itself, so that a
// wait that never ends under signals still ends the test.
std::atomic<long> alarm_ticks{0};
static_assert(std::atomic<long>::is_always_lock_free, "counted inside a signal handler");
constexpr long alarm_tick_cap = 15000;

// SIGALRM every millisecond for as long as it lives, with a handler that is
// installed without SA_RESTART, so that every blocking call it lands in
// fails with EINTR. Threads the test starts have SIGALRM blocked (see
// thread_without_alarms), so the signals land on the thread making the call.
class alarm_every_millisecond {
  public:
    alarm_every_millisecond() {
        alarm_ticks = 0;
        struct sigaction counting {};
        counting.sa_handler = [](int) {
            if (++alarm_ticks == alarm_tick_cap) {
                itimerval off{};
                setitimer(ITIMER_REAL, &off, nullptr);
            }
        };
        sigemptyset(&counting.sa_mask);
        counting.sa_flags = 0;
        sigaction(SIGALRM, &counting, &saved_);
        itimerval every{};
        every.it_value.tv_usec = 1000;
        every.it_interval.tv_usec = 1000;
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    ~alarm_every_millisecond() { qx_test::end_alarm_storm(saved_); }
    alarm_every_millisecond(const alarm_every_millisecond &) = delete;
    alarm_every_millisecond &operator=(const alarm_every_millisecond &) = delete;

    long ticks() const { return alarm_ticks; }

  private:
    struct sigaction saved_ {};
};

template <typename F> std::thread thread_without_alarms(F body) {
    sigset_t alarm, old;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm, &old);
    std::thread started(std::move(body));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return started;
}

// Enough signals that nearly every wait of the call was interrupted.
constexpr long many_signals = 100;

TEST_F(TimedIo, TimeoutioUnderSignalsGetsAnAnswerThatComesAfterASecond) {
    std::thread peer = thread_without_alarms([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        peer_sends("answer");
    });
    char buf[16];
    ssize_t got;
    double waited;
    long signals;
    {
        alarm_every_millisecond alarms;
        const timespec start = now();
        got = timeoutio(ours_, buf, sizeof buf, 3000, POLLIN, 0);
        waited = seconds_since(start);
        signals = alarms.ticks();
    }
    peer.join();
    EXPECT_EQ(got, 6);
    EXPECT_EQ(std::string(buf, 6), "answer");
    EXPECT_GE(waited, 0.5); // the peer's second began a moment earlier
    EXPECT_LT(waited, 3.0);
    EXPECT_GT(signals, many_signals);
}

TEST_F(TimedIo, TimeoutioUnderSignalsTimesOutAfterTheWholeLimit) {
    char buf[16];
    ssize_t got;
    int error;
    double waited;
    long signals;
    {
        alarm_every_millisecond alarms;
        const timespec start = now();
        errno = 0;
        got = timeoutio(ours_, buf, sizeof buf, 1000, POLLIN, 0);
        error = errno;
        waited = seconds_since(start);
        signals = alarms.ticks();
    }
    EXPECT_EQ(got, -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_GE(waited, 1.0); // not cut short
    EXPECT_LT(waited, 3.0); // nor stretched by the interruptions
    EXPECT_GT(signals, many_signals);
}

TEST_F(TimedIo, TimeoutioUnderSignalsSendsOnceTheFullSocketIsDrainedAfterASecond) {
    // Fill our side until the socket takes nothing more.
    const std::string block(4096, 'f');
    std::size_t queued = 0;
    for (;;) {
        const ssize_t n = send(ours_, block.data(), block.size(), MSG_DONTWAIT);
        if (n <= 0)
            break;
        queued += static_cast<std::size_t>(n);
    }
    ASSERT_GT(queued, 0U);
    std::size_t drained = 0;
    std::thread peer = thread_without_alarms([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        drained = peer_receives(queued).size();
    });
    ssize_t sent;
    double waited;
    long signals;
    {
        alarm_every_millisecond alarms;
        const timespec start = now();
        sent = timeoutio(ours_, const_cast<char *>("more"), 4, 3000, POLLOUT, 0);
        waited = seconds_since(start);
        signals = alarms.ticks();
    }
    peer.join();
    EXPECT_EQ(sent, 4);
    EXPECT_EQ(drained, queued);
    char more[8];
    // Not waited for: nothing may have been sent.
    EXPECT_EQ(recv(peer_, more, sizeof more, MSG_DONTWAIT), 4);
    EXPECT_EQ(std::string(more, 4), "more");
    EXPECT_GE(waited, 0.5); // the peer's second began a moment earlier
    EXPECT_LT(waited, 3.0);
    EXPECT_GT(signals, many_signals);
}

TEST_F(TimedIo, TimeoutioSbUnderSignalsReceivesEveryPieceOfALatePeerUntilItCloses) {
    std::string all;
    for (std::size_t i = 0; i < 5 * 8000 + 123; ++i)
        all += static_cast<char>((i * 11 + i / 97) % 256);
    std::thread peer = thread_without_alarms([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        for (std::size_t at = 0; at < all.size(); at += 7000) {
            peer_sends(all.substr(at, 7000));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        close_peer();
    });
    int got;
    double waited;
    long signals;
    {
        alarm_every_millisecond alarms;
        const timespec start = now();
        got = timeoutio_sb(ours_, &sb_, 3000, POLLIN, 0);
        waited = seconds_since(start);
        signals = alarms.ticks();
    }
    peer.join();
    EXPECT_EQ(got, static_cast<int>(all.size()));
    EXPECT_EQ(sb_.length, all.size());
    EXPECT_TRUE(text_of(sb_) == all);
    EXPECT_GE(waited, 0.5); // the peer's second began a moment earlier
    EXPECT_GT(signals, many_signals);
}

TEST_F(TimedIo, TimeoutioSbUnderSignalsTimesOutAfterTheWholeLimitLeavingErrnoAndBuffer) {
    ASSERT_EQ(strbuf_append(&sb_, "kept"), 0);
    int got;
    int error;
    double waited;
    long signals;
    {
        alarm_every_millisecond alarms;
        const timespec start = now();
        errno = untouched_errno;
        got = timeoutio_sb(ours_, &sb_, 1000, POLLIN, 0);
        error = errno;
        waited = seconds_since(start);
        signals = alarms.ticks();
    }
    EXPECT_EQ(got, -1);
    EXPECT_EQ(error, untouched_errno);
    EXPECT_EQ(text_of(sb_), "kept");
    EXPECT_GE(waited, 1.0);
    EXPECT_LT(waited, 3.0);
    EXPECT_GT(signals, many_signals);
}

TEST_F(TimedIo, TimeoutioWaitsOnAfterOneInterruptionWithoutALimit) {
    std::thread peer = thread_without_alarms([&] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        peer_sends("late");
    });
    char buf[8];
    ssize_t got;
    {
        one_interruption interrupt; // at 200 ms, long before the answer
        got = timeoutio(ours_, buf, sizeof buf, -1, POLLIN, 0);
    }
    peer.join();
    EXPECT_EQ(got, 4);
    EXPECT_EQ(std::string(buf, 4), "late");
}

// ---- iowait ----------------------------------------------------------------

TEST_F(TimedIo, IowaitWithZeroTimeLimitOnAnIdleSocketGivesZeroAtOnce) {
    const timespec start = now();
    EXPECT_EQ(iowait(ours_, 0, POLLIN), 0);
    EXPECT_LT(seconds_since(start), 1.0);
}

TEST_F(TimedIo, IowaitGivesOneWhenTheSocketIsReady) {
    peer_sends("x");
    EXPECT_EQ(iowait(ours_, 1000, POLLIN), 1);
    EXPECT_EQ(iowait(ours_, 1000, POLLOUT), 1);
    char c;
    EXPECT_EQ(recv(ours_, &c, 1, 0), 1); // iowait took nothing
    EXPECT_EQ(c, 'x');
}

TEST_F(TimedIo, IowaitPassesAnyEventMaskThrough) {
    EXPECT_EQ(iowait(ours_, 0, POLLIN | POLLOUT), 1); // writable
    EXPECT_EQ(iowait(ours_, 0, POLLPRI), 0);
    EXPECT_EQ(iowait(ours_, 0, 0), 0);
}

TEST_F(TimedIo, IowaitTimesOutAfterTheLimit) {
    const timespec start = now();
    EXPECT_EQ(iowait(ours_, 100, POLLIN), 0);
    EXPECT_GE(seconds_since(start), 0.09);
}

TEST_F(TimedIo, IowaitReportsAClosedDescriptorAsReady) {
    // poll counts POLLNVAL as an event.
    EXPECT_EQ(iowait(closed_descriptor(), 0, POLLIN), 1);
}

TEST_F(TimedIo, IowaitGivesPollsErrorWhenInterrupted) {
    one_interruption interrupt;
    errno = 0;
    EXPECT_EQ(iowait(ours_, 10000, POLLIN), -1);
    EXPECT_EQ(errno, EINTR);
}

} // namespace
