// The real queues' threads: when they start and end, what they are like, and that nothing is lost between many submitters.
#include "platform/linux/ThreadQueues.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <latch>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Event.h"
#include "support/RecordingUncaughtException.h"

namespace {

using platform::DispatchQueue;
using Queue = std::shared_ptr<DispatchQueue>;

// The threads of this process.
std::size_t threadCount() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// False when the condition does not come true within the limit.
template <class Condition>
[[nodiscard]] bool comesTrue(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + test::kLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

class ThreadQueuesTest : public testing::Test {
 protected:
  // With the first thread a sanitizer starts one of its own, which is not to be counted.
  static void SetUpTestSuite() {
    std::thread([] {}).join();
  }

  // Runs the function on the queue and yields what it returned.
  template <class Function>
  auto on(const Queue& queue, Function function) {
    decltype(function()) result{};
    test::Event ran;
    queue->async([&] {
      result = function();
      ran.happen();
    });
    EXPECT_TRUE(ran.wait());
    return result;
  }
  void settle(const Queue& queue) {
    on(queue, [] { return 0; });
  }

  std::shared_ptr<test::RecordingUncaughtException> uncaught_ = std::make_shared<test::RecordingUncaughtException>();
  std::unique_ptr<platform::ThreadQueues> queues_ = std::make_unique<platform::ThreadQueues>(uncaught_);
};

TEST_F(ThreadQueuesTest, AQueuesThreadStartsAtItsFirstBlock) {
  const std::size_t before = threadCount();
  const Queue queue = queues_->makeSerialQueue("serial");
  queues_->mainQueue();
  queues_->globalBackgroundQueue();
  EXPECT_EQ(threadCount(), before);
  settle(queue);
  EXPECT_EQ(threadCount(), before + 1);
  settle(queue);
  EXPECT_EQ(threadCount(), before + 1);
}

TEST_F(ThreadQueuesTest, AnUnusedQueueLeavesWithoutEverHavingAThread) {
  const std::size_t before = threadCount();
  for (int i = 0; i < 10; ++i) queues_->makeSerialQueue("unused");
  EXPECT_EQ(threadCount(), before);
}

TEST_F(ThreadQueuesTest, Q3TheThreadIsGoneAfterTheLastReferenceAndTheLastBlock) {
  const std::size_t before = threadCount();
  Queue queue = queues_->makeSerialQueue("serial");
  test::Event mayEnd;
  queue->async([&] { EXPECT_TRUE(mayEnd.wait()); });
  queue.reset();
  EXPECT_EQ(threadCount(), before + 1);
  mayEnd.happen();
  EXPECT_TRUE(comesTrue([&] { return threadCount() == before; }));
}

TEST_F(ThreadQueuesTest, Q3TheThreadIsGoneWhenItsOwnBlockDropsTheLastReference) {
  const std::size_t before = threadCount();
  Queue queue = queues_->makeSerialQueue("serial");
  DispatchQueue& submitTo = *queue;
  submitTo.async([own = std::move(queue)]() mutable { own.reset(); });
  EXPECT_TRUE(comesTrue([&] { return threadCount() == before; }));
}

TEST_F(ThreadQueuesTest, Q3AThreadThatSleepsIsGoneWhenTheQueueIsDropped) {
  const std::size_t before = threadCount();
  for (int round = 0; round < 100; ++round) {
    const Queue queue = queues_->makeSerialQueue("serial");
    settle(queue);
  }
  EXPECT_TRUE(comesTrue([&] { return threadCount() == before; }));
}

TEST_F(ThreadQueuesTest, Q3DestroyingTheServiceEndsTheRunningBlockDropsTheQueuedOnesAndJoins) {
  const std::size_t before = threadCount();
  const Queue queue = queues_->makeSerialQueue("serial");
  settle(queues_->makeSerialQueue("other"));
  test::Event allSubmitted;
  test::Event started;
  bool ended = false;
  std::atomic<bool> queuedRan = false;
  auto token = std::make_shared<int>(1);
  queue->async([&] { EXPECT_TRUE(allSubmitted.wait()); });
  // The thread takes these two together.
  queue->async([&, queued = std::weak_ptr<int>(token)] {
    started.happen();
    ended = comesTrue([&] { return queued.expired(); });  // until the service drops what came later
  });
  queue->async([&queuedRan] { queuedRan = true; });
  allSubmitted.happen();
  ASSERT_TRUE(started.wait());
  queue->async([&queuedRan, held = std::move(token)] { queuedRan = true; });
  queues_.reset();
  EXPECT_TRUE(ended);
  EXPECT_FALSE(queuedRan);
  EXPECT_EQ(threadCount(), before);
}

TEST_F(ThreadQueuesTest, Q3DroppedBlocksMayThemselvesHoldQueuesOfTheService) {
  const Queue queue = queues_->makeSerialQueue("serial");
  test::Event started;
  test::Event mayEnd;
  queue->async([&] {
    started.happen();
    EXPECT_TRUE(mayEnd.wait());
  });
  ASSERT_TRUE(started.wait());
  auto token = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = token;
  for (int i = 0; i < 3; ++i) {
    Queue inner = queues_->makeSerialQueue("inner");
    if (i > 0) settle(inner);
    queue->async([inner, held = token] { inner->async([held] {}); });
  }
  token.reset();
  mayEnd.happen();
  queues_.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(ThreadQueuesTest, Q1SixtyFourSubmittersLoseNothingAndEachKeepsItsOrder) {
  constexpr int kSubmitters = 64;
  constexpr int kBlocks = 500;
  const Queue queue = queues_->makeSerialQueue("serial");
  std::vector<std::vector<int>> seen(kSubmitters);
  std::latch ready(kSubmitters);
  std::vector<std::thread> submitters;
  for (int submitter = 0; submitter < kSubmitters; ++submitter)
    submitters.emplace_back([&, submitter] {
      ready.arrive_and_wait();
      for (int i = 0; i < kBlocks; ++i)
        queue->async([&seen, submitter, i] { seen[static_cast<std::size_t>(submitter)].push_back(i); });
    });
  for (std::thread& submitter : submitters) submitter.join();
  settle(queue);
  for (const std::vector<int>& numbers : seen) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kBlocks));
    EXPECT_TRUE(std::ranges::is_sorted(numbers));
  }
}

