// The counting wrappers around queues and URL loading.
#include "cli/Activity.h"

#include <utility>

#include "platform/JSONSerialization.h"

namespace cli {

using platform::DispatchQueue;
using platform::URLSession;
using platform::URLSessionTask;

Activity::Work::Work(std::shared_ptr<Activity> activity) : activity_(std::move(activity)) {
  const Lock lock(activity_->mutex_);
  ++activity_->work_;
}

Activity::Work::~Work() {
  const Lock lock(activity_->mutex_);
  --activity_->work_;
  activity_->changed_.notify_all();
}

void Activity::taskStarted(const std::shared_ptr<URLSessionTask>& task) {
  const Lock lock(mutex_);
  tasks_.insert(task);
}

void Activity::taskEnded(const std::shared_ptr<URLSessionTask>& task) {
  const Lock lock(mutex_);
  tasks_.erase(task);
  changed_.notify_all();
}

void Activity::posted(std::uint64_t records) {
  const Lock lock(mutex_);
  ++traffic_.requests;
  traffic_.posted += records;
}

void Activity::answered(std::uint64_t records, std::int64_t status, bool failed, bool challenged) {
  const Lock lock(mutex_);
  traffic_.lastWasDelivered = !failed && status < 400;
  if (traffic_.lastWasDelivered) traffic_.delivered += records;
  if (challenged && status == 401) ++traffic_.challenges;
}

Traffic Activity::traffic() const {
  const Lock lock(mutex_);
  return traffic_;
}

bool Activity::isIdle() const {
  const Lock lock(mutex_);
  return tasks_.empty() && work_ == 0;
}

void Activity::cancelTasks() {
  std::set<std::shared_ptr<URLSessionTask>> tasks;
  {
    const Lock lock(mutex_);
    cancelled_ = true;
    tasks = tasks_;
  }
  for (const auto& task : tasks) task->cancel();
}

void Activity::interrupt() {
  const Lock lock(mutex_);
  interrupted_ = true;
  changed_.notify_all();
}

bool Activity::interrupted() const {
  const Lock lock(mutex_);
  return interrupted_;
}

bool Activity::cancelled() const {
  const Lock lock(mutex_);
  return cancelled_;
}

bool Activity::waitUntilAtMost(std::uint64_t requests, std::uint64_t work, double limit, Interrupts interrupts) {
  Lock lock(mutex_);
  const auto reached = [&] { return tasks_.size() <= requests && work_ <= work; };
  const auto interruptedNow = [&] { return interrupts == Interrupts::kHeed && interrupted_; };
  changed_.wait_for(lock, std::chrono::duration<double>(limit), [&] { return reached() || interruptedNow(); });
  return reached() && !interruptedNow();
}

namespace {

class ObservedQueue final : public DispatchQueue {
 public:
  ObservedQueue(std::shared_ptr<DispatchQueue> queue, std::shared_ptr<Activity> activity)
      : queue_(std::move(queue)), activity_(std::move(activity)) {}

  void async(Block block) override {
    queue_->async([work = std::make_unique<Activity::Work>(activity_), block = std::move(block)]() mutable { block(); });
  }
  // Not counted: what only waits for a time limit must not keep the command waiting.
  void asyncAfter(double seconds, Block block) override { queue_->asyncAfter(seconds, std::move(block)); }
  const std::string& label() const override { return queue_->label(); }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  std::shared_ptr<Activity> activity_;
};

class ObservedQueues final : public platform::DispatchQueues {
 public:
  ObservedQueues(std::shared_ptr<DispatchQueues> queues, std::shared_ptr<Activity> activity)
      : queues_(std::move(queues)), activity_(std::move(activity)) {}

  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string_view label) override {
    return observed(queues_->makeSerialQueue(label));
  }
  std::shared_ptr<DispatchQueue> mainQueue() override { return observed(queues_->mainQueue()); }
  std::shared_ptr<DispatchQueue> globalBackgroundQueue() override { return observed(queues_->globalBackgroundQueue()); }
  void setMainExecutor(Executor executor) override { queues_->setMainExecutor(std::move(executor)); }

 private:
  std::shared_ptr<DispatchQueue> observed(std::shared_ptr<DispatchQueue> queue) {
    return std::make_shared<ObservedQueue>(std::move(queue), activity_);
  }
  std::shared_ptr<DispatchQueues> queues_;
  std::shared_ptr<Activity> activity_;
};

/// Number of records in the body of a post of events, 0 for any other request.
std::uint64_t recordsIn(const platform::URLRequest& request) {
  if (!request.URL() || request.URL()->path() != "/events" || !request.HTTPBody()) return 0;
  const auto body = platform::JSONSerialization::JSONObjectWithData(*request.HTTPBody());
  const auto data = body && body->isObject() ? body->objectForKey("data") : std::nullopt;
  return data && data->isArray() ? data->count() : 0;
}

/// Counts a task as under way from its start until its completion handler has returned.
class ObservedTask final : public URLSessionTask, public std::enable_shared_from_this<ObservedTask> {
 public:
  ObservedTask(std::shared_ptr<Activity> activity, std::uint64_t records) : activity_(std::move(activity)), records_(records) {}

  void wrap(std::shared_ptr<URLSessionTask> task) { task_ = std::move(task); }
  std::uint64_t taskIdentifier() const override { return task_->taskIdentifier(); }
  State state() const override { return task_->state(); }
  void resume() override {
    if (state() == State::kSuspended) {
      activity_->posted(records_);
      activity_->taskStarted(shared_from_this());
    }
    task_->resume();
    if (activity_->cancelled()) task_->cancel();
  }
  void cancel() override { task_->cancel(); }

  void completed(const platform::HTTPURLResponseRef& response, bool failed) {
    activity_->answered(records_, platform::statusCode(response), failed,
                        platform::headerField(response, "www-authenticate").has_value());
  }
  void handled() { activity_->taskEnded(shared_from_this()); }

 private:
  std::shared_ptr<Activity> activity_;
  std::uint64_t records_;
  std::shared_ptr<URLSessionTask> task_;
};

class ObservedURLSession final : public URLSession {
 public:
  ObservedURLSession(std::shared_ptr<URLSession> session, std::shared_ptr<Activity> activity)
      : session_(std::move(session)), activity_(std::move(activity)) {}

  std::shared_ptr<URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                       CompletionHandler handler) override {
    auto observed = std::make_shared<ObservedTask>(activity_, recordsIn(request));
    observed->wrap(session_->dataTaskWithRequestCompletionHandler(
        std::move(request),
        [observed, handler = std::move(handler)](std::optional<platform::Data> data, platform::HTTPURLResponseRef response,
                                                 std::optional<platform::Error> error) mutable {
          observed->completed(response, error.has_value());
          handler(std::move(data), std::move(response), std::move(error));
          handler = nullptr;
          observed->handled();
        }));
    return observed;
  }

 private:
  std::shared_ptr<URLSession> session_;
  std::shared_ptr<Activity> activity_;
};

}  // namespace

std::shared_ptr<platform::DispatchQueues> observe(std::shared_ptr<platform::DispatchQueues> queues,
                                                  std::shared_ptr<Activity> activity) {
  return std::make_shared<ObservedQueues>(std::move(queues), std::move(activity));
}

std::shared_ptr<URLSession> observe(std::shared_ptr<URLSession> session, std::shared_ptr<Activity> activity) {
  return std::make_shared<ObservedURLSession>(std::move(session), std::move(activity));
}

}  // namespace cli
