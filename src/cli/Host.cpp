// The host application inside the command.
#include "cli/Host.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "cli/HomeFolder.h"
#include "cli/Report.h"
#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVFeatureControl.h"
#include "companions/KSVUtils.h"
#include "platform/Date.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"
#include "platform/Process.h"
#include "platform/UserDefaults.h"

namespace cli {
namespace {

// Reporting goes on while no more than this is under way, so that memory stays bounded however long the input is.
constexpr std::uint64_t kMaxRequestsUnderWay = 6;
constexpr std::uint64_t kMaxWorkUnderWay = 1000;

// Writing back what was cancelled needs no network; this bounds a disk that hangs.
constexpr double kWriteBackLimit = 30;  // seconds

// Trace lines of things that went well; every other line is a reason.
constexpr auto kRoutine = std::to_array<std::string_view>(
    {"Events successfully sent to server", "Writing ", "Read ", "Loading events from file", "No events on disk",
     "Couldn't find any events to send to server", "Adjusting local time", "Re-submitting", "Got userId", "Got url Path",
     "Got matchQuality", "Truncating file on disk", "Got referral code", "Updating shares: ", "Patching previous session-started",
     "HTTP Response: ", "Starting GIF upload: ", "Launching in background: ", "Background session completed"});

// After it the trace has the whole code; the delegate is told its first part alone.
constexpr std::string_view kReferralCodeLine = "Got referral code through gif upload: ";

bool isRoutine(std::string_view line) {
  if (line.starts_with("Got ") && line.find("notification(s)") != std::string_view::npos) return true;
  if (line.starts_with("Task ") && line.ends_with(" completed")) return true;
  return std::ranges::any_of(kRoutine, [&](std::string_view start) { return line.starts_with(start); });
}

/// The first line, without the response's header fields, which differ from one answer to the next.
std::string summary(std::string_view line) {
  line = line.substr(0, line.find('\n'));
  line = line.substr(0, line.find(", Headers {"));
  constexpr std::size_t kLongest = 300;
  return std::string(line.substr(0, kLongest));
}

}  // namespace

ExitStatus Account::exitStatus(bool badInput) const {
  if (queueFault) return kFailed;
  if (lost > 0 || inputUnread) return kLost;
  if (kept > 0) return kKept;
  return badInput ? kBadInput : kDelivered;
}

class Host::Delegate final : public KSVDelegate {
 public:
  explicit Delegate(Host& host) : host_(host) {}
  void setUserId(const platform::Value& userId) override { note(userId, "userId"); }
  void setAppIdentifier(const platform::Value& appIdentifier) override { note(appIdentifier, "appIdentifier"); }
  void handleEventsFromServer(const platform::Value& notifications) override { note(notifications, "notifications"); }

