// The host application inside the command: starts the SDK on the real services, watched from outside, and keeps the account.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/Activity.h"
#include "cli/Options.h"
#include "cli/QueueInspection.h"
#include "cli/UploadWatch.h"
#include "companions/KSVDelegate.h"
#include "companions/Kestrova.h"
#include "platform/Process.h"
#include "platform/Value.h"

class KSVData;

namespace cli {

/// What the platform is made from: where the state lies, and how the transfer service launches this program.
platform::SystemOptions systemOptionsOf(const Options& options);

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
  std::optional<std::string> queueFault;         // why the queue file could not be read at the end: kept and lost are not known

  ExitStatus exitStatus(bool badInput) const;
};

/// What can be said of the outcome of anything but events.
struct Outcome {
  bool delivered = false;                        // the last request was answered with a status below 400
  bool interrupted = false;                      // by a signal
  std::optional<std::string> referralCode;       // of a share that was submitted
  std::map<std::string, std::uint64_t> reasons;  // why something did not go well, and how often
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
  /// As start without the wait, for what leaves the events and their queue alone.
  void startBesideOthers();

  void report(const std::string& event, std::optional<platform::Dictionary> data);
  /// Holds the caller back while much is under way; false when it is time to stop.
  bool keepPace();
  /// Sends what is left in memory and waits for every outcome; when the time is up or the user asks to stop, sends what is in
  /// memory and cancels every request, so that the client writes it back.
  void finish();
  /// Sends until the queue file is empty or a send failed, then finishes.
  void flush();

  /// What shares, patches and matches are asked of; after start.
  KSVData& data() const { return *kestrova_->data(); }
  /// Waits for the outcome of what was asked of data(); when the time is up or the user asks to stop, cancels every request. False
  /// then.
  bool waitForOutcome();
  Outcome outcome() const;

  Account account() const;
  /// Keeps for the doctor why events were kept or lost, or forgets it when none were.
  void rememberFailure(const Account& account);
  const std::shared_ptr<Activity>& activity() const { return activity_; }
  const std::shared_ptr<UploadWatch>& uploads() const { return uploads_; }
  /// Is told each line of the trace; before the start.
  void setTraceListener(std::function<void(std::string_view line)> listener) { traceListener_ = std::move(listener); }
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
  std::shared_ptr<UploadWatch> uploads_ = std::make_shared<UploadWatch>();
  std::function<void(std::string_view line)> traceListener_;
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
  std::optional<std::string> referralCode_;
  platform::Dictionary directives_;
};

/// User-defaults keys under which this host remembers what the server switched off, for the status command, and why the last run
/// that sent something left events behind, for the doctor.
inline constexpr const char* kFeaturesDefault = "kestrova.command.remotelyDisabledFeatures";
inline constexpr const char* kReasonsDefault = "kestrova.command.remotelyDisabledReasons";
inline constexpr const char* kLastFailureDefault = "kestrova.command.lastFailure";

}  // namespace cli
