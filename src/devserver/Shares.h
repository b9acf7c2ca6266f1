// The shares that the server keeps, in the form that clients read (docs/formats/share.md), in bounded memory.
//
// A share's state only moves forwards: sent, clicked, opened, installed. It begins as sent, whatever its sender says.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "devserver/Shelf.h"
#include "platform/Value.h"

namespace devserver {

enum class ShareState : std::uint8_t { kSent, kClicked, kOpened, kInstalled };

/// `sent`, `clicked`, `opened` or `installed`.
const char* nameOf(ShareState state);
/// What is wrong with a share as a client posts it; empty when nothing is.
std::string faultOfShare(const platform::Dictionary& share);

/// Any thread.
class Shares {
 public:
  static constexpr Shelf::Bounds kBounds{10'000, std::size_t{16} * 1024 * 1024};

  explicit Shares(Shelf::Bounds bounds = kBounds) : shelf_(bounds) {}

  /// Keeps a share without fault and returns its referral code: eight characters for the user, who is the same for the same device
  /// of the same application, and the share's own ten.
  std::string submit(std::string_view app, std::string_view device, platform::Dictionary share, std::chrono::milliseconds now);
  /// The shares that go by these codes, comma-separated, in their order; unknown ones are left out.
  platform::Array find(std::string_view codes) const;
  /// All shares, oldest first.
  platform::Array all() const;
  /// Moves a share on to a state, unless it is there or farther already. Its state then; absent for an unknown code.
  std::optional<ShareState> advance(const std::string& code, ShareState state, std::chrono::milliseconds now);
  /// Moves shares to the states that an object names by their codes, all or none, and says what is wrong. A step back is wrong.
  std::expected<void, std::string> change(const platform::Dictionary& states, std::chrono::milliseconds now);

 private:
  void setState(const std::string& code, ShareState state, std::chrono::milliseconds now);

  mutable std::mutex mutex_;
  Shelf shelf_;
};

}  // namespace devserver
