// Printing of dates: the proleptic Gregorian calendar in UTC, counted without a time zone library.
#include "platform/Date.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace platform {
namespace {

constexpr std::int64_t kSecondsADay = 86400;
constexpr double kFarthest = 9e15;  // seconds, some 285 million years: what is farther prints as this, so that nothing overflows

struct Civil {
  std::int64_t year;
  int month;
  int day;
};

/// The civil date of a number of days since 1970-01-01. Years are counted from March, so that the leap day is the last of its year,
/// and days within eras of 400 years, which all have the same length.
Civil civilFromDays(std::int64_t days) {
  constexpr std::int64_t kDaysAnEra = 146097;
  constexpr std::int64_t kDaysTo1970 = 719468;  // from 0000-03-01
  days += kDaysTo1970;
  const std::int64_t era = (days >= 0 ? days : days - (kDaysAnEra - 1)) / kDaysAnEra;
  const std::int64_t dayOfEra = days - era * kDaysAnEra;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / (kDaysAnEra - 1)) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const int day = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5) + 1;
  const int month = static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
  return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

}  // namespace

std::string Date::description() const {
  if (std::isnan(seconds_)) return "(no date)";
  const auto whole = static_cast<std::int64_t>(std::floor(std::clamp(seconds_, -kFarthest, kFarthest)));
  const std::int64_t days = (whole >= 0 ? whole : whole - (kSecondsADay - 1)) / kSecondsADay;
  const int second = static_cast<int>(whole - days * kSecondsADay);
  const Civil civil = civilFromDays(days);
  std::array<char, 64> text;
  (void)std::snprintf(text.data(), text.size(), "%s%04lld-%02d-%02d %02d:%02d:%02d +0000", civil.year < 0 ? "-" : "",
                      static_cast<long long>(civil.year < 0 ? -civil.year : civil.year), civil.month, civil.day, second / 3600,
                      second / 60 % 60, second % 60);
  return text.data();
}

}  // namespace platform
