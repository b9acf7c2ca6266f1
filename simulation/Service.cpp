// The transfer service's surroundings.
#include "simulation/Service.h"

#include <utility>

#include "platform/linux/RapidJSONSerialization.h"

namespace simulation {

using transfer::Store;

ProbedStore::ProbedStore(std::shared_ptr<test::MemoryTransferStore::Disk> disk, Points points)
    : store_(std::move(disk)), points_(std::move(points)) {}

std::string ProbedStore::sessionNamed(transfer::SessionId session) const {
  for (const auto& known : store_.contents().sessions)
    if (known.id == session) return known.identifier;
  return "";
}
std::string ProbedStore::sessionOfTask(transfer::TaskId task) const {
  for (const auto& known : store_.contents().tasks)
    if (known.id == task) return sessionNamed(known.session);
  return "";
}

Store::Result<transfer::Contents> ProbedStore::load() {
  return perform("load", [&] { return store_.load(); });
}
Store::Result<transfer::ApplicationId> ProbedStore::saveApplication(const transfer::ApplicationIdentity& identity,
                                                                    const std::vector<std::string>& launchCommand) {
  return perform("saveApplication", [&] { return store_.saveApplication(identity, launchCommand); });
}
Store::Result<> ProbedStore::saveLaunches(transfer::ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) {
  return perform("saveLaunches", [&] { return store_.saveLaunches(application, failedLaunches, nextLaunchAt); });
}
Store::Result<std::pair<transfer::SessionId, transfer::TaskId>> ProbedStore::addTask(transfer::ApplicationId application,
                                                                                     const transfer::SpoolEntry& entry,
                                                                                     const std::string& spoolName,
                                                                                     const transfer::TaskStatus& status) {
  return perform("addTask", [&] { return store_.addTask(application, entry, spoolName, status); });
}
Store::Result<> ProbedStore::saveLeftSpool(transfer::TaskId task) {
  return perform("saveLeftSpool", [&] { return store_.saveLeftSpool(task); });
}
Store::Result<> ProbedStore::saveTask(transfer::TaskId task, const transfer::TaskStatus& status) {
  return perform("saveTask", [&] { return store_.saveTask(task, status); });
}
Store::Result<> ProbedStore::endTask(transfer::TaskId task, const transfer::TaskStatus& status, std::uint64_t sequence) {
  return perform("endTask", [&]() -> Store::Result<> {
    const std::string session = sessionOfTask(task);
    if (points_.forgetsEnd()) {
      points_.ended(session);
      return {};
    }
    const auto result = store_.endTask(task, status, sequence);
    if (result) points_.ended(session);
    return result;
  });
}
Store::Result<> ProbedStore::saveInvalidated(transfer::SessionId session) {
  return perform("saveInvalidated", [&] { return store_.saveInvalidated(session); });
}
Store::Result<> ProbedStore::removeEvent(transfer::SessionId session, std::uint64_t sequence) {
  return perform("removeEvent", [&] {
    const auto result = store_.removeEvent(session, sequence);
    if (result) points_.recorded(sessionNamed(session));
    return result;
  });
}
Store::Result<> ProbedStore::removeSession(transfer::SessionId session) {
  return perform("removeSession", [&] { return store_.removeSession(session); });
}

ServiceLife::ServiceLife(Device& device, std::uint64_t itsNumber, ProbedStore::Points points,
                         std::shared_ptr<platform::SystemLog> log,
                         std::function<void(transfer::ConnectionId, const transfer::Message&)> onSend)
    : number(itsNumber), store(device.store, std::move(points)), random(1000 + itsNumber) {
  process.systemLog = std::move(log);
  process.json = platform::makeRapidJSONSerialization();
  process.clock = device.clock;
  wire.onSend = std::move(onSend);
  transfer::ServiceOptions options;
  options.maxUploadsAtOnce = 3;
  service = std::make_unique<transfer::Service>(store, uploads, launcher, wire, device.spool, *device.clock, random, options);
}

}  // namespace simulation
