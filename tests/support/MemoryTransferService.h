// The transfer service in memory, stepped by hand: the twin of the real one with its socket, its folder and its program.
//
//     auto device = std::make_shared<test::TestDevice>();
//     test::TestProcess process({.device = device});
//     ... upload; process.runAll() ...
//     device->transfers->answerUpload(200);
//     process.runAll();
//
// It makes the real decisions over a store, uploads and a spool in memory, and outlives the processes that use it: a second process
// over the same device is the application's next life. Messages travel as their texts, in blocks of the process's queue
// kQueueLabel.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/TransferSessions.h"
#include "support/FixedSecureRandom.h"
#include "support/ManualClock.h"
#include "support/MemoryTransferStore.h"
#include "support/ScriptedUploads.h"
#include "support/TransferSurroundings.h"
#include "transfer/core/Service.h"

namespace test {

class MemoryTransferService : public std::enable_shared_from_this<MemoryTransferService> {
 public:
  static constexpr std::string_view kQueueLabel = "transfer service";

  explicit MemoryTransferService(std::shared_ptr<ManualClock> clock);
  ~MemoryTransferService();
  MemoryTransferService(const MemoryTransferService&) = delete;
  MemoryTransferService& operator=(const MemoryTransferService&) = delete;

  /// The background sessions of a process whose queues these are, launched for a session or not.
  std::shared_ptr<platform::BackgroundURLSessions> makeSessions(std::shared_ptr<platform::DispatchQueues> queues,
                                                                std::optional<std::string> identifierOfLaunch);

  // The service's life. It begins by itself when a process wants it, unless it was told not to.
  void setMayStart(bool mayStart);
  bool isRunning() const;
  /// As kill -9: its store and its spool stay, every connection breaks.
  void crash();
  /// Begins it, and has the links that need it connect.
  void start();
  /// Has it do what is due by the clock.
  void tick();

  // Its uploads.
  std::vector<transfer::SpoolEntry> uploads() const;
  std::size_t uploadsBegun() const;
  /// Ends the oldest; throws std::logic_error when none runs.
  void answerUpload(std::int64_t status);
  void failUpload(const platform::Error& error, bool mayBeTriedAgain = false);

  // What it did and holds.
  std::vector<RecordingLauncher::Launch> launches() const;
  void launchEnded(std::string_view session);
  transfer::Contents stored() const;
  std::vector<std::string> spooled();
  std::size_t connections() const;
  /// Messages from applications, as lines, without their hellos.
  std::vector<std::string> received() const;

  /// What becomes of the next writes into the spool, and of the reservation of numbers, while it is there.
  std::optional<platform::Error> spoolFailure;
  std::optional<platform::Error> reservationFailure;

 private:
  class Link;
  class ApplicationSpool;

  void startLocked();
  transfer::ConnectionId open(const std::shared_ptr<Link>& link);
  void arrived(transfer::ConnectionId connection, const std::string& line);
  void closed(transfer::ConnectionId connection);

  const std::shared_ptr<ManualClock> clock_;
  mutable std::mutex mutex_;  // guards all below, and is held while the service works
  bool mayStart_ = true;
  bool hasCrashed_ = false;
  FixedSecureRandom random_;
  std::shared_ptr<MemoryTransferStore::Disk> disk_ = std::make_shared<MemoryTransferStore::Disk>();
  MemorySpool spool_;
  RecordingLauncher launcher_;
  std::uint64_t lastTask_ = 0;
  std::uint64_t lastSpooled_ = 0;
  transfer::ConnectionId lastConnection_ = 0;
  std::vector<std::weak_ptr<Link>> links_;
  std::map<transfer::ConnectionId, std::shared_ptr<Link>> open_;
  std::vector<std::string> received_;
  std::size_t begunBefore_ = 0;
  // Of one life of the service.
  std::unique_ptr<MemoryTransferStore> store_;
  std::unique_ptr<ScriptedUploads> uploads_;
  std::unique_ptr<transfer::Connections> wire_;
  std::unique_ptr<transfer::Service> service_;
};

}  // namespace test
