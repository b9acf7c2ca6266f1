// The signals that end a command.
#pragma once

#include <signal.h>

#include <functional>

namespace cli {

/// Turns the first SIGINT or SIGTERM into a request to stop, and the second into an end at once. Must be made before any other
/// thread, so that every thread leaves these signals to the one that waits for them.
class StopSignals {
 public:
  StopSignals();
  void onStop(std::function<void()> stop);

 private:
  sigset_t signals_{};
};

}  // namespace cli
