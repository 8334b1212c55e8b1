// Error codes, their texts, the debug level and the diagnostics.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <regex>
#include <string>
#include <ctime>
#include <sys/time.h>
#include <syslog.h>

#include "qxcommon-util/error.h"
#include "support/alloc_fail.hpp"
#include "support/syslog_capture.hpp"

namespace {

// Every test starts and ends at the default debug level with an empty log.
class Diagnostics : public ::testing::Test {
  protected:
    void SetUp() override {
        qx_debug_set(0);
        qx_test::syslog_clear();
    }
    void TearDown() override { qx_debug_set(0); }
};

template <typename F> std::string stderr_of(F f) {
    ::testing::internal::CaptureStderr();
    f();
    return ::testing::internal::GetCapturedStderr();
}

using ErrorTexts = Diagnostics;
using DebugLevel = Diagnostics;
using Syslog = Diagnostics;
using Perror = Diagnostics;

TEST_F(ErrorTexts, TableHoldsTheTenFixedTexts) {
    EXPECT_STREQ(qx_strerror(QX_OK), "success");
    EXPECT_STREQ(qx_strerror(QX_ERR_ASSERT), "assertion failed");
    EXPECT_STREQ(qx_strerror(QX_ERR_INVALID_VALUE), "invalid value");
    EXPECT_STREQ(qx_strerror(QX_ERR_MISSING_VALUE), "missing value");
    EXPECT_STREQ(qx_strerror(QX_ERR_UNKNOWN_COMMAND), "unknown command");
    EXPECT_STREQ(qx_strerror(QX_ERR_UNKNOWN_KEY), "unknown key");
    EXPECT_STREQ(qx_strerror(QX_ERR_TLD), "tld error");
    EXPECT_STREQ(qx_strerror(QX_ERR_UNKNOWN_TLD_TYPE), "unknown tld type");
    EXPECT_STREQ(qx_strerror(QX_ERR_SQL_EXEC), "SQL exec failed");
}

TEST_F(ErrorTexts, CodeConstantsKeepTheirNumbers) {
    EXPECT_EQ(QX_OK, 0);
    EXPECT_EQ(QX_ERR_SYSTEM, 1);
    EXPECT_EQ(QX_ERR_ASSERT, 2);
    EXPECT_EQ(QX_ERR_INVALID_VALUE, 3);
    EXPECT_EQ(QX_ERR_MISSING_VALUE, 4);
    EXPECT_EQ(QX_ERR_UNKNOWN_COMMAND, 5);
    EXPECT_EQ(QX_ERR_UNKNOWN_KEY, 6);
    EXPECT_EQ(QX_ERR_TLD, 7);
    EXPECT_EQ(QX_ERR_UNKNOWN_TLD_TYPE, 8);
    EXPECT_EQ(QX_ERR_SQL_EXEC, 9);
}

TEST_F(ErrorTexts, SystemCodeGivesTheTextOfTheCurrentErrno) {
    const std::string expected = std::strerror(EACCES);
    errno = EACCES;
    EXPECT_EQ(qx_strerror(QX_ERR_SYSTEM), expected);
    errno = ENOENT;
    EXPECT_EQ(qx_strerror(QX_ERR_SYSTEM), std::string(std::strerror(ENOENT)));
}

TEST_F(ErrorTexts, UnknownCodesGiveUnknownErrorAndTheNumber) {
    EXPECT_STREQ(qx_strerror(10), "unknown error 10");
    EXPECT_STREQ(qx_strerror(-1), "unknown error -1");
    EXPECT_STREQ(qx_strerror(42), "unknown error 42");
    EXPECT_STREQ(qx_strerror(INT_MIN), "unknown error -2147483648");
    EXPECT_STREQ(qx_strerror(INT_MAX), "unknown error 2147483647");
}

TEST_F(ErrorTexts, UnknownCodesShareOneBufferThatTheNextCallOverwrites) {
    const char *first = qx_strerror(1000);
    const char *second = qx_strerror(-7);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "unknown error -7");
    // A shorter number after a longer one leaves no trace of the longer one.
    qx_strerror(INT_MIN);
    EXPECT_STREQ(qx_strerror(11), "unknown error 11");
}

