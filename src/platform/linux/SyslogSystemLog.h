// The system log of this machine: syslog(3), and a line on standard error (platform row L1).
#pragma once

#include "platform/SystemLog.h"

namespace platform {

class SyslogSystemLog final : public SystemLog {
 public:
  /// The line on standard error goes out in one write(2), so that lines of several threads do not mix. A closed standard error, or
  /// one whose reader has gone, is no error and raises no signal.
  void log(std::string_view message) override;
};

}  // namespace platform
