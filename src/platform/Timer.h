// A timer reference. Nothing here makes one; the type exists for a field that holds none.
#pragma once

namespace platform {

class Timer {
 public:
  virtual ~Timer() = default;
  virtual void invalidate() = 0;
};

}  // namespace platform
