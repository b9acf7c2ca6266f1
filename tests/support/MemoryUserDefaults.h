// User defaults in memory: the twin of the real ones. Two objects over one store stand for two processes.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "platform/UserDefaults.h"

namespace test {

class MemoryUserDefaults : public platform::UserDefaults {
 public:
  struct Store {
    std::mutex mutex;
    std::map<platform::String, platform::Value> values;
  };

  explicit MemoryUserDefaults(std::shared_ptr<Store> store = std::make_shared<Store>()) : store_(std::move(store)) {}

  void setObjectForKey(const std::optional<platform::Value>& value, std::string_view key) override;
  std::optional<platform::Value> objectForKey(std::string_view key) override;
  void synchronize() override {}

 private:
  std::shared_ptr<Store> store_;
};

}  // namespace test
