// The system's secure random source.
#pragma once

#include <cstddef>
#include <span>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT SecureRandom {
 public:
  static SecureRandom& source();
  virtual ~SecureRandom() = default;
  /// Fills with bytes that nobody can guess. Any thread; never fails once the system is up.
  virtual void fill(std::span<std::byte> bytes) = 0;
};

}  // namespace platform
