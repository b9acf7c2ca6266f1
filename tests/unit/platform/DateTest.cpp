// Tests of the dates' arithmetic and text.
#include "platform/Date.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <random>
#include <string>

namespace {

using platform::Date;

std::string text(double seconds) { return Date::dateWithTimeIntervalSince1970(seconds).description(); }

TEST(Date, Prints) {
  EXPECT_EQ(text(0), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(text(1795205979), "2026-11-20 20:19:39 +0000");
  EXPECT_EQ(text(951782399), "2000-02-28 23:59:59 +0000");
  EXPECT_EQ(text(951782400), "2000-02-29 00:00:00 +0000");
  EXPECT_EQ(text(4107542399), "2100-02-28 23:59:59 +0000");
  EXPECT_EQ(text(4107542400), "2100-03-01 00:00:00 +0000");
}

TEST(Date, FractionsAreCutDownwards) {
  EXPECT_EQ(text(0.999), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(text(-0.001), "1969-12-31 23:59:59 +0000");
}

TEST(Date, PrintsBefore1970AndBeyond9999) {
  EXPECT_EQ(text(-1), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(text(-86400), "1969-12-31 00:00:00 +0000");
  EXPECT_EQ(text(-62135596800), "0001-01-01 00:00:00 +0000");
  EXPECT_EQ(text(-62167219200), "0000-01-01 00:00:00 +0000");
  EXPECT_EQ(text(-62167219201), "-0001-12-31 23:59:59 +0000");
  EXPECT_EQ(text(253402300799), "9999-12-31 23:59:59 +0000");
  EXPECT_EQ(text(253402300800), "10000-01-01 00:00:00 +0000");
}

TEST(Date, PrintsWhatIsNoDateWithoutHarm) {
  EXPECT_EQ(text(std::numeric_limits<double>::quiet_NaN()), "(no date)");
  EXPECT_EQ(text(std::numeric_limits<double>::infinity()), text(9e15));
  EXPECT_EQ(text(-1e300), text(-9e15));
}

/// The C library counts the same calendar.
TEST(Date, AgreesWithTheCLibrary) {
  std::mt19937_64 random(1970);
  for (int round = 0; round < 20000; ++round) {
    const auto seconds = static_cast<std::time_t>(random() % 600000000000) - 60000000000;
    std::tm civil;
    ASSERT_NE(gmtime_r(&seconds, &civil), nullptr);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%04d-%02d-%02d %02d:%02d:%02d +0000", civil.tm_year + 1900, civil.tm_mon + 1,
                  civil.tm_mday, civil.tm_hour, civil.tm_min, civil.tm_sec);
    ASSERT_EQ(text(static_cast<double>(seconds)), expected);
  }
}

TEST(Date, Arithmetic) {
  const Date date = Date::dateWithTimeIntervalSince1970(100.5);
  EXPECT_EQ(date.dateByAddingTimeInterval(-0.5).timeIntervalSince1970(), 100);
  EXPECT_EQ(date.timeIntervalSinceDate(Date::dateWithTimeIntervalSince1970(90)), 10.5);
  EXPECT_LT(Date(), date);
  EXPECT_EQ(Date().timeIntervalSince1970(), 0);
}

}  // namespace
