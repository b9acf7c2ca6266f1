// The end of a process that an exception has escaped from (platform row Q2).
#pragma once

#include <memory>

#include "platform/SystemLog.h"
#include "platform/UncaughtException.h"

namespace platform {

class AbortingUncaughtException final : public UncaughtException {
 public:
  explicit AbortingUncaughtException(std::shared_ptr<SystemLog> systemLog);
  /// Writes the exception's description to the system log and calls abort(); the host's terminate handler is not involved.
  void uncaught(std::exception_ptr exception) override;

 private:
  std::shared_ptr<SystemLog> systemLog_;
};

}  // namespace platform
