// A look into the transfer service from outside: what it has of this application, and the end of an upload on request.
//
// It speaks the service's protocol over a socket of its own and waits for each answer, so it is for programs that show or steer
// uploads, never for a host's threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Process.h"
#include "platform/linux/FileDescriptor.h"
#include "transfer/protocol/Messages.h"

namespace platform {

/// Used by one thread at a time. Every call ends after kPatience at the latest, and after as long again when it starts the service.
/// Failures are errors of kPOSIXErrorDomain, or those of the file rules for the application's own folder.
class TransferInspection {
 public:
  static constexpr std::chrono::milliseconds kPatience{10'000};

  struct Session {
    std::string identifier;
    std::vector<transfer::TaskStatus> tasks;  // by identifier
  };
  using Sessions = std::vector<Session>;

  /// Touches nothing.
  explicit TransferInspection(SystemOptions options);

  /// The application's sessions; absent when no service runs and no upload waits for one. Starts the service when one does.
  std::expected<std::optional<Sessions>, Error> sessions();
  /// As sessions, and starts the service in any case.
  std::expected<Sessions, Error> sessionsOfStartedService();
  /// Ends the session's uploads that have not ended; fails with ENOENT when the service knows no such session.
  std::expected<void, Error> cancel(const std::string& session);

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  std::expected<void, Error> connect(bool startsService);
  /// Whether an upload of the application waits for the service.
  bool isNeeded() const;
  std::expected<FileDescriptor, int> connectedSocket() const;
  std::expected<void, Error> startAndConnect();
  std::expected<void, Error> greet();
  std::expected<Sessions, Error> list();
  std::expected<void, Error> send(const transfer::Message& message);
  std::expected<transfer::Message, Error> receive(Deadline deadline);
  std::unexpected<Error> failure(Error error);

  const SystemOptions options_;
  const std::optional<std::string> directory_;
  FileDescriptor socket_;
  transfer::MessageReader reader_;
  std::uint64_t lastRequest_ = 0;
};

}  // namespace platform
