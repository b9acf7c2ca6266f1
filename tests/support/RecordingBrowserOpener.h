// A browser of which a test says whether it opens: it notes every address and answers when it is told to.
#pragma once

#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/BrowserOpener.h"

namespace test {

class RecordingBrowserOpener final : public platform::BrowserOpener {
 public:
  void openURL(const platform::URL& url, Completion completion) override {
    const std::lock_guard lock(mutex_);
    opened_.push_back(url);
    completions_.push_back(std::move(completion));
  }

  /// The addresses so far, in order.
  std::vector<platform::URL> opened() const {
    const std::lock_guard lock(mutex_);
    return opened_;
  }

  /// Answers the attempt with that index, from 0; as often as the test likes, though an opener that keeps its promise does it once.
  void answer(std::size_t index, bool didOpen) {
    Completion completion;
    {
      const std::lock_guard lock(mutex_);
      completion = std::exchange(completions_.at(index), {});
    }
    completion(didOpen);
    const std::lock_guard lock(mutex_);
    completions_[index] = std::move(completion);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<platform::URL> opened_;
  std::vector<Completion> completions_;
};

}  // namespace test
