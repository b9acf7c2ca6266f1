// URL loading by hand.
#include "support/ScriptedURLSession.h"

#include <mutex>
#include <stdexcept>
#include <string>

#include "platform/Exception.h"
#include "platform/linux/HTTPRules.h"

namespace test {

using platform::Data;
using platform::Error;
using platform::HTTPURLResponseRef;

struct ScriptedURLSession::Shared {
  std::shared_ptr<platform::DispatchQueue> completionQueue;
  std::mutex mutex;
  bool closed = false;
  std::vector<std::shared_ptr<Task>> running;
  std::vector<platform::URLRequest> requests;
};

ScriptedURLSession::Task::Task(std::uint64_t identifier, platform::URLRequest request, CompletionHandler handler,
                               std::shared_ptr<Shared> shared)
    : identifier_(identifier), request_(std::move(request)), handler_(std::move(handler)), shared_(std::move(shared)) {}

void ScriptedURLSession::Task::resume() {
  State expected = State::kSuspended;
  if (!state_.compare_exchange_strong(expected, State::kRunning)) return;
  if (const std::optional<Error> refusal = platform::refusalOfRequest(request_)) {
    end(std::nullopt, nullptr, refusal);
    return;
  }
  std::lock_guard lock(shared_->mutex);
  if (shared_->closed) return;
  shared_->requests.push_back(request_);
  if (state_ == State::kRunning) shared_->running.push_back(shared_from_this());
}

void ScriptedURLSession::Task::cancel() {
  State expected = State::kSuspended;
  if (state_.compare_exchange_strong(expected, State::kCanceling) ||
      (expected == State::kRunning && state_.compare_exchange_strong(expected, State::kCanceling)))
    complete(std::nullopt, nullptr, platform::urlError(platform::kURLErrorCancelled));
}

bool ScriptedURLSession::Task::answer(std::int64_t status, Fields fields, std::string_view body) {
  platform::HTTPHeaderFields joined;
  for (const auto& [name, value] : fields) joined.addValueForField(value, name, ", ");
  return end(Data(body), std::make_shared<platform::HTTPURLResponse>(*request_.URL(), status, joined), std::nullopt);
}

bool ScriptedURLSession::Task::fail(std::int64_t code) {
  const std::string host = request_.URL() ? request_.URL()->host().value_or("") : "";
  return end(std::nullopt, nullptr, platform::urlError(code, host));
}

bool ScriptedURLSession::Task::end(std::optional<Data> data, HTTPURLResponseRef response, std::optional<Error> error) {
  State expected = State::kRunning;
  if (!state_.compare_exchange_strong(expected, State::kCompleted)) return false;
  complete(std::move(data), std::move(response), std::move(error));
  return true;
}

void ScriptedURLSession::Task::complete(std::optional<Data> data, HTTPURLResponseRef response, std::optional<Error> error) {
  state_ = State::kCompleted;
  const std::shared_ptr<Task> self = shared_from_this();  // the list may hold the last reference
  {
    std::lock_guard lock(shared_->mutex);
    std::erase(shared_->running, self);
  }
  shared_->completionQueue->async(
      [self, data = std::move(data), response = std::move(response), error = std::move(error)]() mutable {
        CompletionHandler handler = std::move(self->handler_);
        if (!handler)
          throw platform::Exception(platform::kInvalidArgumentException, "The completion handler of a data task is absent");
        handler(std::move(data), std::move(response), std::move(error));
      });
}

ScriptedURLSession::ScriptedURLSession(platform::DispatchQueues& queues) : shared_(std::make_shared<Shared>()) {
  shared_->completionQueue = queues.makeSerialQueue(kQueueLabel);
}

ScriptedURLSession::~ScriptedURLSession() {
  std::vector<std::shared_ptr<Task>> dropped;
  std::lock_guard lock(shared_->mutex);
  shared_->closed = true;
  dropped.swap(shared_->running);
}

std::shared_ptr<platform::URLSessionTask> ScriptedURLSession::dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                                   CompletionHandler handler) {
  return std::make_shared<Task>(++lastIdentifier_, std::move(request), std::move(handler), shared_);
}

std::vector<std::shared_ptr<ScriptedURLSession::Task>> ScriptedURLSession::pending() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->running;
}

std::shared_ptr<ScriptedURLSession::Task> ScriptedURLSession::next() const {
  std::lock_guard lock(shared_->mutex);
  if (shared_->running.empty()) throw std::logic_error("No task waits for an answer");
  return shared_->running.front();
}

std::vector<platform::URLRequest> ScriptedURLSession::requests() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->requests;
}

}  // namespace test
