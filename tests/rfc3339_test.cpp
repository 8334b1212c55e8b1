#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "qxcommon-util/rfc3339.h"
#include "support/temp_dir.hpp"

namespace {

constexpr time_t epoch = 0;
// 2009-02-13T23:31:30Z.
constexpr time_t well_known_time = 1234567890;
// 2009-07-01T00:00:00Z, in the summer of the northern hemisphere.
constexpr time_t mid_2009 = 1246406400;
// 10000-01-01T00:00:00Z.
constexpr time_t year_10000 = 253402300800;

// A time zone file of version 2 with one local time type of the given offset
// from UTC and no transitions, so that the offset holds at every time. The
// footer's rule is empty: the zone cannot be written as a TZ rule, whose
// hours stop at 24.
std::string zone_file_with_offset(std::int32_t offset) {
    const auto be32 = [](std::uint32_t v) {
        std::string out(4, '\0');
        for (int i = 0; i < 4; ++i)
            out[static_cast<std::size_t>(i)] = static_cast<char>(v >> (24 - 8 * i) & 0xFF);
        return out;
    };
    const std::string designation("XXX", 4);
    std::string header = "TZif2" + std::string(15, '\0');
    // Counts: UT indicators, standard indicators, leap seconds,
    // transitions, local time types, designation characters.
    for (const std::uint32_t count : {0U, 0U, 0U, 0U, 1U, 4U})
        header += be32(count);
    // One local time type: the offset, not daylight time, designation 0.
    const std::string data =
        be32(static_cast<std::uint32_t>(offset)) + std::string(2, '\0') + designation;
    // The 32-bit block, then the same again for the 64-bit readers (with no
    // transition times or leap seconds the two blocks hold the same bytes),
    // then the empty footer.
    return header + data + header + data + "\n\n";
}

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

// The hours of the offset are not bounded: from 100 hours on they take three
// digits, and the six-byte offset text then loses its last minute digit.
TEST_F(Rfc3339Date, AnOffsetOfAHundredHoursOrMoreKeepsAllItsHourDigits) {
    qx_test::temp_dir dir;
    struct zone {
        std::int32_t offset;
        const char *name;
        const char *expected;
    };
    const zone zones[] = {
        {360000, "plus100h", "1970-01-05T04:00:00+100:0"},
        {-360000, "minus100h", "1969-12-27T20:00:00-100:0"},
        {2592000, "plus720h", "1970-01-31T00:00:00+720:0"},
    };
    for (const zone &z : zones) {
        SCOPED_TRACE(z.name);
        const std::string path = dir.file(z.name);
        qx_test::write_file(path, zone_file_with_offset(z.offset));
        use_zone(path.c_str());
        struct tm local {};
        ASSERT_NE(localtime_r(&epoch, &local), nullptr);
        ASSERT_EQ(local.tm_gmtoff, z.offset) << "the C library refused the zone file";
        EXPECT_EQ(date(epoch), z.expected);
    }
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