TEST_F(ErrorTexts, StrerrorRCopiesAndReturnsTheFullLength) {
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(qx_strerror_r(QX_ERR_INVALID_VALUE, buf, sizeof buf), 13);
    EXPECT_EQ(std::string(buf, 4), std::string("inv\0", 4));

    char wide[64];
    EXPECT_EQ(qx_strerror_r(QX_ERR_SQL_EXEC, wide, sizeof wide), 15);
    EXPECT_STREQ(wide, "SQL exec failed");
    EXPECT_EQ(qx_strerror_r(77, wide, sizeof wide), 16);
    EXPECT_STREQ(wide, "unknown error 77");
}

TEST_F(ErrorTexts, StrerrorRWithNullBufferReturnsMinusOne) {
    EXPECT_EQ(qx_strerror_r(QX_OK, nullptr, 10), -1);
}

TEST_F(ErrorTexts, StrerrorRWithZeroLengthWritesNothing) {
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(qx_strerror_r(QX_OK, buf, 0), 7);
    EXPECT_EQ(std::string(buf, 4), "xxxx");
}

TEST_F(ErrorTexts, ErrnoVariableIsOursToSetAndLibraryLeavesIt) {
    EXPECT_EQ(qx_errno, 0);
    qx_errno = QX_ERR_UNKNOWN_KEY;
    EXPECT_STREQ(qx_strerror(qx_errno), "unknown key");
    EXPECT_EQ(qx_errno, QX_ERR_UNKNOWN_KEY);
    qx_errno = 0;
}

TEST_F(DebugLevel, StartsAtZero) {
    EXPECT_EQ(qx_debug_get(), 0);
}

TEST_F(DebugLevel, SetAndGetRoundTripIncludingNegativeLevels) {
    qx_debug_set(5);
    EXPECT_EQ(qx_debug_get(), 5);
    qx_debug_set(-3);
    EXPECT_EQ(qx_debug_get(), -3);
}

TEST_F(DebugLevel, DebugPrintsOnlyLevelsAtOrBelowTheDebugLevel) {
    EXPECT_EQ(stderr_of([] { qx_debug(1, "one %d", 1); }), "");
    EXPECT_EQ(stderr_of([] { qx_debug(0, "zero %s", "x"); }), "zero x");
    EXPECT_EQ(stderr_of([] { qx_debug(-5, "minus five"); }), "minus five");
    qx_debug_set(2);
    EXPECT_EQ(stderr_of([] { qx_debug(2, "two\n"); }), "two\n");
    EXPECT_EQ(stderr_of([] { qx_debug(3, "three"); }), "");
}

void vdebug_helper(int level, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    qx_vdebug(level, format, ap);
    va_end(ap);
}

TEST_F(DebugLevel, VdebugTakesAVaList) {
    EXPECT_EQ(stderr_of([] { vdebug_helper(0, "%s=%d", "n", 7); }), "n=7");
    EXPECT_EQ(stderr_of([] { vdebug_helper(1, "%s=%d", "n", 7); }), "");
}

TEST_F(DebugLevel, DebugTmPrefixesTheLocalTimeWithMicroseconds) {
    const std::string out = stderr_of([] { qx_debug_tm(0, "started %d", 3); });
    const std::regex shape(
        R"(^[A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{6} started 3$)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
    EXPECT_EQ(stderr_of([] { qx_debug_tm(1, "hidden"); }), "");
}

TEST_F(DebugLevel, DebugTmStampIsTheLocalTimeOfTheCall) {
    timeval before{};
    timeval after{};
    gettimeofday(&before, nullptr);
    const std::string out = stderr_of([] { qx_debug_tm(0, "x"); });
    gettimeofday(&after, nullptr);
    ASSERT_GT(out.size(), 9U);
    // "%b %d %H:%M:%S" of one of the seconds the call ran in, then the
    // point, six digits of microseconds, a blank and the text.
    const std::string stamp = out.substr(0, out.size() - 9);
    EXPECT_EQ(out.substr(out.size() - 9, 1), ".");
    EXPECT_EQ(out.substr(out.size() - 2), " x");
    bool matched = false;
    for (time_t t = before.tv_sec; t <= after.tv_sec; ++t) {
        char expected[100];
        std::strftime(expected, sizeof expected, "%b %d %H:%M:%S", std::localtime(&t));
        matched = matched || stamp == expected;
    }
    EXPECT_TRUE(matched) << out;
}

TEST_F(Syslog, DebugPriorityIsDroppedOnlyAtDebugLevelZero) {
    qx_syslog(LOG_DEBUG, "dropped %d", 1);
    EXPECT_TRUE(qx_test::syslog_entries().empty());

    qx_debug_set(1);
    qx_syslog(LOG_DEBUG, "kept %d", 2);
    qx_debug_set(-1);
    qx_syslog(LOG_DEBUG, "kept %d", 3);
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].priority, LOG_DEBUG);
    EXPECT_EQ(entries[0].message, "kept 2");
    EXPECT_EQ(entries[1].message, "kept 3");
}

