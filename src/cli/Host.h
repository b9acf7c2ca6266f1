// The host application inside the command: starts the SDK on the real services, watched from outside, and keeps the account.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cli/Activity.h"
#include "cli/Options.h"
#include "cli/QueueInspection.h"
#include "companions/KSVDelegate.h"
#include "companions/Kestrova.h"
#include "platform/Value.h"

namespace cli {

/// What became of the events of one run.
struct Account {
  std::uint64_t recorded = 0;                    // reported to the SDK in this run
  std::uint64_t waiting = 0;                     // found in the queue file at the start
  std::uint64_t delivered = 0;                   // answered by the server
  std::uint64_t kept = 0;                        // in the queue file at the end
  std::uint64_t lost = 0;                        // in none of these places
  std::map<std::string, std::uint64_t> reasons;  // why something was kept or lost, and how often
  bool interrupted = false;                      // by a signal
  bool inputUnread = false;                      // the time was up before the input had been read to its end

  ExitStatus exitStatus(bool badInput) const;
};

class Host {
 public:
  /// Installs the real services. Must be the first thing that touches the platform.
  explicit Host(const Options& options);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Waits until no other command uses the same home, then starts the SDK: from here on events can be reported. What is wrong, when
  /// the home cannot be used or stays in use until the time is up.
  std::expected<void, std::string> start();

  void report(const std::string& event, std::optional<platform::Dictionary> data);
  /// Holds the caller back while much is under way; false when it is time to stop.
  bool keepPace();
  /// Sends what is left in memory and waits for every outcome; when the time is up or the user asks to stop, sends what is in
  /// memory and cancels every request, so that the client writes it back.
  void finish();
  /// Sends until the queue file is empty or a send failed, then finishes.
  void flush();

  Account account() const;
  const std::shared_ptr<Activity>& activity() const { return activity_; }
  std::uint64_t recorded() const { return recorded_; }
  /// What the server told the host in this run, by the directive's name.
  platform::Dictionary directives() const;

 private:
  class Delegate;

  std::expected<void, std::string> holdHome();
  void watchTrace();
  void sendAndWait();
  void stopAndWriteBack();
  double timeLeft() const;
  void rememberFeatures();

  Options options_;
  std::shared_ptr<Activity> activity_ = std::make_shared<Activity>();
  std::shared_ptr<Kestrova> kestrova_;
  std::shared_ptr<Delegate> delegate_;
  std::uint64_t recorded_ = 0;
  std::uint64_t waiting_ = 0;
  int home_ = -1;                                                  // a descriptor of the application's folder, locked
  bool timeIsUp_ = false;                                          // while the input was being read
  std::optional<std::chrono::steady_clock::time_point> deadline_;  // from the first wait for outcomes on

  mutable std::mutex mutex_;  // guards what the trace listener and the delegate write
  std::map<std::string, std::uint64_t> reasons_;
  std::uint64_t resubmissions_ = 0;
  platform::Dictionary directives_;
};

/// User-defaults keys under which this host remembers what the server switched off, for the status command.
inline constexpr const char* kFeaturesDefault = "kestrova.command.remotelyDisabledFeatures";
inline constexpr const char* kReasonsDefault = "kestrova.command.remotelyDisabledReasons";

}  // namespace cli
