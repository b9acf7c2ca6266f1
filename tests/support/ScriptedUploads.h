// Uploads by hand: a try that the service begins waits until the test ends it.
//
//     test::ScriptedUploads uploads;
//     ...
//     service.uploadEnded(uploads.takeOldest(), {.statusCode = 200});
//
// One thread.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "transfer/core/Surroundings.h"

namespace test {

class ScriptedUploads final : public transfer::Uploads {
 public:
  struct Try {
    transfer::TaskId task = 0;
    transfer::SpoolEntry entry;
  };

  void start(transfer::TaskId task, const transfer::SpoolEntry& entry) override {
    if (isRunning(task)) throw std::logic_error("a second try was begun while the first runs");
    running_.push_back({task, entry});
    begun_.push_back({task, entry});
    mostAtOnce_ = std::max(mostAtOnce_, running_.size());
  }
  void stop(transfer::TaskId task) override {
    if (!remove(task)) throw std::logic_error("a try was stopped that does not run");
    stopped_.push_back(task);
  }

  // For the test.

  /// The tries that run, oldest first.
  const std::vector<Try>& running() const { return running_; }
  bool isRunning(transfer::TaskId task) const { return std::ranges::find(running_, task, &Try::task) != running_.end(); }
  /// Every try that was begun, in order.
  const std::vector<Try>& begun() const { return begun_; }
  const std::vector<transfer::TaskId>& stopped() const { return stopped_; }
  std::size_t mostAtOnce() const { return mostAtOnce_; }

  /// Ends a try on this side; the test then tells the service its outcome. False when it does not run.
  bool remove(transfer::TaskId task) {
    return std::erase_if(running_, [&](const Try& each) { return each.task == task; }) > 0;
  }
  /// The oldest that runs, which then runs no more; throws when there is none.
  transfer::TaskId takeOldest() {
    if (running_.empty()) throw std::logic_error("no try runs");
    const transfer::TaskId task = running_.front().task;
    running_.erase(running_.begin());
    return task;
  }

 private:
  std::vector<Try> running_;
  std::vector<Try> begun_;
  std::vector<transfer::TaskId> stopped_;
  std::size_t mostAtOnce_ = 0;
};

}  // namespace test
