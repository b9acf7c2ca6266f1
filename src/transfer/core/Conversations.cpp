// What applications say over their connections, and what they are answered.
#include <algorithm>

#include "transfer/core/ServiceState.h"

namespace transfer {

void Service::Implementation::connectionOpened(ConnectionId connection) {
  Connection& opened = connections_[connection];
  opened.order = ++connectionsSoFar_;
  opened.openedAt = now();
  noteIdleness();
}

void Service::Implementation::connectionClosed(ConnectionId connection) {
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  const std::optional<ApplicationId> application = found->second.application;
  if (application) {
    std::vector<SessionKey> keys;
    for (const auto& [key, session] : sessions_)
      if (session.holders.contains(connection) || session.invalidators.contains(connection)) keys.push_back(key);
    for (const SessionKey& key : keys) letGo(connection, key);
    --applications_.at(*application).openConnections;
  }
  connections_.erase(connection);
  beginUploads();
  considerLaunches();
  noteIdleness();
}

void Service::Implementation::garbageArrived(ConnectionId connection, const std::string& reason) {
  if (connections_.contains(connection)) refuse(connection, reason);
}

void Service::Implementation::messageArrived(ConnectionId connection, const Message& message) {
  const auto found = connections_.find(connection);
  if (found == connections_.end() || found->second.isRefused) return;
  if (!found->second.application && !std::holds_alternative<Hello>(message))
    return refuse(connection, "the first message must be hello");
  std::visit([&](const auto& each) { answer(connection, each); }, message);
  beginUploads();
  considerLaunches();
  noteIdleness();
}

/// The connection is closed; what its process holds stays held until it is.
void Service::Implementation::refuse(ConnectionId connection, const std::string& reason) {
  if (connections_.at(connection).isRefused) return;
  wire_.send(connection, Refused{.reason = reason});
  turnAway(connection);
}

/// Without a reason: the application comes back soon, as to a service that has just died.
void Service::Implementation::turnAway(ConnectionId connection) {
  connections_.at(connection).isRefused = true;
  wire_.close(connection);
}

/// A connection takes room and keeps the service from ending, so one that does not say whose it is goes.
void Service::Implementation::refuseSilentOnes() {
  for (const auto& [id, connection] : connections_)
    if (connection.isSilent() && now() - connection.openedAt >= options_.helloTime) refuse(id, "hello did not come in time");
}

void Service::Implementation::answer(ConnectionId connection, const Hello& hello) {
  if (connections_.at(connection).application) return refuse(connection, "hello came twice");
  if (hello.version != kProtocolVersion) {
    return refuse(connection, "the service speaks version " + std::to_string(kProtocolVersion) + ", not version " +
                                  std::to_string(hello.version));
  }
  if (const std::optional<std::string> refusal = refusalOf(hello.application)) return refuse(connection, *refusal);
  Application* const application = applicationFor(hello.application, hello.leavesLaunchCommand ? nullptr : &hello.launchCommand);
  if (!application) return turnAway(connection);  // the store can take a newcomer when the disk has room again
  connections_.at(connection).application = application->stored.id;
  ++application->openConnections;
  wire_.send(connection, Welcome{});
}

void Service::Implementation::answer(ConnectionId connection, const Hold& hold) {
  importSpool();
  const SessionKey key = keyOf(connection, hold.session);
  Session& session = sessions_[key];
  const auto [holder, isNew] = session.holders.try_emplace(connection);
  holder->second.wasLaunchedForIt = hold.wasLaunchedForIt;
  holder->second.holdsAgain = session.isToEnd;
  wire_.send(connection, SessionTasks{.request = 0, .session = hold.session, .tasks = tasksOf(key)});
  if (isNew) chooseHolder(session);
  settle(key);
}

void Service::Implementation::answer(ConnectionId connection, const GetTasks& getTasks) {
  importSpool();
  const SessionKey key = keyOf(connection, getTasks.session);
  wire_.send(connection, SessionTasks{.request = getTasks.request, .session = getTasks.session, .tasks = tasksOf(key)});
}

void Service::Implementation::answer(ConnectionId /*connection*/, const Wake& /*wake*/) { importSpool(); }

void Service::Implementation::answer(ConnectionId connection, const Handed& handed) {
  const SessionKey key = keyOf(connection, handed.session);
  const auto session = sessions_.find(key);
  if (session == sessions_.end()) return;
  const auto event = std::ranges::find(session->second.events, handed.event, &Event::sequence);
  if (event == session->second.events.end()) return;
  event->isHanded = true;
  settle(key);
}

void Service::Implementation::answer(ConnectionId connection, const Invalidate& invalidate) {
  importSpool();
  const SessionKey key = keyOf(connection, invalidate.session);
  Session& session = sessions_[key];
  session.isToEnd = true;
  session.invalidators.insert(connection);
  settle(key);
}

void Service::Implementation::answer(ConnectionId connection, const Cancel& cancel) {
  importSpool();
  const SessionKey key = keyOf(connection, cancel.session);
  const auto session = sessions_.find(key);
  if (session == sessions_.end()) return;
  cancelTasks(session->second);
  settle(key);
}

void Service::Implementation::answer(ConnectionId connection, const List& list) {
  importSpool();
  const ApplicationId application = *connections_.at(connection).application;
  for (auto each = sessions_.lower_bound({application, {}}); each != sessions_.end() && each->first.first == application; ++each) {
    if (!each->second.id) continue;
    wire_.send(connection, SessionTasks{.request = list.request, .session = each->first.second, .tasks = tasksOf(each->first)});
  }
  wire_.send(connection, Listed{.request = list.request});
}

std::vector<TaskStatus> Service::Implementation::tasksOf(const SessionKey& key) const {
  std::vector<TaskStatus> tasks;
  const auto session = sessions_.find(key);
  if (session == sessions_.end()) return tasks;
  for (const auto& [number, id] : session->second.tasks) tasks.push_back(tasks_.at(id).status);
  return tasks;
}

}  // namespace transfer
