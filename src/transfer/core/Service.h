// The decisions of the transfer service: which upload begins, which is tried again and when, who is told, who is launched, what is
// forgotten.
//
// One thread, no lock, no clock and no timer of its own: whoever runs it calls tick() at nextDeadline() at the latest, and hands in
// what happened. The store is written before the world is told.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Date.h"
#include "platform/SecureRandom.h"
#include "transfer/core/Store.h"
#include "transfer/core/Surroundings.h"

namespace transfer {

struct ServiceOptions {
  std::size_t maxUploadsAtOnce = 8;
  double firstRetryWait = 2;             // seconds; doubled with each try
  double longestRetryWait = 15.0 * 60;   // seconds
  double resourceTimeout = 7.0 * 86400;  // seconds from the task's resume
  double firstLaunchWait = 5;            // seconds after a launch that failed; doubled with each in a row
  double longestLaunchWait = 60.0 * 60;
  double reconnectTime = 1;  // seconds after the start in which a running application comes back, and none is launched
  double helloTime = 10;     // seconds that a connection has to say who it is
  double idleTime = 60;      // seconds with nothing to do after which the service may end
  StepHook stepHook = nullptr;
};

class Service {
 public:
  /// All references must outlive the service.
  Service(Store& store, Uploads& uploads, Launcher& launcher, Connections& connections, Spool& spool, platform::Clock& clock,
          platform::SecureRandom& random, ServiceOptions options);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Reads the store and the spool folder and goes on with what is unfinished. Fails when the store cannot be read.
  Store::Result<> start();

  // What happened.
  void connectionOpened(ConnectionId connection);
  void messageArrived(ConnectionId connection, const Message& message);
  /// What came was no message; the connection is refused.
  void garbageArrived(ConnectionId connection, const std::string& reason);
  void connectionClosed(ConnectionId connection);
  /// Kept in memory only. `bytesExpected` 0: not known.
  void uploadProgressed(TaskId task, std::uint64_t bytesSent, std::uint64_t bytesExpected = 0);
  void uploadEnded(TaskId task, const UploadOutcome& outcome);
  /// The process that was launched has ended. `session` is the one that it was launched for; it tells a process that lingers after
  /// its launch is over from the one of a later launch, and may be left out where there is never more than one.
  void launchEnded(ApplicationId application, const std::string& session = {});
  /// Does what is due now: the spool folder, retries, time-outs, launches, store writes that had failed.
  void tick();

  /// When tick() has something to do next, or mayEnd() becomes true; absent when nothing is due before something happens.
  std::optional<platform::Date> nextDeadline() const;
  /// Nothing unfinished, nothing to hand over to an application that could be launched for it, nobody connected, since idleTime.
  bool mayEnd() const;

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace transfer
