// What every implementation of the queues promises (platform rows Q1 to Q4), held against the real ones and those that a test
// steps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/linux/ThreadQueues.h"
#include "support/Event.h"
#include "support/SteppedQueues.h"

namespace {

using platform::DispatchQueue;
using platform::DispatchQueues;
using testing::ElementsAre;
using testing::IsEmpty;
using Queue = std::shared_ptr<DispatchQueue>;

// A service, its exception handler, and what makes its blocks run.
struct Subject {
  virtual ~Subject() = default;
  virtual DispatchQueues& queues() = 0;
  /// Ends the service.
  virtual void destroy() = 0;
  /// Runs what waits or, where blocks run by themselves, waits until the event has happened.
  [[nodiscard]] virtual bool runUntil(test::Event& event) = 0;
  /// Seconds by the clock that delayed blocks go by.
  virtual double time() = 0;

  std::shared_ptr<test::RecordingUncaughtException> uncaught = std::make_shared<test::RecordingUncaughtException>();
};

struct RealSubject : Subject {
  DispatchQueues& queues() override { return *service; }
  void destroy() override { service.reset(); }
  bool runUntil(test::Event& event) override { return event.wait(); }
  double time() override { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
  std::unique_ptr<platform::ThreadQueues> service = std::make_unique<platform::ThreadQueues>(uncaught);
};

struct SteppedSubject : Subject {
  DispatchQueues& queues() override { return *service; }
  void destroy() override { service.reset(); }
  bool runUntil(test::Event& event) override {
    service->runAll();
    while (!event.happened() && service->delayed() > 0) {
      service->advanceTime(0.001);
      service->runAll();
    }
    return event.happened();
  }
  double time() override { return service->time(); }
  std::unique_ptr<test::SteppedQueues> service = std::make_unique<test::SteppedQueues>(uncaught);
};

struct Implementation {
  const char* name;
  std::unique_ptr<Subject> (*make)();
};

class QueuesContract : public testing::TestWithParam<Implementation> {
 protected:
  DispatchQueues& queues() { return subject_->queues(); }

  // Runs what was submitted before, to its end.
  void settle(const Queue& queue) {
    test::Event reached;
    queue->async([&reached] { reached.happen(); });
    ASSERT_TRUE(subject_->runUntil(reached));
  }

  std::vector<Queue> everyKindOfQueue() {
    return {queues().makeSerialQueue("serial"), queues().mainQueue(), queues().globalBackgroundQueue()};
  }

  std::unique_ptr<Subject> subject_ = GetParam().make();
};

// Notes that may be written on any thread.
class Notes {
 public:
  void add(std::string note) {
    std::lock_guard lock(mutex_);
    notes_.push_back(std::move(note));
  }
  std::vector<std::string> all() {
    std::lock_guard lock(mutex_);
    return notes_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> notes_;
};

TEST_P(QueuesContract, Q1BlocksRunInTheOrderOfSubmission) {
  for (const Queue& queue : everyKindOfQueue()) {
    std::vector<int> order;
    for (int i = 0; i < 1000; ++i) queue->async([&order, i] { order.push_back(i); });
    settle(queue);
    ASSERT_EQ(order.size(), 1000u) << queue->label();
    EXPECT_TRUE(std::ranges::is_sorted(order)) << queue->label();
  }
}

TEST_P(QueuesContract, Q1ABlockIsNeverRunInline) {
  for (const Queue& queue : everyKindOfQueue()) {
    std::mutex submitting;
    std::unique_lock held(submitting);
    bool ranInline = false;
    const std::thread::id submitter = std::this_thread::get_id();
    bool returned = false;
    queue->async([&] {
      // On the submitting thread only after async has returned; on another one at any time.
      if (std::this_thread::get_id() == submitter) {
        ranInline = !returned;
        return;
      }
      std::lock_guard lock(submitting);
      ranInline = !returned;
    });
    returned = true;
    held.unlock();
    settle(queue);
    EXPECT_FALSE(ranInline) << queue->label();
  }
}

TEST_P(QueuesContract, Q1ABlockSubmittedByABlockRunsAfterIt) {
  for (const Queue& queue : everyKindOfQueue()) {
    Notes notes;
    test::Event innerRan;
    queue->async([&] {
      notes.add("outer begins");
      queue->async([&] {
        notes.add("inner");
        innerRan.happen();
      });
      notes.add("outer ends");
    });
    ASSERT_TRUE(subject_->runUntil(innerRan));
    EXPECT_THAT(notes.all(), ElementsAre("outer begins", "outer ends", "inner")) << queue->label();
  }
}

TEST_P(QueuesContract, Q1BlocksOfOneQueueDoNotOverlapWhoeverSubmits) {
  const Queue queue = queues().makeSerialQueue("serial");
  constexpr int kThreads = 4;
  constexpr int kBlocks = 200;
  int inside = 0;
  int ran = 0;
  bool overlapped = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kBlocks; ++i)
        queue->async([&] {
          overlapped |= ++inside != 1;
          ++ran;
          --inside;
        });
    });
  for (std::thread& thread : threads) thread.join();
  settle(queue);
  EXPECT_EQ(ran, kThreads * kBlocks);
  EXPECT_FALSE(overlapped);
}

