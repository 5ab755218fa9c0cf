// Points in time as they are shown and as people write them.
#include "apps/sentrelctl/terminal/Times.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

constexpr std::int64_t kSecond = 1000000;
constexpr std::int64_t kHour = 3600 * kSecond;
constexpr std::int64_t kNow = 1700000000 * kSecond + 123; // 2023-11-14 22:13:20.000123 UTC

/// A zone that is an hour east of UTC, and two in summer.
class ATimeThatIsMeant : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        ::tzset();
    }
    void TearDown() override {
        if (m_zone.empty()) {
            ::unsetenv("TZ");
        } else {
            ::setenv("TZ", m_zone.c_str(), 1);
        }
        ::tzset();
    }

    static std::string meant(const std::string& text) {
        const auto time = timeMeant(text, kNow);
        return time ? utcTime(*time) : "none";
    }

    const std::string m_zone = std::getenv("TZ") != nullptr ? std::getenv("TZ") : "";
};

TEST_F(ATimeThatIsMeant, IsLocalWithoutAZone) {
    EXPECT_EQ(meant("2023-11-14"), "2023-11-13T23:00:00.000000Z");
    EXPECT_EQ(meant("2023-11-14 22:13"), "2023-11-14T21:13:00.000000Z");
    EXPECT_EQ(meant("2023-11-14T22:13:20"), "2023-11-14T21:13:20.000000Z");
    EXPECT_EQ(meant("2023-07-01 12:00"), "2023-07-01T10:00:00.000000Z") << "in summer";
    EXPECT_EQ(meant("10:30"), "2023-11-14T09:30:00.000000Z") << "today, which is the 14th here";
    EXPECT_EQ(meant("10:30:05.25"), "2023-11-14T09:30:05.250000Z");
}

TEST_F(ATimeThatIsMeant, MayHaveAZone) {
    EXPECT_EQ(meant("2023-11-14T22:13:20Z"), "2023-11-14T22:13:20.000000Z");
    EXPECT_EQ(meant("2023-11-14 22:13 +0530"), "2023-11-14T16:43:00.000000Z");
    EXPECT_EQ(meant("2023-11-14T22:13:20-01:00"), "2023-11-14T23:13:20.000000Z");
}

TEST_F(ATimeThatIsMeant, IsTakenAsItIsShown) {
    EXPECT_EQ(timeMeant(utcTime(kNow), 0), kNow);
    EXPECT_EQ(timeMeant(localTime(kNow), 0), kNow - 123);
    EXPECT_EQ(timeMeant(localTableTime(kNow), 0), kNow - 123);
}

TEST_F(ATimeThatIsMeant, IsADayOrSoLongAgo) {
    EXPECT_EQ(timeMeant("now", kNow), kNow);
    EXPECT_EQ(meant("today"), "2023-11-13T23:00:00.000000Z");
    EXPECT_EQ(meant("yesterday"), "2023-11-12T23:00:00.000000Z");
    EXPECT_EQ(timeMeant("90s", kNow), kNow - 90 * kSecond);
    EXPECT_EQ(timeMeant("30min", kNow), kNow - kHour / 2);
    EXPECT_EQ(timeMeant("2h", kNow), kNow - 2 * kHour);
    EXPECT_EQ(timeMeant("3d", kNow), kNow - 72 * kHour);
    EXPECT_EQ(timeMeant("1w", kNow), kNow - 168 * kHour);
}

TEST_F(ATimeThatIsMeant, IsRefusedWhenItIsNone) {
    for (const char* text :
         {"", "x", "5", "-2h", "2 h", "2y", "99999999999w", "1000000000w", "1000000000d", "2023-02-30",
          "2023-11-14 25:00", "2023-11-14 22:13 x", "2023-11-14 22:13:20.", "2023-11-14 ", "tomorrow"}) {
        EXPECT_EQ(meant(text), "none") << text;
    }
}

} // namespace
} // namespace Sentrel::ctl
