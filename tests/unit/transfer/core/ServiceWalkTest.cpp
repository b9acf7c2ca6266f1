// Seeded random walks: uploads end, processes come and go, the store fails, the service dies; nothing is lost and the order stays.
#include <map>
#include <random>
#include <set>

#include "unit/transfer/core/ServiceTest.h"

namespace {

class ServiceWalk : public ServiceTest, public testing::WithParamInterface<unsigned> {
 protected:
  ServiceWalk() { options_.maxUploadsAtOnce = 3; }

  std::size_t below(std::size_t bound) { return std::uniform_int_distribution<std::size_t>(0, bound - 1)(generator_); }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  static std::string sessionNamed(std::size_t n) { return "session-" + std::to_string(n); }

  void addTask() {
    const std::string session = sessionNamed(below(4));
    const std::uint64_t task = ++lastTask_;
    transfer::SpoolEntry entry = test::entryFor(session, task);
    entry.resumedAt = clock_.now().timeIntervalSince1970();
    put(entry);
    added_.insert(task);
  }

  void endATry() {
    if (uploads_->running().empty()) return;
    const auto task = uploads_->running().at(below(uploads_->running().size())).task;
    uploads_->remove(task);
    const bool fails = oneIn(3);
    service_->uploadEnded(task,
                          outcome(fails ? std::optional(platform::urlError(-1005)) : std::nullopt, !oneIn(4), fails ? 0 : 200));
  }

  void converse() {
    if (processes_.empty() || oneIn(6)) {
      processes_.insert(connect());
      return;
    }
    const auto process = *std::next(processes_.begin(), static_cast<std::ptrdiff_t>(below(processes_.size())));
    if (oneIn(8)) {
      read(process);
      disconnect(process);
      processes_.erase(process);
      pending_.erase(process);
      lastSeen_.erase(process);
    } else {
      const std::string session = sessionNamed(below(4));
      if (oneIn(12)) {
        say(process, transfer::Cancel{.session = session});
      } else {
        say(process, transfer::Hold{.session = session});
      }
    }
  }

  /// Takes what came for a process: its events are the next in the order of their session.
  void read(transfer::ConnectionId process) {
    for (const transfer::Message& message : wire_->take(process)) {
      const auto* const event = std::get_if<transfer::TaskEvent>(&message);
      if (!event) continue;
      EXPECT_TRUE(added_.contains(event->task.identifier));
      EXPECT_EQ(event->task.state, transfer::TaskStatus::State::kCompleted);
      std::uint64_t& last = lastSeen_[process][event->session];
      EXPECT_GT(event->event, last) << "the order of a session's events, each once for each holder";
      last = event->event;
      pending_[process].push_back(*event);
    }
  }

  void handOver() {
    for (const transfer::ConnectionId process : processes_) {
      read(process);
      auto& waiting = pending_[process];
      if (waiting.empty() || oneIn(2)) continue;
      const transfer::TaskEvent event = waiting.front();
      waiting.erase(waiting.begin());
      ++seen_[event.task.identifier];
      say(process, transfer::Handed{.session = event.session, .event = event.event});
    }
  }

  void die() {
    processes_.clear();
    pending_.clear();
    lastSeen_.clear();
    store_.fail = nullptr;
    start();
  }

  void walk() {
    switch (below(8)) {
      case 0:
        return addTask();
      case 1:
      case 2:
        return endATry();
      case 3:
        return converse();
      case 4:
        return handOver();
      case 5:
        return pass(static_cast<double>(below(20)) - (oneIn(10) ? 5000 : 0));
      case 6:
        if (!launcher_.launches.empty()) service_->launchEnded(applicationId(), launcher_.launches.back().session);
        return;
      default:
        if (oneIn(10)) return die();
        store_.fail = oneIn(3) ? [](std::string_view operation) { return operation != "saveApplication"; }
                               : std::function<bool(std::string_view)>();
    }
  }

  void expectSound() const {
    ASSERT_LE(uploads_->mostAtOnce(), 3U);
    std::set<std::uint64_t> events;
    for (const auto& event : store_.contents().events) ASSERT_TRUE(events.insert(event.task.identifier).second) << "ended once";
    for (const auto& each : uploads_->running()) {
      ASSERT_FALSE(events.contains(each.entry.task)) << "what has ended does not run";
      ASSERT_FALSE(seen_.contains(each.entry.task)) << "what was handed over does not run again";
    }
  }

  /// All faults stop; the rest of the uploads succeed, one process stays and hears of everything.
  void comeToRest() {
    die();
    const auto process = connect();
    processes_.insert(process);
    for (std::size_t n = 0; n < 4; ++n) say(process, transfer::Hold{.session = sessionNamed(n)});
    for (int n = 0; n < 2000 && (!store_.contents().events.empty() || !spool_.names().empty() || seen_.size() < added_.size());
         ++n) {
      pass(60);
      while (!uploads_->running().empty()) answerOldest();
      handOver();
    }
    disconnect(process);
  }

  std::mt19937 generator_{GetParam()};
  std::uint64_t lastTask_ = 0;
  std::set<std::uint64_t> added_;
  std::map<std::uint64_t, int> seen_;
  std::set<transfer::ConnectionId> processes_;
  std::map<transfer::ConnectionId, std::vector<transfer::TaskEvent>> pending_;
  std::map<transfer::ConnectionId, std::map<std::string, std::uint64_t>> lastSeen_;
};

INSTANTIATE_TEST_SUITE_P(Seeds, ServiceWalk, testing::Range(1U, 25U));

TEST_P(ServiceWalk, losesNothing) {
  start();
  for (int n = 0; n < 1500; ++n) {
    walk();
    ASSERT_NO_FATAL_FAILURE(expectSound()) << "step " << n;
    ASSERT_FALSE(HasFailure()) << "step " << n;
  }
  comeToRest();
  EXPECT_EQ(seen_.size(), added_.size()) << "each outcome was seen";
  EXPECT_TRUE(store_.contents().sessions.empty());
  EXPECT_TRUE(spool_.names().empty());
  pass(options_.idleTime);
  EXPECT_TRUE(service_->mayEnd());
  EXPECT_GT(added_.size(), 50U) << "the walk did walk";
}

}  // namespace
