// Queues whose blocks wait until the test runs them.
#include "support/SteppedQueues.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/Exception.h"

namespace test {

using platform::DispatchQueue;

// What waits on one queue. Guarded by Shared::mutex.
class SteppedQueues::Lane {
 public:
  struct Entry {
    std::uint64_t number;
    DispatchQueue::Block block;
  };

  Lane(std::string_view text, bool isGlobal) : label(text), global(isGlobal) {}

  bool canRun() const { return !entries.empty() && !running; }
  bool isIdle() const { return !running && entries.empty() && delayed == 0; }

  const std::string label;
  const bool global;
  bool held = true;
  bool running = false;
  std::deque<Entry> entries;
  std::size_t delayed = 0;  // blocks whose time has not come
};

struct SteppedQueues::Shared {
  using Wanted = std::function<bool(const Lane&)>;

  explicit Shared(std::shared_ptr<RecordingUncaughtException> handler) : uncaughtException(std::move(handler)) {}

  std::shared_ptr<Lane> addLane(std::string_view label, bool global) {
    std::lock_guard lock(mutex);
    lanes.push_back(std::make_shared<Lane>(label, global));
    return lanes.back();
  }

  void submit(Lane& lane, DispatchQueue::Block block) {
    std::lock_guard lock(mutex);
    if (!closed) lane.entries.push_back({nextNumber++, std::move(block)});
  }

  void submitAfter(std::shared_ptr<Lane> lane, double seconds, DispatchQueue::Block block) {
    if (!(seconds > 0)) return submit(*lane, std::move(block));
    std::lock_guard lock(mutex);
    if (closed) return;
    ++lane->delayed;
    delayed.emplace(time + seconds, Delayed{std::move(lane), std::move(block)});
  }

  void advanceTime(double seconds) {
    std::lock_guard lock(mutex);
    time += seconds;
    while (!delayed.empty() && delayed.begin()->first <= time) {
      Delayed due = std::move(delayed.extract(delayed.begin()).mapped());
      --due.lane->delayed;
      due.lane->entries.push_back({nextNumber++, std::move(due.block)});
    }
  }

  void letGo(Lane& lane) {
    std::lock_guard lock(mutex);
    lane.held = false;
    forgetFinished();
  }

  bool runNext(const Wanted& wanted) {
    std::shared_ptr<Lane> lane;
    DispatchQueue::Block block;
    {
      std::lock_guard lock(mutex);
      if (uncaughtException->dead() || !(lane = oldest(wanted))) return false;
      block = std::move(lane->entries.front().block);
      lane->entries.pop_front();
      lane->running = true;
    }
    DispatchQueue::run(block, *uncaughtException);
    block = nullptr;  // what it held may let go of queues, also of this one
    std::lock_guard lock(mutex);
    lane->running = false;
    forgetFinished();
    return true;
  }

  std::size_t runAll(const Wanted& wanted) {
    constexpr std::size_t kTooMany = 100'000;
    std::size_t count = 0;
    while (runNext(wanted))
      if (++count == kTooMany) throw std::logic_error("the queues do not come to rest");
    return count;
  }

  std::size_t dropAll() {
    std::deque<Lane::Entry> dropped;  // destroyed without the lock
    std::multimap<double, Delayed> droppedToo;
    std::lock_guard lock(mutex);
    droppedToo.swap(delayed);
    for (const auto& lane : lanes) {
      std::ranges::move(lane->entries, std::back_inserter(dropped));
      lane->entries.clear();
      lane->delayed = 0;
    }
    forgetFinished();
    return dropped.size() + droppedToo.size();
  }

  std::vector<std::string> pendingLabels(const Wanted& wanted) {
    std::lock_guard lock(mutex);
    std::vector<std::pair<std::uint64_t, std::string>> waiting;
    for (const auto& lane : lanes)
      if (wanted(*lane))
        for (const auto& entry : lane->entries) waiting.emplace_back(entry.number, lane->label);
    std::ranges::sort(waiting);
    std::vector<std::string> labels;
    for (auto& [number, label] : waiting) labels.push_back(std::move(label));
    return labels;
  }

  struct Delayed {
    std::shared_ptr<Lane> lane;
    DispatchQueue::Block block;
  };

  std::mutex mutex;
  std::vector<std::shared_ptr<Lane>> lanes;  // in the order of their making
  double time = 0;
  std::multimap<double, Delayed> delayed;  // by the time at which they are due
  std::uint64_t nextNumber = 0;
  bool closed = false;
  const std::shared_ptr<RecordingUncaughtException> uncaughtException;

 private:
  std::shared_ptr<Lane> oldest(const Wanted& wanted) const {
    std::shared_ptr<Lane> found;
    for (const auto& lane : lanes)
      if (lane->canRun() && wanted(*lane) && (!found || lane->entries.front().number < found->entries.front().number)) found = lane;
    return found;
  }

  void forgetFinished() {
    std::erase_if(lanes, [](const auto& lane) { return !lane->held && lane->isIdle(); });
  }
};

class SteppedQueues::Handle final : public DispatchQueue {
 public:
  Handle(std::shared_ptr<Shared> shared, std::string_view label, bool global)
      : shared_(std::move(shared)), lane_(shared_->addLane(label, global)) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() override { shared_->letGo(*lane_); }

  void async(Block block) override { shared_->submit(*lane_, std::move(block)); }
  void asyncAfter(double seconds, Block block) override { shared_->submitAfter(lane_, seconds, std::move(block)); }
  const std::string& label() const override { return lane_->label; }
  const Lane* lane() const { return lane_.get(); }

