// Sessions: who holds them, what is handed over to whom, and when they are forgotten.
#include <algorithm>

#include "transfer/core/ServiceState.h"

namespace transfer {

/// Does all that is due for a session now; it may be forgotten at the end.
void Service::Implementation::settle(const SessionKey& key) {
  const auto found = sessions_.find(key);
  if (found == sessions_.end()) return;
  Session& session = found->second;
  settleInvalidation(session);
  settleTasks(session);
  storeHanded(key, session);
  sendEvents(key, session);
  sendDelivered(key, session);
  eventsWereHanded(key, session);
  forgetIfOver(key);
}

void Service::Implementation::settleTasks(Session& session) {
  for (const auto& [number, id] : session.tasks) {
    Task& task = tasks_.at(id);
    if (task.hasEnded() && task.hasLeftSpool) continue;
    if (!task.hasLeftSpool && !storeWaits() && !leaveSpool(task) && !spoolBackoff_.waits(now())) spoolBackoff_.failed(now());
    endIfTimedOut(task);
    storeEnd(task);
    saveTries(task);
    queueIfReady(task);
  }
}

void Service::Implementation::settleInvalidation(Session& session) {
  if (!session.isToEnd || !session.id) return;
  if (!session.isInvalidated) {
    if (storeWaits() || !isStored(store_.saveInvalidated(*session.id))) return;
    session.isInvalidated = true;
    step("invalidated");
  }
  cancelTasks(session);
}

void Service::Implementation::cancelTasks(Session& session) {
  for (const auto& [number, id] : session.tasks) {
    Task& task = tasks_.at(id);
    if (task.isOpen()) end(task, platform::urlError(platform::kURLErrorCancelled));
  }
}

/// The first process that holds a session gets its events until it is gone; then the one that has been connected the longest.
void Service::Implementation::chooseHolder(Session& session) {
  if (session.holder || session.holders.empty()) return;
  const auto earliest =
      std::ranges::min_element(session.holders, {}, [&](const auto& holder) { return connections_.at(holder.first).order; });
  session.holder = earliest->first;
  for (Event& event : session.events) event.isSent = false;
  const auto isWaiting = [](const Event& event) { return !event.isHanded; };
  session.owesDelivered = earliest->second.wasLaunchedForIt || std::ranges::any_of(session.events, isWaiting);
  session.deliveredAt = session.lastEvent;
}

void Service::Implementation::letGo(ConnectionId connection, const SessionKey& key) {
  Session& session = sessions_.at(key);
  session.holders.erase(connection);
  session.invalidators.erase(connection);
  if (session.holder == connection) {
    session.holder.reset();
    session.owesDelivered = false;
    chooseHolder(session);
  }
  settle(key);
}

void Service::Implementation::sendEvents(const SessionKey& key, Session& session) {
  if (!session.holder) return;
  for (Event& event : session.events) {
    if (event.isSent || event.isHanded) continue;
    event.isSent = true;
    wire_.send(*session.holder, TaskEvent{.session = key.second, .event = event.sequence, .task = event.task});
    step("event-sent");
  }
}

void Service::Implementation::storeHanded(const SessionKey& key, Session& session) {
  for (auto event = session.events.begin(); event != session.events.end();) {
    if (!event->isHanded) {
      ++event;
      continue;
    }
    if (storeWaits() || !isStored(store_.removeEvent(*session.id, event->sequence))) return;
    event = session.events.erase(event);
    step("handed");
    // An application that hands over is well again, whichever of its processes does it.
    Application& application = applications_.at(key.first);
    if (!application.launch && application.stored.failedLaunches != 0) {
      application.stored.failedLaunches = 0;
      application.stored.nextLaunchAt = 0;
      application.launchesAreUnsaved = true;
      saveLaunches(application);
    }
  }
}

void Service::Implementation::sendDelivered(const SessionKey& key, Session& session) {
  if (!session.holder || !session.owesDelivered) return;
  if (!session.events.empty() && session.events.front().sequence <= session.deliveredAt) return;
  session.owesDelivered = false;
  wire_.send(*session.holder, EventsDelivered{.session = key.second});
  step("delivered");
}

/// Every task has ended, every event is handed over, and no file in the spool folder speaks of it.
bool Service::Implementation::isOver(const Session& session) const {
  return session.events.empty() && std::ranges::all_of(session.tasks, [&](const auto& entry) {
           const Task& task = tasks_.at(entry.second);
           return task.hasEnded() && task.hasLeftSpool;
         });
}

void Service::Implementation::forgetIfOver(const SessionKey& key) {
  Session& session = sessions_.at(key);
  if (!isOver(session) || (!session.holders.empty() && !session.isToEnd)) return;
  if (session.id) {
    if (storeWaits() || !isStored(store_.removeSession(*session.id))) return;
    step("forgotten");
  }
  forget(key, session);
}

void Service::Implementation::forget(const SessionKey& key, Session& session) {
  for (const auto& [number, id] : session.tasks) {
    bySpoolName_.erase(tasks_.at(id).spoolName);
    tasks_.erase(id);
  }
  tellInvalidated(key, session);
  // A process that made the session again while the old one was ending holds the new one. The one that got the events of the old
  // one has heard that they are delivered.
  Session next;
  for (const auto& [connection, holder] : session.holders)
    if (!session.isToEnd || holder.holdsAgain)
      next.holders[connection] = {.wasLaunchedForIt = holder.wasLaunchedForIt && connection != session.holder};
  if (next.holders.empty()) {
    sessions_.erase(key);
    return;
  }
  session = std::move(next);
  chooseHolder(session);
  sendDelivered(key, session);
}

void Service::Implementation::tellInvalidated(const SessionKey& key, Session& session) {
  if (!session.isToEnd) return;
  for (const auto& [connection, holder] : session.holders) session.invalidators.insert(connection);
  for (const ConnectionId connection : session.invalidators) wire_.send(connection, Invalidated{.session = key.second});
}

}  // namespace transfer
