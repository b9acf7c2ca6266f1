// Queues whose blocks wait until the test runs them, one by one and on its own thread: the twin of the real queues.
//
// Blocks may be submitted from any thread. A queue runs its blocks in the order of submission; between queues the test decides, or
// takes the oldest block of all. A block that runs may itself run blocks of other queues, but never the next one of its own. Once
// an exception has gone to the handler the process counts as dead and nothing runs any more.
//
// Delayed blocks wait aside until the test lets their time go by; then they queue like all others. That time is the queues' own: a
// clock that is set changes nothing in it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DispatchQueue.h"
#include "support/RecordingUncaughtException.h"

namespace test {

class SteppedQueues final : public platform::DispatchQueues {
 public:
  using Queue = std::shared_ptr<platform::DispatchQueue>;

  explicit SteppedQueues(std::shared_ptr<RecordingUncaughtException> uncaughtException);
  /// Drops the blocks that are queued, and those submitted later.
  ~SteppedQueues() override;
  SteppedQueues(const SteppedQueues&) = delete;
  SteppedQueues& operator=(const SteppedQueues&) = delete;

  Queue makeSerialQueue(std::string_view label) override;
  Queue mainQueue() override;
  Queue globalBackgroundQueue() override;
  void setMainExecutor(Executor executor) override;

  // For the test. Where a queue is named by its label, the one with the oldest block among those of that label is meant.

  /// Runs one block; false when there is none to run.
  bool runNext(const Queue& queue);
  bool runNext(std::string_view label);
  bool runNext();
  /// Runs blocks until none is left, also those submitted meanwhile, and counts them. Throws std::logic_error after a million,
  /// which only a block that submits itself for ever reaches.
  std::size_t runAll(const Queue& queue);
  std::size_t runAll(std::string_view label);
  std::size_t runAll();
  /// Lets that many seconds go by: delayed blocks whose time has come queue up in the order of their times. Runs nothing.
  void advanceTime(double seconds);
  /// Seconds that have gone by since the making.
  double time() const;
  /// Number of the delayed blocks whose time has not come.
  std::size_t delayed() const;
  /// Drops what is queued and what is delayed, as the end of a process does, and counts it.
  std::size_t dropAll();

  std::size_t pending(const Queue& queue) const;
  std::size_t pending(std::string_view label) const;
  std::size_t pending() const { return pendingLabels().size(); }
  /// The queue's label of each block that waits, oldest block first.
  std::vector<std::string> pendingLabels() const;
  /// Labels of the queues that somebody holds or that have blocks, in the order of their making; not the two global ones.
  std::vector<std::string> liveQueues() const;

 private:
  class Lane;
  class Handle;
  class Main;
  struct Shared;

  static const Lane* laneOf(const Queue& queue);

  std::shared_ptr<Shared> shared_;
  std::shared_ptr<Main> main_;
  Queue background_;
};

}  // namespace test
