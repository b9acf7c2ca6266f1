// The system's log, for the few messages that reach it whatever the debug flag.
#pragma once

#include <string_view>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT SystemLog {
 public:
  static SystemLog& systemLog();
  virtual ~SystemLog() = default;
  /// One message; line feeds inside it are kept (platform row L1). Any thread; never fails.
  virtual void log(std::string_view message) = 0;
};

}  // namespace platform
