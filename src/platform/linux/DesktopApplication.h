// The application on a machine whose desktop has no network activity indicator: the switch is kept, and the host may show it.
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "platform/Application.h"

namespace platform {

class DesktopApplication final : public Application {
 public:
  /// Told of every setting, on the main queue.
  using IndicatorObserver = std::function<void(bool visible)>;

  explicit DesktopApplication(IndicatorObserver observer = {}) : observer_(std::move(observer)) {}

  void setNetworkActivityIndicatorVisible(bool visible) override {
    visible_ = visible;
    if (observer_) observer_(visible);
  }
  bool isNetworkActivityIndicatorVisible() override { return visible_; }

 private:
  std::atomic<bool> visible_{false};
  const IndicatorObserver observer_;
};

}  // namespace platform
