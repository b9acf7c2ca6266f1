// The time in an answer's Date field.
#include "devserver/HttpDate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <ctime>
#include <string>

namespace devserver {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(HttpDate, IsThatOfTheStandard) {
  EXPECT_EQ(httpDate(seconds(784'111'777)), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(httpDate(seconds(0)), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(httpDate(seconds(951'782'400)), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(httpDate(seconds(1'798'761'599)), "Thu, 31 Dec 2026 23:59:59 GMT");
}

TEST(HttpDate, HasWholeSecondsThatHaveBegun) {
  EXPECT_EQ(httpDate(milliseconds(784'111'777'999)), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(httpDate(milliseconds(-1)), "Wed, 31 Dec 1969 23:59:59 GMT");
}

TEST(HttpDate, AgreesWithTheSystemOverTwoCenturies) {
  ASSERT_STREQ(std::setlocale(LC_TIME, nullptr), "C");
  for (std::time_t time = -1'500'000'000; time < 4'900'000'000; time += 7'654'321) {
    std::tm parts{};
    ASSERT_NE(::gmtime_r(&time, &parts), nullptr);
    std::string text(64, '\0');
    text.resize(std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts));
    EXPECT_EQ(httpDate(seconds(time)), text);
  }
}

}  // namespace
}  // namespace devserver
