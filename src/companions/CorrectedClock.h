// The device's clock corrected by what the server has said of it.
#pragma once

#include <cstdint>

#include "platform/Date.h"

/// The correction is one stored number, server time minus device time in whole seconds; 0 where nothing is stored. Any thread.
class CorrectedClock {
 public:
  CorrectedClock() = delete;

  static std::int64_t skew();
  static platform::Date corrected(platform::Date deviceTime, std::int64_t skew);
  /// The corrected time as it is now.
  static platform::Date now();
};
