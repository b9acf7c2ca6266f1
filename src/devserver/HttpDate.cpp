// Days and months by the names that HTTP has for them.
#include "devserver/HttpDate.h"

#include <array>
#include <cstdio>

namespace devserver {

std::string httpDate(std::chrono::milliseconds time) {
  namespace chrono = std::chrono;
  static constexpr std::array kDays{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const chrono::sys_seconds second(chrono::floor<chrono::seconds>(time));
  const auto midnight = chrono::floor<chrono::days>(second);
  const chrono::year_month_day date(midnight);
  const chrono::hh_mm_ss clock(second - midnight);
  std::array<char, 64> text{};
  (void)std::snprintf(text.data(), text.size(), "%s, %02u %s %04d %02d:%02d:%02d GMT",
                      kDays.at(chrono::weekday(midnight).c_encoding()), static_cast<unsigned>(date.day()),
                      kMonths.at(static_cast<unsigned>(date.month()) - 1), static_cast<int>(date.year()),
                      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                      static_cast<int>(clock.seconds().count()));
  return text.data();
}

}  // namespace devserver
