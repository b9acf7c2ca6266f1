// The stored clock correction: server time minus device time, in whole seconds, and the clock corrected by it.
#include <cstdint>

#include "client/KSVData.h"
#include "companions/CorrectedClock.h"
#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVHawkAuth.h"
#include "platform/UserDefaults.h"

using platform::Date;
using platform::UserDefaults;

bool KSVData::setLocalSkew(const std::optional<std::string>& wwwAuthenticateHeader) {
  if (!wwwAuthenticateHeader) return false;
  const std::optional<Date> serverTime = getHawkAuth().getTimestampSkew(*wwwAuthenticateHeader);
  if (!serverTime) return false;

  // Against the raw device time, so that each correction is absolute and replaces the one before.
  const auto skew = static_cast<std::int64_t>(serverTime->timeIntervalSinceDate(now()));
  UserDefaults::standardUserDefaults().setObjectForKey(platform::Value(skew), kHawkLocalTimeSkew());
  return true;
}

Date KSVData::now() {
  constexpr std::int64_t kTestOffset = 0;  // seconds; simulates a wrong device clock, stays 0
  return Date::date().dateByAddingTimeInterval(-static_cast<double>(kTestOffset));
}

std::int64_t KSVData::getLocalTimeSkew() { return CorrectedClock::skew(); }

Date KSVData::getSkewedLocalTime() {
  const std::int64_t skew = getLocalTimeSkew();
  const Date local = now();
  if (skew != 0) debugTrace("Adjusting local time by %lld", skew);
  return CorrectedClock::corrected(local, skew);
}
