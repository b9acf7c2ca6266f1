// The application's main bundle, as the host describes it.
#pragma once

#include <utility>

#include "platform/Bundle.h"

namespace platform {

class MainBundle final : public Bundle {
 public:
  explicit MainBundle(std::optional<std::string> identifier) : identifier_(std::move(identifier)) {}
  std::optional<std::string> bundleIdentifier() override { return identifier_; }

 private:
  const std::optional<std::string> identifier_;
};

}  // namespace platform