TEST_P(QueuesContract, Q1AQueueKeepsItsLabel) {
  EXPECT_EQ(queues().makeSerialQueue("com.example.sdk.Work")->label(), "com.example.sdk.Work");
  EXPECT_EQ(queues().makeSerialQueue("")->label(), "");
}

TEST_P(QueuesContract, Q1TheGlobalQueuesAreTheSameForEverybody) {
  EXPECT_EQ(queues().mainQueue(), queues().mainQueue());
  EXPECT_EQ(queues().globalBackgroundQueue(), queues().globalBackgroundQueue());
  EXPECT_NE(queues().mainQueue(), queues().globalBackgroundQueue());
  EXPECT_NE(queues().makeSerialQueue("serial"), queues().makeSerialQueue("serial"));
}

TEST_P(QueuesContract, ABlockIsDestroyedOnceItHasRunAndBeforeTheNextOne) {
  const Queue queue = queues().makeSerialQueue("serial");
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  bool aliveInItsBlock = false;
  bool aliveInTheNextBlock = true;
  queue->async([&aliveInItsBlock, held = std::move(held)] { aliveInItsBlock = held != nullptr; });
  queue->async([&] { aliveInTheNextBlock = !watched.expired(); });
  settle(queue);
  EXPECT_TRUE(aliveInItsBlock);
  EXPECT_FALSE(aliveInTheNextBlock);
}

std::string theDescriptionAfter(Subject& subject) {
  if (!subject.uncaught->waitUntilDead()) return "nothing was caught";
  return subject.uncaught->descriptions().front();
}

TEST_P(QueuesContract, Q2ARaiseThatLeavesABlockGoesToTheUncaughtExceptionService) {
  const Queue queue = queues().makeSerialQueue("serial");
  test::Event ran;
  queue->async([&] {
    ran.happen();
    throw platform::Exception("NSRangeException", "out of bounds");
  });
  ASSERT_TRUE(subject_->runUntil(ran));
  EXPECT_EQ(theDescriptionAfter(*subject_),
            "*** Terminating app due to uncaught exception 'NSRangeException', reason: 'out of bounds'");
}

TEST_P(QueuesContract, Q2AStandardExceptionThatLeavesABlockGoesThereToo) {
  const Queue queue = queues().mainQueue();
  test::Event ran;
  queue->async([&] {
    ran.happen();
    throw std::runtime_error("no such thing");
  });
  ASSERT_TRUE(subject_->runUntil(ran));
  EXPECT_EQ(theDescriptionAfter(*subject_),
            "*** Terminating app due to uncaught exception 'std::runtime_error', reason: 'no such thing'");
}

TEST_P(QueuesContract, Q2AnExceptionOfAnyOtherTypeGoesThereToo) {
  const Queue queue = queues().globalBackgroundQueue();
  test::Event ran;
  queue->async([&] {
    ran.happen();
    throw 42;
  });
  ASSERT_TRUE(subject_->runUntil(ran));
  EXPECT_EQ(theDescriptionAfter(*subject_), "*** Terminating app due to uncaught exception 'unknown', reason: 'unknown'");
  const std::exception_ptr exception = subject_->uncaught->exceptions().front();
  EXPECT_THROW(std::rethrow_exception(exception), int);
}