TEST_F(ThreadQueuesTest, ASleepingThreadIsWokenByEachOfManySubmitters) {
  // One block at a time, so that the queue falls asleep between them over and over while another submitter comes.
  const Queue queue = queues_->makeSerialQueue("serial");
  std::vector<std::thread> submitters;
  for (int submitter = 0; submitter < 4; ++submitter)
    submitters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) settle(queue);
    });
  for (std::thread& submitter : submitters) submitter.join();
}

// Submits to queues of the service from several threads until after its end.
void endWhileInUse(std::unique_ptr<platform::ThreadQueues> queues) {
  std::atomic<bool> stop = false;
  std::vector<std::thread> submitters;
  std::latch started(4);
  for (int i = 0; i < 4; ++i)
    submitters.emplace_back([&stop, &started, queue = queues->makeSerialQueue("used")] {
      queue->async([] {});
      started.count_down();
      while (!stop) queue->async([held = queue] { held->async([] {}); });
    });
  started.wait();
  queues.reset();
  stop = true;
  for (std::thread& submitter : submitters) submitter.join();
}

TEST_F(ThreadQueuesTest, ManyQueuesMayBeUsedAndDroppedWhileTheServiceEnds) {
  for (int round = 0; round < 20; ++round) endWhileInUse(std::make_unique<platform::ThreadQueues>(uncaught_));
  EXPECT_FALSE(uncaught_->dead());
}

TEST_F(ThreadQueuesTest, Q4AnExecutorSparesTheMainQueuesThread) {
  const std::size_t before = threadCount();
  std::vector<DispatchQueue::Block> blocks;
  queues_->setMainExecutor([&](DispatchQueue::Block block) { blocks.push_back(std::move(block)); });
  queues_->mainQueue()->async([] {});
  EXPECT_EQ(blocks.size(), 1u);
  EXPECT_EQ(threadCount(), before);
}

