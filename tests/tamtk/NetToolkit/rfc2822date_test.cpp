#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "NetToolkit/Rfc2822Date.h"

namespace {

// Each row in the zone of its own; the rows in a row run on the same second
// in another zone, so that a remembered text would show.
TEST(Rfc2822Date, LocalTimeWithItsOffset) {
    const char* const tz = std::getenv("TZ");
    const std::string oldTz = tz ? tz : "";
    const struct {
        const char* zone;
        long when;
        const char* expected;
    } rows[] = {
        // winter time, five hours behind, day below ten
        {"America/New_York", 1709647629L, "Tue, 05 Mar 2024 09:07:09 -0500"},
        // summer time, and still the day before locally
        {"America/New_York", 1720062000L, "Wed, 03 Jul 2024 23:00:00 -0400"},
        {"UTC", 0L, "Thu, 01 Jan 1970 00:00:00 +0000"},
        {"UTC", 1709647629L, "Tue, 05 Mar 2024 14:07:09 +0000"},
        {"Asia/Kolkata", 1709647629L, "Tue, 05 Mar 2024 19:37:09 +0530"},
    };
    for (const auto& r : rows) {
        setenv("TZ", r.zone, 1);
        EXPECT_EQ(Tamnet::rfc2822Date(r.when), r.expected);
    }
    tz ? setenv("TZ", oldTz.c_str(), 1) : unsetenv("TZ");
    tzset();
}

}  // namespace
