// Queues on threads.
//
// The blocks of a queue wait in a list whose newest end is one atomic word, the queue's inbox. A submitter puts its node before the
// newest; the worker takes the whole list in one step and turns it round, which restores the order of submission. The word also
// says when nobody looks at the list: the submitter that replaces kUnstarted starts the thread, the one that replaces kAsleep wakes
// it.
//
// A delayed block goes the same way; the worker puts it aside, in a list that is the worker's alone, and sleeps no longer than
// until the first of them is due.
//
// Otherwise a submitter touches nothing of the queue once its node is in: the block may already have run and have dropped the last
// reference to the queue with all that it held. Dropping that reference submits a last node of the queue's own, at which the worker
// ends.
#include "platform/linux/ThreadQueues.h"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/linux/ExitGate.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
constexpr Time kAtOnce{};

struct Node {
  explicit Node(DispatchQueue::Block work, Time time) : due(time), block(std::move(work)) {}

  Node* next = nullptr;
  Time due;
  DispatchQueue::Block block;
};

Time timeIn(double seconds) {
  constexpr double kLongest = 1e9;  // thirty years; more would not fit the clock's range
  if (!(seconds > 0)) return kAtOnce;
  return Clock::now() + std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(std::min(seconds, kLongest)));
}

timespec timespecOf(Time time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {seconds.time_since_epoch().count(), std::chrono::nanoseconds(time - seconds).count()};
}

// An inbox: the newest node's address or one of these.
using Inbox = std::uintptr_t;
constexpr Inbox kEmpty = 0;      // the worker is awake and will look again
constexpr Inbox kUnstarted = 1;  // there is no worker yet
constexpr Inbox kAsleep = 2;     // the worker sleeps until it is woken, once
constexpr Inbox kClosed = 3;     // nothing runs any more
constexpr Inbox kLastMark = kClosed;
constexpr std::size_t kCacheLine = 64;

Node* nodesOf(Inbox word) {
  return word > kLastMark ? reinterpret_cast<Node*>(word) : nullptr;  // NOLINT(performance-no-int-to-ptr): it was one
}
Inbox inboxOf(Node* node) { return reinterpret_cast<Inbox>(node); }

Node* reversed(Node* newest) {
  Node* oldest = nullptr;
  while (newest) {
    Node* next = std::exchange(newest->next, oldest);
    oldest = std::exchange(newest, next);
  }
  return oldest;
}

void lowerPriorityOfThisThread() {
  // Low but not idle: a thread that never gets the processor could keep a lock that others wait for.
  const sched_param parameter{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &parameter);
  setpriority(PRIO_PROCESS, 0, 19);
  constexpr int kThisThread = 1, kIdleClass = 3 << 13;  // IOPRIO_WHO_PROCESS, IOPRIO_CLASS_IDLE: the kernel's header is not C++
  syscall(SYS_ioprio_set, kThisThread, 0, kIdleClass);
}

// Every signal but those that a fault of the thread itself raises, which a host's crash handler wants to see.
sigset_t signalsForHostThreads() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) sigdelset(&signals, fault);
  return signals;
}

int startThread(pthread_t& thread, void* (*entry)(void*), void* argument) {
  const sigset_t blocked = signalsForHostThreads();
  pthread_attr_t attributes;
  if (const int error = pthread_attr_init(&attributes)) return error;
  int error = pthread_attr_setsigmask_np(&attributes, &blocked);
  if (error == 0) error = pthread_create(&thread, &attributes, entry, argument);
  pthread_attr_destroy(&attributes);
  return error;
}

}  // namespace

// What the workers of one service share: who they are, and whether they are to end.
class ThreadQueues::Crew {
 public:
  explicit Crew(std::shared_ptr<UncaughtException> uncaughtException) : uncaughtException_(std::move(uncaughtException)) {}

  UncaughtException& uncaughtException() { return *uncaughtException_; }
  bool isClosing() const { return closing_.load(std::memory_order_relaxed); }