TEST_F(ThreadQueuesTest, Q4WithoutExecutorTheMainQueueHasAThreadOfItsOwn) {
  const auto identify = [] { return std::this_thread::get_id(); };
  const std::thread::id main = on(queues_->mainQueue(), identify);
  EXPECT_EQ(on(queues_->mainQueue(), identify), main);
  EXPECT_NE(main, std::this_thread::get_id());
  EXPECT_NE(main, on(queues_->globalBackgroundQueue(), identify));
}

struct Priority {
  int nice = 0;
  int policy = 0;
  long ioClass = 0;
  bool operator==(const Priority&) const = default;
};

Priority priorityOfThisThread() {
  constexpr int kThisThread = 1;
  constexpr int kClassShift = 13;
  const auto thread = static_cast<id_t>(syscall(SYS_gettid));
  return {getpriority(PRIO_PROCESS, thread), sched_getscheduler(0), syscall(SYS_ioprio_get, kThisThread, 0) >> kClassShift};
}

TEST_F(ThreadQueuesTest, Q1TheBackgroundQueueRunsAtLowProcessorAndIOPriority) {
  constexpr long kIdle = 3;
  EXPECT_EQ(on(queues_->globalBackgroundQueue(), priorityOfThisThread), (Priority{19, SCHED_BATCH, kIdle}));
}

TEST_F(ThreadQueuesTest, TheOtherQueuesRunAtTheHostsPriority) {
  settle(queues_->globalBackgroundQueue());
  EXPECT_EQ(on(queues_->makeSerialQueue("serial"), priorityOfThisThread), priorityOfThisThread());
  EXPECT_EQ(on(queues_->mainQueue(), priorityOfThisThread), priorityOfThisThread());
}

TEST_F(ThreadQueuesTest, SignalsAreForTheHostsThreadsAndFaultsForTheThreadAtFault) {
  const auto blocked = on(queues_->makeSerialQueue("serial"), [] {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    std::set<int> members;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE, SIGPROF, SIGSEGV, SIGBUS, SIGFPE, SIGILL,
                             SIGABRT, SIGTRAP, SIGSYS})
      if (sigismember(&mask, number) == 1) members.insert(number);
    return members;
  });
  EXPECT_EQ(blocked, (std::set<int>{SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE, SIGPROF}));
}

TEST_F(ThreadQueuesTest, TheSubmittersOwnSignalMaskStaysAsItWas) {
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_BLOCK, nullptr, &before);
  settle(queues_->makeSerialQueue("serial"));
  pthread_sigmask(SIG_BLOCK, nullptr, &after);
  for (int number = 1; number < NSIG; ++number) EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
}

TEST_F(ThreadQueuesTest, TheThreadIsNamedAfterTheEndOfTheLabel) {
  const auto name = [] {
    char text[16] = {};
    pthread_getname_np(pthread_self(), text, sizeof text);
    return std::string(text);
  };
  EXPECT_EQ(on(queues_->makeSerialQueue("com.example.sdk.DiskAccess"), name), ".sdk.DiskAccess");
  EXPECT_EQ(on(queues_->makeSerialQueue("short"), name), "short");
}

// While it lives no thread can be made, as none gets the stack it asks for.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 46);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
  ~NoMoreThreads() {
    pthread_setattr_default_np(&before_);
    pthread_attr_destroy(&before_);
  }

 private:
  pthread_attr_t before_;
};

TEST_F(ThreadQueuesTest, AThreadThatCannotBeMadeIsAnUncaughtException) {
  const Queue queue = queues_->makeSerialQueue("com.example.sdk.Work");
  auto token = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = token;
  {
    const NoMoreThreads none;
    queue->async([held = std::move(token)] {});
  }
  EXPECT_THAT(uncaught_->descriptions(),
              testing::ElementsAre("*** Terminating app due to uncaught exception 'NSInternalInconsistencyException', reason: "
                                   "'No thread for queue 'com.example.sdk.Work': Resource temporarily unavailable'"));
  EXPECT_TRUE(watched.expired());
}

}  // namespace
