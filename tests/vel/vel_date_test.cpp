#include "vel/vel_date.h"

#include <gtest/gtest.h>

#include "vel/vel_err.h"

namespace {

using vel_date::Date;
using vel_date::DateTime;

TEST(Date, OnlyDaysOfTheCalendarAreTaken) {
    EXPECT_EQ(Date("2024-2-9").AsDate(), "2024-02-09");
    EXPECT_EQ(Date("0001-1-1").AsDate(), "0001-01-01");
    EXPECT_EQ(Date("2000-02-29").AsDate(), "2000-02-29");
    for (const char* bad : {"", "custom", "2024-02-30", "1900-02-29", "24-01-01", "2024-1",
                            "2024-1-", "2024-001-01", "2024-01-01 ", " 2024-01-01", "2024-01-01x",
                            "-024-1-1", "20240-1-1", "2024-00-01", "2024-01-00"}) {
        EXPECT_THROW(Date{bad}, vel_err::Error) << bad;
    }
}

TEST(DateTime, TextsAreReadAndOrdered) {
    const char* ordered[] = {"",
                             "0000-01-01",
                             "1969-12-31 23:59:59",
                             "2024-01-31",
                             "2024-01-31 00:00:01",
                             "2024-01-31 9:05:00",
                             "2024-01-31 10:00:00"};
    for (std::size_t i = 1; i < std::size(ordered); ++i) {
        EXPECT_LT(DateTime(ordered[i - 1]), DateTime(ordered[i])) << ordered[i];
    }
    EXPECT_EQ(DateTime("2024-1-31 9:5:0").AsDateTime(), "2024-01-31 09:05:00");
    EXPECT_EQ(DateTime("").AsDateTime(), "");
    for (const char* bad : {"2024-01-31 ", "2024-01-31 24:00:00", "2024-01-31 10:60:00",
                            "2024-01-31 10:00", "2024-01-31T10:00:00", "2024-01-31 10:00:00 "}) {
        EXPECT_THROW(DateTime{bad}, vel_err::Error) << bad;
    }
}

}  // namespace
