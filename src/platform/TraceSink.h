// Where the lines of the debug trace are passed on to as they are stored, for whoever watches from outside.
#pragma once

#include <string_view>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT TraceSink {
 public:
  virtual ~TraceSink() = default;
  /// One line without its end. Any thread; never waits and never fails: what nobody takes at once is left out.
  virtual void take(std::string_view line) = 0;
};

}  // namespace platform
