// A main bundle with the identifier that the test wants, or with none.
#pragma once

#include <utility>

#include "platform/Bundle.h"

namespace test {

class FixedBundle final : public platform::Bundle {
 public:
  explicit FixedBundle(std::optional<std::string> identifier = "com.example.app") : identifier_(std::move(identifier)) {}
  std::optional<std::string> bundleIdentifier() override { return identifier_; }

 private:
  const std::optional<std::string> identifier_;
};

}  // namespace test
