// A clock that stands still until the test moves it.
#pragma once

#include <atomic>

#include "platform/Date.h"

namespace test {

class ManualClock final : public platform::Clock {
 public:
  explicit ManualClock(double secondsSince1970 = 1'763'669'979.0) : seconds_(secondsSince1970) {}

  platform::Date now() override { return platform::Date::dateWithTimeIntervalSince1970(seconds_); }

  void setNow(platform::Date date) { seconds_ = date.timeIntervalSince1970(); }
  /// In seconds; a negative time moves the clock back.
  void advance(double seconds) {
    double before = seconds_;
    while (!seconds_.compare_exchange_weak(before, before + seconds)) {
    }
  }

 private:
  std::atomic<double> seconds_;
};

}  // namespace test
