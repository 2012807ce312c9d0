// The clock: the local offset follows the zone.
#include <cerrno>
#include <gtest/gtest.h>

#include "norvfw/FileUtils.h"
#include "norvfw/RTC.h"
#include "test_util.h"

namespace {
int LtoIn(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
    return theRTC.GetLto();
}

}  // namespace

TEST(Rtc, OffsetFollowsTheZoneAndTimeNowCountsMicroseconds)
{
    const char* had = getenv("TZ");
    std::string old = had != nullptr ? had : "";
    EXPECT_EQ(120, LtoIn("XYZ-2"));  // two hours east of UTC
    N_DateTime dt;
    ASSERT_EQ(0, theRTC.GetCurrentDateTimeLocal(&dt));
    time_t shifted = time(nullptr) + 2 * 3600;
    struct tm expected;
    gmtime_r(&shifted, &expected);
    EXPECT_EQ(expected.tm_year + 1900, dt.Year);
    EXPECT_EQ(expected.tm_mon + 1, dt.Month);
    EXPECT_EQ(-330, LtoIn("XYZ+5:30"));
    had != nullptr ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
    tzset();
    theRTC.SetDateTimeFound(false);
    EXPECT_NE(0, theRTC.GetCurrentDateTimeLocal(&dt));
    theRTC.SetDateTimeFound(true);
    double start = time_now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    double elapsed = time_minus(time_now(), start);
    EXPECT_GE(elapsed, 19000.0);
    EXPECT_LT(elapsed, 60e6);
}