 private:
  void note(const platform::Value& value, const char* directive) {
    const std::lock_guard lock(host_.mutex_);
    host_.directives_.setObjectForKey(value, directive);
  }
  Host& host_;
};

platform::SystemOptions systemOptionsOf(const Options& options) {
  platform::SystemOptions system;
  system.bundleIdentifier = options.bundleId;
  system.homeDirectory = options.home;
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return system;
  // Of the options only those that name the application: outcomes are taken without a secret, and without a request.
  system.launchCommand = {program.string()};
  for (const auto& [name, value] : {std::pair("--bundle-id", options.bundleId), std::pair("--home", options.home)})
    if (value) system.launchCommand.insert(system.launchCommand.end(), {name, *value});
  system.launchCommand.emplace_back("handle-events");
  return system;
}

Host::Host(const Options& options) : options_(options) {
  std::unique_ptr<platform::Process> process = platform::makeSystemProcess(systemOptionsOf(options));
  process->queues = observe(process->queues, activity_);
  process->urlSession = observe(process->urlSession, activity_);
  process->backgroundSessions = observe(process->backgroundSessions, uploads_);
  platform::Process::install(std::move(process));
}

Host::~Host() {
  if (kestrova_) KSVDebugger::sharedDebugger()->setListener(nullptr);
  if (home_ >= 0) close(home_);
}

std::expected<void, std::string> Host::holdHome() {
  // The queue file is made for one process: two that append and load at once lose and double each other's records.
  const auto folder = platform::FileManager::defaultManager().applicationSupportDirectory();
  if (!folder) return std::unexpected(folderFault(options_));
  home_ = open(folder->path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (home_ < 0) return std::unexpected("cannot open " + folder->path() + ": " + std::strerror(errno));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(options_.timeout);
  for (bool isTold = false; flock(home_, LOCK_EX | LOCK_NB) != 0; isTold = true) {
    if (errno != EWOULDBLOCK) break;  // a file system without locks
    if (!isTold) printError("another kestrova uses " + folder->path() + "; waiting for its end");
    if (activity_->interrupted()) return std::unexpected("stopped before anything was done");
    if (std::chrono::steady_clock::now() > deadline)
      return std::unexpected("another kestrova still uses " + folder->path() + "; wait longer with --timeout");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return {};
}

std::expected<void, std::string> Host::start() {
  if (auto held = holdHome(); !held) return held;
  const auto queue = inspectQueue();
  if (!queue) return std::unexpected("cannot read the queue: " + queue.error().localizedDescription());
  waiting_ = queue->records;
  startBesideOthers();
  return {};
}

void Host::startBesideOthers() {
  watchTrace();
  Kestrova::Configuration configuration;
  configuration.secret = options_.secret;
  configuration.apiHost = options_.apiHost;
  configuration.apiVersion = options_.apiVersion;
  configuration.debug = true;  // the trace gives the reasons
  kestrova_ = Kestrova::start(std::move(configuration));
  delegate_ = std::make_shared<Delegate>(*this);
  kestrova_->setDelegate(delegate_);
}

void Host::watchTrace() {
  KSVDebugger::sharedDebugger()->setListener([this](std::string_view line) {
    if (options_.debug) (void)std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    if (traceListener_) traceListener_(line);
    const std::lock_guard lock(mutex_);
    if (line.starts_with("Re-submitting")) ++resubmissions_;
    if (line.starts_with(kReferralCodeLine)) referralCode_ = line.substr(kReferralCodeLine.size());
    if (line.starts_with("Truncating file on disk")) ++reasons_["The queue file was over its limit and lost its oldest records"];
    if (!isRoutine(line)) ++reasons_[summary(line)];
  });
}

void Host::report(const std::string& event, std::optional<platform::Dictionary> data) {
  ++recorded_;
  kestrova_->data()->createEventWithData(event, std::move(data));
}

bool Host::keepPace() {
  // One send at a time until the server takes something, and again once it stops to: writing back and loading then never overlap.
  const bool serverTakes = activity_->traffic().lastWasDelivered;
  const bool inTime =
      activity_->waitUntilAtMost(serverTakes ? kMaxRequestsUnderWay : 0, serverTakes ? kMaxWorkUnderWay : 0, options_.timeout);
  timeIsUp_ = !inTime && !activity_->interrupted();
  return inTime;
}

double Host::timeLeft() const {
  return std::max(0.0, std::chrono::duration<double>(*deadline_ - std::chrono::steady_clock::now()).count());
}

void Host::sendAndWait() {
  if (!deadline_) {
    deadline_ = std::chrono::steady_clock::now() +
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(options_.timeout));
  }
  kestrova_->data()->sendEventQueueToServer();
  activity_->waitUntilAtMost(0, 0, timeLeft());
}

void Host::stopAndWriteBack() {
  constexpr auto kIgnore = Activity::Interrupts::kIgnore;
  kestrova_->data()->sendEventQueueToServer();
  activity_->waitUntilAtMost(UINT64_MAX, 0, kWriteBackLimit, kIgnore);
  activity_->cancelTasks();
  activity_->waitUntilAtMost(0, 0, kWriteBackLimit, kIgnore);
}

void Host::finish() {
  if (!timeIsUp_) sendAndWait();
  if (timeIsUp_ || !activity_->isIdle()) stopAndWriteBack();
  rememberFeatures();
}

void Host::flush() {
  while (!activity_->interrupted()) {
    const auto before = inspectQueue();
    if (!before || before->bytes == 0) break;
    const Traffic trafficBefore = activity_->traffic();
    sendAndWait();
    const Traffic traffic = activity_->traffic();
    const auto after = inspectQueue();
    const bool failed = traffic.requests > trafficBefore.requests && traffic.delivered == trafficBefore.delivered;
    if (failed || !activity_->isIdle() || !after || after->bytes >= before->bytes) break;
  }
  if (!activity_->isIdle()) stopAndWriteBack();
  rememberFeatures();
}

void Host::rememberFeatures() {
  const auto features = KSVFeatureControl::sharedFeatureControl();
  auto& defaults = platform::UserDefaults::standardUserDefaults();
  const std::int64_t disabled = features->remotelyDisabledFeatures();
  const auto reasons = features->reasons();
  if (disabled == 0 && !reasons) return;
  {
    const std::lock_guard lock(mutex_);
    directives_.setObjectForKey(platform::Value(disabled), "features");
    if (reasons) directives_.setObjectForKey(*reasons, "reasons");
  }
  defaults.setObjectForKey(platform::Value(disabled), kFeaturesDefault);
  // As text, because the server may have sent what user defaults do not take.
  defaults.setObjectForKey(reasons ? std::optional<platform::Value>(reasons->description()) : std::nullopt, kReasonsDefault);
}

bool Host::waitForOutcome() {
  if (activity_->waitUntilAtMost(0, 0, options_.timeout)) return true;
  activity_->cancelTasks();
  activity_->waitUntilAtMost(0, UINT64_MAX, kWriteBackLimit, Activity::Interrupts::kIgnore);
  return false;
}

Outcome Host::outcome() const {
  Outcome outcome;
  const Traffic traffic = activity_->traffic();
  outcome.delivered = traffic.lastWasDelivered;
  outcome.interrupted = activity_->interrupted();
  const std::lock_guard lock(mutex_);
  outcome.referralCode = referralCode_;
  outcome.reasons = reasons_;
  if (traffic.challenges > resubmissions_) {
    outcome.reasons
        ["The server refused the signature (401) and sent no time that could be trusted: check the secret and the application's "
         "identifier"] = traffic.challenges - resubmissions_;
  }
  return outcome;
}

platform::Dictionary Host::directives() const {
  const std::lock_guard lock(mutex_);
  return directives_;
}

Account Host::account() const {
  Account account;
  const Traffic traffic = activity_->traffic();
  account.recorded = recorded_;
  account.waiting = waiting_;
  account.delivered = traffic.delivered;
  account.interrupted = activity_->interrupted();
  account.inputUnread = timeIsUp_;
  if (const auto queue = inspectQueue()) {
    account.kept = queue->records;
    const std::uint64_t found = account.delivered + account.kept;
    const std::uint64_t all = recorded_ + waiting_;
    account.lost = all > found ? all - found : 0;
  } else {
    account.queueFault = queue.error().localizedDescription();
  }

  const std::lock_guard lock(mutex_);
  account.reasons = reasons_;
  if (traffic.challenges > resubmissions_) {
    account.reasons
        ["The server refused a batch's signature (401) and sent no time that could be trusted, so the batch was dropped: check the "
         "secret "
         "and the application's identifier"] = traffic.challenges - resubmissions_;
  }
  return account;
}

void Host::rememberFailure(const Account& account) {
  auto& defaults = platform::UserDefaults::standardUserDefaults();
  if (account.reasons.empty()) return defaults.setObjectForKey(std::nullopt, kLastFailureDefault);
  std::string story =
      KSVUtils::getIso8601(platform::Date::date()) + ": " + fmt::format("{} kept, {} lost", account.kept, account.lost);
  for (const auto& [reason, count] : account.reasons) story += "; " + reason;
  defaults.setObjectForKey(platform::Value(story), kLastFailureDefault);
}

}  // namespace cli
