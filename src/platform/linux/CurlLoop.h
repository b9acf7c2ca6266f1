// The thread that runs a session's transfers: connection slots, redirects, time-outs.
//
// Other threads only put jobs into an inbox, under a mutex that is held for that alone, and wake the loop.
#pragma once

#include <curl/curl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <expected>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/linux/CurlTransfer.h"

namespace platform {

/// What a loop works on.
class CurlLoad {
 public:
  virtual ~CurlLoad() = default;
  virtual const URLRequest& request() const = 0;
  virtual bool isCancelled() const = 0;
  /// Stands in for the request's body, where the request has one; null: the body is the request's own. Must live as long as the
  /// load.
  virtual HTTPBodySource* bodySource() { return nullptr; }
  /// In the place of the loop's own; asked for once.
  virtual std::optional<std::chrono::milliseconds> requestTimeout() const { return std::nullopt; }
  virtual std::optional<std::string> trustAnchorsFile() const { return std::nullopt; }
  /// Called once, on the loop's thread; never when the loop was stopped before.
  virtual void finish(std::expected<HTTPAnswer, Error> outcome) = 0;
};

/// A proxy of the environment is used, as the field's tools have it, but never for this machine itself.
std::string hostsWithoutProxyFromEnvironment();

/// An environment variable's text; absent when it is not set, is empty, or must not be trusted (the program has more rights than
/// whoever started it).
std::optional<std::string> trustedEnvironmentText(const char* name);

class CurlLoop : public std::enable_shared_from_this<CurlLoop> {
 public:
  struct Settings {
    std::chrono::milliseconds requestTimeout{};
    std::chrono::milliseconds resourceTimeout{};
    std::uint64_t maxResponseBytes = 0;
    std::optional<std::string> trustAnchorsFile;
    std::string hostsWithoutProxy = hostsWithoutProxyFromEnvironment();
    bool keepsCookies = true;
    bool keepsAnswerBodies = true;
  };

  /// Starts no thread.
  explicit CurlLoop(Settings settings) : settings_(std::move(settings)) {}
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;

  /// Any thread; returns at once. The first one starts the loop's thread.
  void start(std::shared_ptr<CurlLoad> load);
  /// Ends the load with -999 unless it has ended. Any thread; returns at once.
  void cancel(std::shared_ptr<CurlLoad> load);
  /// Drops every load and joins the thread; later jobs are dropped.
  void stop();

 private:
  class Run;

  struct Job {
    enum class Kind { kStart, kCancel } kind;
    std::shared_ptr<CurlLoad> load;
  };

  // In a child made by fork there is no thread and the mutex may stay locked for ever.
  bool isHere() const;
  void submit(Job job);
  void startThread();
  static void* threadMain(void* argument);

  const Settings settings_;
  const pid_t process_ = getpid();

  std::mutex mutex_;
  std::vector<Job> inbox_;
  bool stopping_ = false;
  bool hasThread_ = false;
  pthread_t thread_{};
  CURLM* awake_ = nullptr;  // what to wake; null while the thread is not in its loop
};

}  // namespace platform
