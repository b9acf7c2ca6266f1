// The end of a transfer service that was told to end, for tests whose folder it is.
#pragma once

#include "support/Event.h"
#include "transfer/linux/Startup.h"

namespace test {

/// Whether the folder's service ends within the limit. It may answer for a moment yet: its signal is read in its own time.
[[nodiscard]] inline bool serviceEnds(const platform::TransferDirectory& directory) {
  return becomes([&] {
    const auto lock = transfer::takeLock(directory);
    return lock && lock->isOpen();
  });
}

}  // namespace test
