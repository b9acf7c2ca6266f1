// A universally unique identifier (RFC 9562).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class UUID {
 public:
  /// A new random one, version 4, from the process's secure random source.
  static platform::UUID randomUUID();
  /// Reads `3F2504E0-4F89-41D3-9A0C-0305E82C3301` in either case; absent for anything else.
  static std::optional<platform::UUID> fromString(std::string_view text);

  /// 36 characters, upper case.
  std::string UUIDString() const;
  std::string description() const { return UUIDString(); }
  friend bool operator==(const platform::UUID&, const platform::UUID&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace platform
