// The service put together: its decisions over the real world, on one thread.
#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <memory>

#include "platform/Error.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"
#include "transfer/core/Service.h"
#include "transfer/linux/CurlUploads.h"
#include "transfer/linux/EventLoop.h"
#include "transfer/linux/Options.h"
#include "transfer/linux/PosixSpool.h"
#include "transfer/linux/ProcessLauncher.h"
#include "transfer/linux/SocketServer.h"

namespace transfer {

class Daemon {
 public:
  /// The caller holds the folder's lock, has blocked SIGTERM and SIGINT in every thread, and has put a platform record in force.
  /// Folder and store must outlive the daemon.
  Daemon(const platform::TransferDirectory& directory, Store& store, const Options& options);

  /// Runs until it is told to end or has been idle for long enough. `listening` is called when the socket answers. Fails when it
  /// cannot begin.
  std::expected<void, platform::Error> run(const std::function<void()>& listening);

 private:
  using SteadyClock = std::chrono::steady_clock;

  void watchSignals();
  void watchSpool();
  bool isTickDue() const;
  void tick();
  std::chrono::milliseconds timeToWait() const;
  bool end();

  const std::chrono::milliseconds longestWait_;
  EventLoop loop_;
  platform::FileDescriptor signals_;
  platform::FileDescriptor spoolWatch_;
  PosixSpool spool_;
  CurlUploads uploads_;
  ProcessLauncher launcher_;
  SocketServer server_;
  Service service_;
  bool isStopped_ = false;
  bool lookNow_ = false;  // the spool folder has changed
  SteadyClock::time_point lastTick_;
};

}  // namespace transfer