 private:
  const std::shared_ptr<Shared> shared_;
  const std::shared_ptr<Lane> lane_;
};

// The main queue: blocks go to the lane until a host's executor takes them.
class SteppedQueues::Main final : public DispatchQueue {
 public:
  explicit Main(std::shared_ptr<Shared> shared) : shared_(std::move(shared)), handle_(shared_, "main", true) {}

  void async(Block block) override {
    const std::optional<Executor> executor = decide();
    if (!executor)
      handle_.async(std::move(block));
    else
      hand(*executor, std::move(block));
  }

  void asyncAfter(double seconds, Block block) override {
    const std::optional<Executor> executor = decide();
    if (!executor)
      handle_.asyncAfter(seconds, std::move(block));
    else
      handle_.asyncAfter(seconds, [this, work = std::move(block)]() mutable { async(std::move(work)); });
  }

  const std::string& label() const override { return handle_.label(); }
  const Lane* lane() const { return handle_.lane(); }

  void setExecutor(Executor executor) {
    if (!executor) throw platform::Exception(platform::kInvalidArgumentException, "The main queue's executor is absent");
    std::lock_guard lock(shared_->mutex);
    if (std::exchange(decided_, true))
      throw platform::Exception(platform::kInternalInconsistencyException,
                                "The main queue's executor is set after the queue was used or for a second time");
    executor_ = std::move(executor);
  }

 private:
  // The executor that is to have the block, if any; from the first block on nothing changes.
  std::optional<Executor> decide() {
    std::lock_guard lock(shared_->mutex);
    decided_ = true;
    if (!executor_) return std::nullopt;
    if (shared_->closed) return [](Block) {};
    return executor_;
  }

  void hand(const Executor& executor, Block block) {
    try {
      executor([shared = shared_, work = std::move(block)]() mutable {
        if (!shared->uncaughtException->dead()) DispatchQueue::run(work, *shared->uncaughtException);
      });
    } catch (...) {
      shared_->uncaughtException->uncaught(std::current_exception());
    }
  }

  const std::shared_ptr<Shared> shared_;
  Handle handle_;
  bool decided_ = false;
  Executor executor_;
};

namespace {

auto anyLane() {
  return [](const auto&) { return true; };
}
auto isLane(const auto* wanted) {
  return [wanted](const auto& lane) { return &lane == wanted; };
}
auto lanesLabelled(std::string_view label) {
  return [label](const auto& lane) { return lane.label == label; };
}

}  // namespace

SteppedQueues::SteppedQueues(std::shared_ptr<RecordingUncaughtException> uncaughtException)
    : shared_(std::make_shared<Shared>(std::move(uncaughtException))),
      main_(std::make_shared<Main>(shared_)),
      background_(std::make_shared<Handle>(shared_, "background", true)) {}

SteppedQueues::~SteppedQueues() {
  {
    std::lock_guard lock(shared_->mutex);
    shared_->closed = true;
  }
  shared_->dropAll();
}

SteppedQueues::Queue SteppedQueues::makeSerialQueue(std::string_view label) {
  return std::make_shared<Handle>(shared_, label, false);
}
SteppedQueues::Queue SteppedQueues::mainQueue() { return main_; }
SteppedQueues::Queue SteppedQueues::globalBackgroundQueue() { return background_; }
void SteppedQueues::setMainExecutor(Executor executor) { main_->setExecutor(std::move(executor)); }

bool SteppedQueues::runNext(const Queue& queue) { return shared_->runNext(isLane(laneOf(queue))); }
bool SteppedQueues::runNext(std::string_view label) { return shared_->runNext(lanesLabelled(label)); }
bool SteppedQueues::runNext() { return shared_->runNext(anyLane()); }
std::size_t SteppedQueues::runAll(const Queue& queue) { return shared_->runAll(isLane(laneOf(queue))); }
std::size_t SteppedQueues::runAll(std::string_view label) { return shared_->runAll(lanesLabelled(label)); }
std::size_t SteppedQueues::runAll() { return shared_->runAll(anyLane()); }
void SteppedQueues::advanceTime(double seconds) { shared_->advanceTime(seconds); }
double SteppedQueues::time() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->time;
}
std::size_t SteppedQueues::delayed() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->delayed.size();
}
std::size_t SteppedQueues::dropAll() { return shared_->dropAll(); }

std::size_t SteppedQueues::pending(const Queue& queue) const { return shared_->pendingLabels(isLane(laneOf(queue))).size(); }
std::size_t SteppedQueues::pending(std::string_view label) const { return shared_->pendingLabels(lanesLabelled(label)).size(); }
std::vector<std::string> SteppedQueues::pendingLabels() const { return shared_->pendingLabels(anyLane()); }

std::vector<std::string> SteppedQueues::liveQueues() const {
  std::lock_guard lock(shared_->mutex);
  std::vector<std::string> labels;
  for (const auto& lane : shared_->lanes)
    if (!lane->global) labels.push_back(lane->label);
  return labels;
}

const SteppedQueues::Lane* SteppedQueues::laneOf(const Queue& queue) {
  if (const auto* handle = dynamic_cast<const Handle*>(queue.get())) return handle->lane();
  if (const auto* main = dynamic_cast<const Main*>(queue.get())) return main->lane();
  throw std::logic_error("no queue of this service");
}

}  // namespace test
