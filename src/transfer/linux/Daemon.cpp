// The service's life between its start and its end.
#include "transfer/linux/Daemon.h"

#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "platform/Process.h"
#include "platform/SystemLog.h"
#include "transfer/linux/DieAt.h"

namespace transfer {
namespace {

using std::chrono::milliseconds;

/// The folder and the clock are looked at this often whatever else happens: a wake-up may be lost, and the clock may be set.
constexpr milliseconds kLongestWait = std::chrono::seconds(30);
constexpr milliseconds kShortestWait{50};

CurlUploads::Options uploadOptions() {
  CurlUploads::Options options;
  options.stepHook = dieAt;
  return options;
}

ServiceOptions serviceOptions(const Options& options) {
  ServiceOptions made;
  made.maxUploadsAtOnce = options.maxUploads;
  made.idleTime = options.idleSeconds;
  made.stepHook = dieAt;
  return made;
}

milliseconds longestWait(const Options& options) {
  return std::clamp(milliseconds(static_cast<std::int64_t>(std::min(options.idleSeconds, 30.0) * 1000)), kShortestWait,
                    kLongestWait);
}

}  // namespace

Daemon::Daemon(const platform::TransferDirectory& directory, Store& store, const Options& options)
    : longestWait_(longestWait(options)),
      spool_(directory.spool()),
      uploads_(
          loop_,
          {[this](TaskId task, std::uint64_t sent, std::uint64_t expected) { service_.uploadProgressed(task, sent, expected); },
           [this](TaskId task, const UploadOutcome& outcome) { service_.uploadEnded(task, outcome); }},
          uploadOptions()),
      launcher_(loop_, directory.path(),
                [this](ApplicationId application, const std::string& session) { service_.launchEnded(application, session); }),
      server_(loop_, directory,
              {[this](ConnectionId id) { service_.connectionOpened(id); },
               [this](ConnectionId id, const Message& message) { service_.messageArrived(id, message); },
               [this](ConnectionId id, const std::string& reason) { service_.garbageArrived(id, reason); },
               [this](ConnectionId id) { service_.connectionClosed(id); }}),
      service_(store, uploads_, launcher_, server_, spool_, *platform::Process::current().clock,
               *platform::Process::current().secureRandom, serviceOptions(options)) {}

std::expected<void, platform::Error> Daemon::run(const std::function<void()>& listening) {
  watchSignals();
  watchSpool();
  spool_.removeLeftovers();
  if (const auto started = service_.start(); !started) return std::unexpected(started.error());
  if (const auto listens = server_.listen(); !listens) return std::unexpected(listens.error());
  lastTick_ = SteadyClock::now();
  listening();
  while (!isStopped_) {
    loop_.turn(timeToWait());
    if (isTickDue()) tick();
    if (service_.mayEnd() && end()) break;
  }
  return {};
}

void Daemon::watchSignals() {
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGTERM);
  sigaddset(&stopping, SIGINT);
  signals_ = platform::FileDescriptor(signalfd(-1, &stopping, SFD_CLOEXEC | SFD_NONBLOCK));
  loop_.watch(signals_.get(), EPOLLIN, [this](std::uint32_t) { isStopped_ = true; });
}

/// Without it a task waits until its application wakes the service, or until the next look; so its failure is of no account.
void Daemon::watchSpool() {
  spoolWatch_ = platform::FileDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!spoolWatch_.isOpen()) return;
  if (inotify_add_watch(spoolWatch_.get(), spool_.folder().c_str(), IN_MOVED_TO | IN_ONLYDIR) < 0) return;
  loop_.watch(spoolWatch_.get(), EPOLLIN, [this](std::uint32_t) {
    std::array<char, 4096> events;
    while (read(spoolWatch_.get(), events.data(), events.size()) > 0) {
    }
    lookNow_ = true;
  });
}

bool Daemon::isTickDue() const {
  if (lookNow_ || SteadyClock::now() - lastTick_ >= kLongestWait) return true;
  const auto deadline = service_.nextDeadline();
  return deadline && *deadline <= platform::Date::date();
}

void Daemon::tick() {
  lookNow_ = false;
  lastTick_ = SteadyClock::now();
  service_.tick();
  server_.tick();
}

milliseconds Daemon::timeToWait() const {
  const auto deadline = service_.nextDeadline();
  if (!deadline) return longestWait_;
  const double seconds = deadline->timeIntervalSinceDate(platform::Date::date());
  if (!(seconds > 0)) return milliseconds(0);
  return std::min(longestWait_, milliseconds(static_cast<std::int64_t>(std::ceil(std::min(seconds, 3600.0) * 1000))));
}

/// The order keeps a task from being left behind: whoever finds no socket starts a service of its own, which waits for the lock.
bool Daemon::end() {
  const bool isLast = server_.stopListening();
  if (isLast && spool_.names().empty()) return true;
  const auto listens = server_.listen();
  if (!listens) platform::SystemLog::systemLog().log(listens.error().localizedDescription());
  lookNow_ = true;
  return !listens;
}

}  // namespace transfer
