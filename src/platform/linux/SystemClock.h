// The machine's wall clock.
#pragma once

#include "platform/Date.h"

namespace platform {

class SystemClock final : public Clock {
 public:
  Date now() override;
};

}  // namespace platform
