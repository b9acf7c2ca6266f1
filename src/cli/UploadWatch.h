// Watches the client's background sessions from outside: which it makes, and how their uploads end.
//
// The wrapper stands around the platform's sessions; the client knows nothing of it. An end is told after the client has dealt with
// it and before the service hears that it was handed over, so what the listener has noted by then is never lost.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/BackgroundURLSession.h"
#include "platform/Error.h"

namespace cli {

struct UploadEnd {
  std::string session;
  std::optional<platform::Error> error;
};

/// Any thread.
class UploadWatch {
 public:
  using Listener = std::function<void(const UploadEnd&)>;

  /// Before the first session is made. Runs on the session's delegate queue.
  void setListener(Listener listener) { listener_ = std::move(listener); }
  /// For the end of a command: the listener is not called any more when this returns. An end that comes from now on is left to a
  /// later process: its delegate operation never begins and never returns.
  void close();

  void made(const std::string& session);
  /// Has the client deal with an end, then the listener.
  void hand(const UploadEnd& end, const std::function<void()>& operation);
  void delivered();

  /// The session that was made last.
  std::optional<std::string> lastSession() const;
  /// How the session's upload ended, once the listener has been told.
  std::optional<UploadEnd> endOf(const std::string& session) const;
  std::vector<UploadEnd> ends() const;
  /// Waits so many seconds for a change: an end, or delivered().
  void waitForChange(double seconds);
  bool isDelivered() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t changes_ = 0;
  std::uint64_t seen_ = 0;  // of the changes, by whoever waits
  bool isDelivered_ = false;
  std::optional<std::string> lastSession_;
  std::vector<UploadEnd> ends_;
  std::mutex handing_;  // held while an end is dealt with
  bool isClosed_ = false;
  Listener listener_;
};

/// Closes at the end of a scope.
class UploadWatchScope {
 public:
  explicit UploadWatchScope(std::shared_ptr<UploadWatch> watch) : watch_(std::move(watch)) {}
  ~UploadWatchScope() { watch_->close(); }
  UploadWatchScope(const UploadWatchScope&) = delete;
  UploadWatchScope& operator=(const UploadWatchScope&) = delete;

 private:
  const std::shared_ptr<UploadWatch> watch_;
};

std::shared_ptr<platform::BackgroundURLSessions> observe(std::shared_ptr<platform::BackgroundURLSessions> sessions,
                                                         std::shared_ptr<UploadWatch> watch);

}  // namespace cli
