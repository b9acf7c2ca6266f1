// The machine's wall clock.
#include "platform/linux/SystemClock.h"

#include <time.h>

namespace platform {

Date SystemClock::now() {
  timespec time{};
  (void)clock_gettime(CLOCK_REALTIME, &time);
  return Date::dateWithTimeIntervalSince1970(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

}  // namespace platform
