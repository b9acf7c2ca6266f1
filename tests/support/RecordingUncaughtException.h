// Takes down what would have ended the process, and that it is dead from then on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/UncaughtException.h"
#include "support/Event.h"

namespace test {

class RecordingUncaughtException final : public platform::UncaughtException {
 public:
  void uncaught(std::exception_ptr exception) override {
    std::string text = description(exception);
    std::lock_guard lock(mutex_);
    descriptions_.push_back(std::move(text));
    exceptions_.push_back(std::move(exception));
    changed_.notify_all();
  }

  /// Whether the process would have ended by now.
  bool dead() const {
    std::lock_guard lock(mutex_);
    return !descriptions_.empty();
  }

  /// The texts that the real one would have written to the system log, in order; it would not have lived to write the second.
  std::vector<std::string> descriptions() const {
    std::lock_guard lock(mutex_);
    return descriptions_;
  }

  std::vector<std::exception_ptr> exceptions() const {
    std::lock_guard lock(mutex_);
    return exceptions_;
  }

  /// For services with threads of their own: false when the process still lives after the limit.
  [[nodiscard]] bool waitUntilDead(std::chrono::milliseconds limit = kLimit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return !descriptions_.empty(); });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> descriptions_;
  std::vector<std::exception_ptr> exceptions_;
};

}  // namespace test
