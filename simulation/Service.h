// One life of the transfer service: its real decisions, over a store, a spool, uploads and connections that can fail at each call.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Process.h"
#include "simulation/Crew.h"
#include "simulation/Device.h"
#include "support/FixedSecureRandom.h"
#include "support/ScriptedUploads.h"
#include "support/TransferSurroundings.h"
#include "transfer/core/Service.h"

namespace simulation {

/// The store with a point before and after each operation, and the oracle that each upload ends once.
class ProbedStore final : public transfer::Store {
 public:
  /// Told before each operation, by its name; true makes it fail. May throw ProcessDeath, also from `after`.
  struct Points {
    std::function<bool(std::string_view operation)> before;
    std::function<void(std::string_view operation)> after;
    std::function<void(const std::string& session)> ended;
    std::function<void(const std::string& session)> recorded;
    std::function<bool()> forgetsEnd;
  };

  ProbedStore(std::shared_ptr<test::MemoryTransferStore::Disk> disk, Points points);

  Result<transfer::Contents> load() override;
  Result<transfer::ApplicationId> saveApplication(const transfer::ApplicationIdentity& identity,
                                                  const std::vector<std::string>& launchCommand) override;
  Result<> saveLaunches(transfer::ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) override;
  Result<std::pair<transfer::SessionId, transfer::TaskId>> addTask(transfer::ApplicationId application,
                                                                   const transfer::SpoolEntry& entry, const std::string& spoolName,
                                                                   const transfer::TaskStatus& status) override;
  Result<> saveLeftSpool(transfer::TaskId task) override;
  Result<> saveTask(transfer::TaskId task, const transfer::TaskStatus& status) override;
  Result<> endTask(transfer::TaskId task, const transfer::TaskStatus& status, std::uint64_t sequence) override;
  Result<> saveInvalidated(transfer::SessionId session) override;
  Result<> removeEvent(transfer::SessionId session, std::uint64_t sequence) override;
  Result<> removeSession(transfer::SessionId session) override;

 private:
  template <class Operation>
  auto perform(std::string_view name, Operation operation) {
    store_.fail = [fails = points_.before(name)](std::string_view) { return fails; };
    auto result = operation();
    points_.after(name);
    return result;
  }
  std::string sessionOfTask(transfer::TaskId task) const;
  std::string sessionNamed(transfer::SessionId session) const;

  test::MemoryTransferStore store_;
  const Points points_;
};

struct ServiceLife {
  ServiceLife(Device& device, std::uint64_t number, ProbedStore::Points points, std::shared_ptr<platform::SystemLog> log,
              std::function<void(transfer::ConnectionId, const transfer::Message&)> onSend);

  const std::uint64_t number;
  platform::Process process;
  ProbedStore store;
  test::ScriptedUploads uploads;
  test::RecordingLauncher launcher;
  test::RecordingConnections wire;
  test::FixedSecureRandom random;
  std::unique_ptr<transfer::Service> service;

  std::deque<std::pair<std::string, std::function<void()>>> inputs;
  Crew::Member* running = nullptr;
  bool isDead = false;
  std::size_t launchesSeen = 0;
  double lastTick = 0;  // by the time that never jumps
};

}  // namespace simulation
