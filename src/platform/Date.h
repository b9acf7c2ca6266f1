// A point in time, in seconds since 1970 UTC with fractions.
#pragma once

#include <string>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT Date {
 public:
  Date() = default;  // 1970
  /// The current time of the process's clock. Any thread.
  static Date date();
  static Date dateWithTimeIntervalSince1970(double seconds) { return Date(seconds); }

  double timeIntervalSince1970() const { return seconds_; }
  /// This date minus `other`, in seconds.
  double timeIntervalSinceDate(Date other) const { return seconds_ - other.seconds_; }
  Date dateByAddingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }
  /// `2026-11-20 20:19:39 +0000`, the text that %@ prints.
  std::string description() const;

  friend auto operator<=>(Date, Date) = default;

 private:
  explicit Date(double seconds) : seconds_(seconds) {}
  double seconds_ = 0;
};

/// The device's clock, a service of the process.
class KESTROVA_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  /// Wall-clock time, which may jump in both directions. Any thread; never fails.
  virtual Date now() = 0;
};

}  // namespace platform
