#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "qxcommon-util/rfc3339.h"

namespace {

// 2009-02-13T23:31:30Z.
constexpr time_t well_known_time = 1234567890;
// 2009-07-01T00:00:00Z, in the summer of the northern hemisphere.
constexpr time_t mid_2009 = 1246406400;
// 10000-01-01T00:00:00Z.
constexpr time_t year_10000 = 253402300800;

// Every test sets the zone it needs through TZ and puts the old one back.
class Rfc3339Date : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const char *tz = std::getenv("TZ"))
            saved_tz_ = tz;
    }
    void TearDown() override {
        if (saved_tz_)
            setenv("TZ", saved_tz_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

    static void use_zone(const char *tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

    static std::string date(time_t when) {
        char buf[64];
        std::memset(buf, 'X', sizeof buf);
        const int n = rfc3339_date(when, buf, sizeof buf);
        EXPECT_EQ(n, static_cast<int>(std::strlen(buf)));
        return buf;
    }

  private:
    std::optional<std::string> saved_tz_;
};

TEST_F(Rfc3339Date, TimeZeroInUtcIsTheEpochWithZ) {
    use_zone("UTC0");
    EXPECT_EQ(date(0), "1970-01-01T00:00:00Z");
}

TEST_F(Rfc3339Date, ReturnsTheLengthOfTheText) {
    use_zone("UTC0");
    char buf[64];
    EXPECT_EQ(rfc3339_date(0, buf, sizeof buf), 20);
    use_zone("IST-5:30");
    EXPECT_EQ(rfc3339_date(0, buf, sizeof buf), 25);
}

TEST_F(Rfc3339Date, WritesDateAndTimeFieldsWithLeadingZeros) {
    use_zone("UTC0");
    EXPECT_EQ(date(well_known_time), "2009-02-13T23:31:30Z");
    EXPECT_EQ(date(60 * 60 * 24 * 31 + 3661), "1970-02-01T01:01:01Z");
}

TEST_F(Rfc3339Date, FiveAndAHalfHoursEastEndsInPlus0530) {
    use_zone("IST-5:30");
    EXPECT_EQ(date(0), "1970-01-01T05:30:00+05:30");
}

TEST_F(Rfc3339Date, ThreeHoursWestEndsInMinus0300) {
    use_zone("BRT+3");
    EXPECT_EQ(date(0), "1969-12-31T21:00:00-03:00");
}

TEST_F(Rfc3339Date, HalfAnHourWestIsWrittenWithZeroHours) {
    use_zone("XXX+0:30");
    EXPECT_EQ(date(0), "1969-12-31T23:30:00-00:30");
}

TEST_F(Rfc3339Date, DropsTheSecondsOfAnOffset) {
    use_zone("XXX-1:02:03");
    EXPECT_EQ(date(0), "1970-01-01T01:02:03+01:02");
    use_zone("XXX+1:02:03");
    EXPECT_EQ(date(0), "1969-12-31T22:57:57-01:02");
}

TEST_F(Rfc3339Date, AnOffsetOfSecondsOnlyGivesPlusZeroNotZ) {
    use_zone("XXX-0:00:30");
    EXPECT_EQ(date(0), "1970-01-01T00:00:30+00:00");
}

TEST_F(Rfc3339Date, UsesTheOffsetInForceAtThatTime) {
    use_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(date(well_known_time), "2009-02-14T00:31:30+01:00");
    EXPECT_EQ(date(mid_2009), "2009-07-01T02:00:00+02:00");
}

TEST_F(Rfc3339Date, UsesTheZoneDatabaseWithAnOffsetInSeconds) {
    struct stat st {};
    if (stat("/usr/share/zoneinfo/Africa/Monrovia", &st) != 0)
        GTEST_SKIP() << "no tz database";
    // Monrovia kept -0:44:30 until 1972, then UTC.
    use_zone("Africa/Monrovia");
    EXPECT_EQ(date(0), "1969-12-31T23:15:30-00:44");
    EXPECT_EQ(date(well_known_time), "2009-02-13T23:31:30Z");
}

TEST_F(Rfc3339Date, NeverWritesFractionsOfSeconds) {
    use_zone("UTC0");
    const std::string text = date(well_known_time);
    EXPECT_EQ(text.find('.'), std::string::npos);
    EXPECT_EQ(text.size(), 20u);
    EXPECT_EQ(text[19], 'Z');
}

TEST_F(Rfc3339Date, ATooSmallBufferGetsATruncatedTerminatedTextAndTheFullLength) {
    use_zone("IST-5:30");
    char buf[16];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(rfc3339_date(0, buf, 11), 25);
    EXPECT_STREQ(buf, "1970-01-01");
    EXPECT_EQ(buf[11], 'X');
}

TEST_F(Rfc3339Date, ASizeOfZeroWritesNothingAndReportsTheLength) {
    use_zone("UTC0");
    char buf[2] = {'X', 'X'};
    EXPECT_EQ(rfc3339_date(0, buf, 0), 20);
    EXPECT_EQ(buf[0], 'X');
}

TEST_F(Rfc3339Date, AYearPast9999TakesFiveDigits) {
    use_zone("UTC0");
    EXPECT_EQ(date(year_10000), "10000-01-01T00:00:00Z");
}

} // namespace
