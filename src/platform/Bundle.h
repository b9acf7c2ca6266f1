// The application's main bundle.
#pragma once

#include <optional>
#include <string>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT Bundle {
 public:
  static Bundle& mainBundle();
  virtual ~Bundle() = default;
  /// The application's reverse-DNS identifier as the host program gave it, also when empty; absent when it gave none. Any thread.
  virtual std::optional<std::string> bundleIdentifier() = 0;
};

}  // namespace platform
