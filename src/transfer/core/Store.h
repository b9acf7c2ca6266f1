// What the service must not forget: applications, sessions, tasks, and the events not yet handed over.
//
// Every operation is one transaction: when it returns it is on the disk, when it fails nothing has changed. A failure (a full disk)
// is an error with a text; the service tries again and does not go on as if it had worked.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace transfer {

using ApplicationId = std::int64_t;
using SessionId = std::int64_t;
using TaskId = std::int64_t;  // the store's own key, unique over all sessions

struct StoredApplication {
  ApplicationId id = 0;
  ApplicationIdentity identity;
  std::vector<std::string> launchCommand;
  std::uint64_t failedLaunches = 0;  // in a row
  double nextLaunchAt = 0;           // seconds since 1970
};

struct StoredSession {
  SessionId id = 0;
  ApplicationId application = 0;
  std::string identifier;
  bool isInvalidated = false;
};

struct StoredTask {
  TaskId id = 0;
  SessionId session = 0;
  SpoolEntry entry;
  std::string spoolName;
  bool hasLeftSpool = false;  // its spool file is gone: it may begin
  TaskStatus status;
};

struct StoredEvent {
  SessionId session = 0;
  std::uint64_t sequence = 0;
  TaskStatus task;
};

struct Contents {
  std::vector<StoredApplication> applications;
  std::vector<StoredSession> sessions;
  std::vector<StoredTask> tasks;
  std::vector<StoredEvent> events;  // by session and sequence
};

class Store {
 public:
  template <class T = void>
  using Result = std::expected<T, platform::Error>;

  virtual ~Store() = default;

  /// All of it, once, at the start.
  virtual Result<Contents> load() = 0;
  /// Adds the application, or replaces its launch command when its identity is there. Yields its id.
  virtual Result<ApplicationId> saveApplication(const ApplicationIdentity& identity,
                                                const std::vector<std::string>& launchCommand) = 0;
  virtual Result<> saveLaunches(ApplicationId application, std::uint64_t failedLaunches, double nextLaunchAt) = 0;
  /// Adds the session when it is new, and the task in it. Yields both ids.
  virtual Result<std::pair<SessionId, TaskId>> addTask(ApplicationId application, const SpoolEntry& entry,
                                                       const std::string& spoolName, const TaskStatus& status) = 0;
  virtual Result<> saveLeftSpool(TaskId task) = 0;
  /// The task's status where it is to survive: tries, next try, last error.
  virtual Result<> saveTask(TaskId task, const TaskStatus& status) = 0;
  /// The task has ended: its status and its event, in one step.
  virtual Result<> endTask(TaskId task, const TaskStatus& status, std::uint64_t sequence) = 0;
  virtual Result<> saveInvalidated(SessionId session) = 0;
  /// Forgets an event that was handed over.
  virtual Result<> removeEvent(SessionId session, std::uint64_t sequence) = 0;
  /// Forgets a session with its tasks and events.
  virtual Result<> removeSession(SessionId session) = 0;
};

}  // namespace transfer
