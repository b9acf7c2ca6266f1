// Something that happens once, for tests that wait for what another thread does: with a limit, never with a sleep.
#pragma once

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace test {

/// Far longer than anything a test waits for takes, also on a busy machine under a sanitizer.
inline constexpr std::chrono::seconds kLimit{60};

/// Looks again and again until it is so, for what happens in another process; false at the limit.
template <class Condition>
[[nodiscard]] bool becomes(const Condition& isSo, std::chrono::steady_clock::time_point limit) {
  while (!isSo()) {
    if (std::chrono::steady_clock::now() >= limit) return false;
    (void)poll(nullptr, 0, 2);  // between two looks, for the sake of those that are looked at
  }
  return true;
}
template <class Condition>
[[nodiscard]] bool becomes(const Condition& isSo) {
  return becomes(isSo, std::chrono::steady_clock::now() + kLimit);
}

class Event {
 public:
  void happen() {
    std::lock_guard lock(mutex_);
    happened_ = true;
    changed_.notify_all();  // under the lock: whoever waits may destroy the event as soon as it has happened
  }

  /// False when it has not happened within the limit.
  [[nodiscard]] bool wait(std::chrono::milliseconds limit = kLimit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return happened_; });
  }

  bool happened() {
    std::lock_guard lock(mutex_);
    return happened_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool happened_ = false;
};

}  // namespace test