  void start(const std::shared_ptr<Worker>& worker);
  void workerEnded(const std::shared_ptr<Worker>& worker);
  void close();

 private:
  // In a child made by fork the threads are not there and the mutex may stay locked for ever.
  bool isHere() const { return getpid() == process_ && !ExitGate::isClosed(); }

  const std::shared_ptr<UncaughtException> uncaughtException_;
  const pid_t process_ = getpid();
  std::atomic<bool> closing_{false};
  std::mutex mutex_;  // held to start, end and list workers; never while a block runs
  std::vector<std::shared_ptr<Worker>> workers_;
};

// The inbox and the thread of one queue. Belongs to the queue's handle, to its own thread while that runs, and to the crew.
class ThreadQueues::Worker : public std::enable_shared_from_this<Worker> {
 public:
  enum class Priority { kUsual, kBackground };

  Worker(std::shared_ptr<Crew> crew, std::string_view label, Priority priority)
      : crew_(std::move(crew)), label_(label), priority_(priority) {
    sem_init(&wake_, 0, 0);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() {
    drop(nodesOf(inbox_.load(std::memory_order_acquire)));
    sem_destroy(&wake_);
  }

  const std::string& label() const { return label_; }

  void submit(DispatchQueue::Block block, Time due = kAtOnce) { push(new Node(std::move(block), due)); }

  // After the last block has run the thread ends. Without a thread there is nothing to wait for.
  void end() {
    Inbox unstarted = kUnstarted;
    if (!inbox_.compare_exchange_strong(unstarted, kClosed)) push(&last_);
  }

  // Drops what is queued, also later; the thread ends after the block that is running.
  void shut() {
    const Inbox before = inbox_.exchange(kClosed, std::memory_order_acq_rel);
    if (before == kAsleep) sem_post(&wake_);
    drop(nodesOf(before));
  }

  // Yields 0 or the system's error number.
  int startThread() {
    auto self = std::make_unique<std::shared_ptr<Worker>>(shared_from_this());
    const int error = platform::startThread(thread_, &Worker::main, self.get());
    if (error == 0) self.release();  // NOLINT(bugprone-unused-return-value): the thread has it
    return error;
  }

  void detach() const { pthread_detach(thread_); }

  void join() const {
    if (pthread_equal(thread_, pthread_self()))
      detach();
    else
      pthread_join(thread_, nullptr);
  }

 private:
  static void* main(void* argument) {
    const std::unique_ptr<std::shared_ptr<Worker>> self(static_cast<std::shared_ptr<Worker>*>(argument));
    (*self)->work();
    (*self)->crew_->workerEnded(*self);
    return nullptr;
  }

  void push(Node* node) {
    Inbox before = inbox_.load(std::memory_order_relaxed);
    do {
      node->next = nodesOf(before);
      if (before == kClosed) return drop(node);
    } while (!inbox_.compare_exchange_weak(before, inboxOf(node), std::memory_order_release, std::memory_order_relaxed));
    if (before == kAsleep)
      sem_post(&wake_);
    else if (before == kUnstarted)
      crew_->start(shared_from_this());
  }

  void work() {
    if (priority_ == Priority::kBackground) lowerPriorityOfThisThread();
    nameThread();
    ExitGate::enter();
    while (!isOver()) {
      batch_ = take();
      runBatch();
      runDue();
    }
    delayed_.clear();  // a block that holds its own queue would keep all this alive
    ExitGate::leave();
  }

  bool isOver() const { return inbox_.load(std::memory_order_relaxed) == kClosed || (ended_ && delayed_.empty()); }

  void nameThread() {
    constexpr std::size_t kLongest = 15;  // the system's limit; the end of a reverse-DNS label says most
    const std::size_t start = label_.size() > kLongest ? label_.size() - kLongest : 0;
    pthread_setname_np(pthread_self(), label_.c_str() + start);
  }

  // All that is queued, oldest first; sleeps until there is something. Null when the queue was shut, or when the first delayed
  // block became due before.
  Node* take() {
    Inbox word = inbox_.load(std::memory_order_acquire);
    while (word != kClosed) {
      const Inbox next = word == kEmpty ? kAsleep : kEmpty;
      if (!inbox_.compare_exchange_weak(word, next, std::memory_order_acq_rel, std::memory_order_acquire)) continue;
      if (Node* newest = nodesOf(word)) return reversed(newest);
      const bool woken = sleep();
      word = kAsleep;
      if (!woken && inbox_.compare_exchange_strong(word, kEmpty)) return nullptr;
      if (!woken) sleepUntilWoken();  // by the submitter that came just then
      word = inbox_.load(std::memory_order_acquire);
    }
    return nullptr;
  }

  // False when the first delayed block became due before somebody woke the thread.
  bool sleep() {
    ExitGate::leave();
    const bool woken = delayed_.empty() ? sleepUntilWoken() : sleepUntil(delayed_.begin()->first);
    ExitGate::enter();
    return woken;
  }

  bool sleepUntilWoken() {
    while (sem_wait(&wake_) != 0 && errno == EINTR) {
    }
    return true;
  }

  bool sleepUntil(Time due) {
    const timespec limit = timespecOf(due);
    int error = 0;
    do error = sem_clockwait(&wake_, CLOCK_MONOTONIC, &limit) == 0 ? 0 : errno;
    while (error == EINTR);
    return error == 0;
  }

  void runBatch() {
    while (batch_ && !crew_->isClosing()) {
      if (batch_ == &last_)
        ended_ = true;
      else if (batch_->due != kAtOnce)
        delayed_.emplace(batch_->due, std::move(batch_->block));
      else
        run(batch_->block);
      Node* done = std::exchange(batch_, batch_->next);
      if (done != &last_) delete done;
    }
    drop(std::exchange(batch_, nullptr));
  }

  // The delayed blocks whose time had come at the start.
  void runDue() {
    if (delayed_.empty()) return;
    const Time now = Clock::now();
    while (!delayed_.empty() && delayed_.begin()->first <= now && !crew_->isClosing()) {
      auto first = delayed_.extract(delayed_.begin());
      run(first.mapped());
    }
  }

  void run(DispatchQueue::Block& block) {
    ExitGate::pass();
    DispatchQueue::run(block, crew_->uncaughtException());
  }

  void drop(Node* nodes) {
    while (nodes) {
      Node* node = std::exchange(nodes, nodes->next);
      if (node != &last_) delete node;
    }
  }

  // Alone in its cache line: what the worker reads for each block should not lie where the submitters write.
  alignas(kCacheLine) std::atomic<Inbox> inbox_{kUnstarted};
  alignas(kCacheLine) const std::shared_ptr<Crew> crew_;
  Node* batch_ = nullptr;  // what the thread has taken, from the block that is running; the thread's alone
  sem_t wake_;
  std::multimap<Time, DispatchQueue::Block> delayed_;  // the thread's alone
  bool ended_ = false;                                 // nobody holds the queue any more; the thread's alone
  Node last_{nullptr, kAtOnce};
  pthread_t thread_{};
  const std::string label_;
  const Priority priority_;
};

void ThreadQueues::Crew::start(const std::shared_ptr<Worker>& worker) {
  if (!isHere()) return;  // the block is never run
  ExitGate::install();
  int error = 0;
  {
    std::lock_guard lock(mutex_);
    if (!closing_) {
      error = worker->startThread();
      if (error == 0) return workers_.push_back(worker);
    }
  }
  worker->shut();
  if (error == 0) return;
  const std::string reason = "No thread for queue '" + worker->label() + "': " + std::generic_category().message(error);
  uncaughtException_->uncaught(std::make_exception_ptr(Exception(kInternalInconsistencyException, reason)));
}

void ThreadQueues::Crew::workerEnded(const std::shared_ptr<Worker>& worker) {
  std::lock_guard lock(mutex_);
  if (closing_) return;  // whoever closes joins the thread
  worker->detach();
  std::erase(workers_, worker);
}

void ThreadQueues::Crew::close() {
  if (!isHere()) return;
  std::vector<std::shared_ptr<Worker>> workers;
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
    workers.swap(workers_);
  }
  for (const auto& worker : workers) worker->shut();
  for (const auto& worker : workers) worker->join();
}

