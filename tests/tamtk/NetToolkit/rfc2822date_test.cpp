#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <string>

#include "NetToolkit/Rfc2822Date.h"
#include "Toolkit/Time.h"

namespace {

// Runs the test body under a given TZ and the "C" time locale, restoring both.
class Rfc2822DateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        hadTz_ = tz != nullptr;
        oldTz_ = tz ? tz : "";
        oldLocale_ = std::setlocale(LC_TIME, nullptr);
        std::setlocale(LC_TIME, "C");
    }
    void TearDown() override {
        if (hadTz_) {
            setenv("TZ", oldTz_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
        std::setlocale(LC_TIME, oldLocale_.c_str());
    }
    static void zone(const char* tz) { setenv("TZ", tz, 1); }

  private:
    bool hadTz_ = false;
    std::string oldTz_;
    std::string oldLocale_;
};

TEST_F(Rfc2822DateTest, WestOfUtcHasANegativeOffset) {
    zone("America/New_York");
    // 2024-03-05 14:07:09 UTC: winter time, five hours behind, day below ten.
    EXPECT_EQ(Tamnet::rfc2822Date(1709647629L), "Tue, 05 Mar 2024 09:07:09 -0500");
    // 2024-07-04 03:00:00 UTC: summer time, and still the day before locally.
    EXPECT_EQ(Tamnet::rfc2822Date(1720062000L), "Wed, 03 Jul 2024 23:00:00 -0400");
}

TEST_F(Rfc2822DateTest, ZoneChangesAreSeenAtOnce) {
    zone("UTC");
    EXPECT_EQ(Tamnet::rfc2822Date(0L), "Thu, 01 Jan 1970 00:00:00 +0000");
    EXPECT_EQ(Tamnet::rfc2822Date(1709647629L), "Tue, 05 Mar 2024 14:07:09 +0000");
    // The same second in another zone: a remembered text must not be reused.
    zone("Asia/Kolkata");
    EXPECT_EQ(Tamnet::rfc2822Date(1709647629L), "Tue, 05 Mar 2024 19:37:09 +0530");
}

TEST_F(Rfc2822DateTest, LocaltimeFillsEveryField) {
    zone("America/New_York");
    const std::tm fields = Tamtk::localtime(946684799L);  // 1999-12-31 23:59:59 UTC
    EXPECT_EQ(fields.tm_year, 99);
    EXPECT_EQ(fields.tm_mon, 11);
    EXPECT_EQ(fields.tm_mday, 31);
    EXPECT_EQ(fields.tm_hour, 18);
    EXPECT_EQ(fields.tm_wday, 5);
    EXPECT_EQ(fields.tm_gmtoff, -5 * 3600);
}

}  // namespace
