// Launches of applications for events that nobody is there to hear of.
//
// An application with an open connection is running, whatever it holds, and is not launched. A launch counts as failed in the store
// from before it is made until the events that it was made for are handed over: so a launch that takes the service down with it is
// waited for like any other that failed.
#include <algorithm>

#include "platform/SystemLog.h"
#include "transfer/core/ServiceState.h"

namespace transfer {

void Service::Implementation::considerLaunches() {
  for (auto& [id, application] : applications_) considerLaunch(application);
}

void Service::Implementation::considerLaunch(Application& application) {
  const std::optional<double> due = launchDeadline(application);
  if (!due || *due > now() || storeWaits()) return;
  if (const std::optional<SessionKey> key = sessionToLaunchFor(application)) launch(application, *key);
}

/// When the application is to be launched; absent when it is not.
std::optional<double> Service::Implementation::launchDeadline(const Application& application) const {
  if (application.openConnections > 0 || application.launch || application.stored.launchCommand.empty()) return std::nullopt;
  if (!sessionToLaunchFor(application)) return std::nullopt;
  // A service that was just started has not heard of the applications that are running.
  const double reconnected = std::min(startedAt_, now()) + options_.reconnectTime;
  return std::max(reconnected, std::min(application.stored.nextLaunchAt, now() + launchWait(application)));
}

/// The one after the last, so that one session whose launches fail does not keep the others waiting for ever.
std::optional<Service::Implementation::SessionKey> Service::Implementation::sessionToLaunchFor(
    const Application& application) const {
  const ApplicationId id = application.stored.id;
  std::optional<SessionKey> first;
  for (auto each = sessions_.lower_bound({id, {}}); each != sessions_.end() && each->first.first == id; ++each) {
    const Session& session = each->second;
    if (std::ranges::all_of(session.events, &Event::isHanded) || !session.holders.empty()) continue;
    if (each->first.second > application.lastLaunched) return each->first;
    if (!first) first = each->first;
  }
  return first;
}

void Service::Implementation::launch(Application& application, const SessionKey& key) {
  ++application.stored.failedLaunches;
  application.stored.nextLaunchAt = now() + launchWait(application);
  application.lastLaunched = key.second;
  if (!saveLaunches(application)) {
    --application.stored.failedLaunches;
    application.stored.nextLaunchAt = now() + launchWait(application);
    application.launchesAreUnsaved = false;
    return;
  }
  step("launch-recorded");
  const Session& session = sessions_.at(key);
  const auto launched =
      launcher_.launch(application.stored.id, application.stored.launchCommand, key.second, trustAnchorsOf(session));
  if (launched) {
    application.launch = {.session = key.second, .lastEvent = session.lastEvent};
    step("launched");
    return;
  }
  platform::SystemLog::systemLog().log("The transfer service could not launch " + application.stored.launchCommand.front() + ": " +
                                       launched.error().localizedDescription());
  step("launch-failed");
}

/// Success: the events that the launch was made for are handed over.
void Service::Implementation::eventsWereHanded(const SessionKey& key, const Session& session) {
  Application& application = applications_.at(key.first);
  if (!application.launch || application.launch->session != key.second) return;
  if (!session.events.empty() && session.events.front().sequence <= application.launch->lastEvent) return;
  application.launch.reset();
  ++application.lingering;
  application.stored.failedLaunches = 0;
  application.stored.nextLaunchAt = 0;
  application.launchesAreUnsaved = true;
  saveLaunches(application);
}

void Service::Implementation::launchEnded(ApplicationId application, const std::string& session) {
  const auto found = applications_.find(application);
  if (found == applications_.end()) return;
  Application& ended = found->second;
  const bool isPresent = ended.launch && (session.empty() ? ended.lingering == 0 : ended.launch->session == session);
  if (!isPresent) {
    if (ended.lingering > 0) --ended.lingering;
    return;
  }
  ended.launch.reset();
  ended.stored.nextLaunchAt = now() + launchWait(ended);
  ended.launchesAreUnsaved = true;
  saveLaunches(ended);
  step("launch-failed");
  considerLaunches();
  noteIdleness();
}

bool Service::Implementation::saveLaunches(Application& application) {
  const StoredApplication& stored = application.stored;
  application.launchesAreUnsaved = true;
  if (storeWaits() || !isStored(store_.saveLaunches(stored.id, stored.failedLaunches, stored.nextLaunchAt))) return false;
  application.launchesAreUnsaved = false;
  return true;
}

std::optional<std::string> Service::Implementation::trustAnchorsOf(const Session& session) const {
  return session.tasks.empty() ? std::nullopt : tasks_.at(session.tasks.begin()->second).entry.trustAnchors;
}

}  // namespace transfer