// The handle of a queue: what its users hold.
class ThreadQueues::SerialQueue final : public DispatchQueue {
 public:
  SerialQueue(std::shared_ptr<Crew> crew, std::string_view label, Worker::Priority priority = Worker::Priority::kUsual)
      : worker_(std::make_shared<Worker>(std::move(crew), label, priority)) {}
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue() override { worker_->end(); }

  void async(Block block) override { worker_->submit(std::move(block)); }
  void asyncAfter(double seconds, Block block) override { worker_->submit(std::move(block), timeIn(seconds)); }
  const std::string& label() const override { return worker_->label(); }

 private:
  const std::shared_ptr<Worker> worker_;
};

// The main queue: the first of an executor and a block decides who runs its blocks.
class ThreadQueues::MainQueue final : public DispatchQueue, public std::enable_shared_from_this<MainQueue> {
 public:
  explicit MainQueue(std::shared_ptr<Crew> crew) : crew_(std::move(crew)), thread_(crew_, "main") {}
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;
  ~MainQueue() override {
    if (const Executor* route = route_; route != &ownThread_) delete route;
  }

  void async(Block block) override {
    const Executor* route = decidedRoute();
    if (route == &ownThread_)
      thread_.async(std::move(block));
    else if (!crew_->isClosing())
      hand(*route, std::move(block));
  }

