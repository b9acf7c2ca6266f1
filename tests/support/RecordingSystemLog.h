// A system log that keeps its messages for the test.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/SystemLog.h"

namespace test {

class RecordingSystemLog final : public platform::SystemLog {
 public:
  void log(std::string_view message) override {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(message);
  }

  std::vector<std::string> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

}  // namespace test
