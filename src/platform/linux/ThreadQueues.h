// Queues on threads: each serial queue has one, started at its first block (platform rows Q1 to Q4).
//
// Submitting takes no lock and, while the queue's thread is awake, makes no system call. The threads block every signal but those
// that a fault of their own raises, so that the host's handlers run on the host's threads. A queue whose first block comes from a
// block of the background queue inherits that one's low priority, as the system has it.
//
// A delayed block waits with its queue's own thread; those of the main queue wait with a thread of its own, also when the host's
// executor then runs them.
//
// At exit() and quick_exit() a gate closes: no block starts any more, and the exiting thread gives the blocks that are running a
// fifth of a second to end before it goes on to destroy static objects. The threads then sleep until the process is gone. In a
// child made by fork the queues of the parent never run anything and are never waited for.
#pragma once

#include <memory>
#include <string_view>

#include "platform/DispatchQueue.h"
#include "platform/UncaughtException.h"

namespace platform {

class ThreadQueues final : public DispatchQueues {
 public:
  /// Starts no thread.
  explicit ThreadQueues(std::shared_ptr<UncaughtException> uncaughtException);
  ~ThreadQueues() override { close(); }
  ThreadQueues(const ThreadQueues&) = delete;
  ThreadQueues& operator=(const ThreadQueues&) = delete;

  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string_view label) override;
  std::shared_ptr<DispatchQueue> mainQueue() override;
  std::shared_ptr<DispatchQueue> globalBackgroundQueue() override;
  /// The executor is called by whoever submits, from many threads perhaps at once, and must put the block aside and return.
  void setMainExecutor(Executor executor) override;
  /// Lets each running block end, drops the queued and the delayed ones and joins the threads; blocks submitted later are dropped.
  /// Not from a block. The queues stay valid, so that a block that is running may still ask for them.
  void close();

 private:
  class Crew;
  class Worker;
  class SerialQueue;
  class MainQueue;

  std::shared_ptr<Crew> crew_;
  std::shared_ptr<MainQueue> main_;
  std::shared_ptr<DispatchQueue> background_;
};

}  // namespace platform
