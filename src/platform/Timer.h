// A timer reference. Nothing here makes one; the type exists for a field that holds none.
#pragma once

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT Timer {
 public:
  virtual ~Timer() = default;
  virtual void invalidate() = 0;
};

}  // namespace platform
