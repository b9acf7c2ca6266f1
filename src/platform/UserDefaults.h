// The application's standard user defaults: small values under names, kept across launches.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/Export.h"
#include "platform/Value.h"

namespace platform {

class KESTROVA_EXPORT UserDefaults {
 public:
  static UserDefaults& standardUserDefaults();
  virtual ~UserDefaults() = default;

  /// Property-list values only; null, and an object or array that holds one, raise NSInvalidArgumentException. Absent removes the
  /// key. The change is seen at once in this process and survives its crash when the call returns. Failing to write to the disk is
  /// not reported; the value then lives as long as the process. Any thread; never the thread of a host's call, as it may write a
  /// file.
  virtual void setObjectForKey(const std::optional<Value>& value, std::string_view key) = 0;
  virtual std::optional<Value> objectForKey(std::string_view key) = 0;
  /// Platform row V1: absent is 0. Any thread; cheap enough for every event.
  std::int64_t integerForKey(std::string_view key);
  void removeObjectForKey(std::string_view key) { setObjectForKey(std::nullopt, key); }
  /// Takes in at once what other processes have written, which is otherwise seen within a second.
  virtual void synchronize() = 0;
};

}  // namespace platform
