// The service's course: what happened goes in, everything that follows from it is done, and the next time to look is named.
#include "transfer/core/Service.h"

#include <algorithm>
#include <string>

#include "platform/SystemLog.h"
#include "transfer/core/ServiceState.h"

namespace transfer {

void Backoff::failed(double now) {
  wait_ = std::clamp(wait_ * 2, kFirstWait, kLongestWait);
  until_ = now + wait_;
}

void Backoff::correct(double now) {
  if (until_) until_ = dueAt(now);
}

Store::Result<> Service::Implementation::start() {
  const Store::Result<Contents> contents = store_.load();
  if (!contents) return std::unexpected(contents.error());
  load(*contents);
  startedAt_ = now();
  tick();
  return {};
}

void Service::Implementation::load(const Contents& contents) {
  std::map<SessionId, SessionKey> keys;
  for (const StoredApplication& stored : contents.applications) applications_[stored.id].stored = stored;
  for (const StoredSession& stored : contents.sessions) {
    const SessionKey key{stored.application, stored.identifier};
    keys[stored.id] = key;
    Session& session = sessions_[key];
    session.id = stored.id;
    session.isToEnd = session.isInvalidated = stored.isInvalidated;
  }
  for (const StoredTask& stored : contents.tasks) {
    const SessionKey& key = keys.at(stored.session);
    Task& task = keep(stored, key);
    // Each task that has ended had one event, also when that is forgotten by now: so the next number was never used.
    if (task.hasEnded()) ++sessions_.at(key).lastEvent;
    if (!task.hasEnded()) task.status.state = TaskStatus::State::kWaiting;
  }
  for (const StoredEvent& stored : contents.events)
    sessions_.at(keys.at(stored.session)).events.push_back({.sequence = stored.sequence, .task = stored.task});
}

Service::Implementation::Task& Service::Implementation::keep(const StoredTask& stored, const SessionKey& key) {
  Task& task = tasks_[stored.id];
  task.id = stored.id;
  task.session = key;
  task.entry = stored.entry;
  task.spoolName = stored.spoolName;
  task.hasLeftSpool = stored.hasLeftSpool;
  task.status = stored.status;
  task.resumedAt = std::min(stored.entry.resumedAt, now());
  bySpoolName_[stored.spoolName] = stored.id;
  sessions_.at(key).tasks[stored.entry.task] = stored.id;
  return task;
}

void Service::Implementation::tick() {
  correctTimes();
  refuseSilentOnes();
  if (storeBackoff_.isDue(now())) storeBackoff_.expire();
  settleEverything();
  if (!storeBackoff_.deadline(now())) storeBackoff_.succeeded();
}

void Service::Implementation::settleEverything() {
  importSpool();
  saveApplications();
  // In the order in which the tasks came, whatever their sessions are called.
  for (auto& [id, task] : tasks_) queueIfReady(task);
  std::vector<SessionKey> keys;
  for (const auto& [key, session] : sessions_) keys.push_back(key);
  for (const SessionKey& key : keys) settle(key);
  beginUploads();
  considerLaunches();
  noteIdleness();
}

// The clock may have gone back: no wait becomes longer than it was meant to be, and no task younger than new.
void Service::Implementation::correctTimes() {
  storeBackoff_.correct(now());
  spoolBackoff_.correct(now());
  for (auto& [id, task] : tasks_) {
    task.resumedAt = std::min(task.resumedAt, now());
    if (task.status.nextTryAt) task.status.nextTryAt = std::min(*task.status.nextTryAt, now() + retryWait(task.status.tries));
  }
  for (auto& [id, application] : applications_) {
    double& nextLaunchAt = application.stored.nextLaunchAt;
    nextLaunchAt = std::min(nextLaunchAt, now() + launchWait(application));
  }
  for (auto& [id, connection] : connections_) connection.openedAt = std::min(connection.openedAt, now());
  if (idleSince_) idleSince_ = std::min(*idleSince_, now());
  startedAt_ = std::min(startedAt_, now());
}

void Service::Implementation::storeFailed(const platform::Error& error) {
  storeBackoff_.failed(now());
  platform::SystemLog::systemLog().log("The transfer service could not write its store and tries again: " +
                                       error.localizedDescription());
}

bool Service::Implementation::isIdle() const {
  if (!connections_.empty() || storeBackoff_.deadline(now()) || spoolBackoff_.deadline(now())) return false;
  if (std::ranges::any_of(tasks_, [](const auto& entry) { return !entry.second.hasEnded(); })) return false;
  return std::ranges::none_of(applications_, [&](const auto& entry) {
    return entry.second.launch || (!entry.second.stored.launchCommand.empty() && sessionToLaunchFor(entry.second));
  });
}

void Service::Implementation::noteIdleness() {
  if (!isIdle()) {
    idleSince_.reset();
  } else if (!idleSince_) {
    idleSince_ = now();
  }
}

bool Service::Implementation::mayEnd() const { return idleSince_ && now() - *idleSince_ >= options_.idleTime; }

std::optional<platform::Date> Service::Implementation::nextDeadline() const {
  std::optional<double> earliest;
  const auto consider = [&earliest](std::optional<double> deadline) {
    if (deadline && (!earliest || *deadline < *earliest)) earliest = deadline;
  };
  consider(storeBackoff_.deadline(now()));
  for (const auto& [id, task] : tasks_) consider(deadlineOf(task));
  for (const auto& [id, connection] : connections_)
    if (connection.isSilent()) consider(std::min(connection.openedAt, now()) + options_.helloTime);
  // Nothing is taken in and nobody launched while the store takes nothing.
  if (!storeWaits()) {
    consider(spoolBackoff_.deadline(now()));
    for (const auto& [id, application] : applications_) consider(launchDeadline(application));
  }
  if (idleSince_ && !mayEnd()) consider(std::min(*idleSince_, now()) + options_.idleTime);
  if (!earliest) return std::nullopt;
  return platform::Date::dateWithTimeIntervalSince1970(*earliest);
}

Service::Service(Store& store, Uploads& uploads, Launcher& launcher, Connections& connections, Spool& spool, platform::Clock& clock,
                 platform::SecureRandom& random, ServiceOptions options)
    : implementation_(std::make_unique<Implementation>(store, uploads, launcher, connections, spool, clock, random, options)) {}
Service::~Service() = default;

Store::Result<> Service::start() { return implementation_->start(); }
void Service::connectionOpened(ConnectionId connection) { implementation_->connectionOpened(connection); }
void Service::messageArrived(ConnectionId connection, const Message& message) {
  implementation_->messageArrived(connection, message);
}
void Service::garbageArrived(ConnectionId connection, const std::string& reason) {
  implementation_->garbageArrived(connection, reason);
}
void Service::connectionClosed(ConnectionId connection) { implementation_->connectionClosed(connection); }
void Service::uploadProgressed(TaskId task, std::uint64_t bytesSent, std::uint64_t bytesExpected) {
  implementation_->uploadProgressed(task, bytesSent, bytesExpected);
}
void Service::uploadEnded(TaskId task, const UploadOutcome& outcome) { implementation_->uploadEnded(task, outcome); }
void Service::launchEnded(ApplicationId application, const std::string& session) {
  implementation_->launchEnded(application, session);
}
void Service::tick() { implementation_->tick(); }
std::optional<platform::Date> Service::nextDeadline() const { return implementation_->nextDeadline(); }
bool Service::mayEnd() const { return implementation_->mayEnd(); }

}  // namespace transfer
