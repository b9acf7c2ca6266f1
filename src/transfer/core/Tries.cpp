// Uploads: which begins, what follows from the outcome of a try, and when the next one is due.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "transfer/core/ServiceState.h"

namespace transfer {
namespace {

double doubled(double first, std::uint64_t times, double longest) {
  constexpr std::uint64_t kMostDoublings = 60;
  return std::min(longest, std::ldexp(first, static_cast<int>(std::min(times, kMostDoublings))));
}

}  // namespace

void Service::Implementation::queueIfReady(Task& task) {
  if (!task.isOpen() || !task.hasLeftSpool || task.isRunning() || task.isQueued) return;
  if (task.status.nextTryAt && *task.status.nextTryAt > now()) return;
  task.isQueued = true;
  queue_.push_back(task.id);
}

void Service::Implementation::beginUploads() {
  while (running_ < options_.maxUploadsAtOnce && !queue_.empty()) {
    const auto next = tasks_.find(queue_.front());
    queue_.pop_front();
    if (next == tasks_.end()) continue;
    next->second.isQueued = false;
    if (next->second.isOpen()) begin(next->second);
  }
}

void Service::Implementation::begin(Task& task) {
  ++running_;
  ++task.status.tries;
  task.status.state = TaskStatus::State::kRunning;
  task.status.bytesSent = 0;
  task.status.nextTryAt.reset();
  uploads_.start(task.id, task.entry);
  step("began");
}

void Service::Implementation::uploadProgressed(TaskId task, std::uint64_t bytesSent, std::uint64_t bytesExpected) {
  const auto found = tasks_.find(task);
  if (found == tasks_.end() || !found->second.isRunning()) return;
  found->second.status.bytesSent = bytesSent;
  if (bytesExpected != 0) found->second.status.bytesExpected = bytesExpected;
}

void Service::Implementation::uploadEnded(TaskId task, const UploadOutcome& outcome) {
  const auto found = tasks_.find(task);
  if (found == tasks_.end() || !found->second.isRunning()) return;
  const SessionKey key = found->second.session;
  endTry(found->second, outcome);
  settle(key);
  beginUploads();
  considerLaunches();
  noteIdleness();
}

void Service::Implementation::endTry(Task& task, const UploadOutcome& outcome) {
  step("try-ended");
  --running_;
  task.status.state = TaskStatus::State::kWaiting;
  task.status.bytesSent = outcome.bytesSent;
  if (outcome.bytesExpected != 0) task.status.bytesExpected = outcome.bytesExpected;
  if (outcome.error && outcome.mayBeTriedAgain) return tryFailed(task, *outcome.error);
  task.status.statusCode = outcome.error ? 0 : outcome.statusCode;
  end(task, outcome.error);
}

void Service::Implementation::tryFailed(Task& task, const platform::Error& error) {
  task.status.error = error;
  task.status.nextTryAt = now() + jittered(retryWait(task.status.tries));
  task.isUnsaved = true;
}

void Service::Implementation::saveTries(Task& task) {
  if (!task.isUnsaved || !task.isOpen() || task.isRunning() || storeWaits()) return;
  if (!isStored(store_.saveTask(task.id, task.status))) return;
  task.isUnsaved = false;
  step("try-failed");
}

/// The task has ended; the world hears of it once the store knows.
void Service::Implementation::end(Task& task, std::optional<platform::Error> error) {
  if (task.isRunning()) {
    uploads_.stop(task.id);
    --running_;
    task.status.state = TaskStatus::State::kWaiting;
  }
  task.end = task.status;
  task.end->state = TaskStatus::State::kCompleted;
  task.end->error = std::move(error);
  task.end->nextTryAt.reset();
  // What is shown of it until then: it waits, for the store.
  task.status.nextTryAt.reset();
}

void Service::Implementation::storeEnd(Task& task) {
  if (!task.end || storeWaits()) return;
  Session& session = sessions_.at(task.session);
  const std::uint64_t sequence = session.lastEvent + 1;
  if (!isStored(store_.endTask(task.id, *task.end, sequence))) return;
  session.lastEvent = sequence;
  session.events.push_back({.sequence = sequence, .task = *task.end});
  task.status = *std::exchange(task.end, std::nullopt);
  step("ended");
}

void Service::Implementation::endIfTimedOut(Task& task) {
  if (task.isOpen() && now() - task.resumedAt >= options_.resourceTimeout)
    end(task, platform::urlError(platform::kURLErrorTimedOut));
}

double Service::Implementation::retryWait(std::uint64_t tries) const {
  return doubled(options_.firstRetryWait, tries == 0 ? 0 : tries - 1, options_.longestRetryWait);
}

/// Between half of the wait and all of it, so that tasks that failed together do not come back together.
double Service::Implementation::jittered(double wait) {
  std::array<std::byte, sizeof(std::uint32_t)> bytes{};
  random_.fill(bytes);
  std::uint32_t drawn = 0;
  std::memcpy(&drawn, bytes.data(), bytes.size());
  return wait / 2 + wait / 2 * (static_cast<double>(drawn) / static_cast<double>(UINT32_MAX));
}

double Service::Implementation::launchWait(const Application& application) const {
  const std::uint64_t failed = application.stored.failedLaunches;
  return failed == 0 ? 0 : doubled(options_.firstLaunchWait, failed - 1, options_.longestLaunchWait);
}

std::optional<double> Service::Implementation::deadlineOf(const Task& task) const {
  if (!task.isOpen()) return std::nullopt;
  const double timeOut = std::min(task.resumedAt, now()) + options_.resourceTimeout;
  if (task.isRunning() || task.isQueued || !task.hasLeftSpool || !task.status.nextTryAt) return timeOut;
  return std::min({timeOut, *task.status.nextTryAt, now() + retryWait(task.status.tries)});
}

}  // namespace transfer
