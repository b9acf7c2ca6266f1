// A transfer store in memory: the twin of the one on the disk, with failures that the test orders.
//
//     test::MemoryTransferStore store;
//     store.fail = [](std::string_view operation) { return operation == "addTask"; };
//
// What would be on the disk lies in a MemoryTransferStore::Disk, which outlives the store when the test holds it: a second store
// over the same disk is what a restarted service finds. A failing operation changes nothing. One thread.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "transfer/core/Store.h"

namespace test {

class MemoryTransferStore final : public transfer::Store {
 public:
  struct Disk {
    transfer::Contents contents;
    std::int64_t lastId = 0;
  };

  explicit MemoryTransferStore(std::shared_ptr<Disk> disk = std::make_shared<Disk>()) : disk_(std::move(disk)) {}

  /// Asked before each operation, by its name; true makes it fail as on a full disk.
  std::function<bool(std::string_view operation)> fail;

  const std::shared_ptr<Disk>& disk() const { return disk_; }
  const transfer::Contents& contents() const { return disk_->contents; }

  /// What an operation that was made to fail yields.
  static platform::Error fullDisk() {
    return {platform::kCocoaErrorDomain, platform::kFileWriteOutOfSpace,
            "The transfer store couldn’t be written because the volume is out of space."};
  }

  Result<transfer::Contents> load() override {
    if (fails("load")) return std::unexpected(fullDisk());
    transfer::Contents loaded = contents();
    std::ranges::sort(loaded.events, {},
                      [](const transfer::StoredEvent& event) { return std::pair(event.session, event.sequence); });
    return loaded;
  }

  Result<transfer::ApplicationId> saveApplication(const transfer::ApplicationIdentity& identity,
                                                  const std::vector<std::string>& launchCommand) override {
    if (fails("saveApplication")) return std::unexpected(fullDisk());
    for (transfer::StoredApplication& known : disk_->contents.applications) {
      if (known.identity.identifier != identity.identifier || known.identity.folder != identity.folder) continue;
      known.identity.token = identity.token;
      known.launchCommand = launchCommand;
      return known.id;
    }
    transfer::StoredApplication added;
    added.id = ++disk_->lastId;
    added.identity = identity;
    added.launchCommand = launchCommand;
    disk_->contents.applications.push_back(added);
    return added.id;
  }

  Result<> saveLaunches(transfer::ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) override {
    if (fails("saveLaunches")) return std::unexpected(fullDisk());
    auto* const known = find(disk_->contents.applications, application);
    if (!known) return std::unexpected(unknown());
    known->failedLaunches = failedLaunches;
    known->nextLaunchAt = nextLaunchAt;
    return {};
  }

  Result<std::pair<transfer::SessionId, transfer::TaskId>> addTask(transfer::ApplicationId application,
                                                                   const transfer::SpoolEntry& entry, const std::string& spoolName,
                                                                   const transfer::TaskStatus& status) override {
    if (fails("addTask")) return std::unexpected(fullDisk());
    if (!find(disk_->contents.applications, application)) return std::unexpected(unknown());
    transfer::SessionId session = sessionOf(application, entry.session);
    for (const transfer::StoredTask& task : disk_->contents.tasks)
      if (task.spoolName == spoolName || (task.session == session && task.entry.task == entry.task))
        return std::unexpected(unknown());
    if (session == 0) {
      session = ++disk_->lastId;
      disk_->contents.sessions.push_back({.id = session, .application = application, .identifier = entry.session});
    }
    transfer::StoredTask added;
    added.id = ++disk_->lastId;
    added.session = session;
    added.entry = entry;
    added.spoolName = spoolName;
    added.status = status;
    disk_->contents.tasks.push_back(added);
    return std::pair(session, added.id);
  }

  Result<> saveLeftSpool(transfer::TaskId task) override {
    if (fails("saveLeftSpool")) return std::unexpected(fullDisk());
    auto* const known = find(disk_->contents.tasks, task);
    if (!known) return std::unexpected(unknown());
    known->hasLeftSpool = true;
    return {};
  }

  Result<> saveTask(transfer::TaskId task, const transfer::TaskStatus& status) override {
    if (fails("saveTask")) return std::unexpected(fullDisk());
    auto* const known = unendedTask(task);
    if (!known) return std::unexpected(unknown());
    known->status = status;
    return {};
  }

  Result<> endTask(transfer::TaskId task, const transfer::TaskStatus& status, std::uint64_t sequence) override {
    if (fails("endTask")) return std::unexpected(fullDisk());
    auto* const known = unendedTask(task);
    if (!known) return std::unexpected(unknown());
    for (const transfer::StoredEvent& event : contents().events)
      if (event.session == known->session && event.sequence == sequence) return std::unexpected(unknown());
    known->status = status;
    disk_->contents.events.push_back({.session = known->session, .sequence = sequence, .task = status});
    return {};
  }

  Result<> saveInvalidated(transfer::SessionId session) override {
    if (fails("saveInvalidated")) return std::unexpected(fullDisk());
    auto* const known = find(disk_->contents.sessions, session);
    if (!known) return std::unexpected(unknown());
    known->isInvalidated = true;
    return {};
  }

  Result<> removeEvent(transfer::SessionId session, std::uint64_t sequence) override {
    if (fails("removeEvent")) return std::unexpected(fullDisk());
    std::erase_if(disk_->contents.events,
                  [&](const transfer::StoredEvent& event) { return event.session == session && event.sequence == sequence; });
    return {};
  }

  Result<> removeSession(transfer::SessionId session) override {
    if (fails("removeSession")) return std::unexpected(fullDisk());
    std::erase_if(disk_->contents.events, [&](const transfer::StoredEvent& event) { return event.session == session; });
    std::erase_if(disk_->contents.tasks, [&](const transfer::StoredTask& task) { return task.session == session; });
    std::erase_if(disk_->contents.sessions, [&](const transfer::StoredSession& known) { return known.id == session; });
    return {};
  }

 private:
  bool fails(std::string_view operation) const { return fail && fail(operation); }

  /// What the operation speaks of is not there, or is there already.
  static platform::Error unknown() {
    return {platform::kCocoaErrorDomain, platform::kFileWriteUnknown,
            "The transfer store refuses a change that does not fit what it holds."};
  }

  template <class Record>
  static Record* find(std::vector<Record>& records, std::int64_t id) {
    const auto found = std::ranges::find(records, id, &Record::id);
    return found == records.end() ? nullptr : &*found;
  }

  transfer::StoredTask* unendedTask(transfer::TaskId id) {
    transfer::StoredTask* const task = find(disk_->contents.tasks, id);
    return task && task->status.state != transfer::TaskStatus::State::kCompleted ? task : nullptr;
  }

  transfer::SessionId sessionOf(transfer::ApplicationId application, const std::string& identifier) const {
    for (const transfer::StoredSession& session : contents().sessions)
      if (session.application == application && session.identifier == identifier) return session.id;
    return 0;
  }

  std::shared_ptr<Disk> disk_;
};

}  // namespace test