TEST_P(QueuesContract, Q2AnAbsentBlockRaisesWhenItsTurnComes) {
  const Queue queue = queues().makeSerialQueue("serial");
  test::Event before;
  bool wasDead = true;
  queue->async([&] {
    wasDead = subject_->uncaught->dead();
    before.happen();
  });
  queue->async(nullptr);
  ASSERT_TRUE(subject_->runUntil(before));
  EXPECT_EQ(theDescriptionAfter(*subject_),
            "*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: 'An absent block was submitted to "
            "a queue'");
  EXPECT_FALSE(wasDead);
}

TEST_P(QueuesContract, Q3AQueueThatEverybodyHasDroppedStillRunsItsBlocks) {
  Notes notes;
  test::Event lastRan;
  {
    const Queue queue = queues().makeSerialQueue("serial");
    for (const char* name : {"first", "second"}) queue->async([&notes, name] { notes.add(name); });
    queue->async([&] { lastRan.happen(); });
  }
  ASSERT_TRUE(subject_->runUntil(lastRan));
  EXPECT_THAT(notes.all(), ElementsAre("first", "second"));
}

TEST_P(QueuesContract, Q3TheLastReferenceMayBeDroppedInsideTheQueuesOwnBlock) {
  Notes notes;
  test::Event lastRan;
  Queue queue = queues().makeSerialQueue("serial");
  DispatchQueue& submitTo = *queue;
  submitTo.async([&notes, &lastRan, own = std::move(queue)]() mutable {
    own->async([&] {
      notes.add("second");
      lastRan.happen();
    });
    notes.add("first");
    own.reset();
    notes.add("first, after the drop");
  });
  ASSERT_TRUE(subject_->runUntil(lastRan));
  EXPECT_THAT(notes.all(), ElementsAre("first", "first, after the drop", "second"));
}

TEST_P(QueuesContract, Q3TheLastReferenceMayDieWithTheBlockThatHeldIt) {
  for (int round = 0; round < 200; ++round) {
    test::Event ran;
    Queue queue = queues().makeSerialQueue("serial");
    DispatchQueue& submitTo = *queue;
    submitTo.async([&ran, own = std::move(queue)] { ran.happen(); });
    ASSERT_TRUE(subject_->runUntil(ran));
  }
}

TEST_P(QueuesContract, Q3WhatIsSubmittedAfterTheServiceHasEndedIsDropped) {
  const std::vector<Queue> kept = everyKindOfQueue();
  for (const Queue& queue : kept) settle(queue);
  const Queue unused = queues().makeSerialQueue("unused");
  subject_->destroy();
  Notes notes;
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  for (const Queue& queue : kept) queue->async([&notes, held] { notes.add("ran"); });
  unused->async([&notes, held] { notes.add("ran"); });
  held.reset();
  EXPECT_THAT(notes.all(), IsEmpty());
  EXPECT_TRUE(watched.expired()) << "a dropped block still holds what it was given";
}

// Delayed blocks.

TEST_P(QueuesContract, Q1ADelayedBlockRunsOnceAndNotBeforeItsTime) {
  for (const Queue& queue : everyKindOfQueue()) {
    constexpr double kDelay = 0.03;
    int runs = 0;
    test::Event ran;
    const double submitted = subject_->time();
    double ranAt = 0;
    queue->asyncAfter(kDelay, [&] {
      ++runs;
      ranAt = subject_->time();
      ran.happen();
    });
    ASSERT_TRUE(subject_->runUntil(ran)) << queue->label();
    settle(queue);
    EXPECT_GE(ranAt - submitted, kDelay) << queue->label();
    EXPECT_EQ(runs, 1) << queue->label();
  }
}

TEST_P(QueuesContract, Q1DelayedBlocksRunInTheOrderOfTheirTimesAndEqualOnesInThatOfSubmission) {
  const Queue queue = queues().makeSerialQueue("serial");
  Notes notes;
  test::Event last;
  queue->asyncAfter(0.06, [&] {
    notes.add("last");
    last.happen();
  });
  // Submitted inside a block, so that what is due early cannot run in between.
  queue->async([&] {
    queue->asyncAfter(0.03, [&] { notes.add("second"); });
    queue->asyncAfter(0.01, [&] { notes.add("first"); });
    queue->asyncAfter(0.03, [&] { notes.add("third"); });
  });
  ASSERT_TRUE(subject_->runUntil(last));
  EXPECT_THAT(notes.all(), ElementsAre("first", "second", "third", "last"));
}