TEST_F(Syslog, PriorityWithFacilityBitsIsNeverDropped) {
    qx_syslog(31, "daemon debug");
    qx_syslog(LOG_ERR, "error %s", "text");
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].priority, 31);
    EXPECT_EQ(entries[0].message, "daemon debug");
    EXPECT_EQ(entries[1].priority, LOG_ERR);
    EXPECT_EQ(entries[1].message, "error text");
}

TEST_F(Syslog, PerrorLogsMessageAndErrorTextForTheCurrentErrno) {
    errno = EACCES;
    qx_syslog_perror(LOG_WARNING, "open %s", "/etc/x");
    // A number the C library knows leaves the error text at "unknown".
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].priority, LOG_WARNING);
    EXPECT_EQ(entries[0].message, "open /etc/x: unknown");
}

TEST_F(Syslog, PerrorWithAnUnknownErrnoLogsTheCLibraryText) {
    const std::string expected = std::string("lost: ") + std::strerror(10000);
    errno = 10000;
    qx_syslog_perror(LOG_ERR, "lost");
    const auto entries = qx_test::syslog_entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].message, expected);
}

TEST_F(Syslog, NegativeDebugLevelSilencesPerrorButNotSyslog) {
    qx_debug_set(-1);
    errno = ENOENT;
    qx_syslog_perror(LOG_ERR, "silenced");
    qx_syslog_perror(LOG_EMERG, "silenced too");
    EXPECT_TRUE(qx_test::syslog_entries().empty());
    qx_syslog(LOG_ERR, "still logged");
    ASSERT_EQ(qx_test::syslog_entries().size(), 1U);
}

TEST_F(Syslog, PerrorAtDebugPriorityFollowsTheSyslogDropRule) {
    errno = ENOENT;
    qx_syslog_perror(LOG_DEBUG, "dropped at level 0");
    EXPECT_TRUE(qx_test::syslog_entries().empty());
    qx_debug_set(1);
    qx_syslog_perror(LOG_DEBUG, "kept");
    ASSERT_EQ(qx_test::syslog_entries().size(), 1U);
    EXPECT_EQ(qx_test::syslog_entries()[0].message, "kept: unknown");
}

TEST_F(Syslog, PerrorLogsNothingWhenTheTextCannotBeAllocated) {
    errno = ENOENT;
    qx_test::call_with_failing_allocation(0, [] {
        qx_syslog_perror(LOG_ERR, "no memory");
        return 0;
    });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_TRUE(qx_test::syslog_entries().empty());
}

TEST_F(Perror, KnownErrorNumberPrintsUnknownBehindTheColon) {
    EXPECT_EQ(stderr_of([] { qx_perror(0, ENOENT, "open %s", "x"); }), "open x: unknown\n");
}

TEST_F(Perror, UnknownErrorNumberPrintsTheCLibraryText) {
    const std::string expected = std::string("open x: ") + std::strerror(10000) + "\n";
    EXPECT_EQ(stderr_of([] { qx_perror(0, 10000, "open %s", "x"); }), expected);
}

TEST_F(Perror, PrintsOnlyWhenTheDebugLevelReachesTheLevel) {
    EXPECT_EQ(stderr_of([] { qx_perror(1, ENOENT, "hidden"); }), "");
    qx_debug_set(1);
    EXPECT_EQ(stderr_of([] { qx_perror(1, ENOENT, "shown"); }), "shown: unknown\n");
}

TEST_F(Perror, MessageIsCutTo127BytesBeforeTheColon) {
    const std::string long_message(200, 'm');
    const std::string expected = std::string(127, 'm') + ": unknown\n";
    EXPECT_EQ(stderr_of([&] { qx_perror(0, EPERM, "%s", long_message.c_str()); }), expected);
}

TEST_F(Perror, PrintsNothingWhenTheTextCannotBeAllocated) {
    const std::string out = stderr_of([] {
        qx_test::call_with_failing_allocation(0, [] {
            qx_perror(0, ENOENT, "no memory");
            return 0;
        });
    });
    EXPECT_TRUE(qx_test::allocation_was_failed());
    EXPECT_EQ(out, "");
}

} // namespace
