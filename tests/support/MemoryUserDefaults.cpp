// The values of the in-memory user defaults.
#include "support/MemoryUserDefaults.h"

#include "platform/linux/PropertyListCoding.h"

namespace test {

void MemoryUserDefaults::setObjectForKey(const std::optional<platform::Value>& value, std::string_view key) {
  if (value) platform::expectPropertyListValue(*value, key);
  const std::lock_guard lock(store_->mutex);
  if (value) {
    store_->values.insert_or_assign(platform::String(key), *value);
  } else {
    store_->values.erase(platform::String(key));
  }
}

std::optional<platform::Value> MemoryUserDefaults::objectForKey(std::string_view key) {
  const std::lock_guard lock(store_->mutex);
  const auto entry = store_->values.find(platform::String(key));
  return entry == store_->values.end() ? std::nullopt : std::optional(entry->second);
}

}  // namespace test
