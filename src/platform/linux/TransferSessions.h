// Background sessions over the transfer service: their decisions, without socket and without file (platform rows B1 to B8).
//
// What an application needs of the world is two services: a link that carries messages, and a spool that makes a task durable.
// Events run on the session's delegate queue in the order in which the service sent them, and are answered with Handed when the
// delegate operation has come back.
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/BackgroundURLSession.h"
#include "platform/Date.h"
#include "platform/DispatchQueue.h"
#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace platform {

/// Told by a link, on one thread at a time.
class TransferLinkListener {
 public:
  /// What a link is wanted for: nothing; to stay if it stands; to be made again when it breaks.
  enum class Need { kNone, kKeep, kConnect };

  virtual ~TransferLinkListener() = default;
  /// Messages get through from now on. Of what was sent on an earlier connection some may be lost.
  virtual void linkConnected() = 0;
  virtual void linkReceived(const transfer::Message& message) = 0;
  virtual void linkDisconnected() = 0;
  virtual Need linkNeed() = 0;
};

/// Carries messages between this process and the service. Any thread may call anything; nothing waits.
class TransferLink {
 public:
  virtual ~TransferLink() = default;
  /// Once, before the first connect.
  virtual void setListener(std::weak_ptr<TransferLinkListener> listener) = 0;
  /// Connects, starting the service when nobody answers, and goes on trying while the listener needs it. Nothing when it stands.
  virtual void connect() = 0;
  /// Dropped while there is no connection.
  virtual void send(transfer::Message message) = 0;
  /// The listener is told nothing any more once this has returned. Not on the listener's thread.
  virtual void stop() = 0;
};

/// Keeps what must survive this process. Any thread.
class TransferSpool {
 public:
  virtual ~TransferSpool() = default;
  /// A number that no task of this application has had, also in earlier processes.
  virtual std::expected<std::uint64_t, Error> reserveTaskIdentifier() = 0;
  /// Puts the task where the service finds it; durable when this returns. The application and its launch command are filled in.
  virtual std::expected<void, Error> write(transfer::SpoolEntry entry) = 0;
  /// Whether there are transfers that nobody works on: the service died, or has never begun. A cheap look at the disk.
  virtual bool hasInterruptedTransfers() = 0;
};

class TransferSessions final : public BackgroundURLSessions {
 public:
  struct Surroundings {
    std::shared_ptr<TransferLink> link;
    std::shared_ptr<TransferSpool> spool;
    std::shared_ptr<Clock> clock;
    std::shared_ptr<DispatchQueues> queues;
  };
  struct Settings {
    std::optional<std::string> identifierOfLaunch;
    std::optional<std::string> trustAnchors;  // a PEM file, handed on to the service
    double requestTimeout = 60;               // seconds without progress
  };

  /// Touches nothing until the first session is made. A session that is being invalidated is given again until its last delegate
  /// operation has returned. A task's cancel() cancels all tasks of the session that were resumed: a session here has one.
  TransferSessions(Surroundings surroundings, Settings settings);
  /// Stops the link and drops the sessions with their delegates; what they are asked later does nothing.
  ~TransferSessions() override;
  TransferSessions(const TransferSessions&) = delete;
  TransferSessions& operator=(const TransferSessions&) = delete;

  BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const URLSessionConfiguration& configuration,
                                                                        std::shared_ptr<URLSessionDelegate> delegate,
                                                                        std::shared_ptr<DispatchQueue> delegateQueue) override;
  std::optional<std::string> identifierOfLaunch() override;
  void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) override;
  void goOnWithInterruptedTransfers() override;

 private:
  class Core;
  class Session;
  class Task;

  std::shared_ptr<Core> core_;
};

}  // namespace platform
