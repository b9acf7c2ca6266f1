// Heeding the wish to stop.
#include "cli/Interruption.h"

#include <chrono>
#include <thread>

namespace cli {

void Interruption::heed() const {
  if (isRequested_) throw Interrupted{};
}

int Interruption::waitFor(ChildProcess& child) const {
  constexpr std::chrono::milliseconds kLook{5};
  while (!child.hasEnded()) {
    heed();
    std::this_thread::sleep_for(kLook);
  }
  heed();  // it may have ended for the same reason
  return child.wait();
}

}  // namespace cli
