// URL loading by libcurl (platform rows U1 to U12).
//
// HTTP/1.1 over verified TLS. One thread runs all transfers; it starts with the first task that is resumed, and only there is the
// library initialised. Completion handlers run on a serial queue of the session's own.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/DispatchQueue.h"
#include "platform/Process.h"
#include "platform/URLSession.h"

namespace platform {

struct CurlURLSessionOptions {
  /// How long a request may go without progress from the moment when it has a connection slot.
  std::chrono::milliseconds requestTimeout{60'000};
  /// How long a task may last in all, its redirects and its waiting for a slot included.
  std::chrono::milliseconds resourceTimeout = std::chrono::days(7);
  /// The longest body that is taken, in bytes after decoding.
  std::uint64_t maxResponseBytes = 16 * 1024 * 1024;

  /// A time-out that is no positive number counts as 60 seconds.
  static CurlURLSessionOptions fromSystemOptions(const SystemOptions& options);
};

/// Reads SSL_CERT_FILE (platform row U10) and starts nothing. `queues` makes the completion queue; what leaves a handler goes to
/// its uncaught-exception service, and so does the raise for an absent handler.
///
/// Destroying the session abandons what is in flight, without a completion, and joins the thread; a handler that is already queued
/// still runs while the queue's maker lives. When the process exits, transfers stop where they are and nothing waits for them. In a
/// child made by fork the session does nothing and its destruction touches neither the thread nor the connections.
std::shared_ptr<URLSession> makeCurlURLSession(const CurlURLSessionOptions& options, DispatchQueues& queues);
inline std::shared_ptr<URLSession> makeCurlURLSession(const SystemOptions& options, DispatchQueues& queues) {
  return makeCurlURLSession(CurlURLSessionOptions::fromSystemOptions(options), queues);
}

}  // namespace platform
