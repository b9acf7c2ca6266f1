// The user's wish that a long story stops, for code that waits by looking again and again.
#pragma once

#include <atomic>

#include "cli/ChildProcess.h"

namespace cli {

/// Thrown where the wish is heeded; whoever is on the way out cleans up.
struct Interrupted {};

/// Any thread may call any operation.
class Interruption {
 public:
  void request() { isRequested_ = true; }
  bool isRequested() const { return isRequested_; }
  /// Throws Interrupted when it was requested.
  void heed() const;
  /// The exit status of a child that is waited for until it ends or this throws.
  int waitFor(ChildProcess& child) const;

 private:
  std::atomic<bool> isRequested_ = false;
};

}  // namespace cli
