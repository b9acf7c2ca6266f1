// An application whose indicator is a record of what was asked of it.
#pragma once

#include <mutex>
#include <vector>

#include "platform/Application.h"

namespace test {

class MemoryApplication final : public platform::Application {
 public:
  void setNetworkActivityIndicatorVisible(bool visible) override {
    std::lock_guard lock(mutex_);
    settings_.push_back(visible);
  }
  bool isNetworkActivityIndicatorVisible() override {
    std::lock_guard lock(mutex_);
    return !settings_.empty() && settings_.back();
  }

  /// Every setting, in order.
  std::vector<bool> settings() const {
    std::lock_guard lock(mutex_);
    return settings_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<bool> settings_;
};

}  // namespace test
