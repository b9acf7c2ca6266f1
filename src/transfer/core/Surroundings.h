// What the service's decisions reach the world through: uploads, launches, connections, the spool folder.
//
// All of it is called on the service's one thread and returns at once; outcomes come back through the Service's own operations, on
// the same thread, never from inside one of these calls.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "transfer/core/Store.h"
#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace transfer {

using ConnectionId = std::uint64_t;

/// How one try of an upload ended.
struct UploadOutcome {
  std::optional<platform::Error> error;  // absent: there is an answer
  std::int64_t statusCode = 0;
  std::uint64_t bytesSent = 0;
  std::uint64_t bytesExpected = 0;  // 0: not known
  /// The error's own word on whether waiting can help; only read when there is an error.
  bool mayBeTriedAgain = false;
};

class Uploads {
 public:
  virtual ~Uploads() = default;
  /// Begins one try. Its outcome comes as Service::uploadEnded, once, unless it is stopped before.
  virtual void start(TaskId task, const SpoolEntry& entry) = 0;
  /// Gives the try up; no outcome comes after it.
  virtual void stop(TaskId task) = 0;
};

class Launcher {
 public:
  virtual ~Launcher() = default;
  /// Starts the command for the session, without a shell. Its end comes as Service::launchEnded. Fails when it cannot be started.
  virtual std::expected<void, platform::Error> launch(ApplicationId application, const std::vector<std::string>& command,
                                                      const std::string& session,
                                                      const std::optional<std::string>& trustAnchors) = 0;
};

class Connections {
 public:
  virtual ~Connections() = default;
  virtual void send(ConnectionId connection, const Message& message) = 0;
  /// Closes it once what was sent is out. Service::connectionClosed comes for it as well.
  virtual void close(ConnectionId connection) = 0;
};

class Spool {
 public:
  virtual ~Spool() = default;
  /// Names of the entries that wait, in the order in which they were put there as far as that is known.
  virtual std::vector<std::string> names() = 0;
  /// Fails with kFileReadNoSuchFile when the entry is gone, with kFileReadNoPermission when it never may be taken; any other
  /// failure may pass.
  virtual std::expected<std::string, platform::Error> read(const std::string& name) = 0;
  /// Removes an entry for good (the folder is synced); succeeds when it is gone already.
  virtual std::expected<void, platform::Error> remove(const std::string& name) = 0;
  /// Puts an entry that cannot be understood aside, where a person finds it.
  virtual void setAside(const std::string& name, std::string_view reason) = 0;
};

/// Told of each step by its name, right after it; for tests that end the process there. The steps:
///   imported         a task of the spool folder is in the store, its file still there
///   spool-removed    the file is gone from the spool folder, the store does not say so yet
///   left-spool       the store says so; the task may begin
///   began            a try has begun
///   try-ended        a try has ended, nothing of its outcome is stored
///   try-failed       the store knows that the try failed and when the next one is due
///   ended            the store knows that the task has ended, and holds its event
///   event-sent       an event was handed to the process that holds the session
///   handed           the store has forgotten an event that was handed over
///   delivered        the process was told that all stored events are handed over
///   invalidated      the store knows that the session is to end; its tasks are not ended yet
///   launch-recorded  the store knows of a launch that is about to be made
///   launched         an application was launched
///   launch-failed    an application could not be launched, or its process ended without having handed over
///   forgotten        the store has forgotten a session
using StepHook = void (*)(std::string_view step);

}  // namespace transfer
