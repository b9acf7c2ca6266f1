// The newest session-started event of each device, which a later patch adds to; in bounded memory.
#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "devserver/Shelf.h"
#include "platform/Value.h"

namespace devserver {

/// Any thread.
class Sessions {
 public:
  static constexpr Shelf::Bounds kBounds{1'000, std::size_t{16} * 1024 * 1024};
  /// The event's name where a host gives no other.
  static constexpr std::string_view kEventName = "session-started";

  explicit Sessions(Shelf::Bounds bounds = kBounds) : shelf_(bounds) {}

  /// Looks through event records that were taken. Newest is the one with the latest "localTime": what had waited on a device's disk
  /// may come after what is newer. Among equal ones, and where a time is no text, it is the one that came last.
  void note(std::string_view app, std::string_view device, const platform::Array& records);
  /// Adds to the "eventData" of the device's newest event, in the place of members of the same names. The event then; absent when
  /// there is none.
  std::optional<platform::Dictionary> patch(std::string_view app, std::string_view device, const platform::Dictionary& eventData);
  /// `[{"app", "device", "event"}]`, the device that was heard of longest ago first.
  platform::Array all() const;

 private:
  mutable std::mutex mutex_;
  Shelf shelf_;
};

}  // namespace devserver
