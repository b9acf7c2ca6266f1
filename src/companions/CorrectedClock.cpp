// The stored correction and the sum.
#include "companions/CorrectedClock.h"

#include "companions/KSVConstants.h"
#include "platform/UserDefaults.h"

using platform::Date;

std::int64_t CorrectedClock::skew() { return platform::UserDefaults::standardUserDefaults().integerForKey(kHawkLocalTimeSkew()); }

Date CorrectedClock::corrected(Date deviceTime, std::int64_t skew) {
  return Date::dateWithTimeIntervalSince1970(deviceTime.timeIntervalSince1970() + static_cast<double>(skew));
}

Date CorrectedClock::now() {
  const std::int64_t stored = skew();
  return corrected(Date::date(), stored);
}
