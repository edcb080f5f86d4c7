#include "platform/Date.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using platform::Date;

TEST(Date, DescriptionOfTheEpoch)
{
    EXPECT_EQ(Date(0).description(), "1970-01-01 00:00:00 +0000");
}

TEST(Date, DescriptionIsInUTCWithSecondsAndOffset)
{
    EXPECT_EQ(Date(1795235831).description(), "2026-11-21 04:37:11 +0000");
}

TEST(Date, DescriptionDropsFractionsOfASecond)
{
    EXPECT_EQ(Date(59.999).description(), "1970-01-01 00:00:59 +0000");
}

TEST(Date, DescriptionBeforeTheEpochRoundsDown)
{
    EXPECT_EQ(Date(-0.5).description(), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(Date(-86400).description(), "1969-12-31 00:00:00 +0000");
}

TEST(Date, DescriptionOfALeapDay)
{
    EXPECT_EQ(Date(951782400).description(), "2000-02-29 00:00:00 +0000");
}

TEST(Date, DistantFutureIsTheStartOfYear4001)
{
    EXPECT_EQ(Date::distantFuture().description(), "4001-01-01 00:00:00 +0000");
}

TEST(Date, DistantPastIsTheStartOfYearOne)
{
    EXPECT_EQ(Date::distantPast().description(), "0001-01-01 00:00:00 +0000");
}

TEST(Date, DatesBeforeTheGregorianReformAreToldInTheJulianCalendar)
{
    // The day before 1582-10-15 (Gregorian) is 1582-10-04 (Julian).
    EXPECT_EQ(Date(-12219292800.0).description(), "1582-10-15 00:00:00 +0000");
    EXPECT_EQ(Date(-12219292800.0 - 1).description(), "1582-10-04 23:59:59 +0000");
    // 1500 is a leap year in the Julian calendar only.
    EXPECT_EQ(Date(-14825894400.0).description(), "1500-02-29 00:00:00 +0000");
}

TEST(Date, CompareOrdersEarlierEqualAndLater)
{
    const Date early(10);
    const Date late(20);
    EXPECT_EQ(early.compare(late), -1);
    EXPECT_EQ(late.compare(early), 1);
    EXPECT_EQ(early.compare(Date(10)), 0);
}

TEST(Date, DistantPastAndFutureEncloseNow)
{
    const Date now = Date::now();
    EXPECT_EQ(Date::distantPast().compare(now), -1);
    EXPECT_EQ(Date::distantFuture().compare(now), 1);
}

TEST(Date, NowIsTheSystemClock)
{
    const double before = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const double now = Date::now().timeIntervalSince1970();
    const double after = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(Date, AddingTimeIntervalMovesTheDate)
{
    EXPECT_EQ(Date(0).addingTimeInterval(3661).description(), "1970-01-01 01:01:01 +0000");
}

}  // namespace
