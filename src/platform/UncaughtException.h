// What happens to an exception that leaves a block, a completion handler or a delegate operation (platform row Q2).
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT UncaughtException {
 public:
  static UncaughtException& handler();
  virtual ~UncaughtException() = default;
  /// Given the exception by whoever ran the code. The real one writes the text below to the system log and aborts the process; a
  /// test's one records it and returns.
  virtual void uncaught(std::exception_ptr exception) = 0;

  /// `*** Terminating app due to uncaught exception 'NAME', reason: 'REASON'`; of an exception of another kind the name is its
  /// type's and the reason its what().
  static std::string description(const std::exception_ptr& exception);
};

}  // namespace platform
