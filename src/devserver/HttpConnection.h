// HTTP/1.1 on one connection: requests in, answers out, until one side ends it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "devserver/Api.h"
#include "devserver/TlsConnection.h"

namespace devserver {

/// Says to all connections that the server is stopping.
class StopSignal {
 public:
  void raise();
  bool isRaised() const;
  /// Waits this long; false when the server stops before.
  bool wait(std::chrono::milliseconds time);

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool raised_ = false;
};

/// Serves a connection until it ends. `number` tells connections apart in the journal.
void serveConnection(TlsConnection& connection, Api& api, StopSignal& stop, std::uint64_t number,
                     std::chrono::milliseconds idleTimeout);

}  // namespace devserver