  void asyncAfter(double seconds, Block block) override {
    if (decidedRoute() == &ownThread_)
      thread_.asyncAfter(seconds, std::move(block));
    else
      thread_.asyncAfter(seconds, [self = shared_from_this(), work = std::move(block)]() mutable { self->async(std::move(work)); });
  }

  const std::string& label() const override { return thread_.label(); }

  void setExecutor(Executor executor) {
    if (!executor) throw Exception(kInvalidArgumentException, "The main queue's executor is absent");
    auto route = std::make_unique<const Executor>(std::move(executor));
    const Executor* none = nullptr;
    if (!route_.compare_exchange_strong(none, route.get()))
      throw Exception(kInternalInconsistencyException,
                      "The main queue's executor is set after the queue was used or for a second time");
    route.release();  // NOLINT(bugprone-unused-return-value): route_ owns it
  }

 private:
  const Executor* decidedRoute() {
    const Executor* route = route_.load(std::memory_order_acquire);
    if (!route && route_.compare_exchange_strong(route, &ownThread_)) route = &ownThread_;
    return route;
  }

  void hand(const Executor& executor, Block block) {
    try {
      executor([crew = crew_, work = std::move(block)]() mutable { DispatchQueue::run(work, crew->uncaughtException()); });
    } catch (...) {
      crew_->uncaughtException().uncaught(std::current_exception());
    }
  }

  const std::shared_ptr<Crew> crew_;
  SerialQueue thread_;
  const Executor ownThread_;                     // its address stands for the queue's own thread
  std::atomic<const Executor*> route_{nullptr};  // null until it is decided
};

ThreadQueues::ThreadQueues(std::shared_ptr<UncaughtException> uncaughtException)
    : crew_(std::make_shared<Crew>(std::move(uncaughtException))),
      main_(std::make_shared<MainQueue>(crew_)),
      background_(std::make_shared<SerialQueue>(crew_, "background", Worker::Priority::kBackground)) {}

void ThreadQueues::close() { crew_->close(); }

std::shared_ptr<DispatchQueue> ThreadQueues::makeSerialQueue(std::string_view label) {
  return std::make_shared<SerialQueue>(crew_, label);
}

std::shared_ptr<DispatchQueue> ThreadQueues::mainQueue() { return main_; }
std::shared_ptr<DispatchQueue> ThreadQueues::globalBackgroundQueue() { return background_; }
void ThreadQueues::setMainExecutor(Executor executor) { main_->setExecutor(std::move(executor)); }

}  // namespace platform
