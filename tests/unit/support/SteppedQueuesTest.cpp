// The queues that a test steps: which block runs when, and what is left of them.
#include "support/SteppedQueues.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SteppedQueuesTest : public testing::Test {
 protected:
  auto noting(const std::string& note) {
    return [this, note] { notes_.push_back(note); };
  }

  std::shared_ptr<test::RecordingUncaughtException> uncaught_ = std::make_shared<test::RecordingUncaughtException>();
  test::SteppedQueues queues_{uncaught_};
  std::vector<std::string> notes_;
};

TEST_F(SteppedQueuesTest, NothingRunsUntilItIsStepped) {
  const auto queue = queues_.makeSerialQueue("serial");
  for (const char* note : {"a", "b", "c"}) queue->async(noting(note));
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(queues_.pending(queue), 3u);
  EXPECT_TRUE(queues_.runNext(queue));
  EXPECT_THAT(notes_, ElementsAre("a"));
  EXPECT_EQ(queues_.runAll(queue), 2u);
  EXPECT_THAT(notes_, ElementsAre("a", "b", "c"));
  EXPECT_FALSE(queues_.runNext(queue));
}

TEST_F(SteppedQueuesTest, BetweenQueuesTheTestDecides) {
  const auto one = queues_.makeSerialQueue("one");
  const auto two = queues_.makeSerialQueue("two");
  one->async(noting("one, a"));
  two->async(noting("two, a"));
  one->async(noting("one, b"));
  EXPECT_THAT(queues_.pendingLabels(), ElementsAre("one", "two", "one"));
  EXPECT_TRUE(queues_.runNext(two));
  EXPECT_TRUE(queues_.runNext("one"));
  EXPECT_EQ(queues_.pending("one"), 1u);
  EXPECT_EQ(queues_.pending("two"), 0u);
  EXPECT_EQ(queues_.runAll("one"), 1u);
  EXPECT_THAT(notes_, ElementsAre("two, a", "one, a", "one, b"));
}

TEST_F(SteppedQueuesTest, DelayedBlocksQueueUpWhenTheTestLetsTheirTimeGoBy) {
  const auto queue = queues_.makeSerialQueue("serial");
  queue->asyncAfter(2, noting("two"));
  queue->asyncAfter(1, noting("one"));
  queues_.advanceTime(0.5);
  queue->async(noting("at once"));
  EXPECT_EQ(queues_.delayed(), 2u);
  EXPECT_EQ(queues_.pending(queue), 1u);
  queues_.advanceTime(1.5);
  EXPECT_EQ(queues_.delayed(), 0u);
  EXPECT_THAT(notes_, IsEmpty()) << "time runs nothing by itself";
  EXPECT_EQ(queues_.runAll(), 3u);
  EXPECT_THAT(notes_, ElementsAre("at once", "one", "two"));
  EXPECT_EQ(queues_.time(), 2);
}

TEST_F(SteppedQueuesTest, DroppingTakesDelayedBlocksToo) {
  const auto queue = queues_.makeSerialQueue("serial");
  queue->async(noting("at once"));
  queue->asyncAfter(1, noting("delayed"));
  EXPECT_EQ(queues_.dropAll(), 2u);
  queues_.advanceTime(1);
  EXPECT_EQ(queues_.runAll(), 0u);
}

TEST_F(SteppedQueuesTest, WithoutADecisionTheOldestBlockRuns) {
  queues_.globalBackgroundQueue()->async(noting("background"));
  queues_.makeSerialQueue("serial")->async(noting("serial"));
  queues_.mainQueue()->async(noting("main"));
  EXPECT_TRUE(queues_.runNext());
  EXPECT_THAT(notes_, ElementsAre("background"));
  EXPECT_EQ(queues_.runAll(), 2u);
  EXPECT_THAT(notes_, ElementsAre("background", "serial", "main"));
  EXPECT_FALSE(queues_.runNext());
}

TEST_F(SteppedQueuesTest, ABlockMayStepOtherQueuesButNotItsOwn) {
  const auto one = queues_.makeSerialQueue("one");
  const auto two = queues_.makeSerialQueue("two");
  one->async([&] {
    notes_.push_back("outer begins");
    EXPECT_FALSE(queues_.runNext(one));
    EXPECT_TRUE(queues_.runNext());
    notes_.push_back("outer ends");
  });
  one->async(noting("one"));
  two->async(noting("two"));
  queues_.runAll();
  EXPECT_THAT(notes_, ElementsAre("outer begins", "two", "outer ends", "one"));
}

TEST_F(SteppedQueuesTest, ADeadProcessRunsNothing) {
  const auto queue = queues_.makeSerialQueue("serial");
  queue->async([] { throw std::runtime_error("the end"); });
  queue->async(noting("after the end"));
  EXPECT_EQ(queues_.runAll(), 1u);
  EXPECT_TRUE(uncaught_->dead());
  EXPECT_FALSE(queues_.runNext());
  EXPECT_EQ(queues_.pending(), 1u);
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(SteppedQueuesTest, AQueueIsGoneWhenNobodyHoldsItAndNoBlockIsLeft) {
  auto queue = queues_.makeSerialQueue("serial");
  EXPECT_THAT(queues_.liveQueues(), ElementsAre("serial"));
  queue->async(noting("ran"));
  queue.reset();
  EXPECT_THAT(queues_.liveQueues(), ElementsAre("serial"));
  EXPECT_EQ(queues_.runAll("serial"), 1u);
  EXPECT_THAT(queues_.liveQueues(), IsEmpty());
  queues_.makeSerialQueue("unused");
  EXPECT_THAT(queues_.liveQueues(), IsEmpty());
}

TEST_F(SteppedQueuesTest, DroppedBlocksLetGoOfWhatTheyHold) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  auto queue = queues_.makeSerialQueue("serial");
  auto* const submitTo = queue.get();
  submitTo->async([own = std::move(queue), kept = std::move(held)] {});
  EXPECT_EQ(queues_.dropAll(), 1u);
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(queues_.liveQueues(), IsEmpty());
}

TEST_F(SteppedQueuesTest, ABlockThatSubmitsItselfForEverIsNoticed) {
  const auto queue = queues_.makeSerialQueue("serial");
  struct Again {
    platform::DispatchQueue* queue;
    void operator()() const { queue->async(Again{queue}); }
  };
  queue->async(Again{queue.get()});
  EXPECT_THROW(queues_.runAll(), std::logic_error);
}

TEST_F(SteppedQueuesTest, AQueueOfAnotherServiceIsRefused) {
  test::SteppedQueues others(uncaught_);
  EXPECT_FALSE(queues_.runNext(others.makeSerialQueue("elsewhere")));
  EXPECT_THROW(queues_.runNext(std::shared_ptr<platform::DispatchQueue>()), std::logic_error);
}

}  // namespace
