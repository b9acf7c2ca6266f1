// Secure random bytes from getrandom(2), a little in advance.
//
// The bytes in advance lie, with everything that says which of them are used, in memory that the kernel clears in a child made by
// fork: the child finds nothing there, and so parent and child never hand out the same bytes. Bytes are erased as they are handed
// out.
#pragma once

#include "platform/SecureRandom.h"

namespace platform {

class GetrandomSecureRandom final : public SecureRandom {
 public:
  GetrandomSecureRandom();
  ~GetrandomSecureRandom() override;
  GetrandomSecureRandom(const GetrandomSecureRandom&) = delete;
  GetrandomSecureRandom& operator=(const GetrandomSecureRandom&) = delete;

  /// Never waits for another thread: one that finds the store in use asks the system itself.
  void fill(std::span<std::byte> bytes) override;

 private:
  struct Store;
  Store* store_;  // null where the system cannot give such memory
};

}  // namespace platform
