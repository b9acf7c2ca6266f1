// Queues of blocks (platform rows Q1 to Q4).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

class UncaughtException;

class KESTROVA_EXPORT DispatchQueue {
 public:
  using Block = std::move_only_function<void()>;

  /// A new serial queue: blocks run one after another in the order of submission, on no particular thread. The queue lives until
  /// its last block has run, whoever has dropped it. Making one starts no thread; its first block does.
  static std::shared_ptr<DispatchQueue> serialQueueWithLabel(std::string_view label);
  /// The application's main queue.
  static std::shared_ptr<DispatchQueue> mainQueue();
  /// The global queue of background priority: low processor and I/O priority.
  static std::shared_ptr<DispatchQueue> globalBackgroundQueue();

  virtual ~DispatchQueue() = default;

  /// Submits a block; never runs it inline and never waits for one. Any thread. An exception that leaves the block goes to the
  /// uncaught-exception service. An absent block raises NSInvalidArgumentException when its turn comes.
  virtual void async(Block block) = 0;
  /// As async, but the block's turn does not come before that many seconds have gone by, measured by a clock that nobody sets.
  /// Blocks of equal times run in the order of submission; blocks submitted by async do not wait for delayed ones. A time that is
  /// not above nil has gone by already. The queue lives until the block has run. Any thread.
  virtual void asyncAfter(double seconds, Block block) = 0;
  virtual const std::string& label() const = 0;

  /// How every implementation runs a block that has its turn: whatever leaves it, and the raise for an absent one, goes to the
  /// handler.
  static void run(Block& block, UncaughtException& handler);
};

/// Makes the queues of a process.
class KESTROVA_EXPORT DispatchQueues {
 public:
  /// Given blocks to run in order, one at a time.
  using Executor = std::function<void(DispatchQueue::Block)>;

  virtual ~DispatchQueues() = default;
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string_view label) = 0;
  virtual std::shared_ptr<DispatchQueue> mainQueue() = 0;
  virtual std::shared_ptr<DispatchQueue> globalBackgroundQueue() = 0;
  /// Lets the host run the main queue's blocks. Once, before the first block was submitted to it; raises
  /// NSInternalInconsistencyException otherwise.
  virtual void setMainExecutor(Executor executor) = 0;
};

}  // namespace platform