TEST_P(QueuesContract, Q1BlocksThatAreSubmittedDoNotWaitForDelayedOnes) {
  const Queue queue = queues().makeSerialQueue("serial");
  bool delayedRan = false;
  queue->asyncAfter(3600, [&] { delayedRan = true; });
  settle(queue);
  settle(queue);
  EXPECT_FALSE(delayedRan);
}

TEST_P(QueuesContract, Q1ATimeThatIsNotAboveNilHasGoneBy) {
  const Queue queue = queues().makeSerialQueue("serial");
  for (const double seconds : {0.0, -1.0, -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
    test::Event ran;
    queue->asyncAfter(seconds, [&] { ran.happen(); });
    ASSERT_TRUE(subject_->runUntil(ran)) << seconds;
  }
}

TEST_P(QueuesContract, Q1AnEndlessDelayHoldsUpNobody) {
  const Queue queue = queues().makeSerialQueue("serial");
  for (const double seconds : {1e9, 1e300, std::numeric_limits<double>::infinity()}) queue->asyncAfter(seconds, [] { FAIL(); });
  settle(queue);
}

TEST_P(QueuesContract, Q2WhatLeavesADelayedBlockAndAnAbsentOneGoToTheUncaughtExceptionService) {
  queues().makeSerialQueue("serial")->asyncAfter(0.001, nullptr);
  test::Event later;
  const Queue other = queues().makeSerialQueue("other");
  other->asyncAfter(0.05, [&] { later.happen(); });
  EXPECT_TRUE(subject_->runUntil(later) || subject_->uncaught->dead());
  EXPECT_EQ(theDescriptionAfter(*subject_),
            "*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: 'An absent block was submitted to "
            "a queue'");
}

TEST_P(QueuesContract, Q3AQueueThatEverybodyHasDroppedStillRunsItsDelayedBlocks) {
  Notes notes;
  test::Event last;
  {
    const Queue queue = queues().makeSerialQueue("serial");
    queue->asyncAfter(0.02, [&] {
      notes.add("delayed");
      last.happen();
    });
    queue->async([&] { notes.add("at once"); });
  }
  ASSERT_TRUE(subject_->runUntil(last));
  EXPECT_THAT(notes.all(), ElementsAre("at once", "delayed"));
}

TEST_P(QueuesContract, Q3TheEndOfTheServiceDropsDelayedBlocksAndWhatTheyHold) {
  std::vector<Queue> kept = everyKindOfQueue();
  Notes notes;
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  for (const Queue& queue : kept) {
    // Also one that holds its own queue.
    queue->asyncAfter(3600, [&notes, held, queue] { notes.add("ran"); });
    settle(queue);
  }
  subject_->destroy();
  for (const Queue& queue : kept) queue->asyncAfter(0, [&notes, held] { notes.add("ran"); });
  for (const Queue& queue : kept) queue->asyncAfter(0.001, [&notes, held] { notes.add("ran"); });
  held.reset();
  EXPECT_THAT(notes.all(), IsEmpty());
  EXPECT_TRUE(watched.expired()) << "a dropped block still holds what it was given";
}

// An executor as an event loop has it: it puts blocks aside until the loop comes round.
struct HostLoop {
  DispatchQueues::Executor executor() {
    return [this](DispatchQueue::Block block) { blocks.push_back(std::move(block)); };
  }
  void comeRound() {
    for (DispatchQueue::Block& block : std::exchange(blocks, {})) block();
  }
  std::vector<DispatchQueue::Block> blocks;
};

TEST_P(QueuesContract, Q4TheHostsExecutorRunsTheMainQueuesBlocks) {
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  Notes notes;
  for (const char* name : {"first", "second"}) queues().mainQueue()->async([&notes, name] { notes.add(name); });
  EXPECT_EQ(loop.blocks.size(), 2u);
  EXPECT_THAT(notes.all(), IsEmpty());
  loop.comeRound();
  EXPECT_THAT(notes.all(), ElementsAre("first", "second"));
}

TEST_P(QueuesContract, Q4ADelayedBlockOfTheMainQueueComesToTheHostsLoopWhenItIsDue) {
  std::mutex mutex;
  std::vector<DispatchQueue::Block> blocks;
  test::Event handed;
  queues().setMainExecutor([&](DispatchQueue::Block block) {
    const std::lock_guard lock(mutex);
    blocks.push_back(std::move(block));
    handed.happen();
  });
  bool ran = false;
  const double submitted = subject_->time();
  queues().mainQueue()->asyncAfter(0.02, [&] { ran = true; });
  ASSERT_TRUE(subject_->runUntil(handed));
  EXPECT_GE(subject_->time() - submitted, 0.02);
  EXPECT_FALSE(ran);
  const std::lock_guard lock(mutex);
  ASSERT_EQ(blocks.size(), 1U);
  blocks.front()();
  EXPECT_TRUE(ran);
}

TEST_P(QueuesContract, Q4AnExecutorTakesOnlyTheMainQueue) {
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  settle(queues().makeSerialQueue("serial"));
  settle(queues().globalBackgroundQueue());
  EXPECT_THAT(loop.blocks, IsEmpty());
}

TEST_P(QueuesContract, Q4WhatLeavesABlockOnTheHostsLoopGoesToTheUncaughtExceptionService) {
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  queues().mainQueue()->async([] { throw std::runtime_error("on the loop"); });
  EXPECT_NO_THROW(loop.comeRound());
  EXPECT_THAT(subject_->uncaught->descriptions(),
              ElementsAre("*** Terminating app due to uncaught exception 'std::runtime_error', reason: 'on the loop'"));
}

TEST_P(QueuesContract, Q4AnAbsentBlockOnTheHostsLoopRaisesThere) {
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  queues().mainQueue()->async(nullptr);
  EXPECT_FALSE(subject_->uncaught->dead());
  EXPECT_NO_THROW(loop.comeRound());
  EXPECT_THAT(
      subject_->uncaught->descriptions(),
      ElementsAre("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: 'An absent block was "
                  "submitted to a queue'"));
}

TEST_P(QueuesContract, Q4AnExecutorThatThrowsIsTheProcesssEndAndNotTheSubmitters) {
  queues().setMainExecutor([](DispatchQueue::Block) { throw std::runtime_error("the loop is gone"); });
  EXPECT_NO_THROW(queues().mainQueue()->async([] {}));
  EXPECT_THAT(subject_->uncaught->descriptions(),
              ElementsAre("*** Terminating app due to uncaught exception 'std::runtime_error', reason: 'the loop is gone'"));
}

// The name and reason of what setting an executor raises.
std::string raisedBySetting(DispatchQueues& queues, DispatchQueues::Executor executor) {
  try {
    queues.setMainExecutor(std::move(executor));
  } catch (const platform::Exception& raise) {
    return raise.what();
  }
  return "nothing";
}

constexpr const char* kTooLate =
    "NSInternalInconsistencyException: The main queue's executor is set after the queue was used or for a second time";

TEST_P(QueuesContract, Q4ASecondExecutorIsRefused) {
  HostLoop first;
  HostLoop second;
  queues().setMainExecutor(first.executor());
  EXPECT_EQ(raisedBySetting(queues(), second.executor()), kTooLate);
  queues().mainQueue()->async([] {});
  EXPECT_EQ(first.blocks.size(), 1u);
  EXPECT_THAT(second.blocks, IsEmpty());
}

TEST_P(QueuesContract, Q4AnExecutorAfterTheFirstBlockIsRefused) {
  HostLoop loop;
  settle(queues().mainQueue());
  EXPECT_EQ(raisedBySetting(queues(), loop.executor()), kTooLate);
  settle(queues().mainQueue());
  EXPECT_THAT(loop.blocks, IsEmpty());
}

TEST_P(QueuesContract, Q4AnAbsentExecutorIsRefusedAndChangesNothing) {
  EXPECT_EQ(raisedBySetting(queues(), nullptr), "NSInvalidArgumentException: The main queue's executor is absent");
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  queues().mainQueue()->async([] {});
  EXPECT_EQ(loop.blocks.size(), 1u);
}

TEST_P(QueuesContract, Q4NothingIsGivenToTheExecutorAfterTheServiceHasEnded) {
  HostLoop loop;
  queues().setMainExecutor(loop.executor());
  const Queue kept = queues().mainQueue();
  subject_->destroy();
  kept->async([] {});
  EXPECT_THAT(loop.blocks, IsEmpty());
}

template <class T>
std::unique_ptr<Subject> make() {
  return std::make_unique<T>();
}

INSTANTIATE_TEST_SUITE_P(Implementations, QueuesContract,
                         testing::Values(Implementation{"Threads", &make<RealSubject>},
                                         Implementation{"Stepped", &make<SteppedSubject>}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

}  // namespace
